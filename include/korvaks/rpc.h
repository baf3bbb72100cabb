/**
 * @file rpc.h
 * What RPC clients and servers share below their transports: the kinds of transport, sockets for them, and where a
 * server is to be found.
 *
 * A transport is a row of a database that is built in, `struct netconfig` of the platform's <netconfig.h>. There are
 * four, in this order, none of them marked visible:
 *
 *     netid   semantics             family   protocol
 *     udp6    NC_TPI_CLTS           inet6    udp
 *     tcp6    NC_TPI_COTS_ORD       inet6    tcp
 *     udp     NC_TPI_CLTS           inet     udp
 *     tcp     NC_TPI_COTS_ORD       inet     tcp
 *
 * A class ("nettype") names some of them, in upper or lower case:
 *
 *     netpath                       those of NETPATH, in its order; all four without that variable
 *     circuit_n, datagram_n         of those the stream, or the datagram, transports
 *     tcp, udp                      tcp6 and tcp; udp6 and udp
 *     visible, circuit_v, datagram_v   none
 *
 * The environment variable NETPATH lists netids, spelled as above and separated by ":". A "\" takes away the meaning of
 * the character behind it; at the very end it stands for itself. Empty names and those that no transport has are passed
 * over, a name that stands there twice is given twice, and an empty variable names no transport. It is read at each walk,
 * in set-user-ID processes too, since it names nothing outside this table.
 */
#ifndef KORVAKS_RPC_H
#define KORVAKS_RPC_H

#include <korvaks/base.h>
#include <korvaks/xdr.h>

#include <netconfig.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Transports */
/**@{*/

/**
 * Begins a walk over the transports of a class.
 *
 * @param nettype  a class; NULL and "" are "netpath". A name of another class is refused.
 * @return a walk, ended with __ks_rpc_endconf(); NULL for an unknown class (errno EINVAL) and on exhaustion (errno
 *         ENOMEM). A class without transports is known: its walk is empty.
 *
 * NETPATH is read here once, under the lock of the environment; later changes do not touch the walk.
 *
 * Threads: any; one at a time for a walk. Raises: no.
 */
KS_API void *__ks_rpc_setconf(const char *nettype);

/**
 * Gives the next transport of a walk.
 *
 * @param walk  from __ks_rpc_setconf()
 * @return a row of the database, which lives as long as the process and must not be changed; NULL behind the last one,
 *         and for a NULL walk.
 *
 * Threads: any; one at a time for a walk. Raises: no.
 */
KS_API struct netconfig *__ks_rpc_getconf(void *walk);

/**
 * Ends a walk and frees it. The rows that it gave stay valid. NULL does nothing.
 *
 * Threads: any. Raises: no.
 */
KS_API void __ks_rpc_endconf(void *walk);
/**@}*/

/** @name Sockets of transports */
/**@{*/

/**
 * Tells what kind of socket a transport has, in the platform's `struct __rpc_sockinfo`: family (AF_INET, AF_INET6),
 * protocol (IPPROTO_TCP, IPPROTO_UDP), type (SOCK_STREAM, SOCK_DGRAM) and the bytes of an address (16, 28).
 *
 * @param nconf  a transport, of any origin: it is known by its family and protocol
 * @param out    filled in; unchanged on failure. NULL ends the process (assertion "out != NULL").
 * @return 1; 0 for a NULL transport and one of another family or protocol.
 *
 * Threads: any. Raises: no.
 */
KS_API int __ks_rpc_nconf2sockinfo(const struct netconfig *nconf, struct __rpc_sockinfo *out);

/**
 * Tells what kind of socket a descriptor is, by what the system says of it.
 *
 * @param fd   a descriptor
 * @param out  as in __ks_rpc_nconf2sockinfo()
 * @return 1; 0 when it is no socket (errno of getsockopt(2)) or of a family, type or protocol that no transport has
 *         (errno EPROTONOSUPPORT); `out` is unchanged then.
 *
 * Threads: any. Raises: no.
 */
KS_API int __ks_rpc_fd2sockinfo(int fd, struct __rpc_sockinfo *out);

/**
 * Finds the transport that a kind of socket belongs to.
 *
 * @param info   family, protocol and type of socket; its length of addresses is not looked at
 * @param netid  set to the transport's name, which lives as long as the process; unchanged on failure
 *               (NULL for either ends the process: assertions "info != NULL", "netid != NULL")
 * @return 1; 0 when no transport has such sockets.
 *
 * Threads: any. Raises: no.
 */
KS_API int __ks_rpc_sockinfo2netid(const struct __rpc_sockinfo *info, const char **netid);

/**
 * Opens a socket for a transport: close-on-exec, not bound, not connected, blocking. One of IPv6 takes no IPv4
 * (IPV6_V6ONLY), since IPv4 has transports of its own.
 *
 * @param nconf  a transport
 * @return a descriptor above 2, the caller's to close; -1 with the errno of socket(2), or EPROTONOSUPPORT for a
 *         transport that __ks_rpc_nconf2sockinfo() does not know.
 *
 * Threads: any. Raises: no.
 */
KS_API int __ks_rpc_nconf2fd(const struct netconfig *nconf);

/** The type of socket for semantics (NC_TPI_COTS, NC_TPI_COTS_ORD, NC_TPI_CLTS); -1 for others. Any thread. */
KS_API int __ks_rpc_seman2socktype(int semantics);

/** The semantics of a type of socket: SOCK_STREAM NC_TPI_COTS_ORD, SOCK_DGRAM NC_TPI_CLTS; -1 for others. Any thread. */
KS_API int __ks_rpc_socktype2seman(int socket_type);

/**
 * Settles the size of a buffer for RPC messages.
 *
 * @param family    not looked at
 * @param protocol  IPPROTO_TCP, IPPROTO_UDP, or any other
 * @param size      bytes wanted; 0 or less for the usual ones: TCP 8192, UDP 8800, others 9000
 * @return bytes, 1 to 262144.
 *
 * Threads: any. Raises: no.
 */
KS_API u_int __ks_rpc_get_t_size(int family, int protocol, int size);
/**@}*/

/** @name Where a server is */
/**@{*/

/**
 * Asks the binder of a host where a program is served: rpcbind, and for IPv4 the port mapper of older systems (RFC
 * 1833), at port 111 of the host and over the transport that is asked for.
 *
 * The host's name is resolved as VELM_IP_VERSION says (sysutl_host_addr()), and the addresses of the transport's family
 * are asked in turn until one tells whether the program is registered. Of the answer only the port is used; the address
 * is the one that was asked.
 *
 * @param prog   program
 * @param vers   version. A binder that knows the program in other versions only answers with one of those.
 * @param nconf  transport
 * @param host   name or numeric address
 * @return the server's address in one block, freed with free(3); NULL on failure, with the caller's creation error
 *         (ks_rpc_get_createerr()) set to
 *         12  exhaustion, with errno ENOMEM in `cf_error.re_errno`
 *         13  the resolver has no address for the host, or `host` is NULL or ""
 *         14  the binder of the last address did not answer, or with something else than an address: the status of that
 *             call is in `cf_error.re_status`, with what belongs to it; that of a connection which could not be made is
 *             12, with errno
 *         15  the binder knows no such program
 *         17  `nconf` is NULL or a transport that is not known
 *         20  no socket can be opened, with errno in `cf_error.re_errno`
 *         22  the host has no address of the transport's family
 *
 * Waits 25 s at most for each address, beside what the resolver takes; datagrams are sent again after 3 s and then
 * after twice as long each time. A pending raise ends the wait on the attached thread, and no other address is asked
 * (14, with `re_errno` EINTR). A thread that is cancelled ends when the search does.
 *
 * Threads: any. Raises: no.
 */
KS_API struct netbuf *__ks_rpcb_findaddr(rpcprog_t prog, rpcvers_t vers, const struct netconfig *nconf,
                                         const char *host);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
