/**
 * @file rt_proc.h
 * Children whose deaths are reported: an event on the attached thread calls back with the child's status.
 *
 *     pid_t pid = rt_proc_fork(child_died, &job, VLTHREAD_FORK_EXEC);
 *     if (pid == 0)
 *         run_the_job();                       // ends with exec or _exit()
 *     ...
 *     rt_run();                                // calls child_died(pid, status, &job, record)
 *
 * The first call of any function here starts the module, which then owns SIGCHLD and reaps every child of the
 * process, known or not:
 *
 *  - system(3), waitpid(2), pclose(3) and their like in the program find no status any more: they fail with ECHILD, or
 *    report a failure. Announce the child instead (rt_proc_birth_announcement()). What the library itself waits for is
 *    not lost, also where the program reaps with waitpid(-1).
 *  - The last 64 deaths that nobody had announced are kept for 10 seconds, so that a child announced only after it
 *    died is reported all the same.
 *  - A program that had its own SIGCHLD handler before keeps it, and cannot use this module.
 *
 * Deaths are reported in the order in which they were collected, once each, while rt_run() runs. Once the process
 * exits none is collected any more. The child of a fork begins with no children; what its parent had announced is not
 * reported in it.
 *
 * In safe mode (pfm_external_proc_init()) SIGCHLD is the host's, and the first call here ends the process.
 */
#ifndef KORVAKS_RT_PROC_H
#define KORVAKS_RT_PROC_H

#include <sys/types.h>

#include <korvaks/base.h>
#include <korvaks/llist.h>
#include <korvaks/rt.h>

#ifdef __cplusplus
extern "C" {
#endif

struct rt_proc_child;

/**
 * Called on the attached thread when a child has died, with the status as waitpid(2) gives it. The record is valid
 * until it returns. It may fork, raise, and call anything here.
 */
typedef void (*rt_proc_fn)(pid_t pid, int32_t status, void *arg, struct rt_proc_child *record);

/** A child, as its callback sees it. To be read only. */
typedef struct rt_proc_child {
    llist_link link;
    int32_t pid;
    int32_t status;      /**< as of waitpid(2), once the child has died */
    rt_proc_fn callback; /**< may be NULL */
    void *arg;
    rt_event event; /**< by which the death is reported */
} rt_proc_child;

/**
 * Starts the module: takes SIGCHLD over from the system's default. Done by every other call here; called by itself it
 * tells whether the module can be used.
 *
 * @return 0, also when it had started before; -1 when the program had installed a SIGCHLD handler of its own, which
 *         is put back (message "rt_proc: child death signal handler conflict!"). Every other call here then ends the
 *         process ("initialized || rt_proc_initialize() == 0").
 *
 * Threads: any; concurrent calls wait for the one that works.
 * Raises:  yes.
 */
KS_API int rt_proc_initialize(void);

/**
 * Forks a child whose death is reported. A child that dies before the call returns is reported too.
 *
 * @param callback  called when the child has died; NULL: nobody, but rt_proc_alive() and the like know the child
 * @param arg       any value, given to the callback
 * @param kind      as for vlthread_fork(): VLTHREAD_FORK_PLAIN or _EXEC for a child that will exec or exit soon, the
 *                  continuing kinds for one that goes on as a process of the library
 * @return in the parent the child's id; in the child 0; -1 with errno: as of fork(2), or ENOMEM when there was no
 *         memory for the child's record (message "Malloc failed at ...", the child is told to end by SIGTERM and its
 *         death is not reported).
 *
 * Threads: any but signal handlers, on whose thread the fork would wait; forks follow each other.
 * Raises:  yes, before the fork or after all is done; the child's id is lost to the caller then, not its report.
 */
KS_API pid_t rt_proc_fork(rt_proc_fn callback, void *arg, int kind);

/**
 * Announces a child that was forked by other means, so that its death is reported.
 *
 * @param pid       id of a child of this process. It may have died up to 10 seconds ago (see above): then the report is
 *                  due at once. The id of a process that is no child is never reported.
 * @param callback  as for rt_proc_fork()
 * @param arg       any value
 * @return 0; 1 when there is no memory for the child's record (message "Malloc failed at ..."): the child is told to
 *         end by SIGTERM, and its death is not reported.
 *
 * Threads: any.
 * Raises:  yes.
 */
KS_API int rt_proc_birth_announcement(pid_t pid, rt_proc_fn callback, void *arg);

/**
 * Forgets the callback of a child, living or dead and not yet reported. The child lives on and is reaped in silence.
 * A callback that runs at this moment is not held up.
 *
 * @param pid  a child's id; of a living child and a dead one of the same id the living one is meant
 * @return 0; -1 when no announced child has that id.
 *
 * Threads: any.
 * Raises:  yes.
 */
KS_API int rt_proc_disown(pid_t pid);

/**
 * Tells every announced child that lives to end: procutl_terminate(), so SIGTERM. It waits for none of them; each is
 * reported as usual when it has died.
 *
 * @return 0 when there was any, else -1.
 *
 * Threads: any.
 * Raises:  yes.
 */
KS_API int rt_proc_killall(void);

/** 1 when an announced child lives or waits for its callback, else 0. Any thread. Raises: yes. */
KS_API int rt_proc_any_procs(void);

/** 1 when an announced child of that id lives, as far as its death has not been collected; else 0. Any thread. Raises:
 * yes. */
KS_API int rt_proc_alive(pid_t pid);

#ifdef __cplusplus
}
#endif
#endif
