// The end of a child that a test forked by the library's own means.
#pragma once

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace test {

// Its exit status, 1000 and more for a signal, -1 when it was stuck and had to be killed; -2 for the
// child of a fork that failed.
inline int exit_status_of(pid_t child)
{
    if (child < 0)
        return -2;
    for (int waited_ms = 0; waited_ms < 30000; ++waited_ms) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        usleep(waited_ms < 100 ? 100 : 1000);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
}

} // namespace test
