// Signals, the stop signal, and every process type, in children that are really signalled.
#include "harness/child.h"
#include "harness/msg_recorder.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

void say(const char *text)
{
    (void)!write(STDOUT_FILENO, text, strlen(text));
}

// Waits in an interruptible select until it fails with EINTR, then enables again.
void wait_interruptibly()
{
    pfm_inhibit();
    while (pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr) != -1 || errno != EINTR) {
    }
    pfm_enable();
}

std::atomic<int> handled{0};

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
            const int32_t status = ks::protect([] {
                say("ready");
                for (;;)
                    wait_interruptibly();
            });
            return status + 10;
        });
        ASSERT_TRUE(child.wait_for_output("ready"));
        kill(child.pid(), sig);
        const auto result = child.finish();
        EXPECT_EQ(result.exit_status, 14) << result.err;
    }
}

TEST(PfmSignal, QuitRequestWithoutRecordExits)
{
    test::Child child([] {
        pfm_on_exit([](int status, void *) { say(status == 4 ? "on-exit4" : "on-exit?"); }, nullptr);
        say("ready");
        for (;;)
            wait_interruptibly();
        return 0;
    });
    ASSERT_TRUE(child.wait_for_output("ready"));
    kill(child.pid(), SIGTERM);
    const auto result = child.finish();
    EXPECT_EQ(result.exit_status, 4);
    EXPECT_EQ(result.out, "readyon-exit4");
}

TEST(PfmSignal, IgnoredQuitSignalsStayIgnoredAndChildrenCanBeWaitedFor)
{
    const auto result = test::run_child([] {
        signal(SIGHUP, SIG_IGN);
        signal(SIGCHLD, SIG_IGN);
        pfm_init();
        kill(getpid(), SIGHUP);
        const pid_t pid = fork();
        if (pid == 0)
            _exit(9);
        int status = 0;
        return waitpid(pid, &status, 0) == pid && WEXITSTATUS(status) == 9 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(PfmSignal, HandlersRunOnTheSignalThreadAndReplaceEachOther)
{
    const auto result = test::run_child([] {
        static pthread_t handling_thread;
        const auto one = [](int) {
            handling_thread = pthread_self();
            ++handled;
        };
        if (pfm_signal(SIGUSR1, one) != SIG_DFL)
            return 1;
        kill(getpid(), SIGUSR1);
        spin_until_handled(1);
        if (handling_thread == pthread_self())
            return 2;
        if (pfm_signal(SIGUSR1, SIG_IGN) != static_cast<pfm_signal_t>(one))
            return 3;
        if (pfm_signal(SIGUSR1, SIG_DFL) != SIG_IGN)
            return 4;
        errno = 0;
        if (pfm_signal(SIGKILL, one) != SIG_ERR || pfm_signal(0, one) != SIG_ERR || pfm_signal(65, one) != SIG_ERR)
            return 5;
        return handled == 1 ? 0 : 6;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmSignal, ThreadWithOpenSignalsForwards)
{
    const auto result = test::run_child([] {
        static std::atomic<pthread_t> handling_thread{0};
        pfm_init();
        pfm_signal(SIGUSR2, [](int) {
            handling_thread = pthread_self();
            ++handled;
        });
        std::atomic<bool> done{false};
        std::thread open([&] {
            pfm_proc_asignals(SIG_UNBLOCK);
            pthread_kill(pthread_self(), SIGUSR2); // lands here, and must not be handled here
            spin_until_handled(1);
            done = handling_thread != pthread_self();
        });
        open.join();
        return done ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmSignal, WithoutAttachedThreadThePreLibraryHandlerRuns)
{
    const auto result = test::run_child([] {
        signal(SIGUSR1, [](int) { ++handled; });
        pfm_init();
        pfm_signal(SIGUSR1, [](int) { say("library"); });
        vlthread_enter_critical_section();
        vlthread_leave_critical_section(); // detached
        kill(getpid(), SIGUSR1);
        spin_until_handled(1);
        vlthread_force_attach_lib();
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

// One side tells the other to go on.
class Gate {
  public:
    Gate() { (void)!pipe(fds_); }
    ~Gate()
    {
        close(fds_[0]);
        close(fds_[1]);
    }
    void open() const { (void)!write(fds_[1], "g", 1); }
    void wait() const
    {
        char go = 0;
        while (read(fds_[0], &go, 1) != 1) {
        }
    }

  private:
    int fds_[2];
};

// Asks an inhibited process to stop until it reports that a stop is held already.
void hold_stop(test::Child &child)
{
    kill(child.pid(), SIGTSTP);
    for (int i = 0; i < 200 && !child.wait_for_output("pfm_signal_handler: got signal 20, inhibited\n", 50); ++i)
        kill(child.pid(), SIGTSTP);
}

TEST(PfmStop, WaitsForTheLastInhibit)
{
    const Gate gate;
    test::Child child([&] {
        pfm_init();
        pfm_inhibit();
        pfm_inhibit_suspend();
        say("inhibited");
        gate.wait();
        pfm_enable();
        say("still");
        pfm_enable_suspend();
        say("continued");
        return 0;
    });
    ASSERT_TRUE(child.wait_for_output("inhibited"));
    hold_stop(child);
    gate.open();
    ASSERT_TRUE(child.wait_for_stop(SIGTSTP));
    kill(child.pid(), SIGCONT);
    const auto result = child.finish();
    EXPECT_EQ(result.out, "inhibitedstillcontinued");
    EXPECT_EQ(result.exit_status, 0);
}

TEST(PfmStop, StopsAtOnceWhenNobodyInhibitsAndAgainAfterContinuing)
{
    const Gate gate;
    test::Child child([&] {
        pfm_init();
        say("ready");
        gate.wait();
        return 0;
    });
    ASSERT_TRUE(child.wait_for_output("ready"));
    for (int round = 0; round < 3; ++round) {
        kill(child.pid(), SIGTSTP);
        ASSERT_TRUE(child.wait_for_stop(SIGTSTP)) << round;
        kill(child.pid(), SIGCONT);
    }
    gate.open();
    EXPECT_EQ(child.finish().exit_status, 0);
}

TEST(PfmStop, InterruptsTheWaitSoThatEnableCanStop)
{
    test::Child child([] {
        pfm_init();
        pfm_inhibit();
        say("ready");
        while (pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr) != -1 || errno != EINTR) {
        }
        pfm_enable();
        return 7;
    });
    ASSERT_TRUE(child.wait_for_output("ready"));
    kill(child.pid(), SIGTSTP);
    ASSERT_TRUE(child.wait_for_stop(SIGTSTP));
    kill(child.pid(), SIGCONT);
    EXPECT_EQ(child.finish().exit_status, 7);
}

TEST(PfmStop, ThreadThatHoldsNothingWaitsForTheOthers)
{
    const Gate gate;
    test::Child child([&] {
        pfm_init();
        pfm_inhibit(); // the main thread holds the stop back
        std::atomic<bool> entered{false};
        std::atomic<bool> passed{false};
        std::thread other([&] {
            pfm_inhibit();
            entered = true;
            while (!passed) { // until the stop is held, an enable goes straight on
                pfm_enable();
                pfm_inhibit();
                passed = handled > 0;
            }
            pfm_enable();
        });
        while (!entered)
            std::this_thread::yield();
        say("inhibited");
        gate.wait();
        pfm_enable();
        handled = 1;
        other.join();
        return 0;
    });
    ASSERT_TRUE(child.wait_for_output("inhibited"));
    hold_stop(child);
    gate.open();
    ASSERT_TRUE(child.wait_for_stop(SIGTSTP));
    kill(child.pid(), SIGCONT);
    EXPECT_EQ(child.finish().exit_status, 0);
}

// SIGCHLD blocking -----------------------------------------------------------------------------------

TEST(PfmChildSignal, BlocksNestAndTheLastUnblockCounts)
{
    const auto result = test::run_child([] {
        pfm_init();
        pfm_signal(SIGCHLD, [](int) { ++handled; });
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
        if (handled != 0)
            return 1;
        pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        spin_until_handled(1);
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_init_block_total(); // the nesting is forgotten: the next block is a first one
        pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
        pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

// Process types --------------------------------------------------------------------------------------

TEST(PfmChaining, EarlierHandlersRunAsWell)
{
    const auto result = test::run_child([] {
        signal(SIGUSR1, [](int) {
            say("earlier ");
            ++handled;
        });
        pfm_proc_init(PFM_PROCESS_CHAINING);
        pfm_signal(SIGUSR1, [](int) { say("library "); });
        raise(SIGUSR1);
        spin_until_handled(1);
        return 0;
    });
    EXPECT_EQ(result.out, "library earlier ");
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmChaining, QuitHandlersWaitForTheExit)
{
    const auto result = test::run_child([] {
        signal(SIGTERM, [](int) { say("earlier "); });
        pfm_proc_init(PFM_PROCESS_CHAINING);
        const int32_t status = ks::protect([] {
            raise(SIGTERM);
            for (;;)
                wait_interruptibly();
        });
        say(status == 4 ? "raised " : "? ");
        pfm_exit(0);
        say("returned");
        return 0;
    });
    EXPECT_EQ(result.out, "raised earlier returned");
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmSafeMode, HandlesOnlyTheSafeSignals)
{
    for (const int sig : {SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTTOU}) {
        const auto result = test::run_child([sig] {
            (void)pfm_external_proc_init();
            vlthread_force_attach_lib();
            pfm_signal(sig, [](int) { ++handled; });
            kill(getpid(), sig);
            spin_until_handled(1);
            return 0;
        });
        EXPECT_EQ(result.exit_status, 0) << sig << result.err;
    }
    const auto refused = test::run_child([] {
        (void)pfm_external_proc_init();
        pfm_signal(SIGINT, [](int) {});
        return 0;
    });
    EXPECT_EQ(refused.signal, SIGABRT);
    EXPECT_EQ(refused.err,
              "PFM_ASSERT:(!pfm_in_safe_mode() || pfm_is_safemode_signal(sig)) failed: 'lib/ks/pfm':953\n");
    const auto too_late = test::run_child([] {
        pfm_external_proc_init();
        struct sigaction action = {};
        sigaction(SIGINT, nullptr, &action);
        return action.sa_handler == SIG_DFL ? 0 : 1; // nothing was installed at the start
    });
    EXPECT_EQ(too_late.exit_status, 0);
}

// A storm of every handled signal on threads that lock, inhibit, raise and catch.
TEST(PfmStorm, LosesNoStopRequestAndRunsEachRecordOnce)
{
    test::Child child([] {
        pfm_init();
        for (const int sig : {SIGUSR1, SIGUSR2, SIGALRM})
            pfm_signal(sig, [](int) { ++handled; });
        static std::atomic<bool> stop{false};
        static vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
        static std::atomic<int> armed{0};
        static std::atomic<int> undone{0};
        static std::atomic<int> finished{0};
        const auto protected_rounds = [] {
            while (!stop) {
                bool entered = false; // a raise that was pending keeps the work from beginning
                const int32_t status = ks::protect([&entered] {
                    entered = true;
                    ++armed;
                    for (int i = 0; i < 50; ++i) {
                        vlthread_mutex_lock(&mutex);
                        pfm_test_raise(nullptr); // held off
                        vlthread_mutex_unlock(&mutex);
                        pfm_inhibit();
                        pfm_enable();
                    }
                    ++finished;
                });
                if (status != 0) {
                    undone += entered ? 1 : 0;
                    pfm_enable();
                }
            }
        };
        // A raise between two records goes to the outer one; before that it ends the thread.
        const auto work = [&] {
            while (!stop && ks::protect(protected_rounds) != 0)
                pfm_enable();
        };
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back(work);
        say("ready");
        int interrupts = 0;
        while (interrupts < 20) {
            const int32_t status = ks::protect([] {
                say("."); // the next request is sent when this one has a record to go to
                for (;;)
                    wait_interruptibly();
            });
            pfm_enable();
            interrupts += status == 4 ? 1 : 100;
        }
        stop = true;
        for (auto &thread : threads)
            thread.join();
        return armed == finished + undone && armed > 0 && interrupts == 20 ? 0 : 1;
    });
    std::string seen = "ready";
    for (int request = 0; request < 20; ++request) {
        seen += ".";
        ASSERT_TRUE(child.wait_for_output(seen)) << request; // each request is answered
        for (int i = 0; i < 25; ++i)
            for (const int sig : {SIGUSR1, SIGUSR2, SIGALRM})
                kill(child.pid(), sig);
        kill(child.pid(), SIGINT);
    }
    EXPECT_EQ(child.finish().exit_status, 0);
}

} // namespace
