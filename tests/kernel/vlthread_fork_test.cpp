// Forks of every kind: handlers, hand-over, and children that go on using the library. Forks under
// load are fork_load_test.cpp's.
#include "harness/child.h"
#include "harness/forked.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <csignal>

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

#ifdef __SANITIZE_THREAD__ // which delivers no signals to threads started after a fork of several threads
constexpr int last_kind_with_signals = VLTHREAD_FORK_EXEC;
#else
constexpr int last_kind_with_signals = VLTHREAD_FORK_CONTINUE_3;
#endif

TEST(VlthreadFork, ChildHandlesSignalsOfItsOwn)
{
    for (int kind = VLTHREAD_FORK_PLAIN; kind <= last_kind_with_signals; ++kind)
        test::in_child([kind] {
            start();
            fork_and_check(kind, [kind] {
                sigset_t blocked;
                pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
                EXPECT_EQ(sigismember(&blocked, SIGTERM), kind >= VLTHREAD_FORK_CONTINUE ? 1 : 0);
                EXPECT_EQ(test::thread_count(),
                          kind >= VLTHREAD_FORK_CONTINUE ? 2 : 1); // with or without a signal-handler thread
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

} // namespace
