// How a loop that waits is woken: by other threads through an event descriptor, by a step of the clock through a
// timer that the kernel cancels when somebody sets the clock.
//
// Both are close-on-exec, non-blocking, above descriptor 2 and low enough for a set. A process that has no
// descriptor left for them gets by with waits of a second.
#include "events/rt_impl.h"

#include <algorithm>
#include <utility>

#include <sys/eventfd.h>
#include <sys/timerfd.h>

namespace ks::rt {

namespace {

constinit int wake_fd = -1;  // guarded by rt_crit
constinit int clock_fd = -1; // guarded by rt_crit

int open_wake_fd()
{
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

int open_clock_fd()
{
    UniqueFd fd(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec never{};
    never.it_value.tv_sec = int64_t{1} << 33; // only the cancellation is of interest
    if (!fd || timerfd_settime(fd.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) != 0)
        return -1;
    return fd.release();
}

// Readable as soon as there is news; reading takes it, also where it fails with ECANCELED.
void take(int fd, ks_fd_set &ready)
{
    uint64_t count = 0;
    if (!ks_fd_has(&ready, fd))
        return;
    ks_fd_remove(&ready, fd);
    (void)!read(fd, &count, sizeof count); // what it says is known: something is new
}

} // namespace

int fit_for_sets(int fd)
{
    UniqueFd above(above_stdio(fd));
    return above.get() <= KS_FD_MAX ? above.release() : -1;
}

int ensure_wake_descriptors(bool &out_complete)
{
    const ErrnoSaver saver;
    if (wake_fd < 0)
        wake_fd = fit_for_sets(open_wake_fd());
    if (clock_fd < 0)
        clock_fd = fit_for_sets(open_clock_fd());
    out_complete = wake_fd >= 0 && clock_fd >= 0;
    return std::max(wake_fd, clock_fd);
}

void add_wake_descriptors(ks_fd_set &set)
{
    ks_fd_add(&set, wake_fd);
    ks_fd_add(&set, clock_fd);
}

void take_wake_ups(ks_fd_set &ready)
{
    take(wake_fd, ready);
    take(clock_fd, ready);
}

void wake_loop()
{
    ++state.news;
    if (!state.is_waiting)
        return;
    const ErrnoSaver saver;
    const uint64_t one = 1;
    (void)!write(wake_fd, &one, sizeof one); // fails only where there is none, and then the wait is short
    state.is_waiting = false;                // once is enough
}

void drop_inherited_wake_descriptors()
{
    for (int *fd : {&wake_fd, &clock_fd}) {
        UniqueFd inherited(std::exchange(*fd, -1));
    }
}

} // namespace ks::rt
