// Connections that are idle for too long.
#include "rpc/server/svc_impl.h"

#include "events/rt_started.h"

#include <korvaks/rt.h>

namespace ks::svc {

namespace {

constexpr int64_t us_per_s = 1'000'000;

constinit rt_event idle_event{};
constinit std::atomic<bool> is_scheduled{false};

struct Sweep {
    const ks_fd_set &fdset;
    int64_t now;
    int timeout;
    bool cleans_blocking;
    Transport *oldest = nullptr; // with time-out 0
    int64_t oldest_us = 0;
    Transport *ended = nullptr; // linked by next_ready
};

// One that is being served is held by whoever does.
bool may_be_closed(const Sweep &sweep, const Transport &transport)
{
    return transport.kind->is_connection && ks_fd_has(&sweep.fdset, fd_of(transport)) != 0 &&
           __atomic_load_n(&transport.holds, __ATOMIC_ACQUIRE) == 1 &&
           (sweep.cleans_blocking || idleness_of(transport).is_limited);
}

void end_idle(Sweep &sweep, Transport &transport)
{
    if (!end_transport_unlocked(transport))
        return;
    transport.next_ready = sweep.ended;
    sweep.ended = &transport;
    count(counters.connections_idled);
}

void look_at(Sweep &sweep, Transport &transport)
{
    if (!may_be_closed(sweep, transport))
        return;
    const int64_t since = idleness_of(transport).since_us;
    if (sweep.timeout > 0) {
        if ((sweep.now - since) / us_per_s > sweep.timeout)
            end_idle(sweep, transport);
    } else if (sweep.oldest == nullptr || since < sweep.oldest_us) {
        sweep.oldest = &transport;
        sweep.oldest_us = since;
    }
}

void sweep_table(Sweep &sweep)
{
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    for_each_transport_locked([&](Transport &transport) { look_at(sweep, transport); });
    if (sweep.oldest != nullptr)
        end_idle(sweep, *sweep.oldest);
}

extern "C" void clean_by_event(void *)
{
    is_scheduled = false;
    clean_idle_connections();
    if (counters.connections_open.load(std::memory_order_relaxed) != 0)
        watch_idleness();
}

} // namespace

// The loop of ks_svc_run() looks at the time itself; that of rt_run() has an event.
void watch_idleness()
{
    if (is_running.load(std::memory_order_relaxed) || !ks::rt_has_started() ||
        is_scheduled.load(std::memory_order_relaxed) || is_scheduled.exchange(true))
        return;
    (void)rt_sched_int(clean_by_event, nullptr, idle_seconds, &idle_event, sizeof idle_event); // has room
}

void clean_idle_connections()
{
    ks_fd_set selected{};
    for (std::size_t i = 0; i < set_words; ++i)
        selected.words[i] = __atomic_load_n(&ks_svc_fdset.words[i], __ATOMIC_RELAXED);
    (void)__ks_svc_clean_idle(&selected, idle_seconds, FALSE); // whether one was closed is nobody's matter
}

} // namespace ks::svc

extern "C" bool_t __ks_svc_clean_idle(ks_fd_set *fdset, int timeout, bool_t cleanblock)
{
    using namespace ks::svc;
    Sweep sweep{*fdset, now_us(), timeout, cleanblock != FALSE};
    sweep_table(sweep);
    const bool has_any = sweep.ended != nullptr;
    while (Transport *transport = sweep.ended) {
        sweep.ended = transport->next_ready;
        release(*transport);
    }
    return has_any ? TRUE : FALSE;
}
