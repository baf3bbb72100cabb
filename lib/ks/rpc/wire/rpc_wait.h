// Moments of time, and waits for a socket that a raise of the attached thread ends.
#pragma once

#include <cstdint>

#include <sys/time.h>

namespace ks::rpc {

// A moment of CLOCK_MONOTONIC, in nanoseconds.
using Moment = int64_t;
Moment now();
// A negative span counts as none.
Moment after(Moment start, const timeval &span);
inline Moment seconds_after(Moment start, time_t seconds)
{
    return after(start, timeval{seconds, 0});
}

enum class Waited { ready, timed_out, interrupted, failed };

// Waits for a socket with raises held off. Interrupted: a raise is pending for the attached thread, and only one hold
// keeps it off. Failed: errno says why. The revents of poll(2) are stored when it is ready.
[[nodiscard]] Waited wait_for(int fd, short events, Moment deadline, short *out_revents = nullptr);

} // namespace ks::rpc
