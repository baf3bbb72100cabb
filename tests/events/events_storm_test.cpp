// The event runtime with as much of everything as it promises to bear. EVENTS_STORM_SECONDS says how long threads
// do what they like, 2 seconds where it says nothing.
#include "harness/child.h"

#include <korvaks/pfm.h>
#include <korvaks/rt_proc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr int child_count = 10000;
constexpr int children_at_once = 64;
std::vector<int> reported(child_count);
int started = 0;
int running = 0;

void start_more(void *);

void child_ended(pid_t, int32_t status, void *arg, rt_proc_child *)
{
    const auto number = reinterpret_cast<intptr_t>(arg);
    EXPECT_EQ(WEXITSTATUS(status), number % 100);
    ++reported[static_cast<std::size_t>(number)];
    --running;
    start_more(nullptr);
}

void start_more(void *)
{
    for (; started < child_count && running < children_at_once; ++started, ++running) {
        const pid_t pid = rt_proc_fork(child_ended, reinterpret_cast<void *>(intptr_t{started}), VLTHREAD_FORK_PLAIN);
        if (pid == 0)
            _exit(started % 100);
        ASSERT_GT(pid, 0);
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

constexpr int timer_count = 100000;
std::vector<timeval> dues(timer_count);
std::vector<int> fired;

void note_timer(void *arg)
{
    fired.push_back(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
}

TEST(EventsStorm, AHundredThousandTimersFireInOrder)
{
    test::in_child([] {
        std::minstd_rand random(7);
        std::vector<rt_event *> events;
        std::vector<int> expected;
        for (int i = 0; i < timer_count; ++i) {
            auto &due = dues[static_cast<std::size_t>(i)];
            due = {1000 + static_cast<long>(random() % 100),
                   static_cast<long>(random() % 1000)}; // so that many are of the same instant
            events.push_back(rt_sched_abs(note_timer, reinterpret_cast<void *>(intptr_t{i}), &due));
        }
        for (int i = 0; i < timer_count; ++i) {
            if (random() % 2 == 0)
                ASSERT_EQ(rt_unsched(events[static_cast<std::size_t>(i)]), 1);
            else
                expected.push_back(i);
        }
        std::stable_sort(expected.begin(), expected.end(), [](int a, int b) {
            const timeval &x = dues[static_cast<std::size_t>(a)];
            const timeval &y = dues[static_cast<std::size_t>(b)];
            return timercmp(&x, &y, <);
        });
        rt_sched([](void *) { rt_shutdown(); }, nullptr, 0);
        rt_run();
        EXPECT_EQ(fired, expected);
    });
}

// As many as the machine lets a process have open.
TEST(EventsStorm, SixteenThousandDescriptorsEachRemovesItself)
{
    const auto result = test::run_child([] {
        rlimit limit;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 16384);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        static int served = 0;
        static int last = 1 << 30;
        int added = 0;
        for (int fd; added < 16000 && (fd = eventfd(1, EFD_CLOEXEC)) >= 0; ++added)
            ASSERT_EQ(rt_handle_fd(
                          RT_FD_READ,
                          [](int ready, void *) {
                              EXPECT_LT(ready, last); // newest first
                              last = ready;
                              ++served;
                              EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, ready), 1);
                          },
                          fd, nullptr),
                      1);
        rt_poll();
        EXPECT_EQ(served, added);
        rt_poll();
        EXPECT_EQ(served, added);
        std::printf("%d descriptors handled\n", added);
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
    std::fputs(result.out.c_str(), stdout);
}

std::atomic<long> mt_fired{0};

void do_what_threads_like(unsigned seed, const std::atomic<bool> &is_over, long &out_due)
{
    std::minstd_rand random(seed + 1);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    (void)!write(ends[1], "x", 1);
    ks_fd_set set{};
    while (!is_over) {
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
        const bool is_cancelled = rt_unsched_mt(event, 1) == KS_ST_OK;
        out_due += is_cancelled ? 0 : 1;
        if (!is_cancelled) {
            EXPECT_EQ(rt_event_in_timeout(event), 1);
            rt_free_event(event);
        }
        ASSERT_EQ(rt_unhandle_fd(RT_FD_READ, ends[0]), 1);
        ASSERT_EQ(rt_unhandle_fd_set(RT_FD_READ, &set), 1);
        if (random() % 16 == 0) { // the number becomes another file's
            close(ends[0]);
            close(ends[1]);
            ks_fd_zero(&set);
            ASSERT_EQ(pipe(ends), 0);
        }
    }
}

TEST(EventsStorm, ThreadsScheduleCancelAddAndRemove)
{
    test::in_child([] {
        const char *asked = std::getenv("EVENTS_STORM_SECONDS");
        pfm_init();
        std::atomic<bool> is_over{false};
        std::array<long, 4> due{};
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < due.size(); ++i)
            threads.emplace_back([&, i] { do_what_threads_like(i, is_over, due[i]); });
        rt_sched([](void *) { rt_shutdown(); }, nullptr, asked != nullptr ? std::atol(asked) : 2);
        rt_run();
        is_over = true;
        for (std::thread &thread : threads)
            thread.join();
        const timeval none{0, 0};
        rt_sched_rel([](void *) { rt_shutdown(); }, nullptr, &none);
        rt_run();
        EXPECT_EQ(mt_fired, due[0] + due[1] + due[2] + due[3]);
        EXPECT_GT(mt_fired, 0);
    });
}

} // namespace
