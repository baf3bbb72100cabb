// Timed events: the list, sorted by due time, and the records.
#include "events/rt_impl.h"

#include "kernel/stg_quiet.h"

#include <cstddef>
#include <type_traits>
#include <utility>

static_assert(std::is_standard_layout_v<rt_event> && std::is_trivially_copyable_v<rt_event>);
static_assert(offsetof(rt_event, next) == 0 && offsetof(rt_event, prev) == 8 && offsetof(rt_event, tv_sec) == 16);
static_assert(offsetof(rt_event, tv_usec) == 24 && offsetof(rt_event, fn) == 32 && offsetof(rt_event, arg) == 40);
static_assert(offsetof(rt_event, magic) == 48 && offsetof(rt_event, caller_owned) == 50);
static_assert(offsetof(rt_event, mt) == 52 && sizeof(rt_event) == 56);

namespace ks::rt {

namespace {

constexpr int64_t usec_per_sec = 1'000'000;

// What an event is made of.
struct Order {
    rt_event_fn fn;
    void *arg;
    bool is_mt;
};

// The latest or the earliest time when the sum cannot be held.
timeval saturated_sum(int64_t sec, int64_t more_sec, int64_t usec)
{
    int64_t sum = 0;
    if (__builtin_add_overflow(sec, more_sec, &sum))
        return more_sec > 0 ? timeval{INT64_MAX, usec_per_sec - 1} : timeval{INT64_MIN, 0};
    return {sum, usec};
}

timeval seconds_from_now(long seconds)
{
    const timeval now = ks::wall_clock();
    return saturated_sum(now.tv_sec, seconds, now.tv_usec);
}

timeval time_from_now(const timeval &timeout)
{
    const timeval now = ks::wall_clock();
    here.require(timeout.tv_sec >= 0 && timeout.tv_sec < now.tv_sec,
                 "timeout->tv_sec >= 0 && timeout->tv_sec < abs_time.tv_sec");
    // Both kept within a second and not negative, whatever was given.
    int64_t carried = timeout.tv_usec / usec_per_sec;
    int64_t usec = timeout.tv_usec % usec_per_sec + now.tv_usec;
    if (usec < 0 || usec >= usec_per_sec) {
        carried += usec < 0 ? -1 : 1;
        usec -= usec < 0 ? -usec_per_sec : usec_per_sec;
    }
    return saturated_sum(now.tv_sec + timeout.tv_sec, carried, usec); // the first two are less than twice a clock's
}

// The event that a new one goes behind, NULL for the front; and its place in the index.
rt_event *place_of(const rt_event *event, DueIndex::Place &out_place)
{
    if (state.last != nullptr && !is_earlier(*event, *state.last)) {
        out_place = state.index.find_end();
        return state.last;
    }
    out_place = state.index.find(event);
    rt_event *prev = state.index.before(out_place);
    rt_event *current = prev != nullptr ? prev->next : state.first;
    while (current != nullptr && !is_earlier(*event, *current)) {
        here.require(current != prev, "current != prev");
        prev = std::exchange(current, current->next);
    }
    return prev;
}

// Whether caller's memory holds an event that is scheduled. It may hold anything: only pointers of the list are
// followed.
bool is_on_list(const rt_event *memory)
{
    if (memory->magic != RT_MAGIC)
        return false;
    DueIndex::Place place;
    const rt_event *before = place_of(memory, place); // behind all of its due time
    while (before != nullptr && before != memory && !is_earlier(*before, *memory))
        before = before->prev;
    return before == memory;
}

void link_behind(rt_event *place, rt_event *event)
{
    event->prev = place;
    event->next = place != nullptr ? place->next : state.first;
    (place != nullptr ? place->next : state.first) = event;
    (event->next != nullptr ? event->next->prev : state.last) = event;
}

void take_off(rt_event *event)
{
    state.index.forget(event);
    (event->prev != nullptr ? event->prev->next : state.first) = event->next;
    (event->next != nullptr ? event->next->prev : state.last) = event->prev;
    event->next = event->prev = nullptr;
    event->magic = RT_MAGIC_DONE;
}

// A record from the free list or of the heap, NULL on exhaustion. Records are never given back to the heap.
rt_event *obtain_record()
{
    if (state.free_list == nullptr)
        return static_cast<rt_event *>(ks::heap_try_malloc(sizeof(rt_event)));
    return std::exchange(state.free_list, state.free_list->next);
}

// Fills the record in and puts it on the list, not yet in the index, whose place for it is given; under rt_crit.
DueIndex::Place fill_and_link(rt_event *event, const Order &order, const timeval &due, bool is_caller_owned)
{
    here.require(order.fn != nullptr, "fn != NULL");
    event->tv_sec = due.tv_sec;
    event->tv_usec = due.tv_usec;
    event->fn = order.fn;
    event->arg = order.arg;
    event->magic = RT_MAGIC;
    event->mt = order.is_mt ? 1 : 0;
    event->caller_owned = is_caller_owned ? 1 : 0;
    DueIndex::Place place;
    link_behind(place_of(event, place), event);
    if (event->prev == nullptr)
        wake_loop();
    return place;
}

void insert(rt_event *event, const Order &order, const timeval &due, bool is_caller_owned)
{
    state.index.note(fill_and_link(event, order, due, is_caller_owned), event);
}

rt_event *sched_abs_int(const Order &order, const timeval &due)
{
    {
        const ks::LockGuard lock(ks::rt_crit);
        if (rt_event *event = obtain_record(); event != nullptr) {
            insert(event, order, due, false);
            return event;
        }
    }
    report_exhaustion();
    return nullptr;
}

// Cancels the event and keeps what it was made of, for one to be scheduled in its place; false when there is
// to be none. Kept exactly: an mt event is scheduled anew when it could not be cancelled, any other when it
// was. Owners of mt events rely on it.
bool cancel_to_resched(rt_event *event, bool is_mt, Order &out_order)
{
    if (event == nullptr)
        return false;
    const ks::LockGuard lock(ks::rt_crit); // until it is cancelled nobody else gets the record
    out_order = {event->fn, event->arg, is_mt};
    const bool is_cancelled = rt_unsched_mt(event, is_mt ? 1 : 0) == KS_ST_OK;
    return is_cancelled != is_mt;
}

} // namespace

void sched_in_place(rt_event_fn fn, void *arg, rt_event *event)
{
    const timeval now = ks::wall_clock();
    const ks::LockGuard lock(ks::rt_crit);
    state.index.note_in_place(fill_and_link(event, {fn, arg, false}, now, true), event);
}

rt_event *take_first_event()
{
    rt_event *event = state.first;
    here.require(event->magic == RT_MAGIC, "event->magic == RT_MAGIC");
    take_off(event);
    return event;
}

void recycle(rt_event *event)
{
    event->mt = 0; // it is the runtime's: to give it back once more changes nothing
    event->next = state.free_list;
    state.free_list = event;
}

} // namespace ks::rt

extern "C" {

rt_event *rt_sched(rt_event_fn fn, void *arg, long seconds)
{
    return ks::rt::sched_abs_int({fn, arg, false}, ks::rt::seconds_from_now(seconds));
}

rt_event *rt_sched_mt(rt_event_fn fn, void *arg, long seconds)
{
    return ks::rt::sched_abs_int({fn, arg, true}, ks::rt::seconds_from_now(seconds));
}

rt_event *rt_sched_rel(rt_event_fn fn, void *arg, const struct timeval *timeout)
{
    return ks::rt::sched_abs_int({fn, arg, false}, ks::rt::time_from_now(*timeout));
}

rt_event *rt_sched_rel_mt(rt_event_fn fn, void *arg, const struct timeval *timeout)
{
    return ks::rt::sched_abs_int({fn, arg, true}, ks::rt::time_from_now(*timeout));
}

rt_event *rt_sched_abs(rt_event_fn fn, void *arg, const struct timeval *abs_time)
{
    return ks::rt::sched_abs_int({fn, arg, false}, *abs_time);
}

rt_event *rt_sched_int(rt_event_fn fn, void *arg, long seconds, void *event_memory, size_t max_event_size)
{
    ks::rt::here.require(max_event_size >= sizeof(struct rt_event), "max_event_size >= sizeof(struct rt_event)");
    auto *event = static_cast<rt_event *>(event_memory);
    const timeval due = ks::rt::seconds_from_now(seconds);
    const ks::LockGuard lock(ks::rt_crit);
    ks::rt::here.require(!ks::rt::is_on_list(event), "event->magic != RT_MAGIC");
    if (ks::is_signal_handler_thread()) // which gets no memory in a handler
        ks::rt::state.index.note_in_place(ks::rt::fill_and_link(event, {fn, arg, false}, due, true), event);
    else
        ks::rt::insert(event, {fn, arg, false}, due, true);
    return event;
}

ks_status rt_unsched_mt(rt_event *event, int mt)
{
    if (event == nullptr)
        return RT_NOT_SCHEDULED;
    const ks::LockGuard lock(ks::rt_crit);
    if (event->magic != RT_MAGIC)
        return mt != 0 && event->magic == RT_MAGIC_DONE ? RT_ALREADY_FIRED : RT_NOT_SCHEDULED;
    ks::rt::take_off(event);
    if (event->caller_owned == 0)
        ks::rt::recycle(event);
    return KS_ST_OK;
}

int rt_unsched(rt_event *event)
{
    return rt_unsched_mt(event, 0) == KS_ST_OK ? 1 : 0;
}

rt_event *rt_resched(rt_event *event, long seconds)
{
    ks::rt::Order order{};
    return ks::rt::cancel_to_resched(event, false, order) ? rt_sched(order.fn, order.arg, seconds) : nullptr;
}

rt_event *rt_resched_mt(rt_event *event, long seconds)
{
    ks::rt::Order order{};
    return ks::rt::cancel_to_resched(event, true, order) ? rt_sched_mt(order.fn, order.arg, seconds) : nullptr;
}

void rt_free_event(rt_event *event)
{
    if (event == nullptr)
        return;
    const ks::LockGuard lock(ks::rt_crit);
    ks::rt::here.require(event->magic != RT_MAGIC, "event->magic != RT_MAGIC");
    if (event->caller_owned == 0 && event->mt != 0)
        ks::rt::recycle(event);
}

int rt_event_in_timeout(const rt_event *event)
{
    const ks::LockGuard lock(ks::rt_crit);
    return event->magic == RT_MAGIC_DONE ? 1 : 0;
}
}
