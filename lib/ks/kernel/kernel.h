// What the modules of the kernel (vlthread, pfm, stg, ks_tls) share: the state of the thread layer,
// and the short paths that every lock takes.
#pragma once

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <atomic>

namespace ks {

// The calling thread's fault block, NULL before its first use. Initial-exec, so that reading it
// is one instruction.
extern constinit thread_local pfm_fault_block *current_fault_block [[gnu::tls_model("initial-exec")]];

inline pfm_fault_block *fault_block_of_caller()
{
    pfm_fault_block *block = current_fault_block;
    return block != nullptr ? block : pfm_tls_get();
}

// pthread_self(), which every lock asks for. Where the C library's thread id is the thread pointer
// it is one instruction instead of a call.
inline vlthread_t self()
{
#if defined(__GLIBC__) && defined(__x86_64__)
    return reinterpret_cast<vlthread_t>(__builtin_thread_pointer());
#else
    return pthread_self();
#endif
}

// Holds raises off as a counted lock does: releasing it delivers none. For kernel code that
// prints while it has something a jump would lose.
class RaiseHold {
  public:
    RaiseHold() { ++fault_block_of_caller()->pfm_inh_count; }
    ~RaiseHold() { --fault_block_of_caller()->pfm_inh_count; }
    RaiseHold(const RaiseHold &) = delete;
    RaiseHold &operator=(const RaiseHold &) = delete;
};

// What makes every lock take the long way; one word, so that the usual answer, nothing, costs one
// load.
enum VlthreadMode : uint32_t {
    vlthread_mode_trace = 1,        // tracing to descriptor 2
    vlthread_mode_hand_over = 2,    // mutexes of a thread that forked belong to the child's thread
    vlthread_mode_fork_pending = 4, // process-wide locks have a gate before them (vlthread_gate.h)
};
extern std::atomic<uint32_t> vlthread_modes;

inline bool vlthread_has_any_mode()
{
    return __builtin_expect(vlthread_modes.load(std::memory_order_relaxed) != 0, 0) != 0;
}

inline bool vlthread_has_mode(VlthreadMode mode)
{
    return __builtin_expect((vlthread_modes.load(std::memory_order_relaxed) & mode) != 0, 0) != 0;
}

inline void vlthread_set_mode(VlthreadMode mode)
{
    vlthread_modes.fetch_or(mode, std::memory_order_relaxed);
}

inline void vlthread_clear_mode(VlthreadMode mode)
{
    vlthread_modes.fetch_and(~static_cast<uint32_t>(mode), std::memory_order_relaxed);
}

inline bool is_tracing()
{
    return vlthread_has_mode(vlthread_mode_trace);
}

// The thread layer's assertions.
inline void vlthread_require(bool holds, const char *text, int line = __builtin_LINE())
{
    if (!holds) [[unlikely]]
        vlthread_assert_fail(text, line);
}

// The attached thread, 0 if none.
extern std::atomic<vlthread_t> vlthread_lib_attached_tid;

// Owner and recursion are read without the lock by a thread that asks "is it me?"; only the
// owner writes them, so a relaxed access gives each thread the answer that concerns it.
inline vlthread_t owner_of(const vlthread_mutex_t *mutex)
{
    return __atomic_load_n(&mutex->owner, __ATOMIC_RELAXED);
}

inline void set_owner(vlthread_mutex_t *mutex, vlthread_t owner)
{
    __atomic_store_n(&mutex->owner, owner, __ATOMIC_RELAXED);
}

inline bool is_held_by_caller(const vlthread_mutex_t *mutex)
{
    return owner_of(mutex) == self();
}

// Takes a mutex that others do not begin to wait for: tried again and again, without the order check.
// False when it is not had at `deadline` (CLOCK_MONOTONIC); NULL waits as long as it takes.
[[nodiscard]] bool lock_until(vlthread_mutex_t *mutex, const timespec *deadline);

// State list. No thread may be known before the layer starts.
void require_no_threads();
// Makes a thread known that is not: whatever the list holds under its id is of a thread that ended.
vlthread_state *add_thread_to_process(vlthread_t tid);
void remove_thread_from_process(vlthread_t tid);
// Keeps the caller's entry, if it has one, in its fault block: where every delivery check and every
// way out of the thread finds it.
void adopt_own_state();
// After a fork: forgets every thread but the caller, the only one there is.
void forget_other_threads();

// What every way out of a thread does (pfm_tls.cpp): the state list, the critical section and the
// process-wide count of inhibits know it no more.
void leave_process(pfm_fault_block *block);

// Fault blocks of all threads. They are held between the first two, in which they may be visited; the
// third, in the child of a fork, shows each block of another thread to `visit` and frees it.
void hold_fault_blocks();
void release_fault_blocks();
void drop_other_fault_blocks(void (*visit)(const pfm_fault_block *block));
extern llist_link all_fault_blocks; // while they are held

template <typename Visit> void for_each_fault_block(Visit visit)
{
    if (all_fault_blocks.next == nullptr)
        return;
    for (const llist_link *link = all_fault_blocks.next; link != &all_fault_blocks; link = link->next)
        visit(static_cast<const pfm_fault_block *>(link->owner));
}

// In the child of a fork: frees the lock of an area that another thread may have held or waited for.
void stg_free_foreign_area_lock(stg_area *area);

// The start of the library enters the critical section between these. The second leaves it with the
// caller attached: no other thread, which may be starting the fault manager, can attach in between.
// Returns what vlthread_try_attach_lib() would give.
void enter_critical_section_to_start();
int leave_critical_section_attached();
// Whether a start of the library has begun: then another thread may be attached when the fault manager
// starts.
bool has_library_start_begun();

// Leaves the critical section and the attachment, whatever the state of either.
void abandon_critical_section();

// After a fork: frees a counted process-wide lock that a fork leaves alone, unless the child's thread owns it.
void free_foreign_lock(vlthread_mutex_t &lock, LockLevel level);

// After a fork: the critical section of a thread that does not exist in the child is free.
void drop_foreign_critical_section();

// What the child of a fork does so that mutexes held by the forking thread stay its own.
void begin_fork_ownership();
void adopt_fork_ownership();

// Whether any thread has made its library block (ks_tls.cpp).
bool has_any_tls_block();

// On-exit handlers that a child does not want from its parent (pfm_exit.cpp).
void forget_on_exit_handlers();

// Read/write locks of a child are renewed when they are first used: from here on they are the
// parent's.
void begin_fork_generation();
void note_inherited_read_holds();

} // namespace ks
