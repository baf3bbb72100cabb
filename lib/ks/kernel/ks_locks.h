// Every process-wide lock of the library, in the order in which they may nest.
//
// A thread takes a lock only while it holds none that stands below it in this list. A fork takes
// all of them in this order (vlthread_fork.cpp). docs/locks.md draws it. Area mutexes are not
// process-wide; they have their place between stg_area_crit and ks_product_crit, because areas
// print traces while their mutex is held. Debug builds check the order: every lock here and every
// area's mutex belongs to one order class, and a lock taken out of order ends the process.
#pragma once

#include <korvaks/vlthread.h>

#include <span>

namespace ks {

// The library critical section; its recursion count is the depth. It is held for long stretches
// by the attached thread, so a fork does not wait for it.
extern vlthread_mutex_t vlthread_critical_section_mutex;
// Start and end of the fault manager, signal tables, on-exit handlers (which run under it).
extern vlthread_mutex_t pfm_crit;
// cl's table of error texts, while it is filled.
extern vlthread_mutex_t cl_crit;
// Whether history is kept, as clp_collectdatas() and clp_collectdatai() found it. Nothing is taken
// under either.
extern vlthread_mutex_t clp_collectdatas_crit;
extern vlthread_mutex_t clp_collectdatai_crit;
// The list of areas and their registry.
extern vlthread_mutex_t stg_area_crit;
// Product directories, switches, and all state of the message modules.
extern vlthread_mutex_t ks_product_crit;
// The date style of the process.
extern vlthread_mutex_t default_date_style_crit;
// The process environment.
extern vlthread_mutex_t evutl_environ_crit;
// Exit and signal-block requests to the signal-handler thread.
extern vlthread_mutex_t pfm_exit_crit;
// Waiting for a held stop signal.
extern vlthread_mutex_t pfm_inh_susp_crit;
// Calls owed to handlers from before the library.
extern vlthread_mutex_t pfm_libc_handler_crit;
// The state list and thread creation.
extern vlthread_mutex_t vlthread_lock;

// Places in the order, and the class that checks them; NULL where nothing is checked.
enum LockLevel : int16_t {
    lock_level_vlthread_critical_section_mutex,
    lock_level_pfm_crit,
    lock_level_cl_crit,
    lock_level_clp_collectdatas_crit,
    lock_level_clp_collectdatai_crit,
    lock_level_stg_area_crit,
    lock_level_area, // the mutexes of areas
    lock_level_ks_product_crit,
    lock_level_default_date_style_crit,
    lock_level_evutl_environ_crit,
    lock_level_pfm_exit_crit,
    lock_level_pfm_inh_susp_crit,
    lock_level_pfm_libc_handler_crit,
    lock_level_vlthread_lock,
};
vlthread_order_class *lock_order();

// The locks of the modules above the fault manager, in lock order: what a fork takes between
// pfm_crit and the fault manager's other locks.
std::span<vlthread_mutex_t *const> module_locks();

} // namespace ks
