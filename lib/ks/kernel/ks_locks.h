// Every process-wide lock of the library, in the order in which they may nest, in one table.
//
// A thread takes a lock only while it holds none that stands below it in this list; a fork takes
// them in this order (vlthread_gate.cpp). docs/locks.md says what each must not be held across.
// Debug builds check the order: every lock here and every area's mutex belongs to one order class,
// and a lock taken out of order ends the process.
//
// Counted locks hold raises off. The kernel's innermost ones are not counted: the code under them
// decides about raises and reads the very count that a counted lock would change.
#pragma once

#include <korvaks/vlthread.h>

#include <cstdint>
#include <span>

// The thread sanitizer follows 64 locks that a thread holds, and a fork takes all: there buckets share them.
#ifdef __SANITIZE_THREAD__
#define KS_NIRPC_LOCKS 16
#else
#define KS_NIRPC_LOCKS 53
#endif

// LOCK(name, raise mode) is a mutex, LOCKS(name, count) an array of counted mutexes of one place, RWLOCK(name) a
// read/write lock, counted. PLACE(name) is a place in the order for locks that are not process-wide. The mutexes of an
// array are made by their module under a lock that stands above them; until then their raise mode is 0, and no fork
// takes them.
#define KS_LOCK_ORDER(LOCK, LOCKS, RWLOCK, PLACE)                                                                      \
    /* The library critical section; its recursion count is the depth. The attached thread holds it for long   */      \
    /* stretches, so a fork does not wait for it.                                                               */     \
    LOCK(vlthread_critical_section_mutex, VLTHREAD_RAISE_COUNTED)                                                      \
    /* Forks of children whose deaths are reported, and who owns SIGCHLD. Held across a fork, so that a fork    */     \
    /* does not collect it; free in a child whose thread does not own it.                                       */     \
    LOCK(rt_proc_fork_crit, VLTHREAD_RAISE_COUNTED)                                                                    \
    /* The checkers of flavours that programs add. A checker runs under it and may do much and wait long, so    */     \
    /* that a fork does not wait for it; the list is whole at any moment. Free in a child whose thread does not */     \
    /* own it.                                                                                                  */     \
    LOCK(ks_authsvc_lock, VLTHREAD_RAISE_COUNTED)                                                                      \
    /* The mutex of a client handle: held for a whole remote call, so that a fork does not wait for it. Free in a */   \
    /* child whose thread does not own it (vlthread_renew.h).                                                   */     \
    PLACE(client_handle)                                                                                               \
    /* Start and end of the fault manager, signal tables, on-exit handlers (which run under it).               */      \
    LOCK(pfm_crit, VLTHREAD_RAISE_COUNTED)                                                                             \
    /* cl's table of error texts, while it is filled.                                                           */     \
    LOCK(cl_crit, VLTHREAD_RAISE_COUNTED)                                                                              \
    /* Whether history is kept, as clp_collectdatas() and clp_collectdatai() found it. Nothing is taken under  */      \
    /* either.                                                                                                  */     \
    LOCK(clp_collectdatas_crit, VLTHREAD_RAISE_COUNTED)                                                                \
    LOCK(clp_collectdatai_crit, VLTHREAD_RAISE_COUNTED)                                                                \
    /* The queue of transports that wait for a worker, and the decision of a worker that there are none. A worker */   \
    /* takes it holding nothing else.                                                                           */     \
    LOCK(ks_svc_main_thread_wait_lock, VLTHREAD_RAISE_COUNTED)                                                         \
    /* Which programs are served. A fork does not wait for it: the list is whole at any moment, and who unregisters */ \
    /* what is not registered keeps it.                                                                         */     \
    RWLOCK(ks_svc_lock)                                                                                                \
    /* Which transports are registered, and which descriptors are selected on.                                  */     \
    RWLOCK(ks_svc_fd_lock)                                                                                             \
    /* Which workers are idle and which are busy.                                                               */     \
    RWLOCK(ks_svc_thread_lock)                                                                                         \
    /* What one worker is told.                                                                                 */     \
    PLACE(svc_worker)                                                                                                  \
    /* Whether the server's main thread has to be woken, and was.                                               */     \
    RWLOCK(ks_svc_pipe_lock)                                                                                           \
    /* The duplicate-request cache, while its table is made; and its buckets, one of which a thread takes.     */      \
    LOCK(nirpc_init_lock, VLTHREAD_RAISE_COUNTED)                                                                      \
    LOCKS(nirpc_hash_locks, KS_NIRPC_LOCKS)                                                                            \
    /* Children: the living, the reaped, deaths nobody announced and threads that wait for one.                 */     \
    LOCK(rt_proc_crit, VLTHREAD_RAISE_COUNTED)                                                                         \
    /* Timed events, descriptor handlers, and the flags of the loop.                                            */     \
    LOCK(rt_crit, VLTHREAD_RAISE_COUNTED)                                                                              \
    /* The mutexes of areas: areas print traces while theirs is held.                                           */     \
    PLACE(area)                                                                                                        \
    /* Product directories, switches, and all state of the message modules.                                     */     \
    LOCK(ks_product_crit, VLTHREAD_RAISE_COUNTED)                                                                      \
    /* The date style of the process.                                                                           */     \
    LOCK(default_date_style_crit, VLTHREAD_RAISE_COUNTED)                                                              \
    /* The handle of AUTH_NONE, while it is made. Nothing is taken under it.                                    */     \
    LOCK(ks_authnone_lock, VLTHREAD_RAISE_COUNTED)                                                                     \
    /* The process environment.                                                                                 */     \
    LOCK(evutl_environ_crit, VLTHREAD_RAISE_COUNTED)                                                                   \
    /* Exit and signal-block requests to the signal-handler thread.                                             */     \
    LOCK(pfm_exit_crit, VLTHREAD_RAISE_IGNORED)                                                                        \
    /* Waiting for a held stop signal.                                                                          */     \
    LOCK(pfm_inh_susp_crit, VLTHREAD_RAISE_IGNORED)                                                                    \
    /* Calls owed to handlers from before the library.                                                          */     \
    LOCK(pfm_libc_handler_crit, VLTHREAD_RAISE_IGNORED)                                                                \
    /* The state list and thread creation.                                                                      */     \
    LOCK(vlthread_lock, VLTHREAD_RAISE_IGNORED)

namespace ks {

// Places in the order, and the class that checks them; NULL where nothing is checked.
enum LockLevel : int16_t {
#define KS_LOCK_LEVEL(name, ...) lock_level_##name,
    KS_LOCK_ORDER(KS_LOCK_LEVEL, KS_LOCK_LEVEL, KS_LOCK_LEVEL, KS_LOCK_LEVEL)
#undef KS_LOCK_LEVEL
};
vlthread_order_class *lock_order();

// A read/write lock with its place. Under one of them no process-wide mutex is taken, and nothing is waited for.
struct OrderedRwlock {
    vlthread_rwlock_t rwlock;
    LockLevel level;
};

#define KS_DECLARE_LOCK(name, raise_mode) extern vlthread_mutex_t name;
#define KS_DECLARE_LOCKS(name, count) extern vlthread_mutex_t name[count];
#define KS_DECLARE_RWLOCK(name) extern OrderedRwlock name;
#define KS_NO_LOCK(name)
KS_LOCK_ORDER(KS_DECLARE_LOCK, KS_DECLARE_LOCKS, KS_DECLARE_RWLOCK, KS_NO_LOCK)
#undef KS_DECLARE_LOCK
#undef KS_DECLARE_LOCKS
#undef KS_DECLARE_RWLOCK
#undef KS_NO_LOCK

// All mutexes, in order.
std::span<vlthread_mutex_t *const> process_locks();
// All read/write locks, in order.
std::span<OrderedRwlock *const> process_rwlocks();

} // namespace ks
