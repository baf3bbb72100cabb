// Read/write locks that tolerate a writer asking again, and that a fork leaves usable.
//
// A child has one thread, and what other threads of the parent held would stay held for ever; a
// lock held for writing would not even be its holder's, whom the platform knows by another number
// there. So a lock says under which generation of forks it was last taken, and one of an earlier
// generation is renewed before it is used.
#include "kernel/vlthread_renew.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<vlthread_rwlock_t> && std::is_trivially_copyable_v<vlthread_rwlock_t>);
static_assert(offsetof(vlthread_rwlock_t, lock) == 0 && offsetof(vlthread_rwlock_t, raise_mode) == 56);
static_assert(offsetof(vlthread_rwlock_t, writer) == 64 && sizeof(vlthread_rwlock_t) == 72);

namespace {

// Read holds of the thread that forked.
constinit uint32_t inherited_read_holds = 0;

vlthread_t writer_of(const vlthread_rwlock_t *rwlock)
{
    return __atomic_load_n(&rwlock->writer, __ATOMIC_RELAXED);
}

void set_writer(vlthread_rwlock_t *rwlock, vlthread_t writer)
{
    __atomic_store_n(&rwlock->writer, writer, __ATOMIC_RELAXED);
}

bool is_counted(const vlthread_rwlock_t *rwlock)
{
    return rwlock->raise_mode == VLTHREAD_RAISE_COUNTED;
}

bool is_of_this_process(const vlthread_rwlock_t *rwlock)
{
    return ks::is_of_this_process(rwlock->fork_generation);
}

// Whether the lock may be held for reading by the thread that forked: then it stays as it is.
bool may_be_read_here(vlthread_rwlock_t *rwlock)
{
    if (inherited_read_holds == 0 || pthread_rwlock_tryrdlock(&rwlock->lock) != 0)
        return false;
    (void)pthread_rwlock_unlock(&rwlock->lock); // just taken
    return true;
}

void renew(vlthread_rwlock_t *rwlock)
{
    const vlthread_t writer = writer_of(rwlock);
    if (writer == VLTHREAD_INVALID_TID && may_be_read_here(rwlock))
        return;
    (void)pthread_rwlock_init(&rwlock->lock, nullptr); // it could be made once, in the parent
    if (writer == ks::self())
        (void)pthread_rwlock_wrlock(&rwlock->lock); // free, and again its writer's
    else
        set_writer(rwlock, VLTHREAD_INVALID_TID);
}

void renew_after_fork(vlthread_rwlock_t *rwlock)
{
    ks::renew_once(rwlock->fork_generation, [rwlock] { renew(rwlock); });
}

// What a hold adds to the counts of its thread, and an end of it takes away.
[[gnu::always_inline]] inline void count_hold(const vlthread_rwlock_t *rwlock, bool writes, int change)
{
    pfm_fault_block *const block = ks::fault_block_of_caller();
    if (is_counted(rwlock)) [[likely]]
        block->pfm_inh_count += change;
    if (!writes)
        block->read_holds += static_cast<uint32_t>(change);
}

// Kept out of the short paths, which then save no registers for it.
[[gnu::noinline]] int count_refused(const vlthread_rwlock_t *rwlock, bool writes, int error)
{
    count_hold(rwlock, writes, -1);
    return error;
}

[[gnu::noinline]] int restore_writer(vlthread_rwlock_t *rwlock, vlthread_t writer, int error)
{
    set_writer(rwlock, writer);
    return error;
}

// The usual case, in which nothing is traced and no fork has to be looked after.
[[gnu::always_inline]] inline bool is_plain(const vlthread_rwlock_t *rwlock)
{
    return !ks::vlthread_has_any_mode() && is_of_this_process(rwlock);
}

using PosixLock = int (*)(pthread_rwlock_t *);

// The two ways to hold the lock. Failures are reported under the name of the blocking function,
// which the callers of the try forms know as well.
struct Access {
    const char *verb;
    const char *got;
    PosixLock blocking;
    PosixLock trying;
    const char *blocking_name;
    const char *trying_name;
    bool writes;
};
constexpr Access reading{"rdlock",
                         "READ",
                         pthread_rwlock_rdlock,
                         pthread_rwlock_tryrdlock,
                         "pthread_rwlock_rdlock",
                         "pthread_rwlock_tryrdlock",
                         false};
constexpr Access writing{"wrlock",
                         "WRITE",
                         pthread_rwlock_wrlock,
                         pthread_rwlock_trywrlock,
                         "pthread_rwlock_wrlock",
                         "pthread_rwlock_trywrlock",
                         true};

// Inlined, so that `access` is known where it is used: the uncontended pair is a few nanoseconds.
[[gnu::always_inline]] inline int take(vlthread_rwlock_t *rwlock, const Access &access, PosixLock posix_lock)
{
    count_hold(rwlock, access.writes, 1);
    const int error = posix_lock(&rwlock->lock);
    if (error != 0) [[unlikely]]
        return count_refused(rwlock, access.writes, error);
    if (access.writes)
        set_writer(rwlock, ks::self());
    return 0;
}

[[gnu::noinline]] int take_in_full(vlthread_rwlock_t *rwlock, const Access &access, bool may_wait)
{
    if (ks::is_tracing())
        vlthread_trace("%s rwlock %p\n", may_wait ? access.blocking_name : access.trying_name,
                       static_cast<void *>(rwlock));
    if (!is_of_this_process(rwlock))
        renew_after_fork(rwlock);
    const bool waits = may_wait && writer_of(rwlock) != ks::self();
    const int error = take(rwlock, access, waits ? access.blocking : access.trying);
    if (!ks::is_tracing())
        return error;
    if (error != 0)
        vlthread_trace("Unable to %s rwlock ('%s' failed): %s\n", access.verb, access.blocking_name,
                       std::strerror(error));
    else
        vlthread_trace("Got %s rwlock: rwlock: %p, type %d, owner %lu\n", access.got, static_cast<void *>(rwlock),
                       rwlock->raise_mode, static_cast<unsigned long>(writer_of(rwlock)));
    return error;
}

// A writer that asks again must get an error, not wait for itself.
[[gnu::always_inline]] inline int take_waiting(vlthread_rwlock_t *rwlock, const Access &access)
{
    if (!is_plain(rwlock) || writer_of(rwlock) == ks::self()) [[unlikely]]
        return take_in_full(rwlock, access, true);
    return take(rwlock, access, access.blocking);
}

[[gnu::always_inline]] inline int take_trying(vlthread_rwlock_t *rwlock, const Access &access)
{
    if (!is_plain(rwlock)) [[unlikely]]
        return take_in_full(rwlock, access, false);
    return take(rwlock, access, access.trying);
}

[[gnu::always_inline]] inline int release(vlthread_rwlock_t *rwlock)
{
    // Read before the release: afterwards the lock may be gone.
    const bool counted = is_counted(rwlock);
    // Cleared by every unlock, a reader's too, and before the release: afterwards the field may
    // already name the next writer.
    const vlthread_t writer = writer_of(rwlock);
    if (writer != VLTHREAD_INVALID_TID) // a reader has nothing to clear
        set_writer(rwlock, VLTHREAD_INVALID_TID);
    const int error = pthread_rwlock_unlock(&rwlock->lock);
    if (error != 0) [[unlikely]]
        return restore_writer(rwlock, writer, error);
    pfm_fault_block *const block = ks::fault_block_of_caller();
    if (counted) [[likely]]
        --block->pfm_inh_count;
    if (writer == VLTHREAD_INVALID_TID)
        --block->read_holds;
    return 0;
}

[[gnu::noinline]] int release_in_full(vlthread_rwlock_t *rwlock)
{
    if (!is_of_this_process(rwlock))
        renew_after_fork(rwlock);
    const int error = release(rwlock);
    if (!ks::is_tracing())
        return error;
    if (error != 0)
        vlthread_trace("Unable to unlock rwlock ('%s' failed): %s\n", "pthread_rwlock_unlock", std::strerror(error));
    else
        vlthread_trace("Unlocked rwlock: %p\n", static_cast<void *>(rwlock));
    return error;
}

} // namespace

namespace ks {

void note_inherited_read_holds()
{
    inherited_read_holds = fault_block_of_caller()->read_holds;
}

} // namespace ks

extern "C" {

int vlthread_rwlock_init(vlthread_rwlock_t *rwlock, int raise_mode)
{
    rwlock->raise_mode = raise_mode;
    set_writer(rwlock, VLTHREAD_INVALID_TID);
    ks::note_generation(rwlock->fork_generation);
    const int error = pthread_rwlock_init(&rwlock->lock, nullptr);
    if (error != 0 && ks::is_tracing())
        vlthread_trace("Unable to initialize rwlock ('%s' failed): %s\n", "pthread_rwlock_init", std::strerror(error));
    return error;
}

int vlthread_rwlock_destroy(vlthread_rwlock_t *rwlock)
{
    const int error = pthread_rwlock_destroy(&rwlock->lock);
    if (error != 0 && ks::is_tracing())
        vlthread_trace("Unable to destroy rwlock %u\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(rwlock)));
    return error;
}

int vlthread_rwlock_rdlock(vlthread_rwlock_t *rwlock)
{
    return take_waiting(rwlock, reading);
}

int vlthread_rwlock_rdlock_trylock(vlthread_rwlock_t *rwlock)
{
    return take_trying(rwlock, reading);
}

int vlthread_rwlock_wrlock(vlthread_rwlock_t *rwlock)
{
    return take_waiting(rwlock, writing);
}

int vlthread_rwlock_wrlock_trylock(vlthread_rwlock_t *rwlock)
{
    return take_trying(rwlock, writing);
}

int vlthread_rwlock_unlock(vlthread_rwlock_t *rwlock)
{
    if (!is_plain(rwlock)) [[unlikely]]
        return release_in_full(rwlock);
    return release(rwlock);
}
}
