// The loop: firing what is due, waiting, and serving descriptors.
#include "events/rt_impl.h"

#include "base/msg_port.h"
#include "events/children.h"
#include "kernel/stg_quiet.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <span>

#include <poll.h>

namespace ks::rt {

namespace {

constexpr long trace_level = 2;
constexpr timeval no_time{0, 0};
constexpr timeval longest_wait{100'000'000, 0};
constexpr timeval without_wake_up{1, 0}; // longest wait of a loop that cannot be woken
constexpr timeval never{INT64_MIN, 0};
constexpr int64_t usec_per_sec = 1'000'000;

constexpr std::size_t polled_max = 31; // as many as a poll() takes without memory of the heap
constexpr short read_ready = POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR;
constexpr short write_ready = POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR;

// What one wait asks for.
struct Asked {
    int channel; // of notices, which the wait adds; read before any lock
    FdSets sets;
    std::size_t words;                    // of each that are filled
    std::array<bool, kind_count> is_used; // a set that is not is not given to the wait
    int highest_fd;
    uint64_t wait;
    uint64_t removals;
    timeval timeout; // what is left of it
    bool has_timeout;
    uint64_t known_news; // that there was when the time-out was chosen
    bool knows_news;

    bool goes_by_proposals = false;
    int proposal_count;
    EpollWatch::Proposals proposals;
    bool is_poll; // of the proposals alone: there is nothing else to look at
    std::array<pollfd, polled_max> polled;
    bool is_with_own; // the runtime's own descriptors are in it
    timeval slice;    // how long the select() waits
    bool has_slice;
};

bool is_none(const timeval &time)
{
    return time.tv_sec == 0 && time.tv_usec == 0;
}

void require_main_thread()
{
    here.require(vlthread_equal(vlthread_attached_tid(), vlthread_self()) != 0, "VLTHREAD_IS_MAIN_THREAD()");
}

bool is_shorter(const timeval &a, const timeval &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

// --- What is waited for ---

// A caller's set, which other threads may be changing.
uint64_t word_of(const ks_fd_set *set, std::size_t i)
{
    return __atomic_load_n(&set->words[i], __ATOMIC_RELAXED);
}

// Words beyond the first 256 are the runtime's own: no caller's set is read there, so that message 8, which would
// say that descriptors in them are left out, has no occasion.
int add_set(const ks_fd_set *from, ks_fd_set &to)
{
    int highest = -1;
    for (std::size_t i = 0; i < rt_fd_set_num; ++i) {
        const uint64_t word = word_of(from, i);
        to.words[i] |= word;
        if (word != 0)
            highest = static_cast<int>(i * 64) + 63 - __builtin_clzll(word);
    }
    return highest;
}

// Sees to it that the sets are filled as far as a descriptor.
void reach(Asked &asked, int fd)
{
    const std::size_t words = std::min<std::size_t>(static_cast<std::size_t>(fd + 64) / 64, KS_FD_SET_WORDS);
    for (std::size_t kind = 0; kind < kind_count && words > asked.words; ++kind) {
        if (asked.is_used[kind])
            std::fill_n(asked.sets[kind].words + asked.words, words - asked.words, 0);
    }
    asked.words = std::max(asked.words, words);
}

// What a wait by proposals has select() look at: what nobody watches, and the proposed. The highest, -1 for none.
int add_members_by_proposals(const Asked &asked, const FdTable &table, ks_fd_set &to)
{
    const ks_fd_set &members = table.members();
    const ks_fd_set &watched = state.watch.watched();
    for (std::size_t i = 0; i < asked.words; ++i)
        to.words[i] = members.words[i] & ~watched.words[i];
    for (int i = 0; i < asked.proposal_count; ++i) {
        const int fd = asked.proposals[static_cast<std::size_t>(i)];
        if (table.has(fd))
            ks_fd_add(&to, fd);
    }
    return highest_of(to, table.highest_fd());
}

int add_members(const Asked &asked, std::size_t kind, ks_fd_set &to)
{
    const FdTable &table = state.fds[kind];
    if (asked.goes_by_proposals && kind != RT_FD_EXCEPT)
        return add_members_by_proposals(asked, table, to);
    std::copy_n(table.members().words, asked.words, to.words);
    return table.highest_fd();
}

bool has_set_handlers()
{
    return std::any_of(state.fd_sets.begin(), state.fd_sets.end(), [](const FdSetHandler *h) { return h != nullptr; });
}

// Under rt_crit: the descriptors of all handlers.
void collect(Asked &asked)
{
    asked.highest_fd = -1;
    int highest = has_set_handlers() ? KS_FD_MAX : std::min(asked.channel, KS_FD_MAX); // which joins them
    for (const FdTable &table : state.fds)
        highest = std::max(highest, table.highest_fd());
    asked.words = static_cast<std::size_t>(highest + 64) / 64;
    for (std::size_t kind = 0; kind < kind_count; ++kind) {
        asked.is_used[kind] = kind == RT_FD_READ || state.fds[kind].count() != 0 || state.fd_sets[kind] != nullptr;
        if (!asked.is_used[kind])
            continue;
        asked.highest_fd = std::max(asked.highest_fd, add_members(asked, kind, asked.sets[kind]));
        for (const FdSetHandler *handler = state.fd_sets[kind]; handler != nullptr; handler = handler->next)
            asked.highest_fd = std::max(asked.highest_fd, add_set(handler->fd_set_fds, asked.sets[kind]));
    }
}

void ensure_working_sets()
{
    if (state.ready == nullptr)
        state.ready = static_cast<FdSets *>(ks::heap_try_malloc(sizeof(FdSets)));
    if (state.ready != nullptr)
        return;
    report_exhaustion();
    here.panic();
}

// How the select() waits: no longer than this.
void cut(Asked &asked, const timeval &longest)
{
    if (asked.has_slice && !is_shorter(longest, asked.slice))
        return;
    asked.has_slice = true;
    asked.slice = longest;
}

bool is_look(const Asked &asked)
{
    return asked.has_slice && is_none(asked.slice);
}

// Under rt_crit.
void add_own_descriptors(Asked &asked)
{
    bool can_be_woken = false;
    const int watch_fd = asked.goes_by_proposals ? state.watch.fd() : -1;
    asked.highest_fd = std::max({asked.highest_fd, watch_fd, ensure_wake_descriptors(can_be_woken)});
    reach(asked, asked.highest_fd);
    ks_fd_add(&asked.sets[RT_FD_READ], watch_fd);
    add_wake_descriptors(asked.sets[RT_FD_READ]);
    if (asked.goes_by_proposals)
        cut(asked, state.watch.time_left());
    state.is_waiting = true;
    if (!can_be_woken)
        cut(asked, without_wake_up);
}

// Under rt_crit: how the round looks, and at what.
void choose_look(Asked &asked)
{
    const FdTable &reads = state.fds[RT_FD_READ];
    const FdTable &writes = state.fds[RT_FD_WRITE];
    asked.proposal_count = 0;
    // Beside a channel that no set holds select() is another one, which is left alone.
    const int count = asked.channel <= KS_FD_MAX ? reads.count() + writes.count() : 0;
    asked.goes_by_proposals =
        state.watch.begin(reads.members(), writes.members(), count, asked.proposals, asked.proposal_count);
    asked.is_poll = asked.proposal_count > 0 && asked.proposal_count <= static_cast<int>(polled_max) &&
                    state.watch.is_complete() && state.fds[RT_FD_EXCEPT].count() == 0 && !has_set_handlers();
    if (!asked.is_poll) {
        collect(asked);
        return;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(asked.proposal_count); ++i) {
        const int fd = asked.proposals[i];
        const int events = (reads.has(fd) ? read_ready : 0) | (writes.has(fd) ? write_ready : 0);
        asked.polled[i] = {fd, static_cast<short>(events), 0};
    }
}

void begin_round(Asked &asked)
{
    const ks::LockGuard lock(ks::rt_crit);
    if (!asked.knows_news)
        asked.known_news = state.news;
    asked.knows_news = true;
    if (asked.known_news != state.news) {
        asked.has_timeout = true;
        asked.timeout = no_time;
    }
    choose_look(asked);
    asked.wait = ++state.wait;
    asked.removals = state.removals;
    asked.has_slice = asked.has_timeout;
    asked.slice = asked.timeout;
    if (asked.goes_by_proposals && asked.proposal_count > 0)
        cut(asked, no_time);
    asked.is_with_own = !is_look(asked); // else it is over before anybody could have news
    if (asked.is_with_own)
        add_own_descriptors(asked);
    if (asked.has_timeout)
        timersub(&asked.timeout, &asked.slice, &asked.timeout);
}

// poll() of the proposals; what is closed is EBADF, as for select().
int poll_asked(Asked &asked)
{
    const std::span polled(asked.polled.data(), static_cast<std::size_t>(asked.proposal_count));
    const int ready = pfm_poll_inhibited(polled.data(), polled.size(), 0);
    if (ready > 0 &&
        std::any_of(polled.begin(), polled.end(), [](const pollfd &fd) { return (fd.revents & POLLNVAL) != 0; })) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

int select_asked(Asked &asked)
{
    if (asked.is_poll)
        return poll_asked(asked);
    ks_fd_set *given[kind_count];
    for (std::size_t kind = 0; kind < kind_count; ++kind)
        given[kind] = asked.is_used[kind] ? &asked.sets[kind] : nullptr;
    return pfm_select_inhibited(asked.highest_fd + 1, given[RT_FD_READ], given[RT_FD_WRITE], given[RT_FD_EXCEPT],
                                asked.has_slice ? &asked.slice : nullptr);
}

// The numbers of a set, as many as there is room for.
void name_members(const ks_fd_set &set, char *out, std::size_t size)
{
    constexpr std::size_t longest_number = sizeof " 16384 ...";
    std::size_t used = 0;
    out[0] = '\0';
    for (int fd = 0; fd <= KS_FD_MAX; ++fd) {
        if (ks_fd_has(&set, fd) == 0)
            continue;
        const bool is_full = used + longest_number > size;
        used += static_cast<std::size_t>(is_full ? strutl_snprintf(out + used, size - used, " ...")
                                                 : strutl_snprintf(out + used, size - used, " %d", fd));
        if (is_full)
            return;
    }
    if (used == 0)
        (void)strutl_snprintf(out, size, " none"); // fits
}

void trace_wait(const timeval *timeout)
{
    if (!ks::is_traced(subsystem, trace_level))
        return;
    Asked asked;
    asked.channel = -1;
    {
        const ks::LockGuard lock(ks::rt_crit);
        collect(asked);
        reach(asked, KS_FD_MAX);
    }
    std::array<char[160], kind_count> names;
    for (std::size_t kind = 0; kind < kind_count; ++kind) {
        if (!asked.is_used[kind])
            ks_fd_zero(&asked.sets[kind]);
        name_members(asked.sets[kind], names[kind], sizeof names[kind]);
    }
    char limit[48] = "without end";
    if (timeout != nullptr)
        (void)strutl_snprintf(limit, sizeof limit, "for at most %ld.%06ld s", static_cast<long>(timeout->tv_sec),
                              static_cast<long>(timeout->tv_usec));
    (void)imsg_print_shared(IMSG_TRACE, subsystem, "rt_wait: to read%s, to write%s, with exceptions%s; %s\n", IMSG_RAW,
                            names[RT_FD_READ], names[RT_FD_WRITE], names[RT_FD_EXCEPT], limit);
}

// --- What was found ---

// A descriptor that was closed is a caller's error, unless what is waited for has changed meanwhile.
bool has_changed(Asked &asked)
{
    Asked now;
    now.channel = asked.channel;
    const ks::LockGuard lock(ks::rt_crit);
    if (state.removals != asked.removals)
        return true;
    collect(now);
    bool is_complete = false;
    const int highest = ensure_wake_descriptors(is_complete);
    for (Asked *each : {&now, &asked}) {
        reach(*each, std::max({highest, asked.channel, now.highest_fd, asked.highest_fd}));
        add_wake_descriptors(each->sets[RT_FD_READ]); // they are in neither set of a look
        ks_fd_add(&each->sets[RT_FD_READ], asked.channel);
    }
    for (std::size_t kind = 0; kind < kind_count; ++kind) {
        if (now.is_used[kind] != asked.is_used[kind])
            return true;
        if (now.is_used[kind] &&
            !std::equal(now.sets[kind].words, now.sets[kind].words + now.words, asked.sets[kind].words))
            return true;
    }
    return false;
}

bool is_found(const Asked &asked, std::size_t proposal)
{
    const int fd = asked.proposals[proposal];
    if (asked.is_poll)
        return (asked.polled[proposal].revents & asked.polled[proposal].events) != 0;
    return ks_fd_has(&asked.sets[RT_FD_READ], fd) != 0 ||
           (asked.is_used[RT_FD_WRITE] && ks_fd_has(&asked.sets[RT_FD_WRITE], fd) != 0);
}

// Under rt_crit: whether the round has answered what was asked. It has not when it only learnt that there is
// something to propose, or that what was proposed is nothing, or when it is time for a look at everything.
bool is_answered(Asked &asked, int ready, int error)
{
    if (!asked.goes_by_proposals || (ready < 0 && error == EINTR))
        return true;
    for (std::size_t i = 0; ready >= 0 && i < static_cast<std::size_t>(asked.proposal_count); ++i) {
        if (!is_found(asked, i))
            state.watch.reject(asked.proposals[i]);
    }
    if (ready > 0)
        return !asked.is_with_own || !ks_fd_has(&asked.sets[RT_FD_READ], state.watch.fd());
    if (ready == 0 && asked.has_timeout && is_none(asked.timeout))
        return true;
    if (asked.proposal_count == 0 || ready < 0)
        state.watch.make_full_due();
    return false;
}

// Under rt_crit: what was found is due.
void mark_due(Asked &asked)
{
    for (FdTable &table : state.fds)
        table.forget_due();
    for (std::size_t i = 0; asked.is_poll && i < static_cast<std::size_t>(asked.proposal_count); ++i) {
        const pollfd &polled = asked.polled[i];
        if ((polled.revents & polled.events & read_ready) != 0)
            state.fds[RT_FD_READ].mark_due(polled.fd, asked.wait);
        if ((polled.revents & polled.events & write_ready) != 0)
            state.fds[RT_FD_WRITE].mark_due(polled.fd, asked.wait);
    }
    for (std::size_t kind = 0; !asked.is_poll && kind < kind_count; ++kind) {
        if (!asked.is_used[kind])
            continue;
        state.fds[kind].mark_due(asked.sets[kind], asked.words, asked.wait);
        if (state.fd_sets[kind] != nullptr)
            (*state.ready)[kind] = asked.sets[kind];
    }
}

// Takes what the round found; false when there has to be another, for what is left of the time.
bool end_round(Asked &asked, int ready, int error)
{
    const ks::LockGuard lock(ks::rt_crit);
    state.is_waiting = false;
    state.watch.note_found(ready);
    const bool is_over = is_answered(asked, ready, error);
    if (asked.has_timeout)
        timeradd(&asked.timeout, &asked.slice, &asked.timeout);
    if (ready <= 0)
        return is_over;
    if (asked.is_with_own)
        take_wake_ups(asked.sets[RT_FD_READ]);
    if (is_over)
        mark_due(asked);
    return is_over;
}

// As select(), with the news in mind that whoever chose the time-out knew; NULL: all there is.
int wait_for(Asked &asked, const timeval *timeout, const uint64_t *known_news)
{
    asked.channel = pfm_get_notify_channel();
    asked.has_timeout = timeout != nullptr;
    asked.timeout = timeout != nullptr ? *timeout : no_time;
    asked.knows_news = known_news != nullptr;
    asked.known_news = known_news != nullptr ? *known_news : 0;
    int ready = 0;
    int error = 0;
    do {
        begin_round(asked);
        ready = select_asked(asked);
        error = errno;
    } while (!end_round(asked, ready, error));
    errno = error;
    return ready;
}

// --- Serving ---

// Moves what is ready of a handler's set from `ready` to `part`; false when that is nothing.
bool take_part(const FdSetHandler &handler, ks_fd_set &ready, ks_fd_set &part)
{
    uint64_t any = 0;
    ks_fd_zero(&part);
    for (std::size_t i = 0; i < rt_fd_set_num; ++i) {
        part.words[i] = ready.words[i] & word_of(handler.fd_set_fds, i);
        ready.words[i] &= ~part.words[i];
        any |= part.words[i];
    }
    return any != 0;
}

// The next handler from `handler` on with something ready, NULL for none; under rt_crit.
FdSetHandler *find_ready(FdSetHandler *handler, ks_fd_set &ready, uint64_t wait, ks_fd_set &part)
{
    while (handler != nullptr && (handler->wait >= wait || !take_part(*handler, ready, part)))
        handler = handler->next;
    return handler;
}

// How far the serving of what a wait found has got.
struct Progress {
    uint64_t wait;
    std::size_t kind = 0;
    FdSetHandler *served = nullptr; // the last of the kind's sets
    uint64_t removals = 0;
};

struct Call {
    rt_fd_fn fd_fn; // NULL: it is a set's
    rt_fd_set_fn set_fn;
    void *arg;
    int fd;
    ks_fd_set part; // of this call: a wait inside it finds something else
};

bool take_set_call(Progress &at, Call &call)
{
    // From the head again when any handler was removed: the one just served may be gone.
    const bool goes_on = at.served != nullptr && at.removals == state.removals;
    FdSetHandler *next = goes_on ? at.served->next : state.fd_sets[at.kind];
    at.served = find_ready(next, (*state.ready)[at.kind], at.wait, call.part);
    at.removals = state.removals;
    if (at.served == nullptr)
        return false;
    call.fd_fn = nullptr;
    call.set_fn = at.served->fn;
    call.arg = at.served->arg;
    return true;
}

// The next handler to be called, which may be removed while it runs; false when there is none, and when another wait
// has begun.
bool take_call(Progress &at, Call &call)
{
    const ks::LockGuard lock(ks::rt_crit);
    if (state.wait != at.wait)
        return false;
    for (; at.kind < kind_count; ++at.kind, at.served = nullptr) {
        if (const FdHandler *handler = state.fds[at.kind].take_due()) {
            call.fd_fn = handler->fn;
            call.arg = handler->arg;
            call.fd = handler->fd;
            return true;
        }
        if (state.fd_sets[at.kind] != nullptr && take_set_call(at, call))
            return true;
    }
    return false;
}

void serve(uint64_t wait)
{
    Progress at{wait};
    Call call;
    while (take_call(at, call)) {
        state.handlers_run.fetch_add(1, std::memory_order_relaxed);
        if (call.fd_fn != nullptr)
            call.fd_fn(call.fd, call.arg);
        else
            call.set_fn(&call.part, call.arg);
    }
}

// --- Running ---

// Whether shutdown was asked for, once.
bool take_shutdown()
{
    if (!state.shutdown_flag.load(std::memory_order_acquire)) [[likely]]
        return false;
    const ks::LockGuard lock(ks::rt_crit);
    return state.shutdown_flag.exchange(false);
}

// What a pass of the loop has to do: an event to fire, or a wait.
struct Pass {
    rt_event_fn fn = nullptr; // NULL: a wait
    void *arg = nullptr;
    bool has_limit = false;
    timeval limit{};
    uint64_t news = 0; // that there was when this was settled
};

// From then to the due time, as long or short as a time can be.
timeval time_until(const rt_event &event, const timeval &now)
{
    int64_t carried = event.tv_usec / usec_per_sec;
    int64_t usec = event.tv_usec % usec_per_sec - now.tv_usec;
    while (usec < 0) {
        usec += usec_per_sec;
        --carried;
    }
    int64_t sec = 0;
    if (__builtin_sub_overflow(event.tv_sec, static_cast<int64_t>(now.tv_sec), &sec) ||
        __builtin_add_overflow(sec, carried, &sec))
        return event.tv_sec < 0 ? timeval{INT64_MIN, 0} : longest_wait;
    return {sec, usec};
}

// With `looks_first` an event that is due waits for one look at the descriptors. What was due when the clock was last
// read, at `now`, is due: a batch of events needs one reading.
Pass begin_pass(bool looks_first, timeval &now)
{
    const ks::LockGuard lock(ks::rt_crit);
    Pass pass;
    pass.news = state.news;
    const bool is_to_end = state.shutdown_flag.load(std::memory_order_relaxed);
    pass.has_limit = state.first != nullptr || is_to_end;
    if (state.first == nullptr || is_to_end)
        return pass; // which looks, where it is to end, and then does
    timeval until_due = time_until(*state.first, now);
    if (until_due.tv_sec >= 0) {
        now = ks::wall_clock();
        until_due = time_until(*state.first, now);
    }
    if (until_due.tv_sec >= 0)
        pass.limit = until_due.tv_sec > longest_wait.tv_sec ? longest_wait : until_due;
    if (until_due.tv_sec >= 0 || looks_first)
        return pass;
    rt_event *event = take_first_event();
    pass.fn = event->fn;
    pass.arg = event->arg;
    if (event->mt == 0 && event->caller_owned == 0)
        recycle(event);
    return pass;
}

// One wait, and the handlers of what it found. Entered inhibited. False when the wait was interrupted.
bool wait_and_serve(const timeval *timeout, const uint64_t *known_news)
{
    require_main_thread();
    ensure_working_sets();
    trace_wait(timeout);
    Asked asked;
    const int ready = wait_for(asked, timeout, known_news);
    const int error = errno;
    if (ready < 0 && error != EINTR)
        here.require(error == EBADF && has_changed(asked), "errno == EINTR");
    pfm_enable();
    if (ready > 0)
        serve(asked.wait);
    return ready >= 0;
}

} // namespace

} // namespace ks::rt

extern "C" {

void rt_run(void)
{
    ks::rt::ensure_inited();
    ks::rt::require_main_thread();
    ks::reap_children();
    // Between two events that are due the descriptors are looked at once.
    bool looks_first = false;
    timeval now = ks::rt::never;
    while (!ks::rt::take_shutdown()) {
        // A raise is delivered before an event is taken: none is lost to it.
        pfm_test_raise(nullptr);
        const ks::rt::Pass pass =
            ks::rt::begin_pass(looks_first && ks::rt::state.has_any_handler.load(std::memory_order_relaxed), now);
        looks_first = pass.fn != nullptr;
        if (pass.fn != nullptr) {
            ks::rt::state.events_fired.fetch_add(1, std::memory_order_relaxed);
            pass.fn(pass.arg);
            continue;
        }
        now = ks::rt::never; // it may be set while the loop waits
        pfm_inhibit();
        if (!ks::rt::wait_and_serve(pass.has_limit ? &pass.limit : nullptr, &pass.news))
            ks::reap_children();
    }
}

void rt_poll(void)
{
    ks::rt::ensure_inited();
    ks::rt::require_main_thread();
    pfm_inhibit();
    (void)ks::rt::wait_and_serve(&ks::rt::no_time, nullptr); // what came of it is served
}

void rt_wait(const struct timeval *timeout)
{
    ks::rt::ensure_inited();
    (void)ks::rt::wait_and_serve(timeout, nullptr); // what came of it is served
}

void rt_shutdown(void)
{
    const ks::LockGuard lock(ks::rt_crit);
    ks::rt::state.shutdown_flag.store(true, std::memory_order_release);
    ks::rt::wake_loop();
}
}
