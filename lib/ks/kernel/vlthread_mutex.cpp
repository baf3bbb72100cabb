// Library mutexes and condition waits.
#include "kernel/kernel.h"
#include "kernel/vlthread_gate.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<vlthread_mutex_t> && std::is_trivially_copyable_v<vlthread_mutex_t>);
static_assert(offsetof(vlthread_mutex_t, lock) == 0 && offsetof(vlthread_mutex_t, owner) == 40);
static_assert(offsetof(vlthread_mutex_t, order_link) == 48 && offsetof(vlthread_mutex_t, locker) == 72);
static_assert(offsetof(vlthread_mutex_t, order_class) == 80 && offsetof(vlthread_mutex_t, level) == 88);
static_assert(offsetof(vlthread_mutex_t, flags) == 90 && offsetof(vlthread_mutex_t, recursion_count) == 92);
static_assert(offsetof(vlthread_mutex_t, raise_mode) == 96 && offsetof(vlthread_mutex_t, lock_count) == 100);
static_assert(offsetof(vlthread_mutex_t, wait_time) == 104 && offsetof(vlthread_mutex_t, hold_time) == 120);
static_assert(offsetof(vlthread_mutex_t, cond_time) == 136 && offsetof(vlthread_mutex_t, locked_at) == 152);
static_assert(sizeof(vlthread_mutex_t) == 168 && sizeof(vlthread_order_class) == 8);

namespace {

// Fork hand-over: a mutex held by the forking thread belongs to the child's thread. It is active
// only in a child whose thread has another id than the thread that forked.
constinit std::atomic<vlthread_t> vlthread_fork_thread_id{VLTHREAD_INVALID_TID};
constinit std::atomic<vlthread_t> vlthread_post_fork_thread_id{VLTHREAD_INVALID_TID};

bool is_handing_over()
{
    return ks::vlthread_has_mode(ks::vlthread_mode_hand_over);
}

void hand_over_if_forked(vlthread_mutex_t *mutex)
{
    if (is_handing_over()) [[unlikely]] {
        if (ks::owner_of(mutex) == vlthread_fork_thread_id.load(std::memory_order_relaxed))
            ks::set_owner(mutex, vlthread_post_fork_thread_id.load(std::memory_order_relaxed));
    }
}

bool is_counted(const vlthread_mutex_t *mutex)
{
    return mutex->raise_mode == VLTHREAD_RAISE_COUNTED;
}

bool is_timed(const vlthread_mutex_t *mutex)
{
    return (mutex->flags & VLTHREAD_MUTEX_TIMED) != 0;
}

void add_time_since(timeval &sum, const timeval &start)
{
    sum = ks::time_sum(sum, ks::time_difference(ks::wall_clock(), start));
}

// Nearly every mutex is taken and left the short way, which is written out in lock, trylock and unlock
// below: nothing is traced, timed, ordered, handed over or held back by a fork.
bool is_plain(const vlthread_mutex_t *mutex)
{
    return !ks::vlthread_has_any_mode() && mutex->order_class == nullptr && mutex->flags == 0;
}

// Reports each held mutex of the same class that should have been taken later.
void check_order(vlthread_mutex_t *mutex, const pfm_fault_block *fault)
{
    const llist_link *head = &fault->held_ordered;
    if (mutex->order_class == nullptr || head->next == nullptr)
        return;
    for (const llist_link *link = head->next; link != head; link = link->next) {
        auto *held = static_cast<vlthread_mutex_t *>(link->owner);
        if (held->order_class == mutex->order_class && held->level > mutex->level)
            mutex->order_class->violation(mutex, held);
    }
}

// Counted before the wait: a raise must not be delivered between taking a lock and counting it.
void count(const vlthread_mutex_t *mutex, int32_t change)
{
    if (is_counted(mutex)) [[likely]]
        ks::fault_block_of_caller()->pfm_inh_count += change;
}

// The caller has the POSIX lock and becomes the owner.
void take_ownership(vlthread_mutex_t *mutex)
{
    ++mutex->lock_count;
    mutex->recursion_count = 1;
    ks::set_owner(mutex, ks::self());
}

// The opposite, with the POSIX lock still held.
void give_up_ownership(vlthread_mutex_t *mutex)
{
    mutex->recursion_count = 0;
    ks::set_owner(mutex, VLTHREAD_INVALID_TID);
}

void take_ownership_in_full(vlthread_mutex_t *mutex, void *locker)
{
    take_ownership(mutex);
    if (mutex->order_class == nullptr)
        return;
    mutex->locker = locker;
    llist_d_insert(&ks::fault_block_of_caller()->held_ordered, mutex, &mutex->order_link, LLIST_AT_TAIL);
}

void give_up_ownership_in_full(vlthread_mutex_t *mutex)
{
    give_up_ownership(mutex);
    if (mutex->order_class != nullptr) {
        (void)llist_d_remove(&mutex->order_link); // the owner is this mutex
        mutex->locker = nullptr;
    }
    if (is_timed(mutex)) {
        add_time_since(mutex->hold_time, mutex->locked_at);
        mutex->locked_at = {};
    }
}

// How the POSIX lock is taken, and under which name a failure is traced.
struct Taking {
    int (*take)(pthread_mutex_t *lock);
    const char *name;
    bool is_wait;
};
constexpr Taking waiting{pthread_mutex_lock, "pthread_mutex_lock", true};
constexpr Taking trying{pthread_mutex_trylock, "pthread_mutex_trylock", false};

int take_timed(vlthread_mutex_t *mutex, const Taking &taking)
{
    const timeval started = is_timed(mutex) ? ks::wall_clock() : timeval{};
    const int error = taking.take(&mutex->lock);
    if (error != 0 || !is_timed(mutex))
        return error;
    mutex->locked_at = ks::wall_clock();
    if (taking.is_wait)
        mutex->wait_time = ks::time_sum(mutex->wait_time, ks::time_difference(mutex->locked_at, started));
    return 0;
}

[[gnu::noinline]] int lock_in_full(vlthread_mutex_t *mutex, const Taking &taking, void *locker)
{
    if (!taking.is_wait && ks::is_tracing())
        vlthread_trace("pthread_mutex_trylock mutex %p\n", static_cast<void *>(mutex));
    hand_over_if_forked(mutex);
    if (ks::is_held_by_caller(mutex)) {
        ++mutex->recursion_count;
        if (ks::is_tracing())
            vlthread_trace("Mutex %p is locked for %d times\n", static_cast<void *>(mutex), mutex->recursion_count);
        return 0;
    }
    if (taking.is_wait)
        check_order(mutex, ks::fault_block_of_caller());
    if (ks::vlthread_has_mode(ks::vlthread_mode_fork_pending))
        ks::wait_before_process_lock(mutex);
    count(mutex, 1);
    const int error = take_timed(mutex, taking);
    if (error != 0) [[unlikely]] {
        count(mutex, -1);
        if (ks::is_tracing())
            vlthread_trace("Unable to lock mutex ('%s' failed): %s\n", taking.name, strerror(error));
        return error;
    }
    take_ownership_in_full(mutex, locker);
    if (ks::is_tracing())
        vlthread_trace("Mutex %p is locked\n", static_cast<void *>(mutex));
    return 0;
}

[[gnu::noinline]] int unlock_in_full(vlthread_mutex_t *mutex)
{
    hand_over_if_forked(mutex);
    if (!ks::is_held_by_caller(mutex)) {
        if (ks::is_tracing())
            vlthread_trace("Fail to unlock mutex %u, for it's not the owner\n",
                           static_cast<unsigned>(reinterpret_cast<uintptr_t>(mutex)));
        return 1;
    }
    if (mutex->recursion_count >= 2) {
        --mutex->recursion_count;
        if (ks::is_tracing())
            vlthread_trace("Mutex %p recursion count decrease to %d\n", static_cast<void *>(mutex),
                           mutex->recursion_count);
        return 0;
    }
    // Read before the release: afterwards the mutex may be another thread's, or gone.
    const bool counted = is_counted(mutex);
    give_up_ownership_in_full(mutex);
    const int error = pthread_mutex_unlock(&mutex->lock);
    if (error != 0) [[unlikely]] {
        if (ks::is_tracing())
            vlthread_trace("Unable to unlock mutex ('%s' failed): %s\n", "pthread_mutex_unlock", strerror(error));
        return error;
    }
    if (counted)
        --ks::fault_block_of_caller()->pfm_inh_count;
    if (ks::is_tracing())
        vlthread_trace("Mutex %p is unlocked\n", static_cast<void *>(mutex));
    return 0;
}

// A condition wait gives the mutex up without releasing the POSIX lock, which the wait itself releases
// and takes again.
struct CondWait {
    vlthread_mutex_t *mutex;
    void *locker;
    timeval started;
};

CondWait begin_cond_wait(vlthread_cond_t *cond, vlthread_mutex_t *mutex)
{
    if (ks::is_tracing())
        vlthread_trace("Waiting for condition %u\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(cond)));
    void *const locker = mutex->locker;
    give_up_ownership_in_full(mutex);
    count(mutex, -1);
    return {mutex, locker, is_timed(mutex) ? ks::wall_clock() : timeval{}};
}

// Also what a cancelled wait does before the program's own cleanup, which finds the mutex as its
// own and unlocks it.
void end_cond_wait(void *argument)
{
    const auto *wait = static_cast<const CondWait *>(argument);
    vlthread_mutex_t *const mutex = wait->mutex;
    if (is_timed(mutex)) {
        mutex->locked_at = ks::wall_clock();
        mutex->cond_time = ks::time_sum(mutex->cond_time, ks::time_difference(mutex->locked_at, wait->started));
    }
    count(mutex, 1);
    take_ownership_in_full(mutex, wait->locker);
}

// The wait itself, absolute until `deadline` if there is one.
int wait_on_cond(vlthread_cond_t *cond, vlthread_mutex_t *mutex, const timespec *deadline)
{
    CondWait wait = begin_cond_wait(cond, mutex);
    int result = 0;
    pthread_cleanup_push(end_cond_wait, &wait);
    result = deadline == nullptr ? pthread_cond_wait(cond, &mutex->lock)
                                 : pthread_cond_timedwait(cond, &mutex->lock, deadline);
    pthread_cleanup_pop(1);
    if (ks::is_tracing())
        vlthread_trace("Got condition %u\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(cond)));
    return result;
}

int trace_init_failure(const char *what, const char *function, int error)
{
    if (ks::is_tracing())
        vlthread_trace("Unable to %s ('%s' failed): %s\n", what, function, strerror(error));
    return error;
}

int init_posix_mutex(pthread_mutex_t *lock, int kind)
{
    pthread_mutexattr_t attr;
    int error = pthread_mutexattr_init(&attr);
    if (error != 0)
        return trace_init_failure("initialize mutex attribute", "pthread_mutexattr_init", error);
    error = pthread_mutexattr_settype(&attr, kind);
    if (error != 0) {
        (void)trace_init_failure("set type for mutex", "pthread_mutexattr_settype", error);
    } else {
        error = pthread_mutex_init(lock, &attr);
        if (error != 0)
            (void)trace_init_failure("initialize mutex", "pthread_mutex_init", error);
    }
    (void)pthread_mutexattr_destroy(&attr); // always succeeds for an initialised attribute
    return error;
}

} // namespace

namespace ks {

bool lock_until(vlthread_mutex_t *mutex, const timespec *deadline)
{
    constexpr timespec pause{0, 50'000};
    while (lock_in_full(mutex, trying, nullptr) != 0) {
        timespec now{};
        (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
        const bool is_past =
            deadline != nullptr &&
            (now.tv_sec > deadline->tv_sec || (now.tv_sec == deadline->tv_sec && now.tv_nsec >= deadline->tv_nsec));
        if (is_past)
            return false;
        (void)nanosleep(&pause, nullptr); // one that is interrupted is only shorter
    }
    return true;
}

void begin_fork_ownership()
{
    if (!is_handing_over())
        vlthread_fork_thread_id.store(pthread_self(), std::memory_order_relaxed);
}

void adopt_fork_ownership()
{
    const vlthread_t forker = vlthread_fork_thread_id.load(std::memory_order_relaxed);
    if (!is_handing_over() && pthread_self() != forker)
        vlthread_set_mode(vlthread_mode_hand_over);
    vlthread_post_fork_thread_id.store(pthread_self(), std::memory_order_relaxed);
}

} // namespace ks

extern "C" {

int vlthread_mutex_init_full(vlthread_mutex_t *mutex, int kind, int16_t level, uint16_t flags,
                             vlthread_order_class *order_class)
{
    const int error = init_posix_mutex(&mutex->lock, kind);
    if (error != 0)
        return error;
    ks::set_owner(mutex, VLTHREAD_INVALID_TID);
    mutex->order_link = {};
    mutex->locker = nullptr;
    mutex->order_class = order_class;
    mutex->level = level;
    mutex->flags = flags;
    mutex->recursion_count = 0;
    mutex->raise_mode = VLTHREAD_RAISE_COUNTED;
    mutex->lock_count = 0;
    mutex->wait_time = mutex->hold_time = mutex->cond_time = mutex->locked_at = {};
    return 0;
}

int vlthread_mutex_init(vlthread_mutex_t *mutex)
{
    return vlthread_mutex_init_full(mutex, 0, 0, 0, nullptr);
}

int vlthread_mutex_set_noraise(vlthread_mutex_t *mutex)
{
    if (mutex == nullptr)
        return EINVAL;
    mutex->raise_mode = VLTHREAD_RAISE_IGNORED;
    return 0;
}

int vlthread_mutex_init_noraise(vlthread_mutex_t *mutex)
{
    const int error = vlthread_mutex_init(mutex);
    return error != 0 ? error : vlthread_mutex_set_noraise(mutex);
}

int vlthread_mutex_destroy(vlthread_mutex_t *mutex)
{
    const int error = pthread_mutex_destroy(&mutex->lock);
    if (error != 0 && ks::is_tracing())
        vlthread_trace("Unable to destroy mutex %u\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(mutex)));
    return error;
}

int vlthread_mutex_lock(vlthread_mutex_t *mutex)
{
    if (!is_plain(mutex)) [[unlikely]]
        return lock_in_full(mutex, waiting, __builtin_return_address(0));
    if (ks::is_held_by_caller(mutex)) {
        ++mutex->recursion_count;
        return 0;
    }
    count(mutex, 1);
    const int error = pthread_mutex_lock(&mutex->lock);
    if (error == 0) [[likely]]
        take_ownership(mutex);
    else
        count(mutex, -1);
    return error;
}

int vlthread_mutex_trylock(vlthread_mutex_t *mutex)
{
    if (!is_plain(mutex)) [[unlikely]]
        return lock_in_full(mutex, trying, __builtin_return_address(0));
    if (ks::is_held_by_caller(mutex)) {
        ++mutex->recursion_count;
        return 0;
    }
    count(mutex, 1);
    const int error = pthread_mutex_trylock(&mutex->lock);
    if (error == 0) [[likely]]
        take_ownership(mutex);
    else
        count(mutex, -1);
    return error;
}

int vlthread_mutex_unlock(vlthread_mutex_t *mutex)
{
    if (!is_plain(mutex) || !ks::is_held_by_caller(mutex) || mutex->recursion_count >= 2) [[unlikely]]
        return unlock_in_full(mutex);
    // Read before the release: afterwards the mutex may be another thread's, or gone.
    const bool counted = is_counted(mutex);
    give_up_ownership(mutex);
    const int error = pthread_mutex_unlock(&mutex->lock);
    if (error == 0 && counted) [[likely]]
        --ks::fault_block_of_caller()->pfm_inh_count;
    return error;
}

int vlthread_cond_wait(vlthread_cond_t *cond, vlthread_mutex_t *mutex)
{
    hand_over_if_forked(mutex);
    ks::vlthread_require(ks::is_held_by_caller(mutex), "mutex->owner == self", 1963);
    ks::vlthread_require(mutex->recursion_count == 1, "mutex->recursion_count == 1", 1964);
    ks::vlthread_require(wait_on_cond(cond, mutex, nullptr) == 0, "pthread_cond_wait(cond, &(mutex->lock)) == 0", 1994);
    return 0;
}

int vlthread_cond_timedwait(vlthread_cond_t *cond, vlthread_mutex_t *mutex, const struct timespec *deadline)
{
    hand_over_if_forked(mutex);
    ks::vlthread_require(ks::is_held_by_caller(mutex), "mutex->owner == self", 2050);
    ks::vlthread_require(mutex->recursion_count == 1, "mutex->recursion_count == 1", 2051);
    const int error = wait_on_cond(cond, mutex, deadline);
    ks::vlthread_require(error == 0 || error == ETIMEDOUT, "err == 0 || err == ETIMEDOUT", 2094);
    return error;
}
}
