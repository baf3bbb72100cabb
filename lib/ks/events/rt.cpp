// The state of the event runtime, its start, and what becomes of it in a fork.
#include "events/rt_impl.h"

#include "base/msg_port.h"
#include "events/children.h"
#include "events/rt_started.h"

#include <korvaks/imsg.h>

namespace ks::rt {

constinit State state{};

void report_exhaustion(int line)
{
    (void)imsg_print(ks::msg_error, &_rt_ks_msg_table, rt_msg_malloc_failed, here.path, line); // the result says it too
}

namespace {

extern "C" void rt_fork_child(int)
{
    const ks::LockGuard lock(ks::rt_crit);
    drop_inherited_wake_descriptors();
    state.watch.drop_inherited();
    state.is_waiting = false; // who waits is a thread of the parent
}

} // namespace

} // namespace ks::rt

bool ks::rt_has_started()
{
    return rt::state.is_inited.load(std::memory_order_acquire);
}

extern "C" {

void rt_init(void)
{
    pfm_init();
    const ks::LockGuard lock(ks::rt_crit);
    if (ks::rt::state.is_inited.load(std::memory_order_relaxed))
        return;
    // Without memory for it the next call tries again: it is needed only by a child that runs a loop.
    ks::rt::state.is_inited.store(vlthread_atfork(nullptr, nullptr, ks::rt::rt_fork_child) == 0,
                                  std::memory_order_release);
}

void rt_get_counters(rt_counters *out_counters)
{
    *out_counters = {ks::rt::state.events_fired.load(std::memory_order_relaxed),
                     ks::rt::state.handlers_run.load(std::memory_order_relaxed),
                     ks::children_reaped.load(std::memory_order_relaxed)};
}
}
