// Signals, the stop signal, and every process type, in children that are really signalled.
#include "harness/child.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

void say(const char *text)
{
    (void)!write(STDOUT_FILENO, text, std::strlen(text));
}

[[noreturn]] void wait_for_raise()
{
    for (;;) {
        pfm_inhibit();
        (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr);
        pfm_enable();
    }
}

std::atomic<int> handled{0};

void count_handled(int)
{
    ++handled;
}

void spin_until_handled(int count)
{
    while (handled < count)
        std::this_thread::yield();
}

TEST(PfmSignal, QuitRequestsRaiseStatusFour)
{
    for (const int sig : {SIGINT, SIGHUP, SIGTERM}) {
        SCOPED_TRACE(sig);
        test::Child child([] {
            pfm_init();
            return 10 + ks::protect([] {
                       say("ready");
                       wait_for_raise();
                   });
        });
        ASSERT_TRUE(child.wait_for_output("ready"));
        kill(child.pid(), sig);
        const auto result = child.finish();
        EXPECT_EQ(result.exit_status, 14) << result.err;
    }
}

TEST(PfmSignal, IgnoredQuitSignalsStayIgnoredAndChildrenCanBeWaitedFor)
{
    test::in_child([] {
        std::signal(SIGHUP, SIG_IGN);
        std::signal(SIGCHLD, SIG_IGN);
        pfm_init();
        kill(getpid(), SIGHUP);
        const pid_t pid = fork();
        if (pid == 0)
            _exit(9);
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WEXITSTATUS(status), 9);
    });
}

TEST(PfmSignal, HandlersRunOnTheSignalThreadAndReplaceEachOther)
{
    test::in_child([] {
        static std::atomic<pthread_t> handling_thread;
        const auto one = [](int sig) {
            handling_thread = pthread_self();
            count_handled(sig);
        };
        EXPECT_EQ(pfm_signal(SIGUSR1, one), SIG_DFL);
        kill(getpid(), SIGUSR1);
        spin_until_handled(1);
        EXPECT_NE(handling_thread, pthread_self());
        // Also a signal that lands on a thread with open signals is not handled there.
        std::thread open([] {
            pfm_proc_asignals(SIG_UNBLOCK);
            pthread_kill(pthread_self(), SIGUSR1);
            spin_until_handled(2);
            EXPECT_NE(handling_thread, pthread_self());
        });
        open.join();
        EXPECT_EQ(pfm_signal(SIGUSR1, SIG_IGN), static_cast<pfm_signal_t>(one));
        EXPECT_EQ(pfm_signal(SIGUSR1, SIG_DFL), SIG_IGN);
        for (const int sig : {SIGKILL, 0, 65}) {
            EXPECT_EQ(pfm_signal(sig, one), SIG_ERR) << sig;
            EXPECT_EQ(errno, EINVAL) << sig;
            errno = 0;
        }
        EXPECT_EQ(handled, 2);
    });
}

TEST(PfmSignal, WithoutAttachedThreadThePreLibraryHandlerRuns)
{
    test::in_child([] {
        std::signal(SIGUSR1, count_handled);
        pfm_init();
        pfm_signal(SIGUSR1, [](int) { ADD_FAILURE() << "the library's"; });
        vlthread_enter_critical_section();
        vlthread_leave_critical_section(); // detached
        kill(getpid(), SIGUSR1);
        spin_until_handled(1);
        vlthread_force_attach_lib();
    });
}

// SIGTSTP ----------------------------------------------------------------------------------------------

// Inhibited: asks to stop until the stop is held.
void ask_to_stop_and_wait()
{
    kill(getpid(), SIGTSTP);
    while (pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr) != -1 || errno != EINTR) {
    }
}

// Stops after it has said `before`, goes on when it may, and ends well.
void expect_stop_behind(const std::string &before, const std::function<void()> &body)
{
    test::Child child([&] {
        pfm_init();
        body();
        return 7;
    });
    EXPECT_TRUE(child.wait_for_stop(SIGTSTP));
    EXPECT_TRUE(child.wait_for_output(before));
    kill(child.pid(), SIGCONT);
    EXPECT_EQ(child.finish().exit_status, 7);
}

TEST(PfmStop, WaitsForTheLastInhibit)
{
    expect_stop_behind("still", [] {
        pfm_inhibit();
        pfm_inhibit_suspend();
        ask_to_stop_and_wait();
        pfm_enable();
        say("still");
        pfm_enable_suspend();
    });
}

TEST(PfmStop, StopsAtOnceWhenNobodyInhibitsAndAgainAfterContinuing)
{
    test::Child child([] {
        pfm_init();
        say("ready");
        for (;;)
            pause();
        return 0;
    });
    ASSERT_TRUE(child.wait_for_output("ready"));
    for (int round = 0; round < 3; ++round) {
        kill(child.pid(), SIGTSTP);
        EXPECT_TRUE(child.wait_for_stop(SIGTSTP));
        kill(child.pid(), SIGCONT);
    }
}

std::atomic<int> enables{0};
std::atomic<bool> passed{false};

TEST(PfmStop, ThreadThatHoldsNothingWaitsForTheOthers)
{
    expect_stop_behind("", [] {
        pfm_inhibit(); // holds the stop back
        std::thread other([] {
            pfm_inhibit();
            while (!passed) { // until the stop is held, an enable goes straight on
                ++enables;
                pfm_enable();
                pfm_inhibit();
            }
            pfm_enable();
        });
        while (enables == 0)
            std::this_thread::yield();
        ask_to_stop_and_wait();
        for (int before = -1; before != enables; usleep(20000)) // until it waits
            before = enables;
        pfm_enable();
        passed = true;
        other.join();
    });
}

// SIGCHLD blocking -----------------------------------------------------------------------------------

TEST(PfmChildSignal, BlocksNestAndTheLastUnblockCounts)
{
    test::in_child([] {
        pfm_init();
        pfm_signal(SIGCHLD, count_handled);
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        kill(getpid(), SIGCHLD);
        // Another signal that is handled proves that the thread had its chance.
        static std::atomic<int> other{0};
        pfm_signal(SIGUSR1, [](int) { ++other; });
        kill(getpid(), SIGUSR1);
        while (other < 1)
            std::this_thread::yield();
        EXPECT_EQ(handled, 0);
        pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        spin_until_handled(1);
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_init_block_total(); // the nesting is forgotten: the next block is a first one
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
    });
}

// Process types --------------------------------------------------------------------------------------

void say_earlier(int)
{
    say("earlier ");
}

TEST(PfmChaining, EarlierHandlersRunAsWellAndThoseOfQuitSignalsWaitForTheExit)
{
    const auto result = test::run_child([] {
        std::signal(SIGUSR1, [](int sig) {
            say_earlier(sig);
            ++handled;
        });
        std::signal(SIGTERM, say_earlier);
        pfm_proc_init(PFM_PROCESS_CHAINING);
        pfm_signal(SIGUSR1, [](int) { say("library "); });
        raise(SIGUSR1);
        spin_until_handled(1);
        EXPECT_EQ(ks::protect([] {
                      raise(SIGTERM);
                      wait_for_raise();
                  }),
                  4);
        say("raised ");
        pfm_exit(0);
        say("returned");
    });
    EXPECT_EQ(result.out, "library earlier raised earlier returned");
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmSafeMode, HandlesOnlyTheSafeSignals)
{
    test::in_child([] {
        (void)pfm_external_proc_init();
        vlthread_force_attach_lib();
        int count = 0;
        for (const int sig : {SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTTOU}) {
            pfm_signal(sig, count_handled);
            kill(getpid(), sig);
            spin_until_handled(++count);
        }
    });
}

} // namespace
