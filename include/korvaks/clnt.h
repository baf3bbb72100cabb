/**
 * @file clnt.h
 * Calls to RPC servers (RFC 5531): over a connection with record marking, or in datagrams with retransmission.
 *
 * A client handle (CLIENT, the platform's) stands for one program and version of one server. It is made by one of the
 * create functions, used through the platform's macros (clnt_call(), clnt_control(), clnt_geterr(), clnt_freeres(),
 * clnt_destroy()), and ended with clnt_destroy(). Compile with the headers of libtirpc, as korvaks/xdr.h says; its
 * library is not needed for a call.
 *
 *     CLIENT *client = ks_clnt_create("server", PROGRAM, VERSION, "tcp");
 *     if (client == NULL)
 *         return ks_clnt_pcreateerror("server");
 *     struct timeval timeout = {25, 0};
 *     if (clnt_call(client, PROCEDURE, (xdrproc_t)xdr_int, &number, (xdrproc_t)xdr_int, &answer, timeout) != 0)
 *         ks_clnt_perror(client, "server");
 *     clnt_destroy(client);
 *
 * Results. Every failure is a `clnt_stat`: of a call in its result and in the handle (clnt_geterr()), of a creation in
 * the calling thread's creation error (ks_rpc_get_createerr()). Nothing is printed but what exhaustion says.
 *
 * Time. A call ends at its time-out, whatever arrives: a reply that drips in, a stream of replies to other calls,
 * datagrams that are no replies. A time-out of 0 sends and does not wait. A connection is made within 25 s.
 *
 * Threads and raises. Calls of one handle are made one after the other: it has a mutex, held for the whole call, so
 * raises are held off while it lasts and threads may share the handle (but not while it is destroyed). A raise that
 * arrives while the attached thread waits for a server ends the wait, when nothing but the handle holds raises off: the
 * call fails with status 4 and errno EINTR, and the raise is delivered at the caller's next delivery check. A thread
 * that is cancelled ends when the call does. In the child of a fork the handle is free, and so is its memory; but the
 * socket is shared with the parent, so that a child destroys the handle, or leaves it alone, and makes one of its own.
 *
 * Authentication. `cl_auth` is ks_authnone_create() at first; korvaks/auth.h has others. clnt_destroy() leaves it alone.
 */
#ifndef KORVAKS_CLNT_H
#define KORVAKS_CLNT_H

#include <korvaks/auth.h>
#include <korvaks/base.h>
#include <korvaks/rpc.h>
#include <korvaks/xdr.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The platform has made a macro, which calls its library, of the name of its structure. */
#pragma push_macro("rpc_createerr")
#undef rpc_createerr
/** What a creation has failed with: the platform's `struct rpc_createerr`, status and error. */
typedef struct rpc_createerr ks_rpc_createerr;
#pragma pop_macro("rpc_createerr")

/** @name Creation */
/**@{*/

/**
 * Makes a client for a program of a host: tries the transports of a class in turn, and gives the first client that can
 * be made. Where the program is served is asked of the host's binder (__ks_rpcb_findaddr()).
 *
 * @param host     name or numeric address
 * @param prog     program
 * @param vers     version; the binder may know another one only, and then calls answer status 9
 * @param nettype  class of transports (korvaks/rpc.h), NULL and "" for "netpath"
 * @return a client, ended with clnt_destroy(), which closes its socket; NULL with the creation error set: 17 for an
 *         unknown class, or when there was no transport to try; else that of the last transport that was tried. When
 *         that is 22 (the host has no address of its family) and an earlier one failed otherwise, that one's.
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_create(const char *host, rpcprog_t prog, rpcvers_t vers, const char *nettype);

/**
 * Makes a client and settles on a version that the server has: the highest one asked for, or the server's highest if
 * that is lower. Procedure 0 is called to find out, with a time-out of 10 s, at most twice.
 *
 * @param host      as ks_clnt_create()
 * @param prog      program
 * @param vers_out  set to the version of the client; unchanged on failure
 * @param vers_low  lowest version that serves the caller
 * @param vers_high highest version that serves the caller
 * @param nettype   as ks_clnt_create()
 * @return a client; NULL with the creation error set: as ks_clnt_create(), or the status of the call, with what belongs
 *         to it. 9 (with the server's range in `cf_error.re_vers`) says that no version is in both ranges.
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_create_vers(const char *host, rpcprog_t prog, rpcvers_t *vers_out, rpcvers_t vers_low,
                                   rpcvers_t vers_high, const char *nettype);

/**
 * Makes a client for a program of a host over one transport.
 *
 * @param host   name or numeric address
 * @param prog   program
 * @param vers   version
 * @param nconf  transport; NULL fails with status 17
 * @return a client, which closes its socket when it is destroyed; NULL with the creation error of __ks_rpcb_findaddr()
 *         or ks_clnt_tli_create().
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_tp_create(const char *host, rpcprog_t prog, rpcvers_t vers, const struct netconfig *nconf);

/**
 * Makes a client on a socket, or opens one, for a server whose address is known.
 *
 * @param fd        a socket, bound or not, connected or not; -1: one is opened for `nconf`. A given socket is the
 *                  caller's to close unless control request 8 says otherwise; one that is opened here is closed on
 *                  failure, and by clnt_destroy().
 * @param nconf     transport; may be NULL with a socket, and then its kind is asked of the system
 * @param svcaddr   the server's address, copied; NULL: that of the peer of `fd`
 * @param prog      program
 * @param vers      version
 * @param sendsize  bytes of the send buffer, 0 for the usual (__ks_rpc_get_t_size())
 * @param recvsize  bytes of the receive buffer, the same
 * @return a client; NULL with the creation error set: 17 for neither socket nor transport, or a transport that is not
 *         known; 20 with errno when no socket can be opened, or `fd` is none of a known kind; else that of
 *         ks_clnt_vc_create() or ks_clnt_dg_create().
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_tli_create(int fd, const struct netconfig *nconf, const struct netbuf *svcaddr, rpcprog_t prog,
                                  rpcvers_t vers, u_int sendsize, u_int recvsize);

/**
 * Makes a client over a connection, and the connection if there is none.
 *
 * @param fd        a stream socket. Without a peer it is connected to `svcaddr`, within 25 s. It stays the caller's to
 *                  close, unless control request 8 says otherwise.
 * @param svcaddr   the server's address, copied; NULL: that of the peer
 * @param prog      program
 * @param vers      version
 * @param sendsize  bytes of the send buffer; 0: 8192; at most 262144
 * @param recvsize  bytes of the receive buffer, by the same rule
 * @return a client; NULL with status 12 in the creation error: with the errno of connect(2) (ECONNREFUSED, ...), with
 *         ETIMEDOUT after 25 s, with EINTR for a raise, with that of getpeername(2), EAFNOSUPPORT for an address that is
 *         longer than the system's; or with ENOMEM on exhaustion, and the line "ks_clnt_vc_create: out of memory"
 *         through ks_warnx().
 *
 * The first transaction id is made of the time of day, a count of clients and the process id.
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_vc_create(int fd, const struct netbuf *svcaddr, rpcprog_t prog, rpcvers_t vers, u_int sendsize,
                                 u_int recvsize);

/**
 * Makes a client that sends datagrams.
 *
 * @param fd        a datagram socket, which is made non-blocking, and told to keep what the network says of datagrams
 *                  that did not arrive (IP_RECVERR). It stays the caller's to close, unless control request 8 says
 *                  otherwise.
 * @param svcaddr   the server's address, copied; NULL: that of the peer
 * @param prog      program
 * @param vers      version
 * @param sendsize  bytes of the longest call; 0: 8800 on a socket of UDP; rounded up to a multiple of 4
 * @param recvsize  bytes of the longest reply, by the same rule; what is behind it is cut off
 * @return a client; NULL with the creation error set: 20 for a socket of no known kind; 12 with the errno of the system,
 *         or with ENOMEM on exhaustion, and the line "ks_clnt_dg_create: out of memory" through ks_warnx().
 *
 * A reply is known by its transaction id and taken from any sender, since a host with several addresses may answer from
 * another one than it was asked at; a program that wants replies of one address only connects the socket.
 *
 * Threads: any. Raises: no.
 */
KS_API CLIENT *ks_clnt_dg_create(int fd, const struct netbuf *svcaddr, rpcprog_t prog, rpcvers_t vers, u_int sendsize,
                                 u_int recvsize);

/** The calling thread's creation error, all 0 before the first; it lives as long as the thread. Raises: no. */
KS_API ks_rpc_createerr *ks_rpc_get_createerr(void);
/**@}*/

/**
 * @name What clients do
 * The platform's macros call these; they are described here, and are exported only as far as the table of operations
 * reaches them.
 *
 * clnt_call(client, proc, xdr_args, args, xdr_results, results, timeout) makes a call and waits for its reply.
 *   - `xdr_args` encodes `args`, `xdr_results` decodes into `results`, as korvaks/xdr.h says. NULL stands for a
 *     routine that does nothing.
 *   - `timeout` counts from the call, unless control request 1 has set another. One that is out of range (seconds below
 *     -1 or above 100000000, microseconds below -1 or above 1000000) leaves that of the call before over a connection,
 *     at first 0, and is 0 over datagrams. A negative one is 0. 0 sends and gives status 5 at once; over a connection
 *     sending may take 25 s then, when the server does not read.
 *   - Over a connection, `xdr_results` NULL with a time-out of 0 makes a call that has no reply: it is batched, stays in
 *     the buffer until that is full or another call is made, and gives 0.
 *   - Over datagrams the call is sent again, under the same transaction id, after 15 s (control request 4) and then
 *     after twice as long each time, until the interval is 30 s or more.
 *   - A call that a server refuses for its credential is tried again, twice at most, when the authentication has
 *     another one to offer (auth_refresh()).
 *
 * clnt_geterr(client, error) copies what the last call left: the status, and errno, versions or the reason by it.
 *
 * clnt_freeres(client, xdr_results, results) frees what decoding has allocated, and gives the answer of `xdr_results`.
 *
 * clnt_destroy(client) ends the handle, and closes its socket if request 8 or the creation said so. What is batched is
 * not sent. A call of another thread that is under way ends first.
 *
 * The routines of a call may use other handles, and clnt_control() of its own; a call of its own from there, or its
 * end, is misuse and ends the process. So is a ks_rpc_call() from within a routine of another one.
 *
 * clnt_control(client, request, info) gives TRUE, or FALSE for a request that is not known or has no meaning, and for a
 * NULL `info`, which only CLSET_FD_CLOSE and CLSET_FD_NCLOSE need not have:
 *
 *     CLSET_TIMEOUT (1)           struct timeval     time-out of all calls; FALSE when it is out of range
 *     CLGET_TIMEOUT (2)           struct timeval     the same; over datagrams seconds and microseconds of -1: not set
 *     CLGET_SERVER_ADDR (3)       room for the address, as many bytes as it has (16 or 28)
 *     CLSET_RETRY_TIMEOUT (4)     struct timeval     first interval, 10 ms at least; datagrams only; FALSE when it is
 *                                                    out of range
 *     CLGET_RETRY_TIMEOUT (5)     struct timeval     the same
 *     CLGET_FD (6)                int                the socket
 *     CLGET_SVC_ADDR (7)          struct netbuf      pointer to the address, which lives as long as the handle
 *     CLSET_FD_CLOSE (8)          nothing            clnt_destroy() closes the socket
 *     CLSET_FD_NCLOSE (9)         nothing            it does not
 *     CLGET_XID (10)              uint32_t           transaction id of the last call
 *     CLSET_XID (11)              uint32_t           transaction id of the next call
 *     CLGET_VERS (12), CLSET_VERS (13)   uint32_t    version in the calls that follow
 *     CLGET_PROG (14), CLSET_PROG (15)   uint32_t    program in them
 *
 * Between CLSET_XID and the call, CLGET_XID over a connection gives the id that was set and 1.
 *
 * Status of a call, by what is in the error then:
 *
 *     1 arguments or credential cannot be encoded     2 reply cannot be decoded, or none is there
 *     3 not sent: errno                               4 not received: errno (ECONNRESET at the end of a connection,
 *     5 timed out                                       EINTR for a raise)
 *     6 RPC versions of the server: low, high         7 authentication: reason
 *     8 program unknown                               9 versions of the program: low, high
 *     10 procedure unknown                            11 server cannot decode the arguments
 *     12 server failed                                16 reply makes no sense: s1, s2
 *     23 datagrams: ECONNRESET while receiving
 *
 * After a failure of sending (3, or 5 and 4 before a call was sent whole) the connection is of no further use, and all later
 * calls fail with status 3 and errno EPIPE; else the next call can be made, also after a time-out.
 *
 * Threads: any; calls of one handle follow each other. Raises: no (see the head of this file).
 */
/**@{*/

/** What came in over datagrams and was no reply to the call that waited. */
struct ks_clnt_dg_strays {
    uint64_t foreign; /**< of another transaction id: late, doubled, or not asked for */
    uint64_t runt;    /**< shorter than a transaction id */
    uint64_t error;   /**< errors of the network for calls that are over */
};

/**
 * Counts what a datagram client has ignored since it was made.
 *
 * @param client  from ks_clnt_dg_create() (or through it); any other ends the process (assertion
 *                "client->cl_ops == &ks_clnt_dg_ops")
 * @param out     filled in
 *
 * Threads: any; waits for a call of the handle that is under way. Raises: no.
 */
KS_API void ks_clnt_dg_get_strays(CLIENT *client, struct ks_clnt_dg_strays *out);
/**@}*/

/** @name One call */
/**@{*/

/**
 * Makes one call with a time-out of 25 s, with a client that is kept for the next one.
 *
 * Each thread keeps one client. It is used again when process, host, program, version and class are those of the call
 * before, and that call did not fail; else it is destroyed and another one made. Over datagrams it sends again after 5
 * s. Its socket is close-on-exec. A host's name above 63 characters, or a class above 31, is called but not kept.
 *
 * @param host         as ks_clnt_create()
 * @param prog, vers   program and version
 * @param proc         procedure
 * @param xdr_args     encodes `args`
 * @param args         arguments
 * @param xdr_results  decodes into `results`
 * @param results      results
 * @param nettype      class of transports, NULL and "" for "netpath"
 * @return 0, the status of the creation (and then the creation error tells more), or that of the call.
 *
 * The client lives until the thread ends. A child of a fork makes its own.
 *
 * Threads: any. Raises: no.
 */
KS_API enum clnt_stat ks_rpc_call(const char *host, rpcprog_t prog, rpcvers_t vers, rpcproc_t proc, xdrproc_t xdr_args,
                                  const char *args, xdrproc_t xdr_results, char *results, const char *nettype);

/** ks_rpc_call() over "udp". The result is the `clnt_stat` as a number, as with the function of that name elsewhere. */
KS_API int ks_callrpc(const char *host, int prog, int vers, int proc, xdrproc_t xdr_args, void *args,
                      xdrproc_t xdr_results, void *results);
/**@}*/

/**
 * What a reply says, as a client's error: 0; 6 and 9 with versions, 7 with the reason, 8, 10, 11, 12; 16 with `s1` and
 * `s2` for numbers that have no meaning.
 *
 * @param reply  a decoded reply, of any content
 * @param error  filled in
 *
 * Threads: any. Raises: no.
 */
KS_API void _ks_seterr_reply(struct rpc_msg *reply, struct rpc_err *error);

/** @name Texts of errors */
/**@{*/

/**
 * The text of a status: "RPC: Success" and so on to 17; "RPC: (unknown error code)" for any other.
 *
 * @return a constant text without a newline. Any thread. Raises: no.
 */
KS_API char *ks_clnt_sperrno(enum clnt_stat stat);

/** Prints ks_clnt_sperrno() and a newline on standard error. Any thread. Raises: no. */
KS_API void ks_clnt_perrno(enum clnt_stat stat);

/**
 * The text of the last error of a client: "PREFIX: " and the status, then by it
 *     3, 4   "; errno = " and the system's text
 *     6, 9   "; low version = N, high version = N"
 *     7      "; why = " and the reason, or "(unknown authentication error - N)"
 *     0 to 2, 5, 8, 10 to 17   nothing more
 *     others "; s1 = N, s2 = N"
 *
 * @param client  a client; its last call's error is told
 * @param prefix  what the text begins with; NULL is ""
 * @return a text of at most 255 characters, cut there, without a newline. It is the calling thread's, until its next
 *         call of this or of ks_clnt_spcreateerror().
 *
 * Threads: any. Raises: no.
 */
KS_API char *ks_clnt_sperror(CLIENT *client, const char *prefix);

/** Prints ks_clnt_sperror() and a newline on standard error. Any thread. Raises: no. */
KS_API void ks_clnt_perror(CLIENT *client, const char *prefix);

/**
 * The text of the calling thread's creation error: "PREFIX: " and the status; with status 12 " - " and the system's
 * text of the errno, with status 14 " - " and the text of the status that the binder was asked with.
 *
 * @param prefix  what the text begins with; NULL is ""
 * @return as ks_clnt_sperror()
 *
 * Threads: any. Raises: no.
 */
KS_API char *ks_clnt_spcreateerror(const char *prefix);

/** Prints ks_clnt_spcreateerror() and a newline on standard error. Any thread. Raises: no. */
KS_API void ks_clnt_pcreateerror(const char *prefix);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
