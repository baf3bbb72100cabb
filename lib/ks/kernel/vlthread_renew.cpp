// What the child of a fork does with locks that the fork has not waited for.
#include "kernel/vlthread_renew.h"

namespace ks {

constinit std::atomic<uint32_t> fork_generation{0};
constinit pthread_mutex_t renewal_mutex = PTHREAD_MUTEX_INITIALIZER;

void begin_fork_generation()
{
    fork_generation.fetch_add(1, std::memory_order_relaxed);
    renewal_mutex = PTHREAD_MUTEX_INITIALIZER;
    note_inherited_read_holds();
}

int make(RenewedMutex &renewed, LockLevel level)
{
    note_generation(renewed.generation);
    return vlthread_mutex_init_full(&renewed.mutex, 0, level, 0, lock_order());
}

void RenewedGuard::renew(RenewedMutex &renewed)
{
    renew_once(renewed.generation, [&renewed] {
        vlthread_mutex_t &mutex = renewed.mutex;
        if (!is_held_by_caller(&mutex)) // it could be made once, in the parent
            (void)vlthread_mutex_init_full(&mutex, 0, mutex.level, 0, mutex.order_class);
    });
}

} // namespace ks
