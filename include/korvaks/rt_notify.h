/**
 * @file rt_notify.h
 * What a daemon tells the service manager that started it: that it is ready, that it stops, how it is.
 *
 *     rt_handle_fd(RT_FD_READ, accept_one, listener, &server);
 *     rt_notify_ready("serving");
 *     rt_run();
 *     rt_notify_stopping(NULL);
 *
 * The manager names a datagram socket in NOTIFY_SOCKET, as sd_notify(3) describes: a path, or with '@' first a name of
 * the abstract kind. Without the variable nobody wants to know, and nothing is sent; a daemon calls these
 * whether a manager started it or not. Set-user-ID and set-group-ID processes ignore the variable.
 *
 * A status text is one line of up to 1,000 bytes for whoever asks the manager how the daemon is; it ends before a line
 * feed, and what is longer is cut.
 */
#ifndef KORVAKS_RT_NOTIFY_H
#define KORVAKS_RT_NOTIFY_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Tells the service manager that the daemon is ready: it serves from now on, and what waits for it may start.
 *
 * One datagram, "READY=1" and with a status "STATUS=..." on a line of its own. Nothing waits: where the manager's queue
 * is full the message is not sent and may be sent again. A service that is told to be ready twice is ready.
 *
 * @param status  a line of text as the header says, or NULL; "" takes an earlier text back
 * @return 1: sent. 0: there is no manager to tell (NOTIFY_SOCKET is unset, empty or ignored), errno as it was.
 *         -1 with errno, nothing sent: EINVAL for a name that begins with neither '/' nor '@' or is nothing more;
 *         ERANGE for one longer than a socket's name can be; EAGAIN for a full queue; else as of socket(2) and
 *         sendto(2), such as ECONNREFUSED and ENOENT where nobody listens and EMFILE.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int rt_notify_ready(const char *status);

/**
 * Tells the service manager that the daemon is on its way out, before it puts away what it holds: an end from now on is
 * no failure, and the manager's time for stopping begins.
 *
 * One datagram, "STOPPING=1" and with a status "STATUS=..." on a line of its own; sent as of rt_notify_ready().
 *
 * @param status  a line of text as the header says, or NULL; "" takes an earlier text back
 * @return as rt_notify_ready().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int rt_notify_stopping(const char *status);

/**
 * Tells the service manager how the daemon is: one datagram of "STATUS=..." and nothing else, sent as of
 * rt_notify_ready(). The text replaces an earlier one.
 *
 * @param status  a line of text as the header says; NULL and "" take an earlier text back
 * @return as rt_notify_ready().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int rt_notify_status(const char *status);

#ifdef __cplusplus
}
#endif
#endif
