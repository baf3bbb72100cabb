/**
 * @file procutl.h
 * Process utilities.
 */
#ifndef KORVAKS_PROCUTL_H
#define KORVAKS_PROCUTL_H

#include <sys/types.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Asks a child process to end: SIGTERM, and SIGCONT so that a stopped child takes notice. It does not
 * wait and reaps nothing; a child that handles SIGTERM decides itself, one that ignores it lives on.
 *
 * @param pid  id of a child of this process. Nothing else is ever signalled: no group (0 and below), no
 *             process that is not a child, and no stranger that was given the id of a child long reaped.
 * @return 0, also for a child that has ended and is not yet reaped; -1 with errno:
 *           ECHILD  no child of this process has that id, or it was reaped
 *           EPERM   the child changed its user and may not be signalled (kill(2))
 *
 * Between its look and its signal another thread must not reap the child.
 *
 * Threads: any; also from signal handlers (waitid(2) and kill(2) alone), which then save errno.
 * Raises:  no.
 */
KS_API int procutl_terminate(pid_t pid);

#ifdef __cplusplus
}
#endif
#endif
