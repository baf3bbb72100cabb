/**
 * @file pfm.h
 * The fault manager: signals and requests to stop become *raises*.
 *
 * A raise is a non-zero status delivered to a thread at a safe point, by a non-local jump to the
 * thread's innermost cleanup record; without a record the process exits with the status
 * (another thread than the attached one ends alone). A thread is safe from it while it is
 * inhibited: between pfm_inhibit() and pfm_enable(), or while it holds a counted library mutex.
 *
 * Protecting work, in C:
 *
 *     pfm_cleanup_rec rec = {0};
 *     rec.status = sigsetjmp(rec.jump, 1);
 *     int status = pfm_cleanup_start(&rec, 0);
 *     if (status != 0) {            // a raise arrived; we run inhibited here
 *         undo_the_work();
 *         pfm_raise(status);        // pass it outward; does not return
 *     }
 *     the_work();
 *     pfm_cleanup_rls(&rec);
 *
 * Local variables changed between sigsetjmp() and the jump are indeterminate afterwards unless
 * they are volatile; no C++ destructor runs on the way out.
 *
 * *Delivery checks* are made by pfm_inhibit(), pfm_enable(), their _suspend forms, both count
 * queries, pfm_test_raise(), pfm_cleanup_start(), and for process types 2 and 3 also by
 * pfm_cleanup_rls(), pfm_cleanup_reset() and pfm_select_inhibited(); each of them is a raise
 * point. So is every message that is printed.
 *
 * Signals of an ordinary process are taken by the library's signal-handler thread, which calls
 * the handlers that pfm_signal() registered. SIGINT, SIGHUP and SIGTERM raise status
 * PFM_RAISE_INTERRUPT in every thread. SIGTSTP stops the process when no thread is inhibited.
 *
 * Every call starts the manager (pfm_init()) when needed. Any thread may call anything here
 * unless a comment says otherwise. Misuse ends the process with an assertion message.
 */
#ifndef KORVAKS_PFM_H
#define KORVAKS_PFM_H

#include <setjmp.h>
#include <signal.h>
#include <sys/time.h>

#include <korvaks/base.h>
#include <korvaks/vlthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Raise status of an interrupt, hang-up or termination request. */
#define PFM_RAISE_INTERRUPT 4

/** An end of the notify pipe that is closed. */
#define PFM_INVALID_CHANNEL (-1)

/** How a process treats signals and raises. */
typedef uint32_t pfm_proc_type;
enum {
    PFM_PROCESS_INVALID = 0,   /**< not yet chosen */
    PFM_PROCESS_ORDINARY = 1,  /**< signals go to the signal-handler thread (the default) */
    PFM_PROCESS_CHAINING = 2,  /**< handlers from before the library run as well */
    PFM_PROCESS_SAFE = 3,      /**< only SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM and SIGTTOU may be handled */
    PFM_PROCESS_FORK_CHILD = 4 /**< child of a fork of kind 0 or 1; never asked for */
};

/** `magic` of a record on its thread's chain. */
#define PFM_MAGIC_SET 0xFA01BEEFu
/** `magic` of a record that was released or has caught a raise. */
#define PFM_MAGIC_TRIPPED 0x05FE4110u

/** A cleanup record: the place a raise jumps back to. Declared by the caller, on its stack. */
typedef struct pfm_cleanup_rec {
    uint32_t magic;
    struct pfm_cleanup_rec *next; /**< the enclosing record */
    sigjmp_buf jump;
    int32_t inh;      /**< inhibit count when the record was started */
    int32_t inh_susp; /**< suspension-inhibit count when the record was started */
    vlthread_t thr_id;
    int32_t status;   /**< what the caller's sigsetjmp() returned */
} pfm_cleanup_rec;

typedef void (*pfm_signal_t)(int sig);
typedef void (*pfm_on_exit_fn)(int status, void *arg);
typedef void (*pfm_exit_routine)(int status);

/** @name Start and process type */
/**@{*/

/**
 * Starts the fault manager once: signal tables, notify pipe, signal-handler thread, catchers for
 * SIGINT, SIGHUP, SIGTERM and SIGTSTP, default action for SIGCHLD, exit and fork handlers.
 * The caller becomes the attached thread; another attached thread is misuse.
 */
KS_API void pfm_init(void);

/**
 * Chooses the process type, once, and starts the manager; nothing when one is already chosen.
 * PFM_PROCESS_INVALID, and PFM_PROCESS_SAFE after the start, are misuse.
 */
KS_API void pfm_proc_init(pfm_proc_type type);

/** Chooses PFM_PROCESS_SAFE if no type is set; returns the previous type. For a library inside a foreign process. */
KS_API pfm_proc_type pfm_external_proc_init(void);

/** The current process type. */
KS_API pfm_proc_type pfm_proc(void);
/**@}*/

/** @name Signals */
/**@{*/

/**
 * Registers a handler; SIG_DFL and SIG_IGN are installed as they are. Handlers run on the
 * signal-handler thread (type 4: on a thread of their own) with all signals but SIGILL, SIGFPE
 * and SIGSEGV blocked. In safe mode a signal outside the safe set is misuse.
 * @return the handler registered before; SIG_ERR (errno EINVAL) when the system refuses.
 */
KS_API pfm_signal_t pfm_signal(int sig, pfm_signal_t handler);

/**
 * Blocks or unblocks SIGCHLD in the signal-handler thread; the requests nest.
 * @param how  SIG_BLOCK or SIG_UNBLOCK; `sig` is SIGCHLD. Anything else is misuse.
 */
KS_API void pfm_signal_handler_chg_block_sig(int how, int sig);

/** Forgets the nesting of the requests above and unblocks SIGCHLD in the caller. */
KS_API void pfm_init_block_total(void);

/** pthread_sigmask(how) with every signal but SIGILL, SIGFPE and SIGSEGV; SIG_BLOCK or SIG_UNBLOCK only. */
KS_API void pfm_proc_asignals(int how);
/**@}*/

/** @name Raises */
/**@{*/

/**
 * Raises `status` (0 is misuse) in the caller, inhibited or not: jumps to the innermost record, or
 * ends the thread or process through pfm_exit(). Returns only on the signal-handler thread
 * (type 4: on a thread that is not attached), where it becomes pfm_notify_vl_thread().
 */
KS_API void pfm_raise(int32_t status);

/** Marks `status` pending in every thread and wakes the attached one. Nothing before the start. */
KS_API void pfm_notify_vl_thread(int32_t status);

/** A delivery check and nothing else. `block`: the caller's fault block, or NULL. Raises: yes. */
KS_API void pfm_test_raise(struct pfm_fault_block *block);

/**
 * Opens a cleanup record. Call it straight after `rec->status = sigsetjmp(rec->jump, 1)`, in the
 * same function; control comes back here a second time if a raise arrives. On that pass the
 * record is tripped and unlinked and the caller runs inhibited: undo the work, then pass the
 * raise on with pfm_raise(), or re-arm with pfm_cleanup_reset().
 *
 * @param rec      caller's record; the function that called sigsetjmp() must not return before
 *                 pfm_cleanup_rls(rec)
 * @param inhibit  not 0: the protected work starts inhibited
 * @return 0: first pass, work may start. > 0: the raise status that arrived. < 0: the status as
 *         given, the thread's counts as they were.
 * Raises: yes; a pending raise goes to the enclosing record.
 */
KS_API int32_t pfm_cleanup_start(pfm_cleanup_rec *rec, int inhibit);

/** Closes the caller's innermost record. */
KS_API void pfm_cleanup_rls(pfm_cleanup_rec *rec);

/** Re-arms a record that caught a raise, and takes back the inhibit that came with it. Raises: yes. */
KS_API void pfm_cleanup_reset(pfm_cleanup_rec *rec);

/**
 * Holds raises off, counted. A pending raise is taken first. Does nothing on the signal-handler
 * thread (type 4: on a thread that is not attached). Raises: yes.
 */
KS_API void pfm_inhibit(void);

/** Takes one pfm_inhibit() back and makes a delivery check; one too many is misuse. Raises: yes. */
KS_API void pfm_enable(void);

/** Holds only the stop by SIGTSTP off, counted; otherwise as pfm_inhibit() and pfm_enable(). Raises: yes. */
KS_API void pfm_inhibit_suspend(void);
KS_API void pfm_enable_suspend(void);

/** The caller's counts, read before a delivery check is made. Raises: yes. */
KS_API int32_t pfm_inhibit_count(void);
KS_API int32_t pfm_inhibit_suspend_count(void);
/**@}*/

/** @name Waiting */
/**@{*/

/**
 * select(2) that a raise interrupts. The caller holds exactly one inhibit (else misuse); the
 * raise is delivered by its pfm_enable(). On another thread than the attached one this is
 * select() alone.
 *
 * @param nfds      as for select(), up to KS_FD_MAX + 1
 * @param readfds   may be NULL; the notify pipe is added to the caller's set and stays in it
 * @param timeout   as for select(), may be NULL
 * @return as select(); -1 with EINTR when a raise, a stop or a signal arrived.
 */
KS_API int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds,
                                struct timeval *timeout);

/** The read end of the notify pipe, which it makes when there is none. Owned by the library. */
KS_API int pfm_get_notify_channel(void);

/** Empties the notify pipe; only the attached thread does. */
KS_API void pfm_flush_notify_channel(void);

/** Empties and closes the notify pipe. */
KS_API void pfm_close_notify_channel(void);
/**@}*/

/** @name Exit */
/**@{*/

/**
 * Registers a handler for the end of the process; handlers run newest first with (status, arg),
 * under a lock of the module: a handler must not register another one.
 */
KS_API void pfm_on_exit(pfm_on_exit_fn fn, void *arg);

/** Sets the routine that ends the process (at first exit()); returns the previous one. */
KS_API pfm_exit_routine pfm_set_exit(pfm_exit_routine routine);

/**
 * Ends the process in order: on-exit handlers, signal-handler thread, notify pipe, exit routine.
 * On the signal-handler thread it posts the exit, which the attached thread takes at its next
 * delivery check; on any other thread that is not attached only that thread ends. It returns
 * where it only posts, where the exit routine returns, and for process types 2 and 3 while the
 * exit routine is still exit().
 */
KS_API void pfm_exit(int status);
/**@}*/

/** @name For the thread layer and fork */
/**@{*/

/** Takes, or leaves in reverse, the module's locks around a fork. */
KS_API void pfm_collect_all_locks(void);
KS_API void pfm_release_all_locks(void);

/** Prepares the per-thread fault blocks. */
KS_API void pfm_tls_init(void);

/** The caller's fault block, made on first use; a block that cannot be made ends the process. */
KS_API struct pfm_fault_block *pfm_tls_get(void);
/**@}*/

/** @name Ending the process on a fault */
/**@{*/

/**
 * The assertion of every module above the thread layer: prints
 * "PFM_ASSERT:(%s) failed: '%s':%d\n" as an error and aborts. A second failure while it prints
 * writes one line to descriptor 2 instead.
 */
KS_API void pfm_assert_fail(const char *expr, const char *file, int line) KS_NORETURN;

/** Prints "***ABORT***  '%s':%d\n" as an error and aborts. */
KS_API void pfm_panic(const char *file, int line) KS_NORETURN;
/**@}*/

/** The module's messages, subsystem "pfm". */
extern KS_API const msg_table _pfm_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
