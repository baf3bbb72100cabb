// Private to the fault manager: its state and the steps its files share.
#pragma once

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "kernel/kernel.h"

#include <korvaks/pfm.h>
#include <korvaks/tls_impl.h>

#include <array>
#include <atomic>

#include <csignal>

namespace ks::fault {

inline constexpr AssertPath here{"lib/ks/pfm"};

inline constexpr int signal_count = 64; // signals 1 to 64

// Life of the manager. `inited` is set when a start begins, so that the steps of the start can
// use the manager themselves; `ready` when it is complete, for everybody else.
inline constinit std::atomic<bool> pfm_inited{false};
inline constinit std::atomic<bool> pfm_ready{false};
// The process is in exit(): nothing starts again and nothing is delivered any more.
inline constinit std::atomic<bool> pfm_stopped{false};
inline constinit std::atomic<bool> pfm_exiting{false};
inline constinit std::atomic<int> pfm_exit_status{0};
inline constinit std::atomic<pfm_proc_type> pfm_type{PFM_PROCESS_INVALID};
// Handlers from before the library run as well: of a chaining process, and of its children whatever
// their type is.
inline constinit std::atomic<bool> pfm_call_libc{false};
inline constinit std::atomic<vlthread_t> pfm_signal_handler_tid{VLTHREAD_INVALID_TID};

inline pfm_proc_type type()
{
    return pfm_type.load(std::memory_order_relaxed);
}

// Every entry point starts the manager when needed.
inline void ensure_started()
{
    if (!pfm_ready.load(std::memory_order_acquire)) [[unlikely]]
        pfm_init();
}

inline bool is_attached()
{
    return vlthread_lib_attached_tid.load(std::memory_order_acquire) == ks::self();
}

// Threads that pass raises on instead of taking them: the signal-handler thread, and in a fork
// child of type 4 every thread that is not attached.
inline bool takes_no_raises()
{
    if (pfm_signal_handler_tid.load(std::memory_order_relaxed) == ks::self())
        return true;
    return type() == PFM_PROCESS_FORK_CHILD && !is_attached();
}

inline bool delivers_at_records()
{
    return type() == PFM_PROCESS_CHAINING || type() == PFM_PROCESS_SAFE;
}

// pfm_raise.cpp
// What a delivery check does when there may be something to deliver.
void deliver(pfm_fault_block *block);

// A delivery check. Mostly nothing is pending, and that is seen here.
inline void check_delivery(pfm_fault_block *block)
{
    const bool may_be_pending =
        block->state == nullptr || __atomic_load_n(&block->state->raise_status, __ATOMIC_ACQUIRE) != 0;
    if (may_be_pending || pfm_exiting.load(std::memory_order_acquire)) [[unlikely]]
        deliver(block);
}

// pfm_suspend.cpp: the process-wide count of inhibits and the stop signal they hold back.
void add_inhibit(pfm_fault_block *block);
void remove_inhibit(pfm_fault_block *block);
void adjust_inhibits(pfm_fault_block *block, int32_t change);
// The share of a thread that ends.
void give_back_inhibits(pfm_fault_block *block);
bool is_stop_held();
// True: the caller performs the stop now. False: inhibits hold it back.
bool may_stop_now(int sig);
void keep_only_own_inhibits();

// pfm_notify.cpp
void write_notify_channel(int32_t status);
void renew_notify_channel();
void drop_inherited_notify_channel();

// pfm_signal.cpp
const sigset_t &async_signals();
void build_signal_sets();
void record_current_handlers();
void install_catchers();
void restore_pre_library_handlers();
void call_owed_handlers();
// Whether the program registered a procedure for the signal that was not there before the library.
bool has_registered_handler(int sig);
// Calls the registered handler of a signal; the system takes it where there is none by now.
void handle(int sig);

// pfm_thread.cpp: the signal-handler thread.
void start_signal_handler_thread();
// In safe mode it takes only signals that have a handler: one was registered.
void renew_wait_mask();
void forget_signal_handler_thread();
void join_signal_handler_thread();
// Lets the ending thread go without waiting for it: the caller may hold what it waits for.
void detach_signal_handler_thread();
// Marks the process as exiting and wakes the thread.
void post_exit(int status);

// pfm_exit.cpp
extern "C" void pfm_atexit_handler(void);
void reset_exit_routine();

// pfm_fork.cpp
void register_fork_handlers();

} // namespace ks::fault
