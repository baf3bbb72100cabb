// What a start costs: every user of every tool feels it, and no benchmark of a call shows it.
#include <array>
#include <cstdio>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using Program = std::array<const char *, 3>;

[[noreturn]] void run_traced(const Program &program)
{
    const int null = open("/dev/null", O_RDWR);
    const bool is_ready = dup2(null, 1) == 1 && setenv("LC_ALL", "C", 1) == 0 && setenv("LANG", "C", 1) == 0 &&
                          ptrace(PTRACE_TRACEME, 0, 0, 0) == 0;
    if (is_ready)
        execv(program[0], const_cast<char **>(program.data()));
    _exit(99);
}

// How often all threads of the program entered or left the system; -1 where nothing can be traced.
int count_stops(const Program &program)
{
    const pid_t pid = fork();
    if (pid == 0)
        run_traced(program);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status))
        return -1;
    constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
    EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, pid, 0, options), 0);
    int stops = 0;
    for (pid_t thread = pid; thread > 0; thread = waitpid(-1, &status, __WALL)) {
        if (thread == pid && (WIFEXITED(status) || WIFSIGNALED(status)))
            break;
        stops += WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80) ? 1 : 0;
        if (WIFSTOPPED(status))
            (void)ptrace(PTRACE_SYSCALL, thread, 0, 0); // a thread may have ended meanwhile
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << program[0] << ": " << status;
    return stops;
}

TEST(Startup, NeedsFewSystemCalls)
{
    for (const Program &program : {Program{HELLO_PROGRAM, nullptr}, {VELDEPOT_PROGRAM, "-version", nullptr}}) {
        const int stops = count_stops(program);
        if (stops < 0)
            GTEST_SKIP() << "nothing can be traced here";
        EXPECT_GT(stops / 2, 20) << program[0];
        EXPECT_LE(stops / 2, 200) << program[0];
        std::printf("%s: %d system calls\n", program[0], stops / 2);
    }
}

} // namespace
