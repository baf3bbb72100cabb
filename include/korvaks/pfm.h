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
 * pfm_cleanup_rls(), pfm_cleanup_reset(), pfm_select_inhibited() and pfm_poll_inhibited(); each of them is a raise
 * point. So is every message that is printed.
 *
 * Signals of an ordinary process are taken by the library's signal-handler thread, which calls
 * the handlers that pfm_signal() registered. SIGINT, SIGHUP and SIGTERM raise status
 * PFM_RAISE_INTERRUPT in every thread. SIGTSTP stops the process when no thread is inhibited.
 *
 * SIGINT, SIGHUP and SIGTERM that were ignored when the manager started stay ignored: a tool that a shell
 * runs with "nohup" or in the background is not ended by SIGINT or SIGHUP. A program that registers a
 * handler of its own for one gets SIG_IGN back from pfm_signal(), and puts it back. An ignored SIGTSTP
 * stops nothing; an ignored SIGCHLD becomes the default, so that children leave a status.
 *
 * docs/stopping.md shows whole programs that stop in order: workers, children, and the end by the signal.
 *
 * Every call starts the manager (pfm_init()) when needed. Any thread may call anything here
 * unless a comment says otherwise. Misuse ends the process with an assertion message.
 *
 * A header comment here says "Raises: yes" for a raise point: the call may jump to the caller's
 * innermost record instead of returning, if it is not inhibited and a raise is pending. What the
 * fault manager says of deferred cancellation is in vlthread.h.
 */
#ifndef KORVAKS_PFM_H
#define KORVAKS_PFM_H

#include <poll.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/time.h>

#include <korvaks/base.h>
#include <korvaks/vlthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GLIBC__) && !defined(sigsetjmp)
/* Strict C without a feature macro: the platform has both and names neither. */
#define sigsetjmp(env, savemask) __sigsetjmp(env, savemask)
typedef jmp_buf sigjmp_buf;
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
 * Starts the fault manager, once: signal tables, notify pipe, signal-handler thread, catchers for SIGINT, SIGHUP
 * and SIGTERM (each unless it is ignored) and SIGTSTP, the default action for SIGCHLD, exit and fork handlers.
 * The calling thread blocks all asynchronous signals from here on, and its later threads inherit that; they go
 * to the signal-handler thread. The process type becomes PFM_PROCESS_ORDINARY unless one was chosen.
 *
 * The caller becomes the attached thread. Where another thread is attached already the process ends
 * ("vlthread_try_attach_lib() == 0"), unless that thread is in ks_system_init(). A process that has no
 * descriptor or thread left says so on descriptor 2 and aborts. After the process went into exit() nothing
 * starts any more.
 *
 * Threads: any; concurrent calls wait for the one that works. Raises: no.
 */
KS_API void pfm_init(void);

/**
 * Chooses the process type, once, and starts the manager; nothing when a type is chosen already.
 *
 * @param type  PFM_PROCESS_ORDINARY, PFM_PROCESS_CHAINING or PFM_PROCESS_SAFE. PFM_PROCESS_INVALID
 *              ("proc_type != PFM_PROCESS_INVALID") and PFM_PROCESS_SAFE after the start ("pfm_inited == 0")
 *              end the process.
 * Threads: any. Raises: no.
 */
KS_API void pfm_proc_init(pfm_proc_type type);

/**
 * For a library inside a foreign process: chooses PFM_PROCESS_SAFE if no type is set, and starts the manager.
 * Nothing of the host's signals changes then: no catcher is installed, and what the host has blocked stays
 * blocked, also for the signal-handler thread, until pfm_signal() registers a handler for it.
 *
 * @return the type before: PFM_PROCESS_INVALID when this call chose.
 * Threads: any. Raises: no.
 */
KS_API pfm_proc_type pfm_external_proc_init(void);

/** The current process type; PFM_PROCESS_INVALID before the start and after a stop. Any thread. Raises: no. */
KS_API pfm_proc_type pfm_proc(void);
/**@}*/

/** @name Signals */
/**@{*/

/**
 * Registers a handler for a signal; SIG_DFL and SIG_IGN are installed as they are.
 *
 * Handlers run on the signal-handler thread (type 4: on a thread of their own) with all signals but SIGILL,
 * SIGFPE and SIGSEGV blocked; they may lock, allocate and print. System calls that a signal interrupts are
 * not restarted. A delivery that is under way while the handler is changed goes to the old or the new
 * handler; if the new one is SIG_DFL or SIG_IGN, to the system.
 *
 * @param sig      1 to 64. In safe mode only SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM and SIGTTOU; another ends the
 *                 process ("!pfm_in_safe_mode() || pfm_is_safemode_signal(sig)").
 * @param handler  procedure, SIG_DFL or SIG_IGN
 * @return the handler registered before, to be put back with another call; SIG_ERR with errno EINVAL for what is
 *         no signal or cannot be caught (SIGKILL, SIGSTOP), and then nothing changed.
 * Threads: any, handlers too. Raises: no.
 */
KS_API pfm_signal_t pfm_signal(int sig, pfm_signal_t handler);

/**
 * Blocks or unblocks SIGCHLD in the signal-handler thread, and returns when it is done. The requests nest: the
 * first block and the last unblock take effect. In safe mode nothing; in a fork child of type 4 the caller's
 * own mask is changed.
 *
 * @param how  SIG_BLOCK or SIG_UNBLOCK; anything else, and an unblock too many, ends the process
 * @param sig  SIGCHLD; anything else ends the process ("sig == SIGCHLD")
 * Threads: any, handlers too. Raises: no.
 */
KS_API void pfm_signal_handler_chg_block_sig(int how, int sig);

/**
 * Forgets how often SIGCHLD was blocked with the call above, and unblocks it in the calling thread.
 * Threads: any. Raises: no.
 */
KS_API void pfm_init_block_total(void);

/**
 * Blocks or unblocks every signal but SIGILL, SIGFPE and SIGSEGV in the calling thread: pthread_sigmask() with
 * the asynchronous signals.
 *
 * @param how  SIG_BLOCK or SIG_UNBLOCK; anything else ends the process
 * Threads: any; a thread that unblocks them may be interrupted by handlers that only pass the signal on.
 * Raises: no.
 */
KS_API void pfm_proc_asignals(int how);
/**@}*/

/** @name Raises */
/**@{*/

/**
 * Raises `status` in the caller, inhibited or not: forgets what is pending for the thread and jumps to its
 * innermost record; without a record it is pfm_exit(status).
 *
 * @param status  above 0; others end the process ("status > 0"), as do records of another thread
 * Returns only on the signal-handler thread (type 4: on a thread that is not attached), where it becomes
 * pfm_notify_vl_thread(); and where pfm_exit() returns.
 * Threads: any. No lock and no C++ object with a destructor may be alive in the frames that it leaves.
 */
KS_API void pfm_raise(int32_t status);

/**
 * Marks `status` pending in every thread of the state list and wakes the attached one out of
 * pfm_select_inhibited(). Nothing before the start. A full notify pipe is a warning ("Notify send failed, error
 * %d (%s)\n"), since the thread wakes anyway.
 *
 * @param status  above 0; others end the process ("status > 0")
 * Threads: any, handlers too. Raises: no.
 */
KS_API void pfm_notify_vl_thread(int32_t status);

/**
 * A delivery check and nothing else: a caller that is not inhibited takes an exit or a raise that is pending.
 * Long work calls it now and then. A caller that is inhibited starts nothing and returns at once.
 *
 * @param block  the caller's fault block, or NULL
 * Threads: the block's own. Raises: yes.
 */
KS_API void pfm_test_raise(struct pfm_fault_block *block);

/**
 * Opens a cleanup record. Call it straight after `rec->status = sigsetjmp(rec->jump, 1)`, in the
 * same function; control comes back here a second time if a raise arrives. On that pass the
 * record is tripped and unlinked and the caller runs inhibited: undo the work, then pass the
 * raise on with pfm_raise(), or re-arm with pfm_cleanup_reset().
 *
 * @param rec      caller's record, zeroed before its first use; the function that called sigsetjmp() must not
 *                 return before pfm_cleanup_rls(rec)
 * @param inhibit  not 0: the protected work starts inhibited
 * @return 0: first pass, work may start. > 0: the raise status that arrived. < 0: the status as given, nothing
 *         linked and the thread's counts as they were.
 * A record that is on the chain already, or is another thread's, ends the process, as does a second pass
 * with fewer inhibits than the record started with.
 * Threads: the record belongs to the calling thread.
 * Raises: yes; a pending raise goes to the enclosing record, before this one is linked.
 */
KS_API int32_t pfm_cleanup_start(pfm_cleanup_rec *rec, int inhibit);

/**
 * Closes the caller's innermost record; the enclosing one is the innermost again. A record that is not the
 * innermost ends the process ("cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET").
 *
 * What arrives after the last delivery check before this call is not delivered here but at the next check, to
 * the enclosing record (process types 2 and 3: checked here first).
 * Threads: the record's. Raises: for process types 2 and 3.
 */
KS_API void pfm_cleanup_rls(pfm_cleanup_rec *rec);

/**
 * Re-arms a record that caught a raise: links it as the innermost again, and takes back the inhibit that came
 * with the raise. The function that called sigsetjmp() must still run. A record that has not caught one
 * ends the process ("cl_rec->magic == MAGIC_TRIPPED").
 * Threads: the record's. Raises: yes, to this record.
 */
KS_API void pfm_cleanup_reset(pfm_cleanup_rec *rec);

/**
 * Holds raises and the stop by SIGTSTP off until the matching pfm_enable(); counted. A pending raise is taken
 * first. Does nothing on the signal-handler thread (type 4: on a thread that is not attached). A thread that ends
 * inhibited gives its inhibits back.
 * Threads: any; the count is the thread's own. Raises: yes.
 */
KS_API void pfm_inhibit(void);

/**
 * Takes one pfm_inhibit() back and makes a delivery check. The last one in the process performs a stop that was
 * held back; a thread that holds nothing back any more waits here until the others let the stop happen. One
 * too many ends the process ("inh_count >=0").
 * Threads: any. Raises: yes.
 */
KS_API void pfm_enable(void);

/**
 * Holds only the stop by SIGTSTP off, counted; raises are delivered as before. A pending raise is taken first.
 * Threads: any; the count is the thread's own. Raises: yes.
 */
KS_API void pfm_inhibit_suspend(void);

/** Takes one pfm_inhibit_suspend() back; otherwise as pfm_enable(). Raises: yes. */
KS_API void pfm_enable_suspend(void);

/**
 * The caller's inhibit count: its pfm_inhibit() calls and the counted locks that it holds, read before the
 * delivery check that the call makes.
 * Threads: any. Raises: yes.
 */
KS_API int32_t pfm_inhibit_count(void);

/** The caller's count of pfm_inhibit_suspend(), read before a delivery check. Any thread. Raises: yes. */
KS_API int32_t pfm_inhibit_suspend_count(void);
/**@}*/

/** @name Waiting */
/**@{*/

/**
 * select(2) that a raise interrupts. The caller holds exactly one inhibit, else the process ends ("pfm_inh_count
 * == 1"); the raise is delivered by its pfm_enable(). On another thread than the attached one this is select()
 * alone.
 *
 * @param nfds      as for select(), up to KS_FD_MAX + 1
 * @param readfds   may be NULL; the notify pipe is added to the caller's set and stays in it (where its number
 *                  is above KS_FD_MAX it is waited for beside the sets)
 * @param writefds, exceptfds  may be NULL
 * @param timeout   as for select(), may be NULL: without end
 * @return as select(): the number of ready descriptors, which the sets hold then, or 0 at the time-out; -1 with
 *         EINTR when a raise, a stop or a signal arrived, else with select()'s errno (ENOMEM where the sets cannot
 *         be copied).
 * Threads: any. A cancellation point. Raises: for process types 2 and 3.
 */
KS_API int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds,
                                struct timeval *timeout);

/**
 * poll(2) that a raise interrupts, at any inhibit count: for waits in the middle of work that holds raises off.
 * The raise is delivered by the caller's next delivery check with a count of 0. On another thread than the
 * attached one this is poll() alone.
 *
 * @param fds         entries as for poll(), of any descriptors; their `revents` are written only when the wait
 *                    ends with a result of 0 or more. May be NULL when there are none.
 * @param count       entries; 0 waits for a raise or the time-out alone
 * @param timeout_ms  milliseconds; 0 looks and does not wait, below 0 waits without end
 * @return as poll(): the number of entries with `revents`, 0 at the time-out; -1 with EINTR when a raise, a stop
 *         or a signal arrived, with ENOMEM where more than 31 entries cannot be copied, else with poll()'s errno.
 *         A pending raise ends one wait only: a caller that goes on waiting inhibited is not woken by it again.
 * Threads: any. A cancellation point. Raises: for process types 2 and 3, at an inhibit count of 0.
 */
KS_API int pfm_poll_inhibited(struct pollfd *fds, nfds_t count, int timeout_ms);

/**
 * The read end of the notify pipe, for loops of their own: readable when something is pending. Made when there
 * is none; owned by the library, close-on-exec, non-blocking, above descriptor 2.
 * @return the descriptor. A pipe that cannot be made ends the process.
 * Threads: any. Raises: no.
 */
KS_API int pfm_get_notify_channel(void);

/** Empties the notify pipe. Nothing on another thread than the attached one. Any thread. Raises: no. */
KS_API void pfm_flush_notify_channel(void);

/**
 * Empties and closes the notify pipe; the next notice makes a new one. Nothing when it is closed.
 * Threads: any; none may be waiting on the pipe. Raises: no.
 */
KS_API void pfm_close_notify_channel(void);
/**@}*/

/** @name Exit */
/**@{*/

/**
 * Registers a handler for the end of the process. Handlers run once each, newest first, with (status, arg): in
 * pfm_exit() on the attached thread, or in exit() with status 0. They run under a lock of the module and must
 * not register another one; they may enter the critical section, and may call pfm_exit(), which goes on
 * with the handlers that are left. Exhausted memory ends the process.
 *
 * A forked child has its parent's handlers, and runs them when it exits in order: see
 * vlthread_fork_begin_clean().
 * Threads: any. Raises: no.
 */
KS_API void pfm_on_exit(pfm_on_exit_fn fn, void *arg);

/**
 * Sets the routine that ends the process at the end of pfm_exit(), at first exit(). One that returns leaves
 * the manager stopped; the next call here starts it anew.
 * @return the previous routine.
 * Threads: any. Raises: no.
 */
KS_API pfm_exit_routine pfm_set_exit(pfm_exit_routine routine);

/**
 * Ends the process in order: on-exit handlers, signal-handler thread, notify pipe, exit routine.
 *
 * On the signal-handler thread it only posts the exit, which the attached thread takes at its next delivery
 * check; on any other thread that is not attached only that thread ends, with `status` as its value. It returns
 * where it only posts, where the exit routine returns, and for process types 2 and 3 while the exit routine is
 * still exit().
 *
 * @param status  given to the handlers and the exit routine; a shell sees its low 8 bits
 * Threads: any. No lock of a program should be held that its handlers take.
 */
KS_API void pfm_exit(int status);
/**@}*/

/** @name For the thread layer and fork */
/**@{*/

/**
 * Takes the module's locks in their order, each waited for: what a fork holds of the fault manager. For programs
 * that fork without vlthread_fork(), on both sides of it.
 * Threads: any. Raises: no.
 */
KS_API void pfm_collect_all_locks(void);

/** Gives back, in reverse, what pfm_collect_all_locks() took. The thread that took them. Raises: no. */
KS_API void pfm_release_all_locks(void);

/** Prepares the per-thread fault blocks, once; a key that cannot be made ends the process. Any thread. */
KS_API void pfm_tls_init(void);

/**
 * The caller's fault block, zeroed at first and freed at the thread's end. One that cannot be made ends the
 * process with a line on descriptor 2.
 * Threads: any. Raises: no.
 */
KS_API struct pfm_fault_block *pfm_tls_get(void);
/**@}*/

/** @name Ending the process on a fault */
/**@{*/

/**
 * The assertion of every module above the thread layer: prints
 * "PFM_ASSERT:(%s) failed: '%s':%d\n" as an error and aborts. No handler and no cleanup record runs. A second
 * failure while it prints writes one line to descriptor 2 instead.
 *
 * @param expr, file, line  the condition, the module's path ("lib/ks/stg") and the line
 * Does not return. Threads: any, with any locks held. Raises: no.
 */
KS_API void pfm_assert_fail(const char *expr, const char *file, int line) KS_NORETURN;

/**
 * Prints "***ABORT***  '%s':%d\n" as an error and aborts, otherwise as pfm_assert_fail().
 * Does not return. Threads: any. Raises: no.
 */
KS_API void pfm_panic(const char *file, int line) KS_NORETURN;
/**@}*/

/** The module's messages, subsystem "pfm". */
extern KS_API const msg_table _pfm_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
