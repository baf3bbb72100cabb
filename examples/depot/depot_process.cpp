#include "depot_process.h"

#include <korvaks/pfm.h>

#include <csignal>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

namespace depot {

void fill_standard_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            (void)open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

void handle_stop_signals(void (*handler)(int signal))
{
    constexpr int signals[] = {SIGINT, SIGHUP, SIGTERM};
    for (const int signal : signals) {
        struct sigaction action;
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            (void)pfm_signal(signal, handler);
    }
}

std::int64_t now_ms()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

} // namespace depot
