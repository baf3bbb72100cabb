// The wall clock of a test program, which is set without touching the machine's. Included by one source of a program.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace test {

inline std::atomic<time_t> clock_step_s{0}; // how far it was set
inline int clock_fd = -1;                   // told when it is

inline void set_clock(time_t change)
{
    const uint64_t one = 1;
    clock_step_s += change;
    (void)!write(clock_fd, &one, sizeof one);
}

} // namespace test

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME)
        now->tv_sec += test::clock_step_s;
    return result;
}

extern "C" int timerfd_create(clockid_t, int) noexcept
{
    return test::clock_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

extern "C" int timerfd_settime(int, int flags, const itimerspec *, itimerspec *) noexcept
{
    EXPECT_EQ(flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
    return 0;
}
