// The thread layer and the fault manager under failing calls, and their delivery checks.
#include "harness/fault_sweep.h"

#include "kernel/ks_guard.h"

#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *no_fault_block = " (pfm): [P#][T#]Unable to set PFM TLS #\n";
constexpr const char *no_area = "area != STG_AREA_NULL at 'vlthread':1670\n";
constexpr const char *no_pipe =
    "PFM_ASSERT:(pfm_setup_pipe(pfm_notify_pipe, FALSE, FALSE) == 0) failed: 'lib/ks/pfm':1859\n";
constexpr const char *no_entry =
    "PFM_ASSERT:((new = (struct on_exit_entry *)malloc(sizeof(struct on_exit_entry))) != NULL) failed: "
    "'lib/ks/pfm':801\n";

// Calls that give an error number: it becomes the errno that the harness looks at.
bool is_done(int error_number)
{
    errno = error_number;
    return error_number == 0;
}

// --- Thread layer ---

vlthread_t thread{};
std::atomic<bool> is_released{false};
int runs_of_thread = 0;

void *start_of_thread(void *argument)
{
    while (!is_released) // so that its calls come after the creator's
        (void)sched_yield();
    ++runs_of_thread;
    return argument;
}

TEST(FaultThreads, CreationAndHandlers)
{
    void *value = nullptr;
    Operation("vlthread_create, vlthread_join")
        .setup([] {
            runs_of_thread = 0;
            is_released = false;
        })
        .act([&] {
            const int error = vlthread_create(&thread, nullptr, start_of_thread, &thread);
            is_released = true;
            return is_done(error) && is_done(vlthread_join(thread, &value));
        })
        .gives([&] { return runs_of_thread == 1 && value == &thread; })
        .keeps([](const Trial &trial) {
            return runs_of_thread == 0 && (trial.error == trial.plan.answer || trial.error == EAGAIN);
        })
        .ends({{Call::allocation, ""}, {Call::allocation, no_fault_block}, {Call::key, no_fault_block}})
        .sweep();
    long blocks_kept = 0;
    Operation("vlthread_atfork")
        .act([&] {
            blocks_kept = -test::fault::blocks_outstanding();
            const int error = vlthread_atfork([](int) {}, [](int) {}, [](int) {});
            blocks_kept += test::fault::blocks_outstanding();
            return is_done(error);
        })
        .gives([&] { return blocks_kept == 3 || !test::fault::can_fail_allocations(); })
        .keeps([&] { return blocks_kept == 0; })
        .sets_errno()
        .sweep_first_use();
}

vlthread_mutex_t mutex;

TEST(FaultThreads, MutexesKeysAndBlocks)
{
    Operation("vlthread_mutex_init")
        .act([] { return is_done(vlthread_mutex_init(&mutex)); })
        .cleanup([] { (void)vlthread_mutex_destroy(&mutex); })
        .notices()
        .sets_errno()
        .sweep();
    Operation("vlthread_key_create, vlthread_set_tls")
        .act([] {
            vlthread_key_t key;
            if (!is_done(vlthread_key_create(&key, nullptr)))
                return false;
            const int error = vlthread_set_tls(key, &mutex);
            (void)vlthread_key_delete(key);
            return is_done(error);
        })
        .notices()
        .sets_errno()
        .sweep();
    void *block = nullptr;
    Operation("vlthread_alloc_tls")
        .act([&] { return (block = vlthread_alloc_tls(200)) != nullptr; })
        .cleanup([&] { vlthread_free_tls(block); })
        .notices()
        .ends({{Call::allocation, no_area}})
        .sweep();
    Operation("ks_tls_get")
        .act([] { (void)ks_tls_get(); })
        .ends({{Call::allocation, "***ABORT***  'include/tls_impl':140\n"},
               {Call::key, "***ABORT***  'include/tls_impl':140\n"},
               {Call::allocation, no_area}})
        .sweep_first_use();
}

TEST(FaultThreads, SleepAndCriticalSection)
{
    Operation("vlthread_sleep").act([] { (void)vlthread_sleep(2); }).sweep();
    Operation("vlthread_enter_critical_section")
        .act([] {
            vlthread_enter_critical_section();
            vlthread_enter_critical_section();
            vlthread_leave_critical_section();
            vlthread_leave_critical_section();
        })
        .gives([] { return vlthread_attached_tid() == 0; })
        .cleanup([] { (void)vlthread_try_attach_lib(); })
        .sweep()
        .sweep_first_use();
}

// --- Start and end of the fault manager ---

TEST(FaultManager, Start)
{
    Operation("pfm_init").act([] { pfm_init(); }).ends({{Call::pipe, no_pipe}}).sweep_first_use();
    Operation("ks_system_init")
        .act([] { (void)ks_system_init(); })
        .gives([] { return vlthread_try_attach_lib() == 0; })
        .sweep_first_use();
}

TEST(FaultManager, ExitAndNewStart)
{
    Operation("pfm_on_exit")
        .setup([] {
            pfm_init();
            // Answered only by a signal-handler thread that has started.
            pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
            pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        })
        .act([] { pfm_on_exit([](int, void *) {}, nullptr); })
        .ends({{Call::allocation, no_entry}})
        .sweep_first_use();
    static int exit_status;
    static int on_exit_status;
    Operation("pfm_on_exit, pfm_exit")
        .setup([] { exit_status = on_exit_status = 0; })
        .act([] {
            pfm_init();
            (void)pfm_set_exit([](int status) { exit_status = status; });
            pfm_on_exit([](int status, void *) { on_exit_status += status; }, nullptr);
            pfm_exit(7);
        })
        .gives([] { return exit_status == 7 && on_exit_status == 7; })
        .ends({{Call::allocation, no_entry, true}}) // the starting thread allocates meanwhile
        .sweep_first_use();
}

// --- Notification and waiting ---

// What the failure of the notice is reported with, unless the report cannot be written either.
bool is_reported(const Trial &trial)
{
    if (trial.failed(Call::write) && trial.plan.goes_on)
        return true;
    if (trial.plan.answer == test::fault::answer_short)
        return has_said("Warning: Notify send failed, 2 of 4 bytes sent.\n");
    char text[256];
    std::snprintf(text, sizeof text, "Warning: Notify send failed, error %d (%s)\n", trial.plan.answer,
                  strerror(trial.plan.answer));
    return has_said(text);
}

TEST(FaultManager, Notice)
{
    Operation("pfm_notify_vl_thread")
        .act([] { pfm_notify_vl_thread(4); })
        .gives(
            [](const Trial &trial) { return test::fault::take_raise() == 4 && (!trial.fired || is_reported(trial)); })
        .sweep();
}

TEST(FaultManager, InterruptibleWait)
{
    int result = 0;
    Operation("pfm_select_inhibited")
        .act([&] {
            timeval none{0, 0};
            pfm_inhibit();
            result = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &none);
            const int error = errno;
            pfm_enable();
            errno = error;
        })
        .gives([&](const Trial &trial) {
            if (trial.failed(Call::select))
                return result == -1 && trial.error == trial.plan.answer;
            return trial.fired || result == 0;
        })
        .sweep()
        .sweep_raises();
    Operation("pfm_poll_inhibited of 40 entries")
        .act([&] {
            std::array<pollfd, 40> fds;
            fds.fill({-1, POLLIN, 0});
            return (result = pfm_poll_inhibited(fds.data(), fds.size(), 0)) == 0;
        })
        .keeps([&] { return result == -1; })
        .notices()
        .sets_errno()
        .sweep();
}

// --- Signals ---

void first_handler(int) {}

void second_handler(int) {}

TEST(FaultManager, SignalRegistration)
{
    pfm_signal_t previous = SIG_DFL;
    const auto is_registered = [](pfm_signal_t handler) { return pfm_signal(SIGUSR1, SIG_DFL) == handler; };
    Operation("pfm_signal")
        .setup([] { (void)pfm_signal(SIGUSR1, first_handler); })
        .act([&] { return (previous = pfm_signal(SIGUSR1, second_handler)) != SIG_ERR; })
        .gives([&] { return previous == first_handler && is_registered(second_handler); })
        .keeps([&] { return is_registered(first_handler); })
        .notices()
        .sets_errno()
        .sweep();
    Operation("pfm_signal_handler_chg_block_sig")
        .act([] {
            pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
            pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        })
        .sweep();
}

// --- Raises ---

// Ends with the raise that `inner` ended with.
void pass_on(const int32_t status)
{
    if (status != 0)
        pfm_raise(status);
}

TEST(FaultManager, RaisesAtEveryCheck)
{
    Operation("inhibits")
        .act([] {
            pfm_inhibit();
            pfm_inhibit_suspend();
            (void)pfm_inhibit_count();
            pfm_enable_suspend();
            (void)pfm_inhibit_suspend_count();
            pfm_enable();
            pfm_test_raise(nullptr);
        })
        .sweep_raises();
    Operation("records in records")
        .act([] { pass_on(ks::protect([] { pass_on(ks::protect([] { pfm_test_raise(nullptr); })); })); })
        .check([](const Trial &trial) { return trial.fired == (trial.raised == 4) ? nullptr : "it stopped inside"; })
        .sweep_raises();
    Operation("a counted lock")
        .setup([] { (void)vlthread_mutex_init(&mutex); })
        .act([] {
            const ks::LockGuard lock(mutex);
            pfm_test_raise(nullptr); // the lock holds it off
            pfm_inhibit();
            pfm_enable();
        })
        .check([](const Trial &trial) { return trial.raised == 0 ? nullptr : "delivered under a lock"; })
        .cleanup([] { (void)vlthread_mutex_destroy(&mutex); })
        .sweep_raises();
}

// --- Fork ---

// What a child of any kind can do.
[[noreturn]] void live_in_child()
{
    stg_area *area = stg_create_area(100);
    (void)stg_alloc(area, 10);
    stg_delete_area(&area);
    pfm_inhibit();
    pfm_enable();
    _exit(pfm_get_notify_channel() >= 0 ? 0 : 1);
}

// A child ends well, or aborts for want of what it cannot be without.
bool is_end_of_child(const Trial &trial, int status)
{
    if (!WIFSIGNALED(status))
        return WEXITSTATUS(status) == 0;
    const bool lacks_pipe = trial.failed(Call::pipe) && has_said(no_pipe);
    bool lacks_other = false;
    for (const Call call : {Call::eventfd, Call::thread, Call::key, Call::allocation, Call::mutex})
        lacks_other = lacks_other || trial.failed(call);
    return WTERMSIG(status) == SIGABRT && (lacks_pipe || lacks_other);
}

int forks_prepared = 0;

TEST(FaultManager, Fork)
{
    const auto after = [](int) { --forks_prepared; };
    ASSERT_EQ(vlthread_atfork([](int) { ++forks_prepared; }, after, after), 0);
    for (int kind = 0; kind <= 3; ++kind) {
        pid_t child = -1;
        pid_t waited = -1;
        int status = 0;
        Operation("vlthread_fork")
            .act([&] {
                child = vlthread_fork(kind);
                const int error = errno;
                if (child == 0)
                    live_in_child();
                waited = waitpid(child, &status, 0);
                errno = error;
                return child > 0;
            })
            .gives([&](const Trial &trial) { return waited == child && is_end_of_child(trial, status); })
            .keeps([](const Trial &trial) { return trial.failed(Call::fork) && forks_prepared == 0; })
            .sets_errno()
            .sweep();
    }
}

} // namespace
