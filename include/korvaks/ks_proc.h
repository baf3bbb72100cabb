/**
 * @file ks_proc.h
 * Starts programs and shell command lines, with pipes to their standard streams when asked for.
 *
 *     char *const argv[] = {"sort", "-u", NULL};
 *     ks_proc_result sort;
 *     if (ks_proc_create_process(argv, NULL, KS_PROC_PIPE_IN | KS_PROC_PIPE_OUT, 0, 0, &sort) == 0)
 *         return;                                  // a message has said why
 *     write(sort.in_fd, text, size); close(sort.in_fd);
 *     read(sort.out_fd, sorted, sizeof sorted); close(sort.out_fd);
 *     rt_proc_birth_announcement(sort.pid, sort_ended, &job);
 *
 * Whoever starts a process waits for it: with waitpid(2), or through rt_proc_birth_announcement() where that module is
 * used.
 *
 * What goes wrong in the child, before it has become the program, is not known in the parent, whose call has
 * succeeded. The child says it in one line on its standard error and ends with the error number as its exit status.
 * It ends by pfm_exit(), so the on-exit handlers that the parent registered run in it; they must bear that. Nothing of
 * what waits in the parent's streams is written by the child.
 *
 * A child inherits the descriptors of the program that are not close-on-exec, and none of the library's. Where
 * standard output or error is a pipe that does not block, as those of a daemon that captures its output, the child gets
 * it with an opening of its own that does, so that what it writes waits for room instead of being lost.
 */
#ifndef KORVAKS_KS_PROC_H
#define KORVAKS_KS_PROC_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Flags: standard streams of the child that are connected to the caller by pipes */
/**@{*/
#define KS_PROC_PIPE_IN 1u
#define KS_PROC_PIPE_OUT 2u
#define KS_PROC_PIPE_ERR 4u
/**@}*/

/** A started process. */
typedef struct ks_proc_result {
    int32_t pid;
    int32_t in_fd;  /**< write end of the pipe to its standard input */
    int32_t out_fd; /**< read end of the pipe from its standard output */
    int32_t err_fd; /**< read end of the pipe from its standard error */
} ks_proc_result;

/**
 * Starts a program.
 *
 * In the child, in this order: the streams asked for are connected; the program gets a process group of its own where
 * that is asked for (a failure is only a warning on its standard error); it is detached where that is asked for; it
 * gets its environment, and is executed.
 *
 * @param argv      the program and its arguments, ended by NULL; argv[0] is looked for in the child's PATH when it
 * holds no '/'. Used until the call returns.
 * @param env       the child's whole environment, strings NAME=value ended by NULL; NULL: the caller's, without empty
 *                  strings. The caller's own is never changed.
 * @param flags     KS_PROC_PIPE_IN, _OUT and _ERR in any combination; other bits mean nothing
 * @param detach    not 0: the program becomes a grandchild, which nobody waits for; the process that the result names
 *                  exits at once with status 0 and is to be waited for
 * @param new_pgrp  not 0: the program leads a process group of its own
 * @param out_result  receives the id, and for each stream that is piped the caller's end, which is the caller's to
 *                  close, close-on-exec and above descriptor 2. The other streams' entries stay as they are. Untouched
 *                  on failure.
 * @return 1; 0 when a pipe or the process could not be made (message "Unable to create pipe to subprocess:  %s" or
 *         "Unable to create new process, fork() failed:  %s"), with nothing left open.
 *
 * In the child a failure ends it with the error number, after one of the lines
 *     NAME: Error: Unable to dup() pipe in subprocess: errno N
 *     NAME: Error: Unable to create new process, fork() failed: errno N
 *     NAME: Error: Unable to exec "PROGRAM": errno N
 *
 * Threads: any but signal handlers.
 * Raises:  yes; the pipes are closed then. A raise that reaches the child before it is the program ends it with status
 *          1.
 */
KS_API int ks_proc_create_process(char *const argv[], char *const env[], uint32_t flags, int detach, int new_pgrp,
                                  ks_proc_result *out_result);

/**
 * Starts a command line with "/bin/sh", "-c". Otherwise as ks_proc_create_process().
 *
 * @param command  the line, not NULL. It is the shell's to read: what comes from outside must be quoted.
 * @param env, flags, detach, new_pgrp, out_result  as for ks_proc_create_process()
 * @return as ks_proc_create_process().
 *
 * Threads: any but signal handlers.
 * Raises:  as ks_proc_create_process().
 */
KS_API int ks_proc_create_process_str(const char *command, char *const env[], uint32_t flags, int detach, int new_pgrp,
                                      ks_proc_result *out_result);

/**
 * Starts a program in a directory. Otherwise as ks_proc_create_process().
 *
 * @param dir  the child's working directory; NULL: the caller's. One that it cannot go to ends the child with the error
 *             number, after the line
 *                 NAME: Error: Unable to change directory to "DIR": errno N
 *             The directory is entered before the program is looked for: a relative argv[0] is of the directory.
 * @param argv, env, flags, detach, new_pgrp, out_result  as for ks_proc_create_process()
 * @return as ks_proc_create_process().
 *
 * Threads: any but signal handlers.
 * Raises:  as ks_proc_create_process().
 */
KS_API int ks_proc_create_process_cd(char *const argv[], char *const env[], uint32_t flags, int detach, int new_pgrp,
                                     const char *dir, ks_proc_result *out_result);

/** Starts a command line in a directory: ks_proc_create_process_str() and ks_proc_create_process_cd() in one. */
KS_API int ks_proc_create_process_str_cd(const char *command, char *const env[], uint32_t flags, int detach,
                                         int new_pgrp, const char *dir, ks_proc_result *out_result);

/**
 * What the forms above go through.
 *
 * @param argv, command  one of the two; `command` is looked at only where `argv` is NULL
 * @param env, flags, detach, new_pgrp, dir, out_result  as for the forms above
 * @return as ks_proc_create_process(). With neither the process ends ("argv != NULL || command != NULL").
 *
 * Threads: any but signal handlers.
 * Raises:  as ks_proc_create_process().
 */
KS_API int ks_proc_create_process_int(char *const argv[], const char *command, char *const env[], uint32_t flags,
                                      int detach, int new_pgrp, const char *dir, ks_proc_result *out_result);

#ifdef __cplusplus
}
#endif
#endif
