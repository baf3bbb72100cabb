// The library critical section and the attached thread.
#include "kernel/kernel.h"

namespace ks {

constinit std::atomic<vlthread_t> vlthread_lib_attached_tid{VLTHREAD_INVALID_TID};

} // namespace ks

namespace {

constinit std::atomic<bool> library_start_begun{false};

using ks::vlthread_critical_section_mutex;
using ks::vlthread_lib_attached_tid;

// Entered, with the mutex held: the caller is the attached thread and known.
[[gnu::always_inline]] inline void complete_entry()
{
    if (vlthread_lib_attached_tid.load(std::memory_order_relaxed) == ks::self())
        pfm_flush_notify_channel(); // which is the attached thread's alone
    vlthread_lib_attached_tid.store(ks::self(), std::memory_order_release);
    const pfm_fault_block *const block = ks::current_fault_block;
    if (block == nullptr || block->state == nullptr) [[unlikely]]
        (void)vlthread_pending_raise(nullptr); // caches the caller's entry, adding it if absent
    if (ks::is_tracing())
        vlthread_trace("Has entered Vellum critical section\n");
}

[[gnu::always_inline]] inline void require_inside()
{
    ks::vlthread_require(vlthread_lib_attached_tid.load(std::memory_order_acquire) == ks::self(),
                         "vlthread_equal(vlthread_lib_attached_tid, vlthread_self())", 1060);
    const bool inside =
        ks::is_held_by_caller(&vlthread_critical_section_mutex) && vlthread_critical_section_mutex.recursion_count > 0;
    ks::vlthread_require(inside, "CRITICAL_SECTION_RECUR_COUNT > 0", 1061);
}

// Kept exactly: the attached thread is cleared before its entry is looked for, so the entry that
// is removed is that of thread 0, and a thread that leaves stays on the state list. Threads rely
// on it: their raise status outlives the critical section. No thread has that number, so that the
// list is asked only where the answer, that there is none, is traced.
[[gnu::always_inline]] inline void detach()
{
    vlthread_lib_attached_tid.store(VLTHREAD_INVALID_TID, std::memory_order_release);
    if (ks::is_tracing())
        ks::remove_thread_from_process(VLTHREAD_INVALID_TID);
}

[[gnu::always_inline]] inline void let_go()
{
    (void)vlthread_mutex_unlock(&vlthread_critical_section_mutex); // the caller holds it
    if (ks::is_tracing())
        vlthread_trace("Has left Vellum critical section\n");
}

} // namespace

namespace ks {

void enter_critical_section_to_start()
{
    library_start_begun.store(true, std::memory_order_release); // before the caller is seen attached
    vlthread_enter_critical_section();
}

int leave_critical_section_attached()
{
    require_inside();
    // The caller is attached, and stays so: there is no moment in which it is not.
    const int attached = vlthread_try_attach_lib();
    let_go();
    return attached;
}

bool has_library_start_begun()
{
    return library_start_begun.load(std::memory_order_acquire);
}

void abandon_critical_section()
{
    while (is_held_by_caller(&vlthread_critical_section_mutex))
        let_go();
    vlthread_t attached = self();
    (void)vlthread_lib_attached_tid.compare_exchange_strong(attached, VLTHREAD_INVALID_TID); // or it was another
}

void free_foreign_lock(vlthread_mutex_t &lock, LockLevel level)
{
    if (!is_held_by_caller(&lock))
        (void)vlthread_mutex_init_full(&lock, 0, level, 0, lock_order()); // no attribute that could be refused
}

void drop_foreign_critical_section()
{
    free_foreign_lock(vlthread_critical_section_mutex, lock_level_vlthread_critical_section_mutex);
    (void)vlthread_force_attach_lib(); // always 0: the child's only thread is its attached one
}

} // namespace ks

extern "C" {

void vlthread_enter_critical_section(void)
{
    (void)vlthread_init();
    if (ks::is_tracing())
        vlthread_trace("Will enter Vellum critical section\n");
    (void)vlthread_mutex_lock(&vlthread_critical_section_mutex);
    complete_entry();
}

int vlthread_try_enter_critical_section(void)
{
    (void)vlthread_init();
    if (ks::is_tracing())
        vlthread_trace("Will enter Vellum critical section\n");
    if (vlthread_mutex_trylock(&vlthread_critical_section_mutex) != 0)
        return 0;
    complete_entry();
    return 1;
}

void vlthread_leave_critical_section(void)
{
    require_inside();
    if (vlthread_critical_section_mutex.recursion_count == 1)
        detach();
    let_go();
}

void vlthread_release_critical_section(void)
{
    while (ks::is_held_by_caller(&vlthread_critical_section_mutex))
        vlthread_leave_critical_section();
}

vlthread_t vlthread_attached_tid(void)
{
    return vlthread_lib_attached_tid.load(std::memory_order_acquire);
}

int vlthread_try_attach_lib(void)
{
    vlthread_t attached = VLTHREAD_INVALID_TID;
    if (vlthread_lib_attached_tid.compare_exchange_strong(attached, pthread_self()))
        return 0;
    return vlthread_equal(attached, vlthread_self()) ? 0 : 1;
}

int vlthread_force_attach_lib(void)
{
    vlthread_lib_attached_tid.store(pthread_self(), std::memory_order_release);
    return 0;
}
}
