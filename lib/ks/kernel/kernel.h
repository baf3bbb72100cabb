// Private to the kernel (vlthread, pfm, stg, ks_tls): shared state of the thread layer and the
// short paths that every lock takes.
#pragma once

#include "base/ks_base.h"
#include "kernel/ks_locks.h"

#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <atomic>

namespace ks {

// The calling thread's fault block, NULL before its first use. Initial-exec, so that reading it
// is one instruction.
extern constinit thread_local pfm_fault_block *current_fault_block __attribute__((tls_model("initial-exec")));

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
    vlthread_mode_trace = 1,     // tracing to descriptor 2
    vlthread_mode_hand_over = 2, // mutexes of a thread that forked belong to the child's thread
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

// State list. No thread may be known before the layer starts.
void require_no_threads();
// The first makes the caller known and returns its entry; the second forgets a thread.
vlthread_state *add_thread_to_process(vlthread_t tid);
void remove_thread_from_process(vlthread_t tid);
// After a fork: forgets every thread but the caller, the only one there is.
void forget_other_threads();

// Leaves the outermost level of the critical section with the caller attached again before the
// mutex is let go, so that no other thread can attach in between. At a deeper level it only
// leaves. Returns what vlthread_try_attach_lib() gave, or 0.
int leave_critical_section_attached();

// After a fork: the critical section and the attachment of a thread that does not exist in the
// child are free.
void drop_foreign_critical_section();

// What the child of a fork does so that mutexes held by the forking thread stay its own.
void begin_fork_ownership();
void adopt_fork_ownership();

// Whether any thread has made its library block (ks_tls.cpp).
bool has_any_tls_block();

// The fork handlers of the library itself, for all its process-wide locks and areas.
void register_library_fork_handlers();

} // namespace ks
