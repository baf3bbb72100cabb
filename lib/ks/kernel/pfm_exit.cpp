// The end of the process: on-exit handlers, the exit routine, and the order between them.
#include "kernel/pfm_impl.h"

#include <cstdlib>

namespace ks::fault {

namespace {

struct on_exit_entry {
    on_exit_entry *next;
    pfm_on_exit_fn fn;
    void *arg;
};

constinit on_exit_entry *on_exit_list = nullptr;      // newest first; guarded by pfm_crit
constinit pfm_exit_routine saved_exit_routine = exit; // guarded by pfm_crit

pfm_exit_routine exit_routine()
{
    const ks::LockGuard lock(ks::pfm_crit);
    return saved_exit_routine;
}

// Takes the newest handler off.
on_exit_entry pop_on_exit_handler()
{
    const on_exit_entry entry = *on_exit_list;
    std::free(on_exit_list);
    on_exit_list = entry.next;
    return entry;
}

// Each handler is taken off before it runs, so a handler that exits goes on with the next. A handler may
// enter the critical section, which stands above pfm_crit: so it is entered first, if nobody is inside.
void run_on_exit_handlers(int status)
{
    const bool is_inside = vlthread_mutex_trylock(&ks::vlthread_critical_section_mutex) == 0;
    {
        const ks::IoLockGuard lock(ks::pfm_crit);
        while (on_exit_list != nullptr) {
            const on_exit_entry entry = pop_on_exit_handler();
            entry.fn(status, entry.arg);
        }
    }
    if (is_inside)
        (void)vlthread_mutex_unlock(&ks::vlthread_critical_section_mutex); // or an exit in a handler left it
}

// A handler that exits comes here with pfm_crit held, which a signal handler may be waiting for while
// its thread is waited for.
void leave_pfm_crit()
{
    while (vlthread_mutex_unlock(&ks::pfm_crit) == 0) {
        // once for each level
    }
}

bool returns_to_caller(pfm_exit_routine routine)
{
    return (type() == PFM_PROCESS_CHAINING || type() == PFM_PROCESS_SAFE) && routine == exit;
}

// Back to "not started". What is pending for this thread has been taken.
void reset_manager()
{
    pfm_type.store(PFM_PROCESS_INVALID, std::memory_order_relaxed);
    pfm_call_libc.store(false, std::memory_order_relaxed);
    pfm_ready.store(false, std::memory_order_release);
    pfm_inited.store(false, std::memory_order_release);
    vlthread_reset_raise(nullptr);
}

void exit_attached(int status)
{
    run_on_exit_handlers(status);
    post_exit(status);
    if (type() == PFM_PROCESS_CHAINING)
        restore_pre_library_handlers();
    if (pfm_call_libc.load(std::memory_order_relaxed))
        call_owed_handlers();
    const pfm_exit_routine routine = exit_routine();
    if (returns_to_caller(routine)) {
        detach_signal_handler_thread();
        return;
    }
    vlthread_release_critical_section();
    leave_pfm_crit();
    if (type() != PFM_PROCESS_FORK_CHILD)
        join_signal_handler_thread();
    pfm_close_notify_channel();
    // In exit() nothing starts again: handlers of atexit() may print, and would otherwise bring
    // the manager back to life. A routine of the program's own may go on with the program.
    if (routine == exit)
        pfm_stopped.store(true, std::memory_order_release);
    reset_manager();
    routine(status);
}

} // namespace

extern "C" void pfm_atexit_handler(void)
{
    run_on_exit_handlers(0);
}

void reset_exit_routine()
{
    const ks::LockGuard lock(ks::pfm_crit);
    saved_exit_routine = exit;
}

} // namespace ks::fault

namespace ks {

void forget_on_exit_handlers()
{
    const LockGuard lock(pfm_crit);
    while (ks::fault::on_exit_list != nullptr)
        (void)ks::fault::pop_on_exit_handler();
}

} // namespace ks

extern "C" {

void pfm_on_exit(pfm_on_exit_fn fn, void *arg)
{
    ks::fault::ensure_started();
    const ks::LockGuard lock(ks::pfm_crit);
    // malloc: this list lies below the storage module.
    auto *entry = static_cast<ks::fault::on_exit_entry *>(std::malloc(sizeof(ks::fault::on_exit_entry)));
    ks::fault::here.require(entry != nullptr,
                            "(new = (struct on_exit_entry *)malloc(sizeof(struct on_exit_entry))) != NULL", 801);
    *entry = {ks::fault::on_exit_list, fn, arg};
    ks::fault::on_exit_list = entry;
}

pfm_exit_routine pfm_set_exit(pfm_exit_routine routine)
{
    ks::fault::ensure_started();
    const ks::LockGuard lock(ks::pfm_crit);
    const pfm_exit_routine previous = ks::fault::saved_exit_routine;
    ks::fault::saved_exit_routine = routine;
    return previous;
}

void pfm_exit(int status)
{
    ks::fault::ensure_started();
    if (ks::fault::takes_no_raises())
        ks::fault::post_exit(status);
    else if (!ks::fault::is_attached())
        vlthread_exit(reinterpret_cast<void *>(intptr_t{status}));
    else
        ks::fault::exit_attached(status);
}
}
