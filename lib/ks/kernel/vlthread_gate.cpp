// Holding the library still for a fork, and settling it in the child.
#include "kernel/vlthread_gate.h"

#include <algorithm>
#include <ctime>

#include <sched.h>

namespace ks {

constinit std::atomic<ForkGate> fork_gate{ForkGate::open};

namespace {

// How long a lock may keep a fork waiting before a print is taken to be the reason.
constexpr long patience_ms = 50;
// A fork that has waited for so many prints waits for the locks themselves, however long that
// takes: every thread that could print again stops at the gate.
constexpr int rounds_max = 8;

// Held by the forking thread while the gate is not open.
constinit pthread_mutex_t gate_mutex = PTHREAD_MUTEX_INITIALIZER;

// Locks that a fork leaves alone: the critical section, which is held for minutes, the lock that is held around the
// forks of children whose deaths are reported, and the one under which a program's checkers run.
bool is_left_alone(const vlthread_mutex_t *lock)
{
    return lock == &vlthread_critical_section_mutex || lock == &rt_proc_fork_crit || lock == &ks_authsvc_lock;
}

bool is_left_alone(const OrderedRwlock *lock)
{
    return lock == &ks_svc_lock;
}

// Not so: the locks of an array that is not in use yet. Whoever makes them holds a lock that stands above them.
bool is_made(const vlthread_mutex_t *lock)
{
    return lock->raise_mode != 0;
}

// The locks that a fork takes one by one: the first is waited for with the gate open, and the thread layer's
// own come last.
bool is_taken_under_gate(const vlthread_mutex_t *lock)
{
    return !is_left_alone(lock) && lock != &pfm_crit && is_made(lock);
}

bool holds_process_lock()
{
    const auto locks = process_locks();
    return std::any_of(locks.begin(), locks.end(),
                       [](const vlthread_mutex_t *lock) { return !is_left_alone(lock) && is_held_by_caller(lock); });
}

// Tells the processor that this is a loop of looks.
void pause_briefly()
{
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

bool may_be_waited_for(const pfm_fault_block *block)
{
    return block->area_holds != nullptr || holds_process_lock();
}

void open_gate()
{
    fork_gate.store(ForkGate::open, std::memory_order_release);
    vlthread_clear_mode(vlthread_mode_fork_pending);
    (void)pthread_mutex_unlock(&gate_mutex); // held since hold_library()
}

timespec patience_end()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    const long nsec = now.tv_nsec + patience_ms * 1'000'000;
    return {now.tv_sec + nsec / 1'000'000'000, nsec % 1'000'000'000};
}

void release_first(std::span<vlthread_mutex_t *const> locks)
{
    for (std::size_t i = locks.size(); i > 0; --i) {
        if (is_taken_under_gate(locks[i - 1]))
            (void)vlthread_mutex_unlock(locks[i - 1]); // taken before
    }
}

// Takes the locks under the gate in their order; all of them, or none when one is not had by the
// end of the caller's patience. NULL waits as long as it takes.
bool take_locks(const timespec *patience)
{
    const auto locks = process_locks();
    for (std::size_t i = 0; i < locks.size(); ++i) {
        if (is_taken_under_gate(locks[i]) && !lock_until(locks[i], patience)) {
            release_first(locks.first(i));
            return false;
        }
    }
    return true;
}

// Whoever holds one needs nothing that is held by now to give it back.
void take_rwlocks()
{
    for (OrderedRwlock *lock : process_rwlocks())
        if (!is_left_alone(lock))
            (void)vlthread_rwlock_wrlock(&lock->rwlock);
}

void release_rwlocks()
{
    for (OrderedRwlock *lock : process_rwlocks())
        if (!is_left_alone(lock))
            (void)vlthread_rwlock_unlock(&lock->rwlock); // taken before
}

// With every lock held, the threads inside areas need nothing but the processor to leave.
void wait_until_areas_are_left()
{
    fork_gate.store(ForkGate::closed, std::memory_order_seq_cst);
    for_each_fault_block([own = fault_block_of_caller()](const pfm_fault_block *block) {
        while (block != own && __atomic_load_n(&block->inside_area, __ATOMIC_SEQ_CST) != 0)
            (void)sched_yield();
    });
}

bool try_to_hold(const timespec *patience)
{
    (void)vlthread_mutex_lock(&pfm_crit);  // held for long only by on-exit handlers; nothing else is held yet
    (void)pthread_mutex_lock(&gate_mutex); // cannot fail for a plain mutex
    fork_gate.store(ForkGate::pending, std::memory_order_release);
    vlthread_set_mode(vlthread_mode_fork_pending);
    if (take_locks(patience)) {
        take_rwlocks();
        hold_fault_blocks();
        wait_until_areas_are_left();
        return true;
    }
    open_gate();
    (void)vlthread_mutex_unlock(&pfm_crit);
    return false;
}

// Whoever keeps a fork waiting for long is printing, or waits for one that is.
void wait_for_print()
{
    const IoLockGuard wait(ks_product_crit);
}

} // namespace

bool try_enter_busy_area(pfm_fault_block *block, uint32_t &busy)
{
    constexpr int looks_max = 200; // about a microsecond; a system call to sleep costs more
    for (int look = 0; look < looks_max && fork_gate.load(std::memory_order_relaxed) == ForkGate::open; ++look) {
        if (__atomic_load_n(&busy, __ATOMIC_RELAXED) == 0 && try_enter_area(block, busy))
            return true;
        pause_briefly();
    }
    return false;
}

void wait_at_fork_gate()
{
    (void)pthread_mutex_lock(&gate_mutex);   // cannot fail for a plain mutex
    (void)pthread_mutex_unlock(&gate_mutex); // just taken
}

void wait_before_process_lock(const vlthread_mutex_t *mutex)
{
    const auto locks = process_locks();
    if (is_left_alone(mutex) || std::find(locks.begin(), locks.end(), mutex) == locks.end())
        return;
    if (fork_gate.load(std::memory_order_acquire) != ForkGate::open && !may_be_waited_for(fault_block_of_caller()))
        wait_at_fork_gate();
}

void wait_before_area_lock(const pfm_fault_block *block)
{
    if (fork_gate.load(std::memory_order_acquire) != ForkGate::open && !may_be_waited_for(block)) [[unlikely]]
        wait_at_fork_gate();
}

void hold_library()
{
    for (int round = 0;; ++round) {
        const timespec patience = patience_end();
        if (try_to_hold(round < rounds_max ? &patience : nullptr))
            return;
        wait_for_print();
    }
}

void release_library()
{
    release_fault_blocks();
    release_rwlocks();
    release_first(process_locks());
    open_gate();
    (void)vlthread_mutex_unlock(&pfm_crit); // held since hold_library()
}

void settle_library_in_child()
{
    drop_foreign_critical_section();
    free_foreign_lock(rt_proc_fork_crit, lock_level_rt_proc_fork_crit);
    free_foreign_lock(ks_authsvc_lock, lock_level_ks_authsvc_lock);
    forget_other_threads();
    drop_other_fault_blocks([](const pfm_fault_block *block) {
        for (const stg_area_hold *hold = block->area_holds; hold != nullptr; hold = hold->outer)
            stg_free_foreign_area_lock(hold->area);
    });
}

} // namespace ks
