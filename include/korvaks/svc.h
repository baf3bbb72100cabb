/**
 * @file svc.h
 * RPC servers (RFC 5531): transports for connections and datagrams, the table of programs that are served, replies, the
 * loop and its worker threads. docs/server.md is the guide.
 *
 *     static void serve(struct svc_req *request, SVCXPRT *transport)
 *     {
 *         int number = 42;
 *         if (request->rq_proc == 0)
 *             ks_svc_sendreply(transport, NULL, NULL);
 *         else if (request->rq_proc == 1)
 *             ks_svc_sendreply(transport, (xdrproc_t)xdr_int, &number);
 *         else
 *             ks_svcerr_noproc(transport);
 *     }
 *
 *     int limit = 1 << 20;
 *     ks_rpc_control(KS_SVC_SET_RECORD_LIMIT, &limit);
 *     SVCXPRT *listener = ks_svc_tli_create(-1, nconf, &bindaddr, 0, 0);
 *     if (listener != NULL && ks_svc_register(listener, PROGRAM, VERSION, serve, 0))
 *         ks_svc_run();
 *
 * A transport (SVCXPRT, the platform's) is a listener, a connection that it has accepted, or a datagram socket. Every
 * one serves all programs that are registered. The platform's macros work on them (svc_getargs(), svc_freeargs(),
 * svc_getrpccaller(), svc_destroy()). A transport belongs to the library from its registration on: it ends by
 * svc_destroy(), with its peer, or when it is idle for too long. One that is being served ends when its call has
 * returned.
 *
 * Loops. ks_svc_run() waits for transports and serves them, and returns only on failure. A program with a loop of its own
 * waits for `ks_svc_fdset` and hands what is ready to ks_svc_getreqset(); under rt_run() that is
 * `rt_handle_fd_set(RT_FD_READ, ..., &ks_svc_fdset, ...)`. One thread does it, the main thread.
 *
 * Workers. In multi-threaded mode (ks_rpc_control()) ready transports are handed to a pool of threads; one connection is
 * served by one worker at a time. ks_svc_run() makes the pool, or rt_set_worker_threads() does for a program with a loop
 * of its own: one of the two, once. With no idle worker a ready transport waits in a queue, and the main thread goes on.
 *
 * Dispatch routines. One is called for each call of its program and version whose credential was admitted
 * (korvaks/auth.h); in multi-threaded mode several at once. It decodes the arguments with svc_getargs(), replies once,
 * or not at all where a call has no reply, and frees what decoding has allocated with svc_freeargs(). Raises are held off
 * in it. One that leaves by a raise, or ends its thread, costs the connection that it serves; a raise of the main thread
 * goes on to the program's own cleanup record, one of a worker ends there.
 *
 * Replies of calls that have arrived together leave together: a reply is sent at once unless the next call is in memory
 * as a whole, and then with the next one, or when the calls in memory are served.
 *
 * Record limit. Without one (KS_SVC_SET_RECORD_LIMIT) connections block: a peer that sends half a record is waited for,
 * 35 s, by the thread that serves it. With one, records are assembled as they come and nobody is waited for, and
 * connections that are idle for 30 s are closed. Every server should set one before it makes its transports.
 *
 * Forks. A child of vlthread_fork() of kind VLTHREAD_FORK_CONTINUE or _3 has the transports of its parent, whose sockets
 * it shares, but for those that another thread was serving; it has no workers, and may set up its own.
 */
#ifndef KORVAKS_SVC_H
#define KORVAKS_SVC_H

#include <korvaks/auth.h>
#include <korvaks/base.h>
#include <korvaks/rpc.h>
#include <korvaks/xdr.h>

#include <poll.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Transports */
/**@{*/

/** What a kind of transport does; each transport points to one table of its kind. */
typedef struct ks_svc_ops {
    bool_t (*recv)(SVCXPRT *xprt, struct rpc_msg *msg);
    enum xprt_stat (*stat)(SVCXPRT *xprt);
    bool_t (*getargs)(SVCXPRT *xprt, xdrproc_t xdr_args, void *args);
    bool_t (*reply)(SVCXPRT *xprt, struct rpc_msg *msg);
    XDR *(*reply_get_xdrs)(SVCXPRT *xprt);
    bool_t (*reply_finish)(SVCXPRT *xprt);
    bool_t (*freeargs)(SVCXPRT *xprt, xdrproc_t xdr_args, void *args);
    void (*destroy)(SVCXPRT *xprt);
    bool_t (*control)(SVCXPRT *xprt, u_int request, void *info); /**< NULL: none */
} ks_svc_ops;

/**
 * A transport of this library. The platform's handle is first, and what functions pass; its tables of operations serve
 * the platform's macros.
 */
typedef struct ks_svcxprt {
    SVCXPRT platform;
    const ks_svc_ops *ops;
    int semantics;                 /**< NC_TPI_CLTS or NC_TPI_COTS_ORD (korvaks/rpc.h) */
    int reply_in_progress;         /**< between ks_svc_sendreply_start() and the reply's finish */
    struct rpc_msg *pending_reply; /**< of it; NULL when there is none */
    uint64_t serial;               /**< given at its registration, 0 before; no two have the same */
} ks_svcxprt;

/**
 * The descriptors of registered transports that wait for a call: one that is being served by a worker is not among them.
 * A program with a loop of its own waits for them; it may take some out for a while and put them back. Read and written
 * word by word while other threads do the same.
 */
extern KS_API ks_fd_set ks_svc_fdset;

/** The highest descriptor of a registered transport, -1 when there is none. Read and written as a word of the set. */
extern KS_API int ks_svc_maxfd;

/**
 * Enters a transport into the table at its descriptor, and the descriptor into `ks_svc_fdset`, marks it close-on-exec,
 * and lets a loop that waits know.
 *
 * @param xprt  a transport of this library; one that stands at its descriptor already is replaced there
 * @return TRUE; FALSE, nothing changed, for a descriptor of 16384 or more, and on exhaustion.
 *
 * Threads: any. Raises: no.
 */
KS_API bool_t ks_xprt_register(SVCXPRT *xprt);

/**
 * Takes a transport out of the table, and its descriptor out of the set. The transport stays as it is: svc_destroy()
 * ends it, and calls this by itself. One that is not in the table is left alone. A call that is being served goes on, and
 * is the transport's last.
 *
 * Threads: any. Raises: no.
 */
KS_API void ks_xprt_unregister(SVCXPRT *xprt);

/** ks_xprt_unregister() for a caller that holds the table's lock already: for the library itself. */
KS_API void __ks_xprt_unregister_unlocked(SVCXPRT *xprt);

/**
 * Makes a transport for a kind of transport, or of a socket.
 *
 * @param fd        a socket, which stays the caller's when the creation fails; -1: one is opened for `nconf`
 * @param nconf     kind of transport; may be NULL with a socket, and then its kind is asked of the system
 * @param bindaddr  where an unbound socket is bound, and for a listener the length of its queue; NULL: to a reserved
 *                  port where that is permitted, else to any, with a queue of 128. A socket that is bound stays so; a
 *                  listener's queue is set by listen(2) only where the socket is bound here
 * @param sendsize  bytes of send buffers, 0 for the usual (__ks_rpc_get_t_size())
 * @param recvsize  bytes of receive buffers, the same
 * @return a registered transport: of datagrams; a listener for a stream socket without a peer; else a connection. NULL on
 *         failure, with one line through ks_warnx():
 *         "ks_svc_tli_create: invalid netconfig"
 *         "ks_svc_tli_create: could not open connection for NETID"
 *         "ks_svc_tli_create: could not get transport information"
 *         "ks_svc_tli_create: could not bind to requested address"
 *         "ks_svc_tli_create: could not bind to anonymous port"
 *         "ks_svc_tli_create: bad service type"
 *         or that of the function for its kind, below.
 *
 * Threads: any. Raises: no.
 */
KS_API SVCXPRT *ks_svc_tli_create(int fd, const struct netconfig *nconf, const struct t_bind *bindaddr, u_int sendsize,
                                  u_int recvsize);

/**
 * Makes a listener of a bound stream socket that listens, which it makes non-blocking. Its connections get the record
 * limit of this moment, which request 4 of its control changes.
 *
 * @param fd        the socket, which stays the caller's when the creation fails
 * @param sendsize  bytes of the send buffer of each connection, 0 for the usual
 * @param recvsize  bytes of the receive buffer of each connection, the same
 * @return a registered transport, which owns the socket; NULL with "ks_svc_vc_create: out of memory",
 *         "ks_svc_vc_create: could not retrieve local addr" or "ks_svc_vc_create: no mem for local addr" through
 *         ks_warnx(), or when it cannot be registered.
 *
 * Threads: any. Raises: no.
 */
KS_API SVCXPRT *ks_svc_vc_create(int fd, u_int sendsize, u_int recvsize);

/**
 * Makes a blocking connection of a socket that is connected. As ks_svc_vc_create().
 *
 * @return a registered transport, which owns the socket; NULL with "svc_vc: ks_makefd_xprt: out of memory" or "svc_tcp:
 *         ks_makefd_xprt: out of memory" through ks_warnx(), or when it cannot be registered.
 *
 * Threads: any. Raises: no.
 */
KS_API SVCXPRT *ks_svc_fd_create(int fd, u_int sendsize, u_int recvsize);

/**
 * Makes a blocking connection of a socket, with no address and not registered: ks_svc_fd_create() without both.
 *
 * @return a transport, which svc_destroy() ends together with the socket; NULL as ks_svc_fd_create().
 *
 * Threads: any. Raises: no.
 */
KS_API SVCXPRT *ks_makefd_xprt(int fd, u_int sendsize, u_int recvsize);

/**
 * Makes a transport of a datagram socket. Replies leave from the address that their call came to.
 *
 * @param fd        the socket, bound; it stays the caller's when the creation fails
 * @param sendsize  bytes of the largest reply, 0 for the usual
 * @param recvsize  bytes of the largest call, the same. One buffer has room for both.
 * @return a registered transport, which owns the socket; NULL with "ks_svc_dg_create: could not get transport
 *         information", "ks_svc_dg_create:  transport does not support data transfer" or "ks_svc_dg_create: out of
 *         memory" through ks_warnx(), or when it cannot be registered.
 *
 * Threads: any. Raises: no.
 */
KS_API SVCXPRT *ks_svc_dg_create(int fd, u_int sendsize, u_int recvsize);

/**
 * Binds a socket to a reserved port (512 to 1023) of its address, which the system grants to privileged processes.
 *
 * @param fd       a socket that is not bound, of IPv4 or IPv6
 * @param address  address to bind to, whose port is set to that which was found; NULL: any address
 * @return 0; -1 with the errno of bind(2): EACCES without the privilege, EADDRINUSE when all are taken;
 *         EAFNOSUPPORT for sockets of another family.
 *
 * Threads: any. Raises: no.
 */
KS_API int ks_bindresvport(int fd, struct sockaddr *address);

/** 1 when a socket is bound to a port, else 0, also when it is none. Any thread. Raises: no. */
KS_API int __ks_rpc_sockisbound(int fd);
/**@}*/

/** @name Programs */
/**@{*/

/** Serves one call; see the head of this file. */
typedef void (*ks_svc_dispatch)(struct svc_req *request, SVCXPRT *xprt);

/**
 * Registers a version of a program: its calls go to `dispatch`, over every transport.
 *
 * @param xprt      not looked at; may be NULL
 * @param prog      program
 * @param vers      version
 * @param dispatch  called for each call; NULL ends the process (assertion "dispatch != NULL")
 * @param protocol  0. Any other number, with which a port mapper would be told, fails.
 * @return TRUE, also for a pair that is registered with the same routine; FALSE, nothing changed, for one that has another
 *         routine, and on exhaustion.
 *
 * Threads: any. Raises: no.
 */
KS_API bool_t ks_svc_register(SVCXPRT *xprt, rpcprog_t prog, rpcvers_t vers, ks_svc_dispatch dispatch, int protocol);

/**
 * Takes a version of a program out of the registry. Calls that are being served go on.
 *
 * A program unregisters only what it has registered: for any other pair the call returns with the registry locked, so
 * that no other thread dispatches a call any more (a warning through ks_warnx() names the pair, once). That is how it has
 * always been, and is kept. The caller's raises are held off from then on.
 *
 * Threads: any. Raises: no.
 */
KS_API void ks_svc_unregister(rpcprog_t prog, rpcvers_t vers);
/**@}*/

/** @name Replies */
/**@{*/

/**
 * Replies to the call that is being served: accepted, with the verifier of the call, and the results.
 *
 * @param xprt         transport of the call
 * @param xdr_results  encodes the results; NULL: there are none
 * @param results      its argument
 * @return TRUE; FALSE when the results cannot be encoded, or not be sent. Where they cannot be encoded, and nothing of
 *         them was sent yet, another reply can be made, such as ks_svcerr_systemerr().
 *
 * Threads: the one that serves the call. Raises: as `xdr_results`, where raises are not held off.
 */
KS_API bool_t ks_svc_sendreply(SVCXPRT *xprt, xdrproc_t xdr_results, void *results);

/**
 * Begins a reply that is made in parts: its head and first results are encoded. More follow on the stream of
 * ks_svc_sendreply_get_xdrs(), and ks_svc_sendreply_finish() ends it. Over a connection what is encoded leaves whenever
 * the buffer is full; a reply over datagrams must fit in one.
 *
 * @return TRUE; FALSE, and the reply is not begun, as ks_svc_sendreply().
 *
 * Threads: the one that serves the call. Raises: as `xdr_results`.
 */
KS_API bool_t ks_svc_sendreply_start(SVCXPRT *xprt, xdrproc_t xdr_results, void *results);

/** The stream on which a reply that was begun goes on. Threads: the one that serves the call. Raises: no. */
KS_API XDR *ks_svc_sendreply_get_xdrs(SVCXPRT *xprt);

/**
 * Ends a reply that was begun, and sends it.
 *
 * @param xdr_results  encodes the last results
 * @param results      its argument; NULL: there are no more, and `xdr_results` is not called
 * @return TRUE; FALSE when no reply was begun, or the results cannot be encoded, or not be sent.
 *
 * A reply that was begun and never ended, and one whose last results cannot be encoded, is dropped as far as nothing of
 * it was sent; else its connection ends, since a reply that was cut would be taken for a whole one.
 *
 * Threads: the one that serves the call. Raises: as `xdr_results`.
 */
KS_API bool_t ks_svc_sendreply_finish(SVCXPRT *xprt, xdrproc_t xdr_results, void *results);

/** Replies that the program is not served (PROG_UNAVAIL). As ks_svc_sendreply(), and so are those below. */
KS_API void ks_svcerr_noprog(SVCXPRT *xprt);
/** Replies that the version is not served, but those from `low` to `high` (PROG_MISMATCH). */
KS_API void ks_svcerr_progvers(SVCXPRT *xprt, rpcvers_t low, rpcvers_t high);
/** Replies that there is no such procedure (PROC_UNAVAIL). */
KS_API void ks_svcerr_noproc(SVCXPRT *xprt);
/** Replies that the arguments cannot be decoded (GARBAGE_ARGS). */
KS_API void ks_svcerr_decode(SVCXPRT *xprt);
/** Replies that the server has failed (SYSTEM_ERR). */
KS_API void ks_svcerr_systemerr(SVCXPRT *xprt);
/** Replies that the credential is refused (AUTH_ERROR), and why. */
KS_API void ks_svcerr_auth(SVCXPRT *xprt, enum auth_stat why);
/** ks_svcerr_auth() with AUTH_TOOWEAK. */
KS_API void ks_svcerr_weakauth(SVCXPRT *xprt);
/**@}*/

/** @name Serving */
/**@{*/

/**
 * Waits for transports and serves them, for good.
 *
 * In multi-threaded mode it makes the workers first (ks_svc_setup_threads()). It closes connections with a record limit
 * that were idle for more than 30 s, every 30 s.
 *
 * Returns only when the workers cannot be made, or were made before, with "ks_svc_run: could not initiate thread state",
 * or when waiting fails, with "ks_svc_run: - select failed", both through ks_warn(). A raise is delivered between two
 * rounds, and wakes the attached thread.
 *
 * Threads: one, the main thread. Raises: yes.
 */
KS_API void ks_svc_run(void);

/**
 * Makes the workers in multi-threaded mode; in single-threaded mode only notes that this was done. ks_svc_run() and
 * rt_set_worker_threads() do it.
 *
 * @return TRUE; FALSE when it was done before, and when a thread or memory cannot be had: then what was made is undone, and
 *         the call can be made again. A process that cannot make the pipe by which workers wake the main thread says so on
 *         standard error ("ks_mk_update_select_pipe: problem creating pipe", or "out of memory") and aborts.
 *
 * Threads: any; one succeeds. Raises: no.
 */
KS_API bool_t ks_svc_setup_threads(void);

/**
 * Ends serving: no transport is served any more, the calls that run are finished, and the workers end.
 *
 * Transports stay open, and the queue of those that waited for a worker is dropped. In single-threaded mode there is
 * nothing to wait for. It is for the end of a server, and there is no way back.
 *
 * @param timeout_ms  milliseconds to wait for calls that run; below 0: as long as they take
 * @return workers that still serve a call; they end when it does, and nobody waits for them any more.
 *
 * Threads: one, not a worker. Raises: no.
 */
KS_API int ks_svc_end_threads(int timeout_ms);

/**
 * Serves the transports whose descriptors are in a set, the lowest first; in multi-threaded mode hands them to workers.
 * What has no transport is passed over.
 *
 * @param fdset  set of ready descriptors, not changed
 *
 * Threads: one, the main thread. Raises: before anything is served; not while something is.
 */
KS_API void ks_svc_getreqset(ks_fd_set *fdset);

/** ks_svc_getreqset() for descriptors 0 to 31, bit by bit. */
KS_API void ks_svc_getreq(int mask);

/**
 * Serves what poll(2) has found ready.
 *
 * @param fds    what poll(2) was given
 * @param count  its result: so many entries with events are looked at. One that says POLLNVAL is taken out of
 *               `ks_svc_fdset`.
 *
 * Threads: one, the main thread. Raises: as ks_svc_getreqset().
 */
KS_API void ks_svc_getreq_poll(struct pollfd *fds, int count);

/**
 * Serves one transport that is ready, or hands it to a worker. As ks_svc_getreqset().
 *
 * @param xprt  a transport that nobody else ends meanwhile
 */
KS_API void ks_svc_getreq_common(SVCXPRT *xprt);

/**
 * Receives and dispatches the calls of a transport until it has no more for now, or has died and is destroyed.
 *
 * @param xprt  a transport that nobody else serves or ends meanwhile
 *
 * Threads: one at a time for a transport. Raises: as ks_svc_getreqset().
 */
KS_API void ks_svc_process_request(SVCXPRT *xprt);

/**
 * Dispatches the one call that a clone of a datagram transport holds, and ends the clone. A clone is what request 5 of a
 * datagram transport's control makes; its own `recv` reads the call into it.
 *
 * @param xprt  a clone; any other transport ends the process (assertion "is_clone(xprt)")
 *
 * Threads: one at a time for a clone. Raises: as ks_svc_getreqset().
 */
KS_API void ks_svc_process_clone(SVCXPRT *xprt);

/**
 * Checks the credential of a decoded call and calls the routine of its program.
 *
 * @param xprt     transport that the call came by
 * @param msg      the call
 * @param request  filled in, but for `rq_clntcred`, which points to KS_SVC_CREDENTIAL_SIZE bytes
 * @return TRUE when a routine was called, or the credential refused; FALSE when the program or version is not served. The
 *         caller was told in each case.
 *
 * Threads: one at a time for a transport. Raises: as the routine.
 */
KS_API bool_t ks_svc_handle_message(SVCXPRT *xprt, struct rpc_msg *msg, struct svc_req *request);

/**
 * Closes connections for idleness.
 *
 * @param fdset       only connections whose descriptors are in it
 * @param timeout     whole seconds: all that were idle for longer; 0: the one that was idle for longest
 * @param cleanblock  not 0: also connections without a record limit
 * @return TRUE when one was closed.
 *
 * A connection that is being served is none of them. Threads: any. Raises: no.
 */
KS_API bool_t __ks_svc_clean_idle(ks_fd_set *fdset, int timeout, bool_t cleanblock);

/** Requests of ks_rpc_control(). Each sets from, or stores to, an `int`. */
enum {
    KS_SVC_SET_RECORD_LIMIT = 0, /**< bytes of a record, 1 or more, for listeners that are made from now on */
    KS_SVC_GET_RECORD_LIMIT = 1, /**< the same; 0: none */
    KS_SVC_SET_MT_MODE = 2,      /**< multi-threaded mode, 0 or 1; not once the workers are set up */
    KS_SVC_GET_MT_MODE = 3,
    KS_SVC_SET_THREADS = 4, /**< number of workers, 1 or more (16 at first); not once they are set up */
    KS_SVC_GET_THREADS = 5,
};

/**
 * Settings of the server.
 *
 * @param request  one of those above; any other fails
 * @param value    the number, or where it is stored; NULL fails
 * @return TRUE, or FALSE, nothing changed.
 *
 * Threads: any. Raises: no.
 */
KS_API bool_t ks_rpc_control(int request, void *value);
/**@}*/

/** @name What it does */
/**@{*/

/** What the server of this process has done, since its start, and what it does. */
typedef struct ks_svc_counters {
    uint64_t connections_accepted;
    uint64_t connections_refused; /**< newcomers for whom there was no memory or no place in the table */
    uint64_t connections_idled;   /**< closed for idleness */
    uint64_t connections_open;    /**< now */
    uint64_t accept_pauses;       /**< how often a listener had to wait for a free descriptor */
    uint64_t dead_peers;          /**< connections that ended because their peer was silent, or did not read */
    uint64_t bad_records;         /**< records and datagrams that hold no call, or are too long */
    uint64_t calls;               /**< decoded */
    uint64_t calls_succeeded;     /**< by reply: SUCCESS, */
    uint64_t calls_no_program;    /**< PROG_UNAVAIL, */
    uint64_t calls_bad_version;   /**< PROG_MISMATCH, */
    uint64_t calls_no_procedure;  /**< PROC_UNAVAIL, */
    uint64_t calls_bad_arguments; /**< GARBAGE_ARGS, */
    uint64_t calls_failed;        /**< SYSTEM_ERR, */
    uint64_t calls_denied;        /**< and AUTH_ERROR */
    uint64_t calls_abandoned;     /**< whose routine left by a raise, or ended its thread */
    uint64_t queued;              /**< transports that wait for a worker, now */
    uint64_t workers;             /**< in the pool, now */
    uint64_t workers_busy;        /**< serving, now */
} ks_svc_counters;

/**
 * Reads the counters of the server, each for itself: they are counted by other threads meanwhile.
 *
 * @param out_counters  filled in; not NULL
 * Threads: any. Raises: no.
 */
KS_API void ks_svc_get_counters(ks_svc_counters *out_counters);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
