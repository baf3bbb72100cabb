// The process-wide locks, constant-initialised so that any of them can be taken before main.
#include "kernel/ks_locks.h"

#include <korvaks/tls_impl.h>

#include <array>
#include <cstdio>

namespace ks {

namespace {

#ifdef NDEBUG
constexpr vlthread_order_class *process_order = nullptr;
#else
extern "C" void end_on_violation(vlthread_mutex_t *locking, vlthread_mutex_t *held);
constinit vlthread_order_class process_order_class{end_on_violation};
constexpr vlthread_order_class *process_order = &process_order_class;

extern "C" void end_on_violation(vlthread_mutex_t *locking, vlthread_mutex_t *held)
{
    if (pfm_tls_get()->asserting != 0)
        return; // the process is ending, and says why under whatever the thread holds
    char text[96];
    (void)std::snprintf(text, sizeof text, "lock of level %d taken under one of level %d", locking->level, held->level);
    vlthread_assert_fail(text, __LINE__);
}
#endif

consteval vlthread_mutex_t lock_at(LockLevel level, int32_t raise_mode)
{
    vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER_MODE(raise_mode);
    mutex.order_class = process_order;
    mutex.level = level;
    return mutex;
}

} // namespace

#define KS_DEFINE_LOCK(name, raise_mode) constinit vlthread_mutex_t name = lock_at(lock_level_##name, raise_mode);
#define KS_DEFINE_LOCKS(name, count) constinit vlthread_mutex_t name[count]{};
#define KS_DEFINE_RWLOCK(name) constinit OrderedRwlock name{VLTHREAD_RWLOCK_INITIALIZER, lock_level_##name};
#define KS_NO_LOCK(...)
KS_LOCK_ORDER(KS_DEFINE_LOCK, KS_DEFINE_LOCKS, KS_DEFINE_RWLOCK, KS_NO_LOCK)

namespace {

#define KS_ONE_LOCK(...) +1
#define KS_SO_MANY_LOCKS(name, count) +(count)
constexpr std::size_t process_lock_count = KS_LOCK_ORDER(KS_ONE_LOCK, KS_SO_MANY_LOCKS, KS_NO_LOCK, KS_NO_LOCK);

#define KS_LIST_LOCK(name, ...) table[at++] = &name;
#define KS_LIST_LOCKS(name, count)                                                                                     \
    for (vlthread_mutex_t & lock : name)                                                                               \
        table[at++] = &lock;
constexpr std::array process_lock_table = [] {
    std::array<vlthread_mutex_t *, process_lock_count> table{};
    std::size_t at = 0;
    KS_LOCK_ORDER(KS_LIST_LOCK, KS_LIST_LOCKS, KS_NO_LOCK, KS_NO_LOCK)
    return table;
}();

#define KS_LOCK_ADDRESS(name) &name,
constexpr std::array process_rwlock_table{KS_LOCK_ORDER(KS_NO_LOCK, KS_NO_LOCK, KS_LOCK_ADDRESS, KS_NO_LOCK)};

} // namespace

vlthread_order_class *lock_order()
{
    return process_order;
}

std::span<vlthread_mutex_t *const> process_locks()
{
    return process_lock_table;
}

std::span<OrderedRwlock *const> process_rwlocks()
{
    return process_rwlock_table;
}

} // namespace ks
