// Forks of every kind: handlers, hand-over, and children that go on using the library.
#include "harness/child.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int every_kind[] = {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC, VLTHREAD_FORK_CONTINUE,
                              VLTHREAD_FORK_CONTINUE_3};

// Forks and returns the child's exit status; -1 when it was stuck and had to be killed.
template <typename Body> int fork_and_run(int kind, Body body)
{
    const pid_t pid = vlthread_fork(kind);
    if (pid == 0)
        _exit(body());
    for (int waited_ms = 0; waited_ms < 20000; ++waited_ms) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        usleep(waited_ms < 10 ? 100 : 1000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
}

// Waits until the signal-handler thread has come up and answered. The address sanitizer's allocator
// is not safe against a fork while another thread allocates, and a thread that starts does.
void wait_for_signal_thread()
{
    pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
    pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
}

std::string order;

void expect_ok(const std::function<int()> &body)
{
    const auto result = test::run_child(body, 100000);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_FALSE(result.timed_out);
}

TEST(VlthreadFork, RunsHandlersInOrderAndHoldsThemTogether)
{
    expect_ok([] {
        pfm_init();
        wait_for_signal_thread();
        vlthread_atfork([](int kind) { order += 'a' + static_cast<char>(kind); }, [](int) { order += 'A'; },
                        [](int) { order += 'x'; });
        vlthread_atfork([](int) { order += '2'; }, nullptr, [](int) { order += 'y'; });
        vlthread_atfork(
            nullptr, [](int) { order += 'B'; }, nullptr);
        const int child = fork_and_run(VLTHREAD_FORK_EXEC, [] { return order == "2bxy" ? 0 : 1; });
        return child == 0 && order == "2bAB" ? 0 : 1;
    });
}

TEST(VlthreadFork, ChildOfEachKindHasItsType)
{
    for (const int kind : every_kind) {
        SCOPED_TRACE(kind);
        expect_ok([kind] {
            pfm_init();
            wait_for_signal_thread();
            return fork_and_run(kind, [kind] {
                const bool full = kind >= VLTHREAD_FORK_CONTINUE;
                sigset_t blocked;
                pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
                if (pfm_proc() != (full ? PFM_PROCESS_ORDINARY : PFM_PROCESS_FORK_CHILD))
                    return 1;
                if (sigismember(&blocked, SIGTERM) != (full ? 1 : 0))
                    return 2;
                if (test::thread_count() != (full ? 2 : 1)) // with or without a signal-handler thread
                    return 3;
                return vlthread_attached_tid() == pthread_self() ? 0 : 4;
            });
        });
    }
}

TEST(VlthreadFork, ChildKeepsTheForkersLocksRecordsAndInhibits)
{
    for (const int kind : every_kind) {
        SCOPED_TRACE(kind);
        expect_ok([kind] {
            pfm_init();
            wait_for_signal_thread();
            vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
            vlthread_mutex_lock(&mutex);
            vlthread_enter_critical_section();
            int child = -2;
            const int32_t status = ks::protect([&] {
                child = fork_and_run(kind, [&] {
                    if (vlthread_mutex_lock(&mutex) != 0 || mutex.recursion_count != 2)
                        return 1;
                    vlthread_mutex_unlock(&mutex);
                    if (ks::protect([] { pfm_raise(5); }) != 5)
                        return 3;
                    pfm_enable();
                    vlthread_leave_critical_section();
                    return vlthread_mutex_unlock(&mutex) == 0 && pfm_inhibit_count() == 0 ? 0 : 2;
                });
            });
            vlthread_mutex_unlock(&mutex);
            vlthread_leave_critical_section();
            return status == 0 ? child : 100;
        });
    }
}

#if defined(__SANITIZE_THREAD__)
// The thread sanitizer delivers no signals to threads started after a fork of several threads.
constexpr int signalled_kinds[] = {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC};
#else
constexpr auto &signalled_kinds = every_kind;
#endif

TEST(VlthreadFork, ChildHandlesSignalsOfItsOwn)
{
    for (const int kind : signalled_kinds) {
        SCOPED_TRACE(kind);
        expect_ok([kind] {
            pfm_init();
            wait_for_signal_thread();
            const int parent_status = fork_and_run(kind, [] {
                const int32_t status = ks::protect([] {
                    kill(getpid(), SIGTERM);
                    for (;;) {
                        pfm_inhibit();
                        (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr);
                        pfm_enable();
                    }
                });
                return status == 4 ? 0 : 1;
            });
            // Nothing of it reached the parent.
            pfm_inhibit();
            timeval now{};
            const int woken = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &now);
            return parent_status != 0 ? parent_status : woken;
        });
    }
}

TEST(VlthreadFork, ChildOfAnotherThreadThanTheAttachedOneIsFree)
{
    for (const int kind : every_kind) {
        SCOPED_TRACE(kind);
        expect_ok([kind] {
            vlthread_enter_critical_section(); // and stays inside, in a thread the child does not have
            pfm_init();
            wait_for_signal_thread();
            int child = -2;
            std::thread([&] {
                child = fork_and_run(kind, [] {
                    if (vlthread_attached_tid() != 0)
                        return 1;
                    vlthread_enter_critical_section();
                    vlthread_leave_critical_section();
                    return vlthread_try_attach_lib();
                });
            }).join();
            return child;
        });
    }
}

TEST(VlthreadFork, FailureGivesEverythingBack)
{
    expect_ok([] {
        pfm_init();
        vlthread_atfork([](int) { order += 'p'; }, [](int) { order += 'r'; }, nullptr);
        const rlimit none{0, 0};
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) // the limit does not bind root
            return 1;
        setrlimit(RLIMIT_NPROC, &none);
        errno = 0;
        if (vlthread_fork(VLTHREAD_FORK_EXEC) != -1 || errno != EAGAIN || order != "pr")
            return 2;
        if (pfm_inhibit_count() != 0)
            return 3;
        int taken = 0;
        stg_area *area = stg_create_area(10);
        for (vlthread_mutex_t *lock : ks::module_locks())
            taken += lock->recursion_count;
        stg_delete_area(&area);
        return taken == 0 && ks::pfm_crit.recursion_count == 0 && ks::vlthread_lock.recursion_count == 0 ? 0 : 4;
    });
}

#if !defined(__SANITIZE_ADDRESS__) // see wait_for_signal_thread()
// While other threads lock, allocate and ask for each other's attention, no child is ever stuck.
TEST(VlthreadFork, ChildrenWorkWhileOtherThreadsLockAndAllocate)
{
    expect_ok([] {
        pfm_init();
        static std::atomic<bool> stop{false};
        static stg_area *shared = stg_create_area(4096);
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([t] {
                stg_area *own = stg_create_area(256);
                for (unsigned round = 0; !stop; ++round) {
                    if (stg_alloc(t % 2 == 0 ? shared : own, 24) == nullptr)
                        abort();
                    if (round % 64 == 0)
                        stg_free_area(own, 1);
                    if (round % 256 == 0) {
                        stg_delete_area(&own);
                        own = stg_create_area(256);
                    }
                    ks::LockGuard product(ks::ks_product_crit);
                    ks::LockGuard environment(ks::evutl_environ_crit);
                }
                stg_delete_area(&own);
            });
        int failed = 0;
        for (int i = 0; i < 200 && failed == 0; ++i) {
            failed = fork_and_run(every_kind[i % 4], [] {
                stg_area *area = stg_create_area(64);
                const bool allocated = stg_alloc(area, 100) != nullptr && stg_alloc(shared, 100) != nullptr;
                stg_delete_area(&area);
                for (vlthread_mutex_t *lock : ks::module_locks())
                    ks::LockGuard guard(*lock);
                pfm_inhibit();
                pfm_enable();
                return allocated ? 0 : 1;
            });
            if (i % 20 == 0)
                stg_free_area(shared, 0);
        }
        stop = true;
        for (auto &thread : threads)
            thread.join();
        stg_delete_area(&shared);
        return failed;
    });
}
#endif

} // namespace
