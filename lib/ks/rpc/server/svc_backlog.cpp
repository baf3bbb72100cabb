// What peers that read slowly have not taken yet.
//
// The one thread of a server without workers must not wait for such a peer while others call. So what the socket does
// not take is kept, up to a limit, and the connection is not read meanwhile; a timer, which is a registered transport
// like any other, has the rest tried again, in whatever loop the program runs. A peer that takes nothing until its time
// is over is given up.
#include "rpc/server/svc_impl.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/timerfd.h>

namespace ks::svc {

namespace {

constexpr std::size_t connection_max = std::size_t{1} << 20; // bytes that are kept for one
constexpr std::size_t total_max = std::size_t{64} << 20;     // and for all
constexpr int64_t patience_us = 2'000'000;                   // without progress
constexpr long tick_ns = 10'000'000;

// All of the main thread.
constinit Transport *first_stuck = nullptr; // held; linked by the backlogs
constinit std::size_t total_kept = 0;
constinit Transport *timer = nullptr;

// --- The timer ---

extern "C" bool_t take_tick(SVCXPRT *xprt, rpc_msg *)
{
    uint64_t ticks = 0;
    (void)!read(xprt->xp_fd, &ticks, sizeof ticks); // there is nothing to be done about one that has none
    drain_backlogs();
    return FALSE;
}

constexpr Kind timer_kind =
    kind_of(without_calls(take_tick, nullptr), Serving::inline_by_main_thread, false, dispose_plain);

bool start_timer()
{
    if (timer != nullptr)
        return true;
    ks::UniqueFd fd(ks::above_stdio(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)));
    constexpr itimerspec every{{0, tick_ns}, {0, tick_ns}};
    if (!fd || timerfd_settime(fd.get(), 0, &every, nullptr) != 0)
        return false;
    auto *made = static_cast<Transport *>(std::calloc(1, sizeof(Transport)));
    if (made == nullptr)
        return false;
    begin_transport(*made, fd.get(), timer_kind, 0);
    if (!enter(*made)) {
        std::free(made);
        return false;
    }
    (void)fd.release(); // the transport's now
    timer = made;
    return true;
}

void stop_timer()
{
    if (Transport *ended = std::exchange(timer, nullptr))
        end_transport(*ended);
}

// --- Backlogs ---

std::size_t kept_in(const Backlog &backlog)
{
    return backlog.end - backlog.begin;
}

bool make_room(Backlog &backlog, std::size_t size)
{
    const std::size_t kept = kept_in(backlog);
    if (size > connection_max - std::min(kept, connection_max) || size > total_max - std::min(total_kept, total_max))
        return false;
    if (backlog.begin > 0) {
        std::memmove(backlog.bytes, backlog.bytes + backlog.begin, kept);
        backlog.begin = 0;
        backlog.end = kept;
    }
    if (kept + size <= backlog.room)
        return true;
    const std::size_t room = std::max(kept + size, 2 * backlog.room);
    auto *bytes = static_cast<char *>(std::realloc(backlog.bytes, room));
    if (bytes == nullptr)
        return false;
    backlog.bytes = bytes;
    backlog.room = room;
    return true;
}

// Everything was sent, or nothing more will be.
void drop(Backlog &backlog)
{
    total_kept -= kept_in(backlog);
    std::free(backlog.bytes);
    backlog = {};
}

void unlink(const Transport &transport)
{
    Transport **link = &first_stuck;
    while (*link != &transport)
        link = &backlog_of(**link).next;
    *link = backlog_of(transport).next;
}

enum class Sent { all, some, nothing, failed };

Sent send_some(const Transport &transport, Backlog &backlog)
{
    Sent sent = Sent::nothing;
    while (kept_in(backlog) > 0) {
        const ssize_t count =
            send(fd_of(transport), backlog.bytes + backlog.begin, kept_in(backlog), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? sent : Sent::failed;
        backlog.begin += static_cast<std::size_t>(count);
        total_kept -= static_cast<std::size_t>(count);
        backlog.give_up_at_us = now_us() + patience_us;
        sent = Sent::some;
    }
    return Sent::all;
}

// Gives back the hold of the list.
void leave_list(Transport &transport)
{
    unlink(transport);
    drop(backlog_of(transport));
    release(transport);
}

// It is read again; what was read ahead is served first.
void resume(Transport &transport)
{
    unlink(transport);
    drop(backlog_of(transport));
    select_again(transport);
    if (!has_input_in_memory(transport) || !serve_later(transport))
        release(transport);
}

void drain(Transport &transport)
{
    Backlog &backlog = backlog_of(transport);
    if (__atomic_load_n(&transport.is_ended, __ATOMIC_ACQUIRE))
        return leave_list(transport);
    const Sent sent = send_some(transport, backlog);
    if (sent == Sent::all)
        return resume(transport);
    const bool is_silent = sent == Sent::nothing && now_us() >= backlog.give_up_at_us;
    if (!is_silent && sent != Sent::failed)
        return;
    if (is_silent)
        count(counters.dead_peers);
    end_served(transport);
    leave_list(transport);
}

} // namespace

bool is_stuck(const Transport &transport)
{
    return backlog_of(transport).end != 0;
}

bool keep_unsent(Transport &transport, const char *bytes, std::size_t size)
{
    if (is_multi_threaded.load(std::memory_order_relaxed))
        return false;
    Backlog &backlog = backlog_of(transport);
    const bool is_first = !is_stuck(transport);
    if (!start_timer() || !make_room(backlog, size))
        return false;
    std::memcpy(backlog.bytes + backlog.end, bytes, size);
    backlog.end += size;
    total_kept += size;
    if (!is_first)
        return true;
    backlog.give_up_at_us = now_us() + patience_us;
    backlog.next = first_stuck;
    first_stuck = &transport;
    hold(transport);
    deselect(transport);
    return true;
}

void take_backlog(Transport &transport, Backlog &out_backlog)
{
    unlink(transport);
    out_backlog = std::exchange(backlog_of(transport), {});
    total_kept -= kept_in(out_backlog);
    select_again(transport);
    release(transport);
}

void drain_backlogs()
{
    for (Transport *at = first_stuck; at != nullptr;) {
        Transport &transport = *at;
        at = backlog_of(transport).next;
        drain(transport);
    }
    if (first_stuck == nullptr)
        stop_timer();
}

// In a child: the rest is for its parent to send.
void drop_inherited_backlogs()
{
    while (Transport *transport = first_stuck) {
        end_served(*transport);
        leave_list(*transport);
    }
    stop_timer();
}

} // namespace ks::svc
