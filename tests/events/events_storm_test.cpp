// The event runtime with as much of everything as it promises to bear. EVENTS_STORM_SECONDS says how long threads
// do what they like, 5 seconds where it says nothing.
#include "harness/child.h"

#include <korvaks/pfm.h>
#include <korvaks/rt_proc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

void stop(void *)
{
    rt_shutdown();
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int child_count = 1000; // their forks take ten times as long
#else
constexpr int child_count = 10000;
#endif
std::vector<int> reported(child_count);
int started = 0;
int running = 0;

void start_more(void *)
{
    for (; started < child_count && running < 64; ++started, ++running) {
        const auto child_ended = [](pid_t, int32_t status, void *arg, rt_proc_child *) {
            const auto number = reinterpret_cast<std::size_t>(arg);
            reported[number] += WEXITSTATUS(status) == static_cast<int>(number % 100) ? 1 : 2;
            --running;
            start_more(nullptr);
        };
        const auto number = reinterpret_cast<void *>(static_cast<std::size_t>(started));
        if (rt_proc_fork(child_ended, number, VLTHREAD_FORK_PLAIN) == 0)
            _exit(started % 100);
    }
    if (running == 0)
        rt_shutdown();
}

TEST(EventsStorm, TenThousandChildrenEachReportedOnce)
{
    test::in_child([] {
        rt_sched(start_more, nullptr, 0);
        rt_run();
        EXPECT_EQ(std::count(reported.begin(), reported.end(), 1), child_count);
        EXPECT_EQ(rt_proc_any_procs(), 0);
    });
}

std::vector<rt_event> timers(100000);
const rt_event *last_fired = nullptr;
std::size_t fired = 0;

TEST(EventsStorm, AHundredThousandTimersFireInOrder)
{
    test::in_child([] {
        const auto note = [](void *arg) { // those of one instant lie in memory as they were scheduled
            const auto *timer = static_cast<const rt_event *>(arg);
            EXPECT_TRUE(last_fired == nullptr || std::tie(last_fired->tv_sec, last_fired->tv_usec, last_fired) <
                                                     std::tie(timer->tv_sec, timer->tv_usec, timer));
            last_fired = timer;
            ++fired;
        };
        std::minstd_rand random(7);
        std::size_t cancelled = 0;
        for (rt_event &timer : timers)
            rt_sched_int(note, &timer, -static_cast<long>(random() % 1000), &timer, sizeof timer);
        for (rt_event &timer : timers)
            cancelled += random() % 2 == 0 ? static_cast<std::size_t>(rt_unsched(&timer)) : 0;
        rt_sched(stop, nullptr, 0);
        rt_run();
        EXPECT_EQ(fired, timers.size() - cancelled);
    });
}

int last_served = 1 << 30;
int served = 0;

// As many as the machine lets a process have open.
TEST(EventsStorm, SixteenThousandDescriptorsEachRemovesItself)
{
    const auto result = test::run_child([] {
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 16384);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        const auto serve = [](int fd, void *) {
            EXPECT_LT(fd, last_served); // newest first
            last_served = fd;
            ++served;
            EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, fd), 1);
        };
        int added = 0;
        for (int fd; added < 16000 && (fd = eventfd(1, EFD_CLOEXEC)) >= 0; ++added)
            ASSERT_EQ(rt_handle_fd(RT_FD_READ, serve, fd, nullptr), 1);
        rt_poll();
        rt_poll();
        EXPECT_EQ(served, added);
        std::printf("%d descriptors handled\n", added);
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
    std::fputs(result.out.c_str(), stdout);
}

std::atomic<long> mt_fired{0};
std::atomic<long> mt_due{0};
std::atomic<bool> is_over{false};

void do_what_threads_like(unsigned seed)
{
    std::minstd_rand random(seed);
    ks_fd_set set{};
    for (int ends[2] = {-1, -1}; !is_over;) {
        if (random() % 16 == 0 || ends[0] < 0) { // the numbers become other files'
            close(ends[0]), close(ends[1]);
            ks_fd_zero(&set);
            ASSERT_TRUE(pipe(ends) == 0 && write(ends[1], "x", 1) == 1);
        }
        rt_event *event = rt_sched_mt([](void *) { ++mt_fired; }, nullptr, 0);
        ASSERT_EQ(rt_handle_fd(
                      RT_FD_READ, [](int, void *) {}, ends[0], nullptr),
                  1);
        ASSERT_EQ(rt_handle_fd_set(
                      RT_FD_READ, [](ks_fd_set *, void *) {}, &set, nullptr),
                  1);
        __atomic_fetch_xor(&set.words[ends[0] / 64], uint64_t{1} << (ends[0] % 64), __ATOMIC_RELAXED);
        if (random() % 4 == 0)
            usleep(static_cast<useconds_t>(random() % 200));
        if (rt_unsched_mt(event, 1) != KS_ST_OK) {
            ++mt_due;
            rt_free_event(event);
        }
        ASSERT_TRUE(rt_unhandle_fd(RT_FD_READ, ends[0]) == 1 && rt_unhandle_fd_set(RT_FD_READ, &set) == 1);
    }
}

TEST(EventsStorm, ThreadsScheduleCancelAddAndRemove)
{
    test::in_child([] {
        const char *asked = std::getenv("EVENTS_STORM_SECONDS");
        rt_sched(stop, nullptr, asked != nullptr ? std::atol(asked) : 5);
        pfm_init();
        for (int i = 0; i < 200; ++i) // so many that not all are looked at each time
            rt_handle_fd(
                RT_FD_READ, [](int, void *) {}, eventfd(0, EFD_CLOEXEC), nullptr);
        std::vector<std::thread> threads;
        for (unsigned seed = 1; seed <= 4; ++seed)
            threads.emplace_back(do_what_threads_like, seed);
        rt_run();
        is_over = true;
        for (std::thread &thread : threads)
            thread.join();
        rt_sched(stop, nullptr, 0);
        rt_run();
        EXPECT_TRUE(mt_fired == mt_due && mt_fired > 0);
    });
}

} // namespace
