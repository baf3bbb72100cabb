// Locks, conditions, the critical section, threads and their diagnostics.
#include "harness/child.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

// The caller's inhibit count without a start of the fault manager.
int inhibit_count()
{
    return *reinterpret_cast<int *>(reinterpret_cast<char *>(pfm_tls_get()) + 40);
}

void run_thread(const std::function<void()> &body)
{
    std::thread(body).join();
}

// The messages of trace lines; a line without the right prefix is given as it is.
std::vector<std::string> traced_messages(const std::string &text)
{
    std::vector<std::string> messages;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int fields[4];
        unsigned process = 0;
        unsigned long thread = 0;
        int end = 0;
        if (sscanf(line.c_str(), ">>> %2d:%2d:%2d.%3d (vlthread): [P%u][T%lu]%n", &fields[0], &fields[1], &fields[2],
                   &fields[3], &process, &thread, &end) == 6)
            line.erase(0, static_cast<size_t>(end));
        messages.push_back(line);
    }
    return messages;
}

// First in the file: tracing is decided when a process first uses the layer.
TEST(VlthreadTrace, WritesEachStepWhenAsked)
{
    const auto run = [](const char *value) {
        return test::run_child([value] {
            setenv("TRACE_VLTHREAD", value, 1);
            vlthread_init();
            vlthread_mutex_t mutex;
            vlthread_mutex_init(&mutex);
            vlthread_mutex_lock(&mutex);
            vlthread_mutex_lock(&mutex);
            vlthread_mutex_unlock(&mutex);
            vlthread_mutex_unlock(&mutex);
            vlthread_mutex_unlock(&mutex);
            vlthread_trace("%s", std::string(9000, 'x').c_str());
            return 0;
        });
    };
    const std::string text = run("true").err;
    const std::vector<std::string> traced = traced_messages(text);
    const auto first = std::find_if(traced.begin(), traced.end(), [&](const std::string &message) {
        return &traced.back() - &message >= 4 && (&message)[1].ends_with(" is locked for 2 times");
    });
    ASSERT_NE(first, traced.end()) << text.substr(0, 2000);
    const std::string mutex = first->substr(0, first->find(" is locked"));
    EXPECT_EQ(mutex.rfind("Mutex 0x", 0), 0U) << mutex;
    EXPECT_EQ(first[0], mutex + " is locked");
    EXPECT_EQ(first[1], mutex + " is locked for 2 times");
    EXPECT_EQ(first[2], mutex + " recursion count decrease to 1");
    EXPECT_EQ(first[3], mutex + " is unlocked");
    EXPECT_EQ(first[4].rfind("Fail to unlock mutex ", 0), 0U) << first[4];
    EXPECT_TRUE(first[4].ends_with(", for it's not the owner")) << first[4];
    EXPECT_LE(text.size() - text.rfind(">>>"), 4096U); // cut, in one write
    EXPECT_EQ(run("yes").err, "");
    EXPECT_EQ(run("").err, "");
}

// Before any other thread was started, whose larger stack the C library would use again.
TEST(VlthreadThreads, StackIsAtLeastOneMebibyte)
{
    const auto result = test::run_child([] {
        const auto stack_of = [](size_t asked) -> size_t {
            pthread_attr_t attr;
            pthread_attr_init(&attr);
            pthread_attr_setstacksize(&attr, asked < 1048575 ? asked : asked / 4096 * 4096);
            size_t actual = 0;
            const auto measure = [](void *out) -> void * {
                pthread_attr_t own;
                pthread_getattr_np(pthread_self(), &own);
                pthread_attr_getstacksize(&own, static_cast<size_t *>(out));
                pthread_attr_destroy(&own);
                return out;
            };
            pthread_t thread;
            if (vlthread_create(&thread, &attr, measure, &actual) != 0)
                return 0;
            void *value = nullptr;
            size_t in_attr = 0;
            if (vlthread_join(thread, &value) != 0 || value != &actual)
                return 1;
            pthread_attr_getstacksize(&attr, &in_attr);
            pthread_attr_destroy(&attr);
            return in_attr == actual ? actual : 2;
        };
        return stack_of(65536) == 1048576 && stack_of(1048575) == 1048576 && stack_of(2097152) == 2097152 &&
                       vlthread_join(pthread_self(), nullptr) == EDEADLK
                   ? 0
                   : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(VlthreadMutex, KnowsOwnerRecursionAndCount)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init(&mutex), 0);
    for (int depth = 1; depth <= 3; ++depth) {
        ASSERT_EQ(vlthread_mutex_lock(&mutex), 0);
        EXPECT_EQ(mutex.recursion_count, depth);
    }
    ASSERT_EQ(vlthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(mutex.owner, pthread_self());
    EXPECT_EQ(mutex.lock_count, 1U);
    EXPECT_EQ(inhibit_count(), 1); // counted once, however often it is entered
    run_thread([&] {
        EXPECT_EQ(vlthread_mutex_unlock(&mutex), 1);
        EXPECT_EQ(vlthread_mutex_trylock(&mutex), EBUSY);
        EXPECT_EQ(inhibit_count(), 0);
    });
    EXPECT_EQ(mutex.recursion_count, 4);
    for (int depth = 4; depth > 0; --depth)
        EXPECT_EQ(vlthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(mutex.owner, 0U);
    EXPECT_EQ(mutex.recursion_count, 0);
    EXPECT_EQ(inhibit_count(), 0);
    EXPECT_EQ(vlthread_mutex_unlock(&mutex), 1);
    run_thread([&] {
        EXPECT_EQ(vlthread_mutex_lock(&mutex), 0);
        EXPECT_EQ(vlthread_mutex_unlock(&mutex), 0);
    });
    EXPECT_EQ(vlthread_mutex_destroy(&mutex), 0);
}

TEST(VlthreadMutex, NoraiseIsNotCounted)
{
    vlthread_mutex_t mutex;
    EXPECT_EQ(vlthread_mutex_set_noraise(nullptr), EINVAL);
    ASSERT_EQ(vlthread_mutex_init_noraise(&mutex), 0);
    EXPECT_EQ(vlthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(inhibit_count(), 0);
    EXPECT_EQ(vlthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(inhibit_count(), 0);
    EXPECT_EQ(vlthread_mutex_init_full(&mutex, 4711, 0, 0, nullptr), EINVAL);
}

TEST(VlthreadMutex, FailureOfThePosixLockIsGivenBack)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init_full(&mutex, PTHREAD_MUTEX_ERRORCHECK, 0, 0, nullptr), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex.lock), 0); // behind the library's back
    EXPECT_EQ(vlthread_mutex_lock(&mutex), EDEADLK);
    EXPECT_EQ(vlthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(inhibit_count(), 0);
    EXPECT_EQ(mutex.owner, 0U);
    ASSERT_EQ(pthread_mutex_unlock(&mutex.lock), 0);
}

struct CountingClass {
    vlthread_order_class head;
    std::vector<std::pair<vlthread_mutex_t *, vlthread_mutex_t *>> violations;
};
CountingClass counting{
    {[](vlthread_mutex *locking, vlthread_mutex *held) { counting.violations.emplace_back(locking, held); }}, {}};

TEST(VlthreadMutex, ReportsOrderViolationsAndLocksAllTheSame)
{
    vlthread_order_class other{[](vlthread_mutex *, vlthread_mutex *) { ADD_FAILURE() << "another class"; }};
    vlthread_mutex_t foreign;
    vlthread_mutex_t low;
    vlthread_mutex_t middle;
    vlthread_mutex_t high;
    ASSERT_EQ(vlthread_mutex_init_full(&foreign, 0, 9, 0, &other), 0);
    ASSERT_EQ(vlthread_mutex_init_full(&low, 0, 1, 0, &counting.head), 0);
    ASSERT_EQ(vlthread_mutex_init_full(&middle, 0, 2, 0, &counting.head), 0);
    ASSERT_EQ(vlthread_mutex_init_full(&high, 0, 3, 0, &counting.head), 0);
    vlthread_mutex_lock(&foreign);
    vlthread_mutex_lock(&low);
    vlthread_mutex_lock(&middle);
    EXPECT_TRUE(counting.violations.empty());
    EXPECT_NE(middle.locker, nullptr);
    vlthread_mutex_unlock(&low); // out of order, which is no violation
    EXPECT_EQ(low.locker, nullptr);
    EXPECT_EQ(vlthread_mutex_trylock(&low), 0); // not checked
    vlthread_mutex_unlock(&low);
    vlthread_mutex_unlock(&middle);
    vlthread_mutex_lock(&high);
    EXPECT_TRUE(counting.violations.empty());
    EXPECT_EQ(vlthread_mutex_lock(&middle), 0);
    ASSERT_EQ(counting.violations.size(), 1U);
    EXPECT_EQ(counting.violations[0], std::make_pair(&middle, &high));
    vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    const timespec past{1, 0};
    EXPECT_EQ(vlthread_cond_timedwait(&cond, &middle, &past), ETIMEDOUT); // off the held list and on it again
    for (vlthread_mutex_t *mutex : {&middle, &high, &foreign})
        EXPECT_EQ(vlthread_mutex_unlock(mutex), 0);
    vlthread_mutex_lock(&low);
    vlthread_mutex_unlock(&low);
    EXPECT_EQ(counting.violations.size(), 1U);
}

TEST(VlthreadMutex, SumsWaitHoldAndConditionTimes)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init_full(&mutex, 0, 0, VLTHREAD_MUTEX_TIMED, nullptr), 0);
    vlthread_mutex_lock(&mutex);
    EXPECT_NE(mutex.locked_at.tv_sec, 0);
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        waiting = true;
        vlthread_mutex_lock(&mutex);
        vlthread_mutex_unlock(&mutex);
    });
    while (!waiting)
        std::this_thread::yield();
    vlthread_sleep(30);
    vlthread_mutex_unlock(&mutex);
    waiter.join();
    vlthread_mutex_lock(&mutex);
    vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += 20000000;
    if (deadline.tv_nsec >= 1000000000) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= 1000000000;
    }
    EXPECT_EQ(vlthread_cond_timedwait(&cond, &mutex, &deadline), ETIMEDOUT);
    vlthread_mutex_unlock(&mutex);
    const auto microseconds = [](const timeval &time) { return time.tv_sec * 1000000 + time.tv_usec; };
    EXPECT_GE(microseconds(mutex.hold_time), 30000);
    EXPECT_GE(microseconds(mutex.cond_time), 19000);
    EXPECT_EQ(microseconds(mutex.locked_at), 0);
    EXPECT_LT(mutex.hold_time.tv_usec, 1000000);
    EXPECT_EQ(mutex.lock_count, 4U); // three acquisitions and one return from a wait
}

TEST(VlthreadMutex, ServesEightThreads)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init(&mutex), 0);
    vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    constexpr int rounds = 5000;
    int counter = 0;
    int turn = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                if (i % 3 == 0 && vlthread_mutex_trylock(&mutex) != 0)
                    vlthread_mutex_lock(&mutex);
                else if (i % 3 != 0)
                    vlthread_mutex_lock(&mutex);
                vlthread_mutex_lock(&mutex);
                ++counter;
                vlthread_mutex_unlock(&mutex);
                vlthread_mutex_unlock(&mutex);
            }
            vlthread_mutex_lock(&mutex); // and leave in the order of their numbers
            while (turn != t)
                EXPECT_EQ(vlthread_cond_wait(&cond, &mutex), 0);
            ++turn;
            pthread_cond_broadcast(&cond);
            vlthread_mutex_unlock(&mutex);
            EXPECT_EQ(inhibit_count(), 0);
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 8 * rounds);
    EXPECT_EQ(turn, 8);
}

TEST(VlthreadMutexMisuse, WaitNeedsOneHold)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
    static vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    static const timespec past{1, 0};
    EXPECT_DEATH(vlthread_cond_wait(&cond, &mutex), "mutex->owner == self at 'vlthread':1963");
    EXPECT_DEATH(vlthread_cond_timedwait(&cond, &mutex, &past), "mutex->owner == self at 'vlthread':2050");
    vlthread_mutex_lock(&mutex);
    vlthread_mutex_lock(&mutex);
    EXPECT_DEATH(
        {
            vlthread_mutex_lock(&mutex);
            vlthread_mutex_lock(&mutex);
            vlthread_cond_wait(&cond, &mutex);
        },
        "vlthread assertion fail: \\[[0-9]+\\] mutex->recursion_count == 1 at 'vlthread':1964\n");
    EXPECT_DEATH(
        {
            vlthread_mutex_lock(&mutex);
            vlthread_mutex_lock(&mutex);
            vlthread_cond_timedwait(&cond, &mutex, &past);
        },
        "mutex->recursion_count == 1 at 'vlthread':2051");
    vlthread_mutex_unlock(&mutex);
    vlthread_mutex_unlock(&mutex);
}

TEST(VlthreadRwlock, WriterNeverWaitsForItself)
{
    for (const int mode : {VLTHREAD_RAISE_COUNTED, VLTHREAD_RAISE_IGNORED}) {
        SCOPED_TRACE(mode);
        vlthread_rwlock_t lock;
        ASSERT_EQ(vlthread_rwlock_init(&lock, mode), 0);
        ASSERT_EQ(vlthread_rwlock_wrlock(&lock), 0);
        EXPECT_EQ(inhibit_count(), mode == VLTHREAD_RAISE_COUNTED ? 1 : 0);
        EXPECT_NE(vlthread_rwlock_rdlock(&lock), 0);
        EXPECT_NE(vlthread_rwlock_wrlock(&lock), 0);
        run_thread([&] {
            EXPECT_EQ(vlthread_rwlock_rdlock_trylock(&lock), EBUSY);
            EXPECT_EQ(vlthread_rwlock_wrlock_trylock(&lock), EBUSY);
            EXPECT_EQ(inhibit_count(), 0);
        });
        EXPECT_EQ(inhibit_count(), mode == VLTHREAD_RAISE_COUNTED ? 1 : 0);
        EXPECT_EQ(vlthread_rwlock_unlock(&lock), 0);
        EXPECT_EQ(lock.writer, 0U);
        ASSERT_EQ(vlthread_rwlock_rdlock(&lock), 0);
        ASSERT_EQ(vlthread_rwlock_rdlock(&lock), 0); // readers nest
        run_thread([&] {
            EXPECT_EQ(vlthread_rwlock_rdlock(&lock), 0);
            EXPECT_EQ(vlthread_rwlock_unlock(&lock), 0);
        });
        EXPECT_EQ(vlthread_rwlock_unlock(&lock), 0);
        EXPECT_EQ(vlthread_rwlock_unlock(&lock), 0);
        EXPECT_EQ(inhibit_count(), 0);
        EXPECT_EQ(vlthread_rwlock_destroy(&lock), 0);
    }
}

TEST(VlthreadCriticalSection, AttachesAndDetaches)
{
    const auto result = test::run_child([] {
        if (vlthread_attached_tid() != 0)
            return 1;
        vlthread_enter_critical_section();
        if (vlthread_try_enter_critical_section() != 1 || vlthread_attached_tid() != pthread_self())
            return 2;
        int other_entered = -1;
        int other_attached = -1;
        run_thread([&] {
            other_entered = vlthread_try_enter_critical_section();
            other_attached = vlthread_try_attach_lib();
        });
        if (other_entered != 0 || other_attached != 1)
            return 3;
        vlthread_leave_critical_section();
        if (vlthread_attached_tid() != pthread_self())
            return 4;
        vlthread_leave_critical_section();
        if (vlthread_attached_tid() != 0 || inhibit_count() != 0)
            return 5;
        vlthread_enter_critical_section();
        vlthread_enter_critical_section();
        vlthread_release_critical_section();
        vlthread_release_critical_section(); // in none: nothing
        if (vlthread_attached_tid() != 0)
            return 6;
        run_thread([&] { other_attached = vlthread_try_attach_lib(); });
        if (other_attached != 0 || vlthread_try_attach_lib() != 1)
            return 7;
        return vlthread_force_attach_lib() == 0 && vlthread_try_attach_lib() == 0 ? 0 : 8;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(VlthreadCriticalSection, LeavingWithoutHoldingEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(vlthread_leave_critical_section(),
                 "vlthread_equal\\(vlthread_lib_attached_tid, vlthread_self\\(\\)\\) at 'vlthread':1060");
    EXPECT_DEATH(
        {
            vlthread_force_attach_lib();
            vlthread_leave_critical_section();
        },
        "CRITICAL_SECTION_RECUR_COUNT > 0 at 'vlthread':1061");
}

TEST(VlthreadThreads, EndedThreadLeavesNothingBehind)
{
    const auto result = test::run_child([] {
        const auto run = [](void *(*start)(void *)) {
            vlthread_t thread;
            vlthread_create(&thread, nullptr, start, nullptr);
            void *value = nullptr;
            vlthread_join(thread, &value);
            return value;
        };
        // Both ways out release the critical section and forget the thread's raise status.
        if (run([](void *) -> void * {
                vlthread_enter_critical_section();
                vlthread_enter_critical_section();
                vlthread_exit(reinterpret_cast<void *>(7));
            }) != reinterpret_cast<void *>(7))
            return 1;
        if (run([](void *) -> void * {
                vlthread_enter_critical_section();
                vlthread_notify_raise(9);
                return vlthread_pending_raise(nullptr) == 9 ? reinterpret_cast<void *>(8) : nullptr;
            }) != reinterpret_cast<void *>(8))
            return 2;
        if (vlthread_try_enter_critical_section() != 1)
            return 3;
        // The next thread, very likely with the same id, starts with nothing pending.
        if (run([](void *) -> void * {
                return reinterpret_cast<void *>(static_cast<intptr_t>(vlthread_pending_raise(nullptr)));
            }) != nullptr)
            return 4;
        return vlthread_pending_raise(nullptr) == 9 ? 0 : 5;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(VlthreadThreads, SleepGoesOnAfterInterruptions)
{
    const auto result = test::run_child([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every_10ms{{0, 10000}, {0, 10000}};
        setitimer(ITIMER_REAL, &every_10ms, nullptr);
        timespec before{};
        timespec after{};
        clock_gettime(CLOCK_MONOTONIC, &before);
        vlthread_sleep(200);
        clock_gettime(CLOCK_MONOTONIC, &after);
        const long elapsed_ms = (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
        return elapsed_ms >= 199 && elapsed_ms < 5000 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(VlthreadTls, BlockHoldsItsAreaAndEndsWithIt)
{
    struct Block {
        stg_area *area;
        int values[10];
    };
    auto *block = static_cast<Block *>(vlthread_alloc_tls(sizeof(Block)));
    ASSERT_NE(block, nullptr);
    ASSERT_NE(block->area, nullptr);
    for (const int value : block->values)
        EXPECT_EQ(value, 0);
    EXPECT_NE(stg_alloc(block->area, 5000), nullptr); // more from the same area
    vlthread_free_tls(block);
    vlthread_free_tls(nullptr);

    vlthread_key_t key;
    ASSERT_EQ(vlthread_key_create(&key, vlthread_free_tls), 0);
    run_thread([&] {
        EXPECT_EQ(vlthread_get_tls(key), nullptr);
        void *own = vlthread_alloc_tls(16);
        EXPECT_EQ(vlthread_set_tls(key, own), 0);
        EXPECT_EQ(vlthread_get_tls(key), own);
    }); // the sanitizer sees a block that is not freed
    EXPECT_EQ(vlthread_key_delete(key), 0);
}

#ifndef NDEBUG
TEST(VlthreadOrder, EndsTheProcessForALibraryLockOutOfOrder)
{
    const auto result = test::run_child([] {
        const ks::LockGuard inner(ks::vlthread_lock);
        const ks::LockGuard outer(ks::pfm_crit);
        return 0;
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.err.find("lock of level 1 taken under one of level "), std::string::npos) << result.err;
}
#endif

} // namespace
