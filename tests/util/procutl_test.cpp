#include "harness/child.h"

#include <korvaks/procutl.h>

#include <cerrno>
#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(ProcutlTerminate, EndsARunningAndAStoppedChild)
{
    for (const bool is_stopped : {false, true}) {
        SCOPED_TRACE(is_stopped);
        test::Child child([is_stopped] {
            if (is_stopped)
                raise(SIGSTOP);
            for (;;)
                pause();
            return 0;
        });
        ASSERT_TRUE(!is_stopped || child.wait_for_stop(SIGSTOP));
        EXPECT_EQ(procutl_terminate(child.pid()), 0);
        EXPECT_EQ(child.finish().signal, SIGTERM);
    }
}

TEST(ProcutlTerminate, LeavesAnEndedChildToBeReaped)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(7);
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(procutl_terminate(pid), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
}

// In a process group of its own, which survives what would name a group or everybody.
TEST(ProcutlTerminate, SignalsNobodyButChildren)
{
    test::in_child([] {
        for (const pid_t stranger : {0, -1, -getpid(), getpid(), getppid()}) {
            errno = 0;
            EXPECT_EQ(procutl_terminate(stranger), -1);
            EXPECT_EQ(errno, ECHILD);
        }
    });
}

} // namespace
