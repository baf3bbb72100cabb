// Read/write locks that tolerate a writer asking again.
#include "kernel/kernel.h"

#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<vlthread_rwlock_t> && std::is_trivially_copyable_v<vlthread_rwlock_t>);

namespace {

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

void count_hold(const vlthread_rwlock_t *rwlock, int change)
{
    if (is_counted(rwlock)) [[likely]]
        ks::fault_block_of_caller()->pfm_inh_count += change;
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
    count_hold(rwlock, 1);
    const int error = posix_lock(&rwlock->lock);
    if (error != 0) [[unlikely]] {
        count_hold(rwlock, -1);
        return error;
    }
    if (access.writes)
        set_writer(rwlock, ks::self());
    return 0;
}

[[gnu::noinline]] int take_traced(vlthread_rwlock_t *rwlock, const Access &access, PosixLock posix_lock,
                                  const char *called)
{
    vlthread_trace("%s rwlock %p\n", called, static_cast<void *>(rwlock));
    const int error = take(rwlock, access, posix_lock);
    if (error != 0)
        vlthread_trace("Unable to %s rwlock ('%s' failed): %s\n", access.verb, access.blocking_name, strerror(error));
    else
        vlthread_trace("Got %s rwlock: rwlock: %p, type %d, owner %lu\n", access.got, static_cast<void *>(rwlock),
                       rwlock->raise_mode, static_cast<unsigned long>(writer_of(rwlock)));
    return error;
}

// A writer that asks again must get an error, not wait for itself.
[[gnu::always_inline]] inline int take_waiting(vlthread_rwlock_t *rwlock, const Access &access)
{
    const bool is_writer = writer_of(rwlock) == ks::self();
    if (ks::is_tracing()) [[unlikely]]
        return take_traced(rwlock, access, is_writer ? access.trying : access.blocking, access.blocking_name);
    if (is_writer) [[unlikely]]
        return take(rwlock, access, access.trying);
    return take(rwlock, access, access.blocking);
}

int take_trying(vlthread_rwlock_t *rwlock, const Access &access)
{
    if (ks::is_tracing()) [[unlikely]]
        return take_traced(rwlock, access, access.trying, access.trying_name);
    return take(rwlock, access, access.trying);
}

} // namespace

extern "C" {

int vlthread_rwlock_init(vlthread_rwlock_t *rwlock, int raise_mode)
{
    rwlock->raise_mode = raise_mode;
    set_writer(rwlock, VLTHREAD_INVALID_TID);
    const int error = pthread_rwlock_init(&rwlock->lock, nullptr);
    if (error != 0 && ks::is_tracing())
        vlthread_trace("Unable to initialize rwlock ('%s' failed): %s\n", "pthread_rwlock_init", strerror(error));
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
    // Read before the release: afterwards the lock may be gone.
    const bool counted = is_counted(rwlock);
    // Cleared by every unlock, a reader's too, and before the release: afterwards the field may
    // already name the next writer.
    const vlthread_t writer = writer_of(rwlock);
    if (writer != VLTHREAD_INVALID_TID) // a reader has nothing to clear
        set_writer(rwlock, VLTHREAD_INVALID_TID);
    const int error = pthread_rwlock_unlock(&rwlock->lock);
    if (error != 0) [[unlikely]] {
        set_writer(rwlock, writer);
        if (ks::is_tracing()) [[unlikely]]
            vlthread_trace("Unable to unlock rwlock ('%s' failed): %s\n", "pthread_rwlock_unlock", strerror(error));
        return error;
    }
    if (counted) [[likely]]
        --ks::fault_block_of_caller()->pfm_inh_count;
    if (ks::is_tracing()) [[unlikely]]
        vlthread_trace("Unlocked rwlock: %p\n", static_cast<void *>(rwlock));
    return 0;
}
}
