#include <korvaks/procutl.h>

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

int wait_status_of(const test::ChildResult &result)
{
    return result.exited ? result.exit_status : result.signal;
}

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
        if (is_stopped) {
            ASSERT_TRUE(child.wait_for_stop(SIGSTOP));
        }
        EXPECT_EQ(procutl_terminate(child.pid()), 0);
        EXPECT_EQ(wait_status_of(child.finish()), SIGTERM);
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

    EXPECT_EQ(procutl_terminate(pid), -1) << "reaped: the id is anybody's";
    EXPECT_EQ(errno, ECHILD);
}

// In a process group of its own, which survives what would name a group or everybody.
TEST(ProcutlTerminate, SignalsNobodyButChildren)
{
    const auto result = test::run_child([] {
        const pid_t strangers[] = {0, -1, -getpid(), getpid(), getppid()};
        for (const pid_t pid : strangers) {
            errno = 0;
            if (procutl_terminate(pid) != -1 || errno != ECHILD)
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(wait_status_of(result), 0);
}

} // namespace
