/**
 * @file imsg_log.h
 * Logs: a file that takes the messages of the process, and the log of a daemon.
 *
 * A *log file* takes every message while it is open, whatever a program has put in the place of its streams:
 *
 *     imsg_start_log_file("/var/log/depot-import");   // with a header: time, host, process, user
 *     ...
 *     imsg_end_log_file();
 *
 * A *daemon log* is for good. The process's own standard output and error become pipes, and each line that
 * anything in the process, a library or a child, writes there is read back and appended to the log, as messages
 * are: one line each, with time and head.
 *
 *     if (imsg_init_daemon("/var/log/veldepotd") != 0)
 *         return 1;
 *     imsg_print(IMSG_OK, ...);     // 2026-03-05T14:03:59.120345+01:00 veldepotd: Ok: ready
 *     printf("loaded\n");           // the same, at the next print, drain or pass of the loop
 *
 * A record leaves in one write to the end of the file, so that several processes may share a log, and a
 * process that is killed leaves whole records. A record that could be written in part only (a full disk) stays
 * as it is, and the next one begins on a line of its own. While a log cannot be written the program goes on; when
 * it can be again, one record says how many were lost.
 *
 * The pipes hold about a megabyte where the system allows it. They are read at every print, whenever the loop
 * (rt.h) finds them readable, and at the end: exit(), return from main() and pfm_exit(). What waits when a signal
 * ends the process whose action is the default is copied to the log as it is. The pipes do not make a writer
 * in the daemon wait: what finds one full is lost, which a record reports. In children that the library starts
 * (ks_proc.h) a writer waits. A text without a line feed waits for the rest of its line, for 153,600 bytes, or for the
 * end.
 *
 * The daemon log is opened anew an hour after it was opened last, at the next print or start of a child, so
 * that one which was moved away is created again. When that fails the old file is written on, which is said once and
 * tried again a minute later.
 *
 * A child of a fork writes to its parent's log, but neither reads its parent's pipes nor opens its log anew.
 *
 * Names: the last component of a path must not be a symbolic link. What is no regular file with one name, nor a
 * character device, is refused: a pipe, a socket, a directory, a file with several names (EMLINK).
 *
 * Threads: any thread may call anything. No call here is for signal handlers.
 */
#ifndef KORVAKS_IMSG_LOG_H
#define KORVAKS_IMSG_LOG_H

#include <stdint.h>
#include <stdio.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Bytes of a captured line at which it becomes a record of its own, although its end has not come yet. */
#define IMSG_LOG_LINE_MAX 153600

/** What became of records since the process began (a child of a fork counts on from its parent's). */
typedef struct imsg_log_counters {
    uint64_t written;    /**< records that a log file or the daemon log took */
    uint64_t lost;       /**< records that it refused, and texts that found a pipe full */
    uint64_t suppressed; /**< messages that IMSG_PROC_SUPPRESS kept from being written anywhere */
} imsg_log_counters;

/** @name Log files */
/**@{*/

/**
 * Opens the log file, or goes on with the one that is open.
 *
 * From here on every message of the process goes to the log, with the subsystem in its head; procedures that stand in
 * the place of streams are not called. The file is written at its end and locked for this process (fcntl(2)
 * F_SETLK, over the whole file), unless it is a terminal. One that does not exist is created with mode 0666 less
 * the umask. While a log is open the path is not looked at: a second call only writes the header again when it is asked
 * for, and one imsg_end_log_file() closes the log whatever the number of calls.
 *
 * @param path      the file. The log is standard error instead, as it was when the library started or, in a daemon,
 *                  the daemon log, for NULL, "", a file that cannot be opened, one that another process has locked
 *                  (20 tries, without waiting), and for a symbolic link, about which a line says "Unable to open log
 *                  file ...".
 * @param reserved  changes nothing; pass NULL
 * @param header    not 0: a line of asterisks is written, and one with time, host, process and user.
 *                  0: messages have a time stamp in front, as in a daemon log.
 * @return the stream of the log, for writing; never NULL. It is the library's and good until imsg_end_log_file():
 *         do not close it.
 * errno is not told.
 *
 * Threads: any. Raises: no. It may wait for the user database (sysutl_user_name()).
 */
KS_API FILE *imsg_start_log(const char *path, void *reserved, int header);

/** imsg_start_log() with the header. Everything else is as there. */
KS_API FILE *imsg_start_log_file(const char *path);

/**
 * Closes the log file: the lock is released, and messages go where they went before. A log that is standard error
 * stays open. Without a log file nothing happens.
 *
 * Threads: any; nobody may use the stream any more. Raises: no.
 */
KS_API void imsg_end_log_file(void);

/** The same as imsg_end_log_file(). */
KS_API void imsg_end_log(void);
/**@}*/

/** @name Daemon log */
/**@{*/

/**
 * Makes the process a daemon that keeps a log: messages go there with a time stamp, and what is written to
 * standard output and error is caught. It does not fork, and leaves session and directory alone: a program
 * that puts itself into the background does so first.
 *
 * From here on messages of kind IMSG_OK have their head ("prog: Ok: "). A standard input that is closed becomes
 * /dev/null (else message 3 of "ks/imsg" says why not). Terminal modes that the library changed are put back.
 * Descriptors 1 and 2 become the write ends of two pipes, which do not block; they are inherited by children, while the
 * log and the read ends are not. The pipes are read by the loop from now on, if one is run.
 *
 * A second call only opens the log anew, as imsg_open_daemon(). A child of a fork becomes a daemon of its own.
 *
 * @param path  the log, created with mode 0666 whatever the umask; an existing one gets that mode where the process
 *              may set it. A relative one is kept as the absolute one that it is now.
 * @return 0; -1 with errno, and a line on standard error as by perror(3): the path, or one of "Can't create pipe",
 * "Can't dup pipes to stdout/err", "Unable to set stdout read pipe non-blocking", "Unable to set stderr read pipe
 *         non-blocking", "Unable to set stdout non-blocking", "Unable to set stderr non-blocking", "Can't set stdout
 * pipe read handle", "Can't set stderr pipe read handle". Then descriptors 1 and 2, streams and heads are as before;
 * only standard input stays open. For a symbolic link the line is "Unable to open log file ...".
 *
 * Threads: any; others must not use descriptors 1 and 2 meanwhile.
 * Raises:  only before anything is done.
 */
KS_API int imsg_init_daemon(const char *path);

/**
 * imsg_init_daemon() without pipes: nothing is caught from descriptors 1 and 2. The log itself becomes the process's
 * standard output and error: `stdout` and `stderr` are one stream over it, which writes line by line and is closed by
 * an exec. Descriptors 1 and 2 stay what they are.
 *
 * @param path  as for imsg_init_daemon()
 * @return 0; -1 with errno and a line on standard error, and the streams are as before.
 *
 * Threads: any; no other may use `stdout` and `stderr` meanwhile.
 * Raises:  only before anything is done.
 */
KS_API int imsg_init_abe(const char *path);

/**
 * Opens the daemon log anew, for a program that is told so (SIGUSR1, SIGHUP), and keeps the path for later. What the
 * pipes hold goes to the old file first. The new file is open before the old one is given up: on failure everything
 * is as before, and the old file is written on.
 *
 * In a process that is no daemon descriptors 1 and 2 themselves become the file: both, at its end, inherited by
 * children.
 *
 * @param path  as for imsg_init_daemon()
 * @return 0, and the next opening is due in an hour; -1 with errno: EINVAL for NULL, else as open(2), and a line on
 *         standard error, as by perror(3) with the path, or "Unable to open log file ..." (ELOOP).
 *
 * Threads: any. Raises: no.
 */
KS_API int imsg_open_daemon(const char *path);

/** 1 in a process that keeps a daemon log, and in children of a fork of it; else 0. Threads: any. Raises: no. */
KS_API int imsg_am_daemon(void);

/**
 * Sends messages to the process's own standard output and error for a while, which a daemon catches: they reach
 * the log with the next drain, without a time stamp. IMSG_OK messages lose their head meanwhile, and the log is
 * not opened anew. Suspending what is suspended changes nothing.
 *
 * @return 0; -1 with errno EINVAL in a process that is no daemon, and the line "Can't suspend daemon logging, process
 *         not a daemon: ..." on standard error.
 *
 * Threads: any; holds for the process. Raises: no.
 */
KS_API int imsg_suspend_daemon_logging(void);

/**
 * Sends messages to the daemon log again, behind what was printed while logging was suspended. IMSG_OK messages have
 * their head again, also where logging was not suspended.
 *
 * @return 0; -1 as imsg_suspend_daemon_logging(), with "Can't resume daemon logging, process not a daemon: ...".
 *
 * Threads: any. Raises: no.
 */
KS_API int imsg_resume_daemon_logging(void);

/**
 * To be called before the program starts a child with fork(2) itself: opens the daemon log anew when that is due.
 * ks_proc.h does so for its children. Nothing in a process that is no daemon.
 *
 * Threads: any. Raises: no.
 */
KS_API void imsg_starting_process(void);
/**@}*/

/** @name Pipes of a daemon */
/**@{*/

/**
 * Copies to the log what is waiting in the pipes at this moment: lines of standard output with the head of IMSG_OK,
 * those of standard error with that of IMSG_ERROR, each with a time stamp; into an open log file without either. Text
 * in the buffers of `stdout` and `stderr` is flushed first, unless another thread is using the stream. What comes
 * later, and a line without its end, stays for the next time. Nothing in a process that is no daemon or has no
 * pipes.
 *
 * Threads: any. Raises: no.
 */
KS_API void imsg_drain_pipes(void);

/**
 * imsg_drain_pipes() for a program that ends without exit(), such as by _exit(2) or exec(3): what is waiting goes to
 * the log to the last byte, also a line without its end. The pipes stay.
 *
 * @return 0; -1 with errno EINVAL and message 99 of "ks/imsg" in a process that is no daemon or is a daemon's child.
 *
 * Threads: any. Raises: only in printing that message.
 */
KS_API int imsg_drain_pipes_fully(void);

/**
 * Gives this process descriptors 1 and 2 on the pipes that make a writer wait while the pipe is full, for a child that
 * the program has forked itself and that is to exec. Nobody else's descriptors change. In the daemon itself a writer
 * may then wait for the very thread that is to read: call it only where another thread runs the loop.
 *
 * @return 0; -1 with errno, and descriptors that did not change: EINVAL with message 100 of "ks/imsg" in a process that
 * is no daemon; else as open(2) for /proc/self/fd, without a message.
 *
 * Threads: any. Raises: only in printing that message.
 */
KS_API int imsg_set_pipes_blocking(void);

/**
 * The descriptor from which a daemon reads what is written to standard output or error, for a program with a loop
 * of its own: when it is readable, call imsg_drain_pipes(). Do not read from it, and do not close it. The loop of rt.h
 * watches it already.
 *
 * @param fd  1 or 2
 * @return the descriptor; -1 with errno EINVAL and a message of "ks/imsg": 101 in a process that is no daemon or is a
 *         daemon's child, 102 for another `fd` and for a daemon without pipes (imsg_init_abe()).
 *
 * Threads: any. Raises: only in printing that message.
 */
KS_API int imsg_daemon_pipe_fd(int fd);
/**@}*/

/**
 * Reads the counters of the logs.
 * @param out_counters  filled; not NULL. Each number is right, though not all of one moment.
 * Threads: any. Raises: no.
 */
KS_API void imsg_get_log_counters(imsg_log_counters *out_counters);

#ifdef __cplusplus
}
#endif
#endif
