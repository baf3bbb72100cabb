// Forks of every kind: handlers, hand-over, and children that go on using the library. Forks under
// load are fork_load_test.cpp's.
#include "harness/child.h"
#include "harness/forked.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

namespace {

// Forks, lets the child check, and expects it to end by itself.
void fork_and_check(int kind, const std::function<void()> &body)
{
    const pid_t pid = vlthread_fork(kind);
    if (pid == 0) {
        body();
        _exit(0);
    }
    EXPECT_EQ(test::exit_status_of(pid), 0);
}

// The fault manager, and a signal-handler thread that has come up and answered. The address
// sanitizer's allocator is not safe against a fork while another thread allocates, and a thread
// that starts does.
void start()
{
    pfm_init();
    pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
    pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
}

bool is_full(int kind)
{
    return kind >= VLTHREAD_FORK_CONTINUE;
}

void in_child_for_each_kind(const std::function<void(int kind)> &body)
{
    for (int kind = VLTHREAD_FORK_PLAIN; kind <= VLTHREAD_FORK_CONTINUE_3; ++kind) {
        SCOPED_TRACE(kind);
        test::in_child([&] { body(kind); });
    }
}

std::string order;

TEST(VlthreadFork, RunsHandlersInOrderAndHoldsThemTogether)
{
    test::in_child([] {
        start();
        vlthread_atfork([](int kind) { order += static_cast<char>('a' + kind); }, [](int) { order += 'A'; },
                        [](int) { order += 'x'; });
        vlthread_atfork([](int) { order += '2'; }, nullptr, [](int) { order += 'y'; });
        vlthread_atfork(
            nullptr, [](int) { order += 'B'; }, nullptr);
        fork_and_check(VLTHREAD_FORK_EXEC, [] { EXPECT_EQ(order, "2bxy"); });
        EXPECT_EQ(order, "2bAB");
    });
}

TEST(VlthreadFork, ChildOfEachKindHasItsType)
{
    in_child_for_each_kind([](int kind) {
        start();
        fork_and_check(kind, [kind] {
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            EXPECT_EQ(pfm_proc(), is_full(kind) ? PFM_PROCESS_ORDINARY : PFM_PROCESS_FORK_CHILD);
            EXPECT_EQ(sigismember(&blocked, SIGTERM), is_full(kind) ? 1 : 0);
            EXPECT_EQ(test::thread_count(), is_full(kind) ? 2 : 1); // with or without a signal-handler thread
            EXPECT_EQ(vlthread_attached_tid(), pthread_self());
        });
    });
}

TEST(VlthreadFork, ChildKeepsTheForkersLocksRecordsAndInhibits)
{
    in_child_for_each_kind([](int kind) {
        start();
        vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
        vlthread_mutex_lock(&mutex);
        vlthread_enter_critical_section();
        EXPECT_EQ(ks::protect([&] {
                      fork_and_check(kind, [&] {
                          EXPECT_EQ(vlthread_mutex_lock(&mutex), 0);
                          EXPECT_EQ(mutex.recursion_count, 2);
                          vlthread_mutex_unlock(&mutex);
                          EXPECT_EQ(ks::protect([] { pfm_raise(5); }), 5);
                          pfm_enable();
                          vlthread_leave_critical_section();
                          EXPECT_EQ(vlthread_mutex_unlock(&mutex), 0);
                          EXPECT_EQ(pfm_inhibit_count(), 0);
                      });
                  }),
                  0);
    });
}

TEST(VlthreadFork, ChildHandlesSignalsOfItsOwn)
{
    in_child_for_each_kind([](int kind) {
#if defined(__SANITIZE_THREAD__)
        if (is_full(kind)) // it delivers no signals to threads started after a fork of several threads
            return;
#endif
        start();
        fork_and_check(kind, [] {
            EXPECT_EQ(ks::protect([] {
                          kill(getpid(), SIGTERM);
                          for (;;) {
                              pfm_inhibit();
                              (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr);
                              pfm_enable();
                          }
                      }),
                      PFM_RAISE_INTERRUPT);
        });
        pfm_inhibit();
        timeval now{};
        EXPECT_EQ(pfm_select_inhibited(0, nullptr, nullptr, nullptr, &now), 0); // nothing of it reached the parent
    });
}

TEST(VlthreadFork, ChildOfAnotherThreadThanTheAttachedOneIsAttached)
{
    in_child_for_each_kind([](int kind) {
        vlthread_enter_critical_section(); // and stays inside, in a thread the child does not have
        start();
        std::thread([kind] {
            fork_and_check(kind, [] {
                EXPECT_EQ(vlthread_attached_tid(), pthread_self());
                vlthread_enter_critical_section();
                vlthread_leave_critical_section();
                EXPECT_EQ(vlthread_try_attach_lib(), 0);
            });
        }).join();
    });
}

TEST(VlthreadFork, FailureGivesEverythingBack)
{
    test::in_child([] {
        pfm_init();
        vlthread_atfork([](int) { order += 'p'; }, [](int) { order += 'r'; }, nullptr);
        ASSERT_TRUE(getuid() != 0 || (setgid(65534) == 0 && setuid(65534) == 0)); // the limit does not bind root
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        errno = 0;
        EXPECT_EQ(vlthread_fork(VLTHREAD_FORK_EXEC), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(order, "pr");
        EXPECT_EQ(pfm_inhibit_count(), 0);
        stg_area *area = stg_create_area(10);
        stg_delete_area(&area);
        for (const vlthread_mutex_t *lock : ks::process_locks())
            EXPECT_EQ(lock->recursion_count, 0);
    });
}

} // namespace
