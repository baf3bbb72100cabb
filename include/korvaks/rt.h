/**
 * @file rt.h
 * The event runtime: the main loop of servers and daemons, with timed events and descriptor handlers.
 *
 *     rt_handle_fd(RT_FD_READ, accept_one, listener, &server);
 *     rt_sched(look_around, &server, 60);
 *     rt_run();                                  // until somebody calls rt_shutdown()
 *
 * There is one list of events, sorted by due time, and one set of handlers. The loop runs on the attached
 * thread only; it waits so that a raise interrupts it (pfm.h), fires what is due and calls the handlers of ready
 * descriptors. Any thread may schedule, cancel, add and remove at any time: a loop that waits notices it at
 * once. Due times are of the wall clock; when the clock is set the loop wakes and looks anew.
 *
 * An event fires once. Its record belongs to the runtime, which uses it again for later events:
 *  - rt_sched() and its like: once it has fired or was cancelled the handle is good for nothing more.
 *  - the _mt forms: the record stays with its owner after firing, who learns from status RT_ALREADY_FIRED that
 *    it has run, and then gives it back with rt_free_event(). A cancelled one is the runtime's at once.
 *  - rt_sched_int(): the record is the caller's own memory.
 *
 * Events and handlers are called with no lock held and with raises enabled. They may call anything here,
 * rt_poll() too; one that raises or is left by a raise leaves the loop as well, which may then be run again. Callbacks
 * are plain C and do not throw.
 *
 * In the child of a fork (vlthread_fork()) events and handlers are still there, and the child's loop serves them.
 *
 * Set TRACE_SUBSYS to "rt" and TRACE_VERBOSITY to 2 to see what the loop waits for: the descriptors, and how long.
 */
#ifndef KORVAKS_RT_H
#define KORVAKS_RT_H

#include <sys/time.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** `magic` of an event that is scheduled. */
#define RT_MAGIC 31438u
/** `magic` of an event that has fired or was cancelled. */
#define RT_MAGIC_DONE 34097u

/** @name Statuses of rt_unsched_mt() besides KS_ST_OK */
/**@{*/
#define RT_NOT_SCHEDULED 2u
#define RT_ALREADY_FIRED 4u
/**@}*/

/** @name Kinds of descriptor handlers */
/**@{*/
#define RT_FD_READ 0
#define RT_FD_WRITE 1
#define RT_FD_EXCEPT 2
/**@}*/

typedef void (*rt_event_fn)(void *arg);
/** Called with a ready descriptor. */
typedef void (*rt_fd_fn)(int fd, void *arg);
/** Called with those descriptors of a caller's set that are ready; the set is the handler's until it returns. */
typedef void (*rt_fd_set_fn)(ks_fd_set *ready, void *arg);

/** A timed event. Declared by callers of rt_sched_int() as memory; its fields belong to the runtime. */
typedef struct rt_event {
    struct rt_event *next;
    struct rt_event *prev;
    int64_t tv_sec; /**< due time, absolute */
    int64_t tv_usec;
    rt_event_fn fn;
    void *arg;
    uint16_t magic;
    uint16_t caller_owned; /**< 1: the memory is the caller's */
    uint32_t mt;           /**< 1: scheduled by an _mt form, and not given back yet */
} rt_event;

/** What the runtime has done since the process began (a child of a fork counts on from its parent's). */
typedef struct rt_counters {
    uint64_t events_fired;
    uint64_t handlers_run;    /**< calls of descriptor and descriptor-set handlers */
    uint64_t children_reaped; /**< deaths that were collected, announced or not (rt_proc.h) */
} rt_counters;

/** @name Scheduling */
/**@{*/

/**
 * Schedules an event after a number of seconds.
 *
 * Events fire in the order of their due times; those of the same instant in the order in which they were
 * scheduled. An event fires when its time is past, never early, and one a pass: descriptors are looked at
 * between two events that are due. Its cost grows with the logarithm of the number of events; where the index
 * over them finds no memory, with the number, and no event is lost.
 *
 * @param fn       called once on the attached thread, with `arg`; NULL ends the process ("fn != NULL")
 * @param arg      any value
 * @param seconds  whole seconds from now; 0 or less is due at once. A sum that no time can hold is the latest or
 *                 the earliest one.
 * @return the event, owned by the runtime; valid until it has fired or was cancelled. NULL when there is no memory
 *         for a record (message "Malloc failed at ..."), and nothing is scheduled.
 *
 * Threads: any.
 * Raises:  only in printing that message.
 */
KS_API rt_event *rt_sched(rt_event_fn fn, void *arg, long seconds);

/**
 * Schedules an event after a time given in seconds and microseconds.
 *
 * @param fn, arg  as for rt_sched()
 * @param timeout  not NULL; its seconds must not be negative and must be less than the seconds of the clock, else the
 *                 process ends ("timeout->tv_sec >= 0 && timeout->tv_sec < abs_time.tv_sec"). Microseconds beyond a
 *                 second are carried over.
 * @return as rt_sched().
 *
 * Threads: any.
 * Raises:  as rt_sched().
 */
KS_API rt_event *rt_sched_rel(rt_event_fn fn, void *arg, const struct timeval *timeout);

/**
 * Schedules an event for a time of the wall clock.
 *
 * @param fn, arg   as for rt_sched()
 * @param abs_time  not NULL; any time. One that is past is due at once, and one far ahead is waited for in pieces of
 *                  100,000,000 seconds. Events are ordered by seconds first, then by microseconds, as given.
 * @return as rt_sched().
 *
 * Threads: any.
 * Raises:  as rt_sched().
 */
KS_API rt_event *rt_sched_abs(rt_event_fn fn, void *arg, const struct timeval *abs_time);

/**
 * rt_sched() for an event that its owner cancels from another thread than the loop's. The record stays the
 * owner's after firing: rt_unsched_mt(event, 1) tells what became of it, and rt_free_event() gives it back.
 *
 * @param fn, arg, seconds  as for rt_sched()
 * @return the event, valid until it is cancelled or given back; NULL as for rt_sched().
 *
 * Threads: any.
 * Raises:  as rt_sched().
 */
KS_API rt_event *rt_sched_mt(rt_event_fn fn, void *arg, long seconds);

/** rt_sched_rel() for an event whose record stays its owner's, as of rt_sched_mt(). Any thread. Raises: as rt_sched().
 */
KS_API rt_event *rt_sched_rel_mt(rt_event_fn fn, void *arg, const struct timeval *timeout);

/**
 * Schedules an event in memory of the caller's, so that no memory can be missing.
 *
 * The memory must live and stay untouched until the event has fired (when `fn` is called it is the caller's again)
 * or was cancelled. One that holds an event that is scheduled ends the process ("event->magic != RT_MAGIC").
 *
 * @param fn, arg, seconds  as for rt_sched()
 * @param event_memory      the record, aligned as a pointer; what it holds is overwritten
 * @param max_event_size    its bytes; fewer than sizeof(rt_event), which is 56, end the process
 *                          ("max_event_size >= sizeof(struct rt_event)")
 * @return the event, in `event_memory`; never NULL.
 *
 * Threads: any; handlers that pfm_signal() registered too, which run on a thread of their own.
 * Raises:  no.
 */
KS_API rt_event *rt_sched_int(rt_event_fn fn, void *arg, long seconds, void *event_memory, size_t max_event_size);

/**
 * Cancels an event.
 *
 * @param event  an event. NULL is not scheduled. A handle whose record was given back or used again is misuse that
 *               cannot be seen: it may cancel the event that has the record now.
 * @param mt     not 0: tell an event that has fired or was cancelled from one that never was scheduled
 * @return KS_ST_OK: it was scheduled and does not fire any more; unless it is in caller's memory its record is the
 *         runtime's again. RT_ALREADY_FIRED: only with `mt`; it has fired, or its function runs at this moment, or it
 *         was cancelled before. RT_NOT_SCHEDULED: any other.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API ks_status rt_unsched_mt(rt_event *event, int mt);

/** Cancels an event as rt_unsched_mt(event, 0). Returns 1 when it was cancelled, 0 when it was not scheduled. */
KS_API int rt_unsched(rt_event *event);

/**
 * Puts an event off: cancels it and schedules its function and argument anew with rt_sched().
 *
 * @param event    an event; NULL is not scheduled
 * @param seconds  as for rt_sched()
 * @return the new event, which replaces the handle; NULL when `event` was not scheduled, or when there is no memory
 *         for a record (the event is cancelled then, and a message says so).
 *
 * Threads: any.
 * Raises:  as rt_sched().
 */
KS_API rt_event *rt_resched(rt_event *event, long seconds);

/**
 * Cancels a pending event; schedules one that is not pending again.
 *
 * Kept exactly, though it is the opposite of rt_resched(): when the event was scheduled it is cancelled and nothing
 * is scheduled in its place; when it has fired, or was cancelled, its function and argument are scheduled anew with
 * rt_sched_mt(). The old record is left as it is: the owner of a fired event still gives it back.
 *
 * @param event    an event whose record is still the caller's; NULL gives NULL
 * @param seconds  as for rt_sched()
 * @return NULL when the event was cancelled; else the new event, or NULL when there is no memory for it (message).
 *
 * Threads: any.
 * Raises:  as rt_sched().
 */
KS_API rt_event *rt_resched_mt(rt_event *event, long seconds);

/**
 * Gives the record of an _mt event back, once it has fired. Records in caller's memory, and records that are the
 * runtime's already, are left alone; one that is still scheduled ends the process ("event->magic != RT_MAGIC").
 *
 * @param event  an event of an _mt form; NULL is ignored. The handle is good for nothing afterwards.
 *
 * Threads: the event's owner.
 * Raises:  no.
 */
KS_API void rt_free_event(rt_event *event);

/**
 * Whether an event has fired or was cancelled: its magic is RT_MAGIC_DONE. An event in its own function has fired.
 *
 * @param event  an event whose record is still the caller's; not NULL
 * @return 1 or 0.
 * Threads: any. Raises: no.
 */
KS_API int rt_event_in_timeout(const rt_event *event);
/**@}*/

/** @name Descriptors */
/**@{*/

/**
 * Has a function called whenever a descriptor is ready.
 *
 * The handler stays until it is removed. Of the ready descriptors of a pass those of the newest handlers are
 * served first: all that may be read, then those that may be written, then those with an exception; within each,
 * single descriptors before sets. A handler that is removed is not called any more, also not for what the pass has
 * found already, and one that was added during a pass waits for the next. Descriptors are served by the same
 * handler again and again for as long as they are ready. Adding and removing take the same time with 16 handlers and
 * with 16,000, but for one system call when a handler goes that has been there for long among many.
 *
 * Remove a handler before its descriptor is closed: a wait for a descriptor that is closed ends the process
 * ("errno == EINTR"), unless a handler was removed or a set changed since the wait began. Where there are many
 * handlers, 128 and more, not every wait looks at all of them: it then ends within a second, and a number that became
 * another file's is served within a second.
 *
 * @param kind  RT_FD_READ, RT_FD_WRITE or RT_FD_EXCEPT. 3 and 4 count as the first two, 5 does nothing and gives 1;
 *              any other ends the process.
 * @param fn    called with `fd` and `arg` on the attached thread; not NULL
 * @param fd    0 to KS_FD_MAX. One that has a handler of this kind ends the process ("elem->fd != fd"), as does a
 *              negative one ("fd >= 0").
 * @param arg   any value
 * @return 1; 0 for a descriptor above KS_FD_MAX (message "File descriptor (%d) too large for rt"), where 16,383
 *         handlers of the kind are there already, and for want of memory (message "Malloc failed at ...").
 *
 * Threads: any.
 * Raises:  only in printing a message.
 */
KS_API int rt_handle_fd(int kind, rt_fd_fn fn, int fd, void *arg);

/**
 * Removes the handler of a descriptor. It is not called any more, but it may be running on the attached thread.
 *
 * @param kind  as for rt_handle_fd(); 5 does nothing and gives 1
 * @param fd    the descriptor, which may be closed afterwards; any number
 * @return 1 when there was a handler of this kind, else 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int rt_unhandle_fd(int kind, int fd);

/**
 * Has a function called whenever descriptors of a set are ready.
 *
 * The set is the caller's and is read anew before each wait and before each call: put a number in or take it out
 * at any time. Another thread than the attached one does so with relaxed atomic operations on its words
 * (__atomic_fetch_or and __atomic_fetch_and), and makes a loop that waits look again by adding or removing any
 * handler, or by a descriptor of its own in the set. Only the first 256 words, descriptors 0 to 16383, are looked at.
 * A descriptor that has a single handler of the same kind too is served by that one.
 *
 * @param kind        RT_FD_READ, RT_FD_WRITE or RT_FD_EXCEPT; any other ends the process
 * @param fn          called on the attached thread with those of the set's descriptors that are ready, at least one;
 *                    not NULL
 * @param fd_set_fds  the set, which lives until it is removed. One that is registered for this kind already ends the
 *                    process ("elem->fd_set_fds != fd_set_fds").
 * @param arg         any value
 * @return 1; 0 for want of memory (message "Malloc failed at ...").
 *
 * Threads: any.
 * Raises:  only in printing that message.
 */
KS_API int rt_handle_fd_set(int kind, rt_fd_set_fn fn, const ks_fd_set *fd_set_fds, void *arg);

/**
 * Removes the handler of a descriptor set; what the set holds is not looked at any more.
 *
 * @param kind        RT_FD_READ, RT_FD_WRITE or RT_FD_EXCEPT; any other ends the process
 * @param fd_set_fds  the set that was registered; any pointer
 * @return 1 when it was registered for this kind, else 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int rt_unhandle_fd_set(int kind, const ks_fd_set *fd_set_fds);

/**
 * Whether the runtime can handle a descriptor.
 * @return 1 for a number of at most KS_FD_MAX; else 0, after the message "File descriptor (%d) too large for rt".
 * Threads: any. Raises: only in printing that message.
 */
KS_API int rt_fd_validate_max_fd(int fd);
/**@}*/

/** @name The loop */
/**@{*/

/** Sets the limits and starts the fault manager, once; every call here that needs it does so. Any thread. Raises: no.
 */
KS_API void rt_init(void);

/**
 * Runs the loop until rt_shutdown(): fires what is due, serves descriptors, and waits when there is neither.
 *
 * Without events it waits for descriptors without end. It collects the deaths of children at its start and whenever
 * a wait was interrupted (rt_proc.h). A raise leaves it by a jump to the caller's cleanup record; the loop can be
 * run again then, with events and handlers as they are. It must not be entered inhibited ("pfm_inh_count == 1").
 *
 * A wait of a process that has no descriptor left for the loop's own wake-up is cut into pieces of a second.
 *
 * Threads: the attached one; any other ends the process ("VLTHREAD_IS_MAIN_THREAD()").
 * Raises:  yes.
 */
KS_API void rt_run(void);

/**
 * Looks once at the descriptors without waiting, and serves those that are ready. No event fires. A handler that
 * calls it serves the rest of the descriptors in it: the pass it was called from ends when it returns. The caller is
 * not inhibited ("pfm_inh_count == 1").
 *
 * Threads: the attached one; any other ends the process ("VLTHREAD_IS_MAIN_THREAD()").
 * Raises:  yes.
 */
KS_API void rt_poll(void);

/**
 * Waits once for descriptors and serves those that are ready: the loop's own step, for loops of one's own. It is
 * entered after one pfm_inhibit(), which it takes back before it serves anything. No event fires.
 *
 * It ends early, having served nothing, when a raise, a stop or a signal arrives, when another thread schedules an
 * event that is the first, adds or removes a handler or asks for shutdown, and when the clock is set.
 *
 * @param timeout  longest wait; NULL for no limit
 *
 * Threads: the attached one; any other ends the process ("VLTHREAD_IS_MAIN_THREAD()").
 * Raises:  yes.
 */
KS_API void rt_wait(const struct timeval *timeout);

/**
 * Has rt_run() return at its next pass: after the event or the handlers that it is in, or at once from its wait.
 * Where no rt_run() runs, the next one returns at once. Asked for several times it counts once.
 *
 * Threads: any; handlers of signals that pfm_signal() registered too.
 * Raises:  no.
 */
KS_API void rt_shutdown(void);

/**
 * Sets up the RPC server's worker threads (svc.h), once, for a program that runs this loop: a program uses this or
 * ks_svc_run(), not both.
 *
 * @param count  workers, 1 or more; 0: none, calls are served by the loop's own thread
 * @return 0; 1 for a count below 0, and when the server was set up before (with a message: "Unable to set multithread
 *         mode"). Threads that cannot be had end the process (assertion "ks_svc_setup_threads()").
 *
 * Threads: any. Raises: in the message.
 */
KS_API int rt_set_worker_threads(int count);

/**
 * Tells how many workers the RPC server has, or is to have.
 *
 * @param out_count  0 in single-threaded mode
 * @return 0; 1 when it cannot be told, with a message.
 *
 * Threads: any. Raises: in the message.
 */
KS_API int rt_get_worker_threads(int *out_count);

/**
 * Reads the runtime's counters.
 * @param out_counters  filled; not NULL
 * Threads: any; each counter is whole, not all of the same moment. Raises: no.
 */
KS_API void rt_get_counters(rt_counters *out_counters);
/**@}*/

/** The module's messages, subsystem "rt". */
extern KS_API const msg_table _rt_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
