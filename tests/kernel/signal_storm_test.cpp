// A storm of signals on threads that lock, allocate, print and raise, while handlers are put back and
// set anew: no deadlock, no request to stop is lost, and each reaches every thread's cleanup record once.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <array>
#include <atomic>
#include <csetjmp>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr int request_count = 20;
constexpr int interrupted = 4;
constexpr std::array counted_signals{SIGUSR1, SIGUSR2, SIGALRM};

std::atomic<bool> stop{false};
std::atomic<int> handled{0};
std::atomic<std::size_t> armed{0}; // threads that have a record: without one a raise ends a thread
vlthread_mutex_t shared_mutex = VLTHREAD_MUTEX_INITIALIZER;
stg_area *shared_area = STG_AREA_NULL;

// How often a thread's record was tripped.
using Trips = std::atomic<int>;
std::array<Trips, 5> all_trips; // the first is the attached thread's

void work_once()
{
    vlthread_mutex_lock(&shared_mutex);
    (void)stg_alloc(shared_area, 16);
    imsg_print(0, &_imsg_ks_msg_table, 14); // under a lock no raise comes
    vlthread_mutex_unlock(&shared_mutex);
    imsg_print(4, &_ks_ks_msg_table, 23); // here one may
    pfm_test_raise(nullptr);
}

// Works until the end; every raise goes to the record and the work goes on.
void work_protected(Trips &trips)
{
    pfm_cleanup_rec record = {};
    record.status = sigsetjmp(record.jump, 1);
    if (pfm_cleanup_start(&record, 0) != 0) {
        ++trips;
        pfm_cleanup_reset(&record);
    } else {
        ++armed;
    }
    while (!stop)
        work_once();
    pfm_cleanup_rls(&record);
}

void count_handled(int)
{
    ++handled;
}

// Stops the process when the delivery of a signal has begun: the signal-handler thread takes `sig`
// before it stops. Who comes first when the process goes on is open.
pfm_signal_t change_in_delivery(int sig, pfm_signal_t handler)
{
    kill(getpid(), sig);
    kill(getpid(), SIGSTOP);
    return pfm_signal(sig, handler);
}

// Sets handlers and puts back what was there. No raise comes to such a thread.
void change_handlers()
{
    while (!stop) {
        const pfm_signal_t before = pfm_signal(SIGCHLD, count_handled);
        EXPECT_EQ(before, SIG_DFL);
        (void)change_in_delivery(SIGCHLD, before);
        for (const int sig : counted_signals) {
            const pfm_signal_t counting = change_in_delivery(sig, SIG_IGN);
            EXPECT_EQ(counting, static_cast<pfm_signal_t>(count_handled));
            (void)pfm_signal(sig, counting);
        }
    }
}

bool have_all_tripped(int times)
{
    for (const Trips &trips : all_trips)
        if (trips != times)
            return false;
    return true;
}

// Answers each request with a "." on descriptor 2 once every thread has met it.
void answer_requests()
{
    pfm_cleanup_rec record = {};
    record.status = sigsetjmp(record.jump, 1);
    if (const int32_t status = pfm_cleanup_start(&record, 0); status != 0) {
        all_trips[0] += status == interrupted ? 1 : 1000;
        pfm_cleanup_reset(&record);
    }
    while (armed != all_trips.size() - 1 || !have_all_tripped(all_trips[0]))
        sched_yield();
    (void)!write(3, ".", 1);
    while (all_trips[0] < request_count) {
        timeval second = {1, 0};
        pfm_inhibit();
        (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, &second);
        pfm_enable();
    }
    pfm_cleanup_rls(&record);
}

int live_through_storm()
{
    dup2(STDERR_FILENO, 3); // what the answers go to
    const int quiet = open("/dev/null", O_WRONLY);
    dup2(quiet, STDOUT_FILENO);
    dup2(quiet, STDERR_FILENO);
    ks_system_init();
    for (const int sig : counted_signals)
        pfm_signal(sig, count_handled);
    shared_area = stg_create_area(65536);
    std::array<std::thread, all_trips.size() - 1> threads;
    for (std::size_t i = 0; i < threads.size(); ++i)
        threads[i] = std::thread(work_protected, std::ref(all_trips[i + 1]));
    std::thread changer(change_handlers);
    answer_requests();
    stop = true;
    changer.join();
    for (std::thread &thread : threads)
        thread.join();
    stg_delete_area(&shared_area);
    return have_all_tripped(request_count) && handled > 0 ? 0 : 1;
}

TEST(SignalStorm, EveryRequestReachesEveryRecordOnce)
{
    test::Child child(live_through_storm);
    const std::jthread continuer([&child](const std::stop_token &end) {
        while (!end.stop_requested()) {
            kill(child.pid(), SIGCONT);
            usleep(50);
        }
    });
    std::string answers;
    for (int request = 0; request < request_count; ++request) {
        answers += ".";
        ASSERT_TRUE(child.wait_for_output(answers)) << "request " << request << " is not answered";
        for (int i = 0; i < 25; ++i)
            for (const int sig : counted_signals)
                kill(child.pid(), sig);
        kill(child.pid(), SIGINT);
    }
    const test::ChildResult result = child.finish();
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

} // namespace
