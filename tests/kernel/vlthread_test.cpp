// Threads, mutexes, conditions and their diagnostics. What locks, the critical section and
// attachment do step by step is the model's (model_test.cpp).
#include "harness/child.h"
#include "harness/match.h"
#include "harness/misuse.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include <sys/time.h>

namespace {

using namespace std::chrono_literals;

// First in the file: tracing is decided when a process first uses the layer.
TEST(VlthreadTrace, WritesEachStepWhenAsked)
{
    const auto trace_with = [](const char *value) {
        return test::run_child([value] {
                   setenv("TRACE_VLTHREAD", value, 1);
                   vlthread_init();
                   vlthread_mutex_t mutex;
                   vlthread_mutex_init(&mutex);
                   vlthread_mutex_lock(&mutex);
                   vlthread_mutex_lock(&mutex);
                   for (int i = 0; i < 3; ++i)
                       vlthread_mutex_unlock(&mutex);
                   vlthread_trace("%s", std::string(9000, 'x').c_str());
               })
            .err;
    };
    std::string steps = ".*"; // the match's own group is the first
    for (const char *step : {R"(Mutex (0x[0-9a-f]+) is locked)", R"(Mutex \2 is locked for 2 times)",
                             R"(Mutex \2 recursion count decrease to 1)", R"(Mutex \2 is unlocked)",
                             R"(Fail to unlock mutex [0-9]+, for it's not the owner)"})
        steps += R"(>>> [0-9:]{8}\.[0-9]{3} \(vlthread\): \[P[0-9]+\]\[T[0-9]+\])" + std::string(step) + "\n";
    const std::string text = trace_with("true");
    const std::size_t last_line = text.rfind(">>>");
    EXPECT_TRUE(test::matches(text.substr(0, last_line), steps)) << text.substr(0, 2000);
    EXPECT_LE(text.size() - last_line, 4096U); // cut, in one write
    EXPECT_EQ(trace_with("yes"), "");
    EXPECT_EQ(trace_with(""), "");
}

// Before any other thread was started, whose larger stack the C library would use again.
TEST(VlthreadThreads, StackIsAtLeastOneMebibyte)
{
    test::in_child([] {
        const auto measure = [](void *out) -> void * {
            pthread_attr_t own;
            pthread_getattr_np(pthread_self(), &own);
            pthread_attr_getstacksize(&own, static_cast<std::size_t *>(out));
            pthread_attr_destroy(&own);
            return out;
        };
        for (const std::size_t asked : {0x10000U, 0xFF000U, 0x200000U}) {
            const std::size_t expected = asked < 0x100000 ? 0x100000 : asked;
            pthread_attr_t attr;
            pthread_attr_init(&attr);
            pthread_attr_setstacksize(&attr, asked);
            std::size_t actual = 0;
            std::size_t in_attr = 0;
            void *value = nullptr;
            vlthread_t thread;
            ASSERT_EQ(vlthread_create(&thread, &attr, measure, &actual), 0);
            EXPECT_EQ(vlthread_join(thread, &value), 0);
            EXPECT_EQ(value, &actual);
            EXPECT_EQ(actual, expected);
            pthread_attr_getstacksize(&attr, &in_attr);
            EXPECT_EQ(in_attr, expected);
            pthread_attr_destroy(&attr);
        }
        EXPECT_EQ(vlthread_join(pthread_self(), nullptr), EDEADLK);
    });
}

TEST(VlthreadMutex, FailuresAreGivenBack)
{
    vlthread_mutex_t mutex;
    EXPECT_EQ(vlthread_mutex_set_noraise(nullptr), EINVAL);
    EXPECT_EQ(vlthread_mutex_init_full(&mutex, 4711, 0, 0, nullptr), EINVAL);
    ASSERT_EQ(vlthread_mutex_init_full(&mutex, PTHREAD_MUTEX_ERRORCHECK, 0, 0, nullptr), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex.lock), 0); // behind the library's back
    EXPECT_EQ(vlthread_mutex_lock(&mutex), EDEADLK);
    EXPECT_EQ(vlthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(pfm_tls_get()->pfm_inh_count, 0);
    EXPECT_EQ(mutex.owner, 0U);
    ASSERT_EQ(pthread_mutex_unlock(&mutex.lock), 0);
}

TEST(VlthreadMutex, SumsHoldAndConditionTimes)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init_full(&mutex, 0, 0, VLTHREAD_MUTEX_TIMED, nullptr), 0);
    vlthread_mutex_lock(&mutex);
    vlthread_sleep(30);
    vlthread_mutex_unlock(&mutex);
    vlthread_mutex_lock(&mutex);
    vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    const auto deadline = std::chrono::system_clock::now().time_since_epoch() + 20ms;
    const timespec deadline_abs{deadline / 1s, deadline % 1s / 1ns};
    EXPECT_EQ(vlthread_cond_timedwait(&cond, &mutex, &deadline_abs), ETIMEDOUT);
    vlthread_mutex_unlock(&mutex);
    const auto microseconds = [](const timeval &time) { return time.tv_sec * 1000000 + time.tv_usec; };
    EXPECT_GE(microseconds(mutex.hold_time), 30000);
    EXPECT_GE(microseconds(mutex.cond_time), 19000);
    EXPECT_EQ(microseconds(mutex.locked_at), 0);
    EXPECT_LT(mutex.hold_time.tv_usec, 1000000);
}

TEST(VlthreadMutex, ServesEightThreads)
{
    vlthread_mutex_t mutex;
    ASSERT_EQ(vlthread_mutex_init_noraise(&mutex), 0);
    vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
    constexpr int rounds = 5000;
    int counter = 0;
    int turn = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                if (i % 3 != 0 || vlthread_mutex_trylock(&mutex) != 0)
                    vlthread_mutex_lock(&mutex);
                vlthread_mutex_lock(&mutex);
                ++counter;
                vlthread_mutex_unlock(&mutex);
                vlthread_mutex_unlock(&mutex);
            }
            vlthread_mutex_lock(&mutex); // and leave in the order of their numbers
            EXPECT_EQ(pfm_tls_get()->pfm_inh_count, 0);
            while (turn != t)
                EXPECT_EQ(vlthread_cond_wait(&cond, &mutex), 0);
            ++turn;
            pthread_cond_broadcast(&cond);
            vlthread_mutex_unlock(&mutex);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 8 * rounds);
    EXPECT_EQ(turn, 8);
}

vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
vlthread_cond_t cond = VLTHREAD_COND_INITIALIZER;
constexpr timespec past{1, 0};

void lock_twice()
{
    vlthread_mutex_lock(&mutex);
    vlthread_mutex_lock(&mutex);
}

TEST(VlthreadMisuse, EndsTheProcess)
{
    test::expect_misuse({
        {[] { vlthread_cond_wait(&cond, &mutex); }, "vlthread assertion fail: ["},
        {[] { vlthread_cond_wait(&cond, &mutex); }, "] mutex->owner == self at 'vlthread':1963\n"},
        {[] { vlthread_cond_timedwait(&cond, &mutex, &past); }, "] mutex->owner == self at 'vlthread':2050\n"},
        {[] { lock_twice(), vlthread_cond_wait(&cond, &mutex); }, "mutex->recursion_count == 1 at 'vlthread':1964"},
        {[] { lock_twice(), vlthread_cond_timedwait(&cond, &mutex, &past); },
         "mutex->recursion_count == 1 at 'vlthread':2051"},
        {vlthread_leave_critical_section,
         "vlthread_equal(vlthread_lib_attached_tid, vlthread_self()) at 'vlthread':1060"},
        {[] { vlthread_force_attach_lib(), vlthread_leave_critical_section(); },
         "CRITICAL_SECTION_RECUR_COUNT > 0 at 'vlthread':1061"},
#ifndef NDEBUG
        {[] {
             const ks::LockGuard inner(ks::vlthread_lock);
             const ks::LockGuard outer(ks::pfm_crit);
         },
         "taken under one of level "},
#endif
    });
}

TEST(VlthreadThreads, SleepGoesOnAfterInterruptions)
{
    test::in_child([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every_10ms{{0, 10000}, {0, 10000}};
        setitimer(ITIMER_REAL, &every_10ms, nullptr);
        const auto before = std::chrono::steady_clock::now();
        vlthread_sleep(200);
        const auto elapsed = std::chrono::steady_clock::now() - before;
        EXPECT_GE(elapsed, 199ms);
        EXPECT_LT(elapsed, 5s);
    });
}

} // namespace
