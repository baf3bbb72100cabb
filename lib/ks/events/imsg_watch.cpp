// The main loop drains the pipes of a daemon whenever something is written there.
#include "events/imsg_logs.h"

#include "kernel/ks_guard.h"

#include <korvaks/rt.h>

#include <unistd.h>

namespace ks::imsg {

namespace {

constexpr long pause_seconds = 1;

// What a readable pipe is to the loop after a drain.
enum class Watch { on, pause, foreign, ended };

// A pipe that is not read, since the log takes nothing, would be readable in every pass.
Watch drain_for_loop(int fd)
{
    const IoLockGuard lock(ks_product_crit);
    drain(Extent::whole_lines);
    if (!is_own_daemon.load(std::memory_order_relaxed))
        return Watch::foreign;
    for (const CapturedPipe &pipe : captured_pipes) {
        if (pipe.read_end.load(std::memory_order_relaxed) == fd)
            return is_log_refusing() ? Watch::pause : Watch::on;
    }
    return Watch::ended;
}

constinit std::array<rt_event, 2> pauses{}; // guarded by rt_crit

rt_event &pause_of(const CapturedPipe &pipe)
{
    return pauses[static_cast<std::size_t>(&pipe - captured_pipes.data())];
}

void watch(CapturedPipe &pipe);

extern "C" void imsg_pipe_pause_over(void *pipe)
{
    watch(*static_cast<CapturedPipe *>(pipe));
}

extern "C" void imsg_pipe_readable(int fd, void *pipe)
{
    const Watch next = drain_for_loop(fd);
    if (next == Watch::on)
        return;
    (void)rt_unhandle_fd(RT_FD_READ, fd);
    if (next == Watch::ended)
        (void)close(fd); // which nobody else knows any more
    if (next != Watch::pause)
        return;
    rt_event &event = pause_of(*static_cast<CapturedPipe *>(pipe));
    (void)rt_sched_int(imsg_pipe_pause_over, pipe, pause_seconds, &event, sizeof event);
}

void watch(CapturedPipe &pipe)
{
    const int fd = pipe.read_end.load(std::memory_order_relaxed);
    if (fd >= 0 && fd < KS_FD_MAX)
        (void)rt_handle_fd(RT_FD_READ, imsg_pipe_readable, fd, &pipe); // without it the prints drain
}

} // namespace

void watch_pipes()
{
    for (CapturedPipe &pipe : captured_pipes)
        watch(pipe);
}

void unwatch_pipes()
{
    for (const CapturedPipe &pipe : captured_pipes) {
        (void)rt_unhandle_fd(RT_FD_READ, pipe.read_end.load(std::memory_order_relaxed));
        (void)rt_unsched(&pause_of(pipe));
    }
}

} // namespace ks::imsg
