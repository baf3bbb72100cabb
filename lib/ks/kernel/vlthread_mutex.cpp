// Library mutexes and condition waits.
#include "kernel/kernel.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<vlthread_mutex_t> && std::is_trivially_copyable_v<vlthread_mutex_t>);

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

// How a mutex is taken and left. Nearly every call goes the short way: nothing is traced, timed,
// ordered or handed over, and the code for that is left out of it.
enum class Way { with_all, plain };

Way way_of(const vlthread_mutex_t *mutex)
{
    const bool is_plain = !ks::vlthread_has_any_mode() && mutex->order_class == nullptr && mutex->flags == 0;
    return is_plain ? Way::plain : Way::with_all;
}

template <Way way> [[gnu::always_inline]] inline bool is_tracing()
{
    return way == Way::with_all && ks::is_tracing();
}

template <Way way> [[gnu::always_inline]] inline int reenter(vlthread_mutex_t *mutex)
{
    ++mutex->recursion_count;
    if (is_tracing<way>())
        vlthread_trace("Mutex %p is locked for %d times\n", static_cast<void *>(mutex), mutex->recursion_count);
    return 0;
}

// Reports each held mutex of the same class that should have been taken later.
void check_order(vlthread_mutex_t *mutex, const pfm_fault_block *fault)
{
    const llist_link *head = &fault->held_ordered;
    if (head->next == nullptr)
        return;
    for (const llist_link *link = head->next; link != head; link = link->next) {
        auto *held = static_cast<vlthread_mutex_t *>(link->owner);
        if (held->order_class == mutex->order_class && held->level > mutex->level)
            mutex->order_class->violation(mutex, held);
    }
}

// The caller has the POSIX lock and becomes the owner.
template <Way way>
[[gnu::always_inline]] inline void take_ownership(vlthread_mutex_t *mutex, pfm_fault_block *fault, void *locker)
{
    ++mutex->lock_count;
    mutex->recursion_count = 1;
    ks::set_owner(mutex, ks::self());
    if (way == Way::with_all && mutex->order_class != nullptr) {
        mutex->locker = locker;
        llist_d_insert(&fault->held_ordered, mutex, &mutex->order_link, LLIST_AT_TAIL);
    }
}

// The opposite, with the POSIX lock still held.
template <Way way> [[gnu::always_inline]] inline void give_up_ownership(vlthread_mutex_t *mutex)
{
    mutex->recursion_count = 0;
    ks::set_owner(mutex, VLTHREAD_INVALID_TID);
    if (way == Way::plain)
        return;
    if (mutex->order_class != nullptr) {
        (void)llist_d_remove(&mutex->order_link); // the owner is this mutex
        mutex->locker = nullptr;
    }
    if (is_timed(mutex)) {
        add_time_since(mutex->hold_time, mutex->locked_at);
        mutex->locked_at = {};
    }
}

int lock_timed(vlthread_mutex_t *mutex)
{
    const timeval started = ks::wall_clock();
    const int error = pthread_mutex_lock(&mutex->lock);
    if (error == 0) {
        mutex->locked_at = ks::wall_clock();
        mutex->wait_time = ks::time_sum(mutex->wait_time, ks::time_difference(mutex->locked_at, started));
    }
    return error;
}

int try_lock_timed(vlthread_mutex_t *mutex)
{
    const int error = pthread_mutex_trylock(&mutex->lock);
    if (error == 0)
        mutex->locked_at = ks::wall_clock();
    return error;
}

// What lock and trylock share once the POSIX lock was tried.
template <Way way> [[gnu::always_inline]] inline int finish_locking(vlthread_mutex_t *mutex, pfm_fault_block *fault,
                                                                    int error, const char *function, void *locker)
{
    if (error != 0) [[unlikely]] {
        if (is_counted(mutex))
            --fault->pfm_inh_count;
        if (is_tracing<way>())
            vlthread_trace("Unable to lock mutex ('%s' failed): %s\n", function, strerror(error));
        return error;
    }
    take_ownership<way>(mutex, fault, locker);
    if (is_tracing<way>())
        vlthread_trace("Mutex %p is locked\n", static_cast<void *>(mutex));
    return 0;
}

template <Way way> [[gnu::always_inline]] inline int lock(vlthread_mutex_t *mutex, void *locker)
{
    if (way == Way::with_all)
        hand_over_if_forked(mutex);
    if (ks::is_held_by_caller(mutex))
        return reenter<way>(mutex);
    pfm_fault_block *fault = ks::fault_block_of_caller();
    if (way == Way::with_all && mutex->order_class != nullptr)
        check_order(mutex, fault);
    // Counted before the wait: a raise must not be delivered between taking the lock and
    // counting it.
    if (is_counted(mutex)) [[likely]]
        ++fault->pfm_inh_count;
    const bool is_measured = way == Way::with_all && is_timed(mutex);
    const int error = is_measured ? lock_timed(mutex) : pthread_mutex_lock(&mutex->lock);
    return finish_locking<way>(mutex, fault, error, "pthread_mutex_lock", locker);
}

template <Way way> [[gnu::always_inline]] inline int try_lock(vlthread_mutex_t *mutex, void *locker)
{
    if (is_tracing<way>())
        vlthread_trace("pthread_mutex_trylock mutex %p\n", static_cast<void *>(mutex));
    if (way == Way::with_all)
        hand_over_if_forked(mutex);
    if (ks::is_held_by_caller(mutex))
        return reenter<way>(mutex);
    pfm_fault_block *fault = ks::fault_block_of_caller();
    if (is_counted(mutex)) [[likely]]
        ++fault->pfm_inh_count;
    const bool is_measured = way == Way::with_all && is_timed(mutex);
    const int error = is_measured ? try_lock_timed(mutex) : pthread_mutex_trylock(&mutex->lock);
    return finish_locking<way>(mutex, fault, error, "pthread_mutex_trylock", locker);
}

template <Way way> [[gnu::always_inline]] inline int leave_once(vlthread_mutex_t *mutex)
{
    --mutex->recursion_count;
    if (is_tracing<way>())
        vlthread_trace("Mutex %p recursion count decrease to %d\n", static_cast<void *>(mutex), mutex->recursion_count);
    return 0;
}

template <Way way> [[gnu::always_inline]] inline int unlock(vlthread_mutex_t *mutex)
{
    if (way == Way::with_all)
        hand_over_if_forked(mutex);
    if (!ks::is_held_by_caller(mutex)) [[unlikely]] {
        if (is_tracing<way>())
            vlthread_trace("Fail to unlock mutex %u, for it's not the owner\n",
                           static_cast<unsigned>(reinterpret_cast<uintptr_t>(mutex)));
        return 1;
    }
    if (mutex->recursion_count >= 2)
        return leave_once<way>(mutex);
    // Read before the release: afterwards the mutex may be another thread's, or gone.
    const bool counted = is_counted(mutex);
    give_up_ownership<way>(mutex);
    const int error = pthread_mutex_unlock(&mutex->lock);
    if (error != 0) [[unlikely]] {
        if (is_tracing<way>())
            vlthread_trace("Unable to unlock mutex ('%s' failed): %s\n", "pthread_mutex_unlock", strerror(error));
        return error;
    }
    if (counted) [[likely]]
        --ks::fault_block_of_caller()->pfm_inh_count;
    if (is_tracing<way>())
        vlthread_trace("Mutex %p is unlocked\n", static_cast<void *>(mutex));
    return 0;
}

// The long ways stand apart, so that what they need does not weigh on the short ones.
[[gnu::noinline]] int lock_with_all(vlthread_mutex_t *mutex, void *locker)
{
    return lock<Way::with_all>(mutex, locker);
}

[[gnu::noinline]] int try_lock_with_all(vlthread_mutex_t *mutex, void *locker)
{
    return try_lock<Way::with_all>(mutex, locker);
}

[[gnu::noinline]] int unlock_with_all(vlthread_mutex_t *mutex)
{
    return unlock<Way::with_all>(mutex);
}

// A condition wait gives the mutex up around `wait` without releasing the POSIX lock, which the
// wait itself releases and takes again.
template <typename Wait> int wait_without_ownership(vlthread_cond_t *cond, vlthread_mutex_t *mutex, Wait wait)
{
    if (ks::is_tracing())
        vlthread_trace("Waiting for condition %u\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(cond)));
    pfm_fault_block *fault = ks::fault_block_of_caller();
    void *locker = mutex->locker;
    give_up_ownership<Way::with_all>(mutex);
    if (is_counted(mutex))
        --fault->pfm_inh_count;
    const timeval started = is_timed(mutex) ? ks::wall_clock() : timeval{};

    const int result = wait();

    if (is_timed(mutex)) {
        mutex->locked_at = ks::wall_clock();
        mutex->cond_time = ks::time_sum(mutex->cond_time, ks::time_difference(mutex->locked_at, started));
    }
    if (is_counted(mutex))
        ++fault->pfm_inh_count;
    take_ownership<Way::with_all>(mutex, fault, locker);
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
    if (vlthread_lib_attached_tid.load(std::memory_order_relaxed) == forker)
        (void)vlthread_force_attach_lib(); // always 0
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
    if (way_of(mutex) == Way::plain) [[likely]]
        return lock<Way::plain>(mutex, nullptr);
    return lock_with_all(mutex, __builtin_return_address(0));
}

int vlthread_mutex_trylock(vlthread_mutex_t *mutex)
{
    if (way_of(mutex) == Way::plain) [[likely]]
        return try_lock<Way::plain>(mutex, nullptr);
    return try_lock_with_all(mutex, __builtin_return_address(0));
}

int vlthread_mutex_unlock(vlthread_mutex_t *mutex)
{
    if (way_of(mutex) == Way::plain) [[likely]]
        return unlock<Way::plain>(mutex);
    return unlock_with_all(mutex);
}

int vlthread_cond_wait(vlthread_cond_t *cond, vlthread_mutex_t *mutex)
{
    hand_over_if_forked(mutex);
    ks::vlthread_require(ks::is_held_by_caller(mutex), "mutex->owner == self", 1963);
    ks::vlthread_require(mutex->recursion_count == 1, "mutex->recursion_count == 1", 1964);
    return wait_without_ownership(cond, mutex, [&] {
        ks::vlthread_require(pthread_cond_wait(cond, &mutex->lock) == 0, "pthread_cond_wait(cond, &(mutex->lock)) == 0",
                             1994);
        return 0;
    });
}

int vlthread_cond_timedwait(vlthread_cond_t *cond, vlthread_mutex_t *mutex, const struct timespec *deadline)
{
    hand_over_if_forked(mutex);
    ks::vlthread_require(ks::is_held_by_caller(mutex), "mutex->owner == self", 2050);
    ks::vlthread_require(mutex->recursion_count == 1, "mutex->recursion_count == 1", 2051);
    return wait_without_ownership(cond, mutex, [&] {
        const int error = pthread_cond_timedwait(cond, &mutex->lock, deadline);
        ks::vlthread_require(error == 0 || error == ETIMEDOUT, "err == 0 || err == ETIMEDOUT", 2094);
        return error;
    });
}
}
