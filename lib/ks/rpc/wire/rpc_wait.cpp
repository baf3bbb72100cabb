// Time, and waiting for a peer, which a raise of the attached thread ends.
#include "rpc/wire/rpc_wait.h"

#include "kernel/kernel.h"

#include <korvaks/pfm.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include <poll.h>

namespace {

constexpr int64_t ns_per_s = 1'000'000'000;
constexpr int64_t ns_per_us = 1'000;
constexpr int64_t ns_per_ms = 1'000'000;

// The raise is delivered when the caller's caller checks for it; no call goes on in its way. One that the caller
// himself holds off is none of ours.
bool must_end()
{
    if (vlthread_equal(vlthread_attached_tid(), vlthread_self()) == 0)
        return false;
    pfm_fault_block *block = ks::fault_block_of_caller();
    return block->pfm_inh_count == 1 && vlthread_pending_raise(block) != 0;
}

// Rounded up, so that nobody polls for nothing just before the end.
int ms_until(ks::rpc::Moment deadline, ks::rpc::Moment moment)
{
    const int64_t left = std::max<int64_t>(deadline - moment, 0);
    return static_cast<int>(std::min<int64_t>((left + ns_per_ms - 1) / ns_per_ms, INT_MAX));
}

} // namespace

namespace ks::rpc {

Moment now()
{
    timespec moment{};
    (void)clock_gettime(CLOCK_MONOTONIC, &moment); // cannot fail for this clock and a valid address
    return moment.tv_sec * ns_per_s + moment.tv_nsec;
}

Moment after(Moment start, const timeval &span)
{
    return start + std::max<int64_t>(span.tv_sec * ns_per_s + span.tv_usec * ns_per_us, 0);
}

Waited wait_for(int fd, short events, Moment deadline, short *out_revents)
{
    // A stop that another thread's inhibit holds back ends each wait of pfm_poll_inhibited() at once.
    constexpr int pause_ms = 20;
    bool is_pausing = false;
    for (;;) {
        if (must_end()) // looked at first: a wait before this one may have emptied the notify channel
            return Waited::interrupted;
        const Moment moment = now();
        if (moment >= deadline)
            return Waited::timed_out;
        pollfd entry{fd, events, 0};
        const int left_ms = ms_until(deadline, moment);
        const int ready =
            is_pausing ? poll(&entry, 1, std::min(left_ms, pause_ms)) : pfm_poll_inhibited(&entry, 1, left_ms);
        if (ready > 0) {
            if (out_revents != nullptr)
                *out_revents = entry.revents;
            return Waited::ready;
        }
        if (ready < 0 && errno != EINTR)
            return Waited::failed;
        is_pausing = ready < 0 && !is_pausing;
    }
}

} // namespace ks::rpc
