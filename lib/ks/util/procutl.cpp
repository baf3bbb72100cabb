// Process utilities.
#include <korvaks/procutl.h>

#include <cerrno>
#include <csignal>

#include <sys/wait.h>

extern "C" int procutl_terminate(pid_t pid)
{
    // 0 and below name groups; and a child that was reaped has left its id to anybody.
    siginfo_t info{};
    if (pid <= 0 || waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        errno = ECHILD;
        return -1;
    }
    if (kill(pid, SIGTERM) != 0)
        return -1;
    (void)kill(pid, SIGCONT); // fails only for a child that is gone already
    return 0;
}
