#include "harness/child.h"
#include "harness/forked.h"
#include "harness/misuse.h"

#include <korvaks/pfm.h>
#include <korvaks/rt_proc.h>

#include <csignal>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

std::vector<rt_proc_child> reports;
std::size_t reports_wanted = 0;

void note(pid_t pid, int32_t status, void *arg, rt_proc_child *record)
{
    EXPECT_TRUE(record->pid == pid && record->status == status && record->arg == arg);
    reports.push_back(*record);
    if (reports.size() == reports_wanted)
        rt_shutdown();
}

void run_until(std::size_t wanted)
{
    reports_wanted = wanted;
    rt_run();
    EXPECT_EQ(reports.size(), wanted);
}

// Runs what the loop has waiting now.
void run_briefly()
{
    rt_sched([](void *) { rt_shutdown(); }, nullptr, 0);
    rt_run();
}

pid_t start(int status, rt_proc_fn callback = note, void *arg = nullptr)
{
    const pid_t pid = rt_proc_fork(callback, arg, VLTHREAD_FORK_PLAIN);
    if (pid == 0)
        _exit(status);
    return pid;
}

pid_t start_sleeper(rt_proc_fn callback = note)
{
    const pid_t pid = rt_proc_fork(callback, nullptr, VLTHREAD_FORK_EXEC);
    while (pid == 0) { // ends by the raise that SIGTERM is
        usleep(1000);
        pfm_test_raise(nullptr);
    }
    return pid;
}

// Until somebody has collected the child.
void wait_until_reaped(pid_t pid)
{
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0)
        usleep(100);
}

TEST(RtProc, EveryDeathIsReportedOnce)
{
    test::in_child([] {
        const pid_t first = start(3, note, &reports);
        const pid_t killed = start_sleeper();
        EXPECT_TRUE(rt_proc_any_procs() == 1 && rt_proc_alive(killed) == 1 && rt_proc_alive(getpid()) == 0);
        run_until(1);
        EXPECT_TRUE(reports[0].pid == first && reports[0].arg == &reports && WEXITSTATUS(reports[0].status) == 3);
        EXPECT_EQ(rt_proc_killall(), 0);
        run_until(2);
        EXPECT_TRUE(reports[1].pid == killed && WEXITSTATUS(reports[1].status) == PFM_RAISE_INTERRUPT);
        EXPECT_TRUE(rt_proc_killall() == -1 && rt_proc_any_procs() == 0 && rt_proc_alive(killed) == 0);

        // One that others forked, announced when it was dead and gone.
        const pid_t late = fork();
        if (late == 0)
            _exit(9);
        wait_until_reaped(late);
        EXPECT_EQ(rt_proc_birth_announcement(late, note, nullptr), 0);
        EXPECT_EQ(rt_proc_birth_announcement(late, note, nullptr), 0) << "died once";
        run_until(3);
        EXPECT_TRUE(reports[2].pid == late && WEXITSTATUS(reports[2].status) == 9);
        EXPECT_EQ(rt_proc_alive(late), 1);
        rt_counters counters;
        rt_get_counters(&counters);
        EXPECT_EQ(counters.children_reaped, 3U);
    });
}

TEST(RtProc, TheDisownedGoInSilence)
{
    test::in_child([] {
        const pid_t living = start_sleeper();
        const pid_t dead = start(1);
        wait_until_reaped(dead);
        EXPECT_EQ(rt_proc_alive(dead), 0);
        EXPECT_TRUE(rt_proc_disown(living) == 0 && rt_proc_disown(dead) == 0 && rt_proc_disown(1) == -1);
        run_briefly();
        kill(living, SIGKILL);
        wait_until_reaped(living);
        while (rt_proc_any_procs() != 0)
            run_briefly();
        EXPECT_EQ(rt_proc_disown(living), -1);
        EXPECT_TRUE(reports.empty());
    });
}

TEST(RtProc, AChildOfAForkHasNoneOfItsParentsChildren)
{
    for (const int kind : {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC, VLTHREAD_FORK_CONTINUE}) {
        SCOPED_TRACE(kind);
        test::in_child([kind] {
            const pid_t sleeper = start_sleeper();
            wait_until_reaped(start(0));
            const pid_t heir = rt_proc_fork(note, nullptr, kind);
            if (heir == 0) {
                run_briefly(); // the event of the dead one
                EXPECT_TRUE(reports.empty() && rt_proc_any_procs() == 0 && rt_proc_killall() == -1);
                start(5);
                run_until(1);
                EXPECT_EQ(WEXITSTATUS(reports[0].status), 5);
                _exit(17);
            }
            run_until(2);
            EXPECT_TRUE(reports[1].pid == heir && WEXITSTATUS(reports[1].status) == 17);
            EXPECT_EQ(rt_proc_alive(sleeper), 1);
            rt_proc_killall();
            run_until(3);
        });
    }
}

void own_handler(int) {}

TEST(RtProc, AnotherHandlerStaysAndIsAConflict)
{
    const auto result = test::run_child([] {
        pfm_signal(SIGCHLD, own_handler);
        EXPECT_EQ(rt_proc_initialize(), -1);
        EXPECT_EQ(pfm_signal(SIGCHLD, SIG_DFL), own_handler);
        EXPECT_TRUE(rt_proc_initialize() == 0 && rt_proc_initialize() == 0);
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(result.err.find("rt_proc: child death signal handler conflict!\n"), std::string::npos);
    test::expect_misuse({{[] { pfm_signal(SIGCHLD, own_handler), rt_proc_any_procs(); },
                          "PFM_ASSERT:(initialized || rt_proc_initialize() == 0) failed: 'lib/ks/rt_proc'"}});
}

} // namespace
