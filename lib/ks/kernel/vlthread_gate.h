// The gate at which a fork stops the other threads.
//
// A child has one thread. What any other thread of the parent had locked, or was about to change,
// would stay so for ever. So a fork holds every process-wide lock but the critical section, and no
// thread is inside an area. It gets there in three steps:
//
//   pending  A thread that holds neither a process-wide lock nor an area waits before it takes one.
//            One that holds something goes on: the fork may be waiting for just that. So the fork
//            takes the locks in their order, and none of them is taken twice before it.
//   closed   All locks are held. Nobody enters an area any more, and those inside leave: what they
//            do there is a few instructions or a call of malloc, never a lock or a print.
//   open     The fork is over.
//
// Only a print can hold a lock for long, when a pipe is full or a terminal stopped. A fork that
// meets one opens the gate again, gives back what it has, and waits for that print alone.
#pragma once

#include "kernel/kernel.h"

namespace ks {

enum class ForkGate : uint32_t { open, pending, closed };
extern std::atomic<ForkGate> fork_gate;

// Waits until no fork is under way.
void wait_at_fork_gate();

// Called before a mutex is taken while a fork is pending: waits if the mutex is process-wide and
// the caller holds nothing that the fork may need.
void wait_before_process_lock(const vlthread_mutex_t *mutex);

// The same before the mutex of an area is taken.
void wait_before_area_lock(const pfm_fault_block *block);

// The caller, which holds an area's mutex, is inside the area from here to leave_area().
inline void enter_area(pfm_fault_block *block)
{
    for (;;) {
        // Either the fork sees the mark, or this thread sees the gate closed: both sides write first
        // and read then, in one order for all.
        __atomic_store_n(&block->inside_area, 1, __ATOMIC_SEQ_CST);
        if (fork_gate.load(std::memory_order_seq_cst) != ForkGate::closed) [[likely]]
            return;
        __atomic_store_n(&block->inside_area, 0, __ATOMIC_RELEASE);
        wait_at_fork_gate();
    }
}

inline void leave_area(pfm_fault_block *block)
{
    __atomic_store_n(&block->inside_area, 0, __ATOMIC_RELEASE);
}

// The short way in, without the area's mutex: marks the caller, and `busy` of the area with it.
// False, and nothing is marked, when another thread is inside or a fork is under way.
inline bool try_enter_area(pfm_fault_block *block, uint32_t &busy)
{
    __atomic_store_n(&block->inside_area, 1, __ATOMIC_RELAXED);
    // The exchange orders the mark before the look at the gate.
    if (__atomic_exchange_n(&busy, 1, __ATOMIC_SEQ_CST) == 0) [[likely]] {
        if (fork_gate.load(std::memory_order_seq_cst) == ForkGate::open) [[likely]]
            return true;
        __atomic_store_n(&busy, 0, __ATOMIC_RELEASE);
    }
    leave_area(block);
    return false;
}

// The same for an area that another thread is inside of, which is out after a few instructions as a
// rule: waits for that long.
[[gnu::noinline]] bool try_enter_busy_area(pfm_fault_block *block, uint32_t &busy);

inline void leave_area(pfm_fault_block *block, uint32_t &busy)
{
    __atomic_store_n(&busy, 0, __ATOMIC_RELEASE);
    leave_area(block);
}

// Holds the whole library still, and lets go of it again. In the child of a fork, whose only thread
// is the caller, the first thing is to settle what the other threads left.
void hold_library();
void release_library();
void settle_library_in_child();

} // namespace ks
