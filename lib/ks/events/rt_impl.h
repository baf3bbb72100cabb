// Private to the event runtime: what its files share.
//
// Everything in State is guarded by rt_crit unless it is atomic. No message and no callback under rt_crit.
#pragma once

#include <korvaks/rt.h>

#include "base/ks_base.h"
#include "events/rt_due_index.h"
#include "events/rt_epoll.h"
#include "events/rt_fd_table.h"
#include "events/rt_msg.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <array>
#include <atomic>
#include <cstdint>

namespace ks::rt {

inline constexpr AssertPath here{"lib/ks/rt"};
inline constexpr const char *subsystem = "rt";

inline constexpr int rt_num_fds = 16384;                                                // descriptors tracked
inline constexpr std::size_t rt_fd_set_num = static_cast<std::size_t>(rt_num_fds) / 64; // words of a caller's set
inline constexpr std::size_t rt_fd_set_size = rt_fd_set_num * sizeof(uint64_t);         // bytes of it
static_assert(rt_fd_set_num == 256 && rt_fd_set_size == 2048 && rt_num_fds == KS_FD_MAX);
inline constexpr int handlers_max = 16383; // of a kind

inline constexpr int kind_count = 3;
using FdSets = std::array<ks_fd_set, kind_count>;

struct FdSetHandler {
    FdSetHandler *next;
    rt_fd_set_fn fn;
    const ks_fd_set *fd_set_fds;
    void *arg;
    uint64_t wait; // during which it was added; it is served after later ones
};

struct State {
    std::atomic<bool> is_inited{false};
    std::atomic<bool> shutdown_flag{false}; // written under rt_crit
    std::atomic<bool> has_any_handler{false};

    rt_event *first = nullptr; // by due time
    rt_event *last = nullptr;
    rt_event *free_list = nullptr; // linked by `next`
    DueIndex index;

    std::array<FdTable, kind_count> fds;
    EpollWatch watch;                                 // of those that are read or written
    std::array<FdSetHandler *, kind_count> fd_sets{}; // newest first
    FdSets *ready = nullptr; // what the last wait found and nobody has served; made on first use
    uint64_t wait = 0;       // waits begun so far; who serves what one found stops when another has begun
    uint64_t removals = 0;   // handlers removed so far

    uint64_t news = 0;       // what a loop that is about to wait has to know of, counted
    bool is_waiting = false; // and whoever has news writes to the wake-up descriptor

    std::atomic<uint64_t> events_fired{0};
    std::atomic<uint64_t> handlers_run{0};
};
extern State state;

// Starts the runtime, once.
inline void ensure_inited()
{
    if (!state.is_inited.load(std::memory_order_acquire)) [[unlikely]]
        rt_init();
}

// Message 2. A raise point: nothing is held.
void report_exhaustion(int line = __builtin_LINE());

// rt_event.cpp
// rt_sched_int(), due now, for a signal's way: it allocates nothing, also not for the index.
void sched_in_place(rt_event_fn fn, void *arg, rt_event *event);
// Under rt_crit.
rt_event *take_first_event();
void recycle(rt_event *event);

// rt_wake.cpp
// A descriptor of the runtime's own, moved to where a set has room for it; the old number is closed. -1 where there
// is no such place, also for -1.
int fit_for_sets(int fd);
// Descriptors by which the loop is woken, read like any other.
// Under rt_crit: sees to it that they are there, as far as the process has descriptors left. The highest, -1 for none;
// `out_complete` tells whether nothing is missing.
int ensure_wake_descriptors(bool &out_complete);
// Under rt_crit.
void add_wake_descriptors(ks_fd_set &set);
// Under rt_crit: takes them out of the set again and takes their news.
void take_wake_ups(ks_fd_set &ready);
// Under rt_crit: the loop looks anew, if it waits or is about to.
void wake_loop();
// In the child of a fork: what it inherited is the parent's.
void drop_inherited_wake_descriptors();

} // namespace ks::rt
