/**
 * @file sysutl.h
 * Small services around the system: umask, descriptors, names of host and user, socket addresses.
 *
 * Results: 0, or -1 with errno; those of the last two groups, which are about sockets, have 1 in the place of -1.
 * Any thread may call anything here. Nothing here prints or raises.
 *
 * Socket addresses are the system's sockaddr_in and sockaddr_in6 records, passed as `struct sockaddr *`; their
 * family says which. IPv4 (AF_INET) and IPv6 (AF_INET6) are handled alike; every other family is unknown here, and
 * of an address with such a family nothing but the family is read. No address pointer may be NULL.
 */
#ifndef KORVAKS_SYSUTL_H
#define KORVAKS_SYSUTL_H

#include <sys/socket.h>
#include <sys/types.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

struct addrinfo; /* <netdb.h> */
struct netbuf;   /* the platform's <rpc/types.h> */

/**
 * Records the process's umask, if no call of this or of sysutl_get_umask() has done so before.
 * ks_system_init() calls it, so that the answer is the one the process was started with.
 *
 * The umask is read from /proc/self/status. Where that does not tell it, umask(2) is set to 077 for a
 * moment and back: files that other threads make meanwhile are open to their owner alone.
 *
 * Threads: any; the first value that a thread has read stands.
 * Raises:  no. errno is unchanged.
 */
KS_API void sysutl_umask_init(void);

/**
 * The umask that the process had at its start: at the first call of this or of sysutl_umask_init(). It does
 * not follow later calls of umask(2).
 *
 * @return permission bits, 0 to 0777; it cannot fail. errno is unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API mode_t sysutl_get_umask(void);

/**
 * How many descriptors the process may have: the soft limit (RLIMIT_NOFILE, getrlimit(2)), at most KS_FD_MAX.
 * It is read once, at the first call (ks_system_init() makes one), and kept: later changes of the limit
 * are not seen. The limit itself is not changed.
 *
 * @return the number; KS_FD_MAX also when there is no limit or it cannot be read. errno is unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_get_max_fds(void);

/**
 * Marks a descriptor close-on-exec (FD_CLOEXEC); its other flags stay. Descriptors that another thread's
 * fork may catch in between are better opened with O_CLOEXEC.
 *
 * @param fd  an open descriptor
 * @return 0; -1 with errno EBADF when it is not open.
 *
 * Threads: any; also from signal handlers.
 * Raises:  no.
 */
KS_API int sysutl_set_cloexec_file(int fd);

/**
 * Gives the host's name as the kernel has it (uname(2)): with or without a domain, as it was set.
 *
 * @param buf   receives the name and its NUL; unchanged on failure
 * @param size  bytes of `buf`. 65 are enough for any name; 0 is too small for every one.
 * @return 0; -1 with errno ENAMETOOLONG when name and NUL do not fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_myhostname(char *buf, size_t size);

/**
 * Gives the host's domain: its NIS domain (getdomainname(2)) or, where that is empty or "(none)", what follows
 * the first '.' in the host's name. It asks no name service.
 *
 * @param buf   receives the domain and its NUL; unchanged on failure
 * @param size  bytes of `buf`; 65 are enough for any domain
 * @return 0; -1 with errno: ENOENT when there is neither, ENAMETOOLONG when domain and NUL do not fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_get_host_domain_name(char *buf, size_t size);

/**
 * Gives the login name of the process's real user (getuid(2)); the user's number in decimal when the user
 * database has no such user. The environment (USER, LOGNAME) is not asked.
 *
 * @param buf   receives the name and its NUL; unchanged on failure
 * @param size  bytes of `buf`
 * @return 0; -1 with errno: ENAMETOOLONG when name and NUL do not fit, or the error of getpwuid_r(3), such as
 *         EMFILE, ENOMEM, and ERANGE for an entry of more than 16 KiB. An interrupted look-up goes on.
 *
 * Threads: any. It may wait for a directory service, and takes 16 KiB of stack.
 * Raises:  no.
 */
KS_API int sysutl_user_name(char *buf, size_t size);

/**
 * Gives the home directory of a user, as the user database has it; HOME is not asked. Whether the directory
 * exists is not looked at.
 *
 * @param user  login name, not NULL
 * @param buf   receives the path and its NUL; unchanged on failure
 * @param size  bytes of `buf`
 * @return 0; -1 with errno: ENOENT when there is no such user, ENAMETOOLONG when path and NUL do not fit, or
 *         the error of getpwnam_r(3), such as EMFILE, ENOMEM, and ERANGE for an entry of more than 16 KiB.
 *         An interrupted look-up goes on.
 *
 * Threads: any. It may wait for a directory service, and takes 16 KiB of stack.
 * Raises:  no.
 */
KS_API int sysutl_home_dir(const char *user, char *buf, size_t size);

/** @name Socket addresses */
/**@{*/

/** The library's numbers for the address families, which travel in calls and files in the place of the system's. */
enum { SYSUTL_ADDRFAMILY_NONE = 0, SYSUTL_ADDRFAMILY_IPV4 = 1, SYSUTL_ADDRFAMILY_IPV6 = 2 };

/** Bytes in which the text of every address has room, "[" "]:", scope and NUL included. */
#define SYSUTL_ADDR_TEXT_SIZE 72

/** The library's number of a family: 1 for AF_INET, 2 for AF_INET6, 0 for any other. Threads: any. Raises: no. */
KS_API int sysutl_sa_family_to_ks_addrfamily(int sa_family);

/** The system's family of a number: AF_INET for 1, AF_INET6 for 2, 0 for any other. Threads: any. Raises: no. */
KS_API int sysutl_ks_addrfamily_to_sa_family(int ks_addrfamily);

/** Bytes of an address: 16 for AF_INET, 28 for AF_INET6, 0 for another family. Threads: any. Raises: no. */
KS_API size_t sysutl_sockaddr_size(const struct sockaddr *addr);

/**
 * Resolves a host and a service to addresses: a numeric host with a port number first, and only when that yields
 * nothing by name (getaddrinfo(3), with AI_ADDRCONFIG each time).
 *
 * The environment variable VELM_IP_VERSION, a decimal number, chooses the family: 4 IPv4 only, 6 IPv6 only; with any
 * other value, or without it, both. It is read at each call, also in a set-user-ID process: it names no file.
 *
 * @param node      host, as an address or a name; NULL is this host, as getaddrinfo(3) has it
 * @param service   port number or a name of the service database; NULL leaves the ports 0
 * @param socktype  SOCK_STREAM, SOCK_DGRAM or another type of addresses; 0 any
 * @param out_list  receives the list, one address at least, which the caller frees with freeaddrinfo(3);
 *                  unchanged on failure
 * @return 0; else the code of the second lookup for gai_strerror(3), such as EAI_NONAME or EAI_AGAIN, with errno
 *         where it is EAI_SYSTEM; EAI_FAIL (-4) when that succeeds without a result. h_errno is set to 0 before each
 *         lookup.
 *
 * Threads: any. It may wait for name services as long as they are configured to be waited for.
 * Raises:  no.
 */
KS_API int sysutl_host_addr(const char *node, const char *service, int socktype, struct addrinfo **out_list);

/**
 * Turns the text of an address into addresses, one for each socket type: the first of the two lookups of
 * sysutl_host_addr(), without a service, so that ports are 0. No name service is asked. VELM_IP_VERSION counts: with
 * 6, an IPv4 address is refused.
 *
 * @param node      "192.0.2.1", "2001:db8::1", "fe80::1%eth0"; not NULL
 * @param out_list  receives the list, which the caller frees with freeaddrinfo(3); unchanged on failure
 * @return 0; else the code of getaddrinfo(3) for gai_strerror(3): EAI_NONAME for what is no address, EAI_ADDRFAMILY
 *         for one of a family that VELM_IP_VERSION excludes; EAI_FAIL (-4) when it succeeds without a result.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_host_addr_numeric(const char *node, struct addrinfo **out_list);

/**
 * Gives the names of an address's host and service (getnameinfo(3) without flags): numbers where there is no name.
 *
 * @param addr     the address
 * @param hostlen  bytes of `host`; 0 or less leaves the host out. NI_MAXHOST (1025) is enough for any.
 * @param host     receives the host and its NUL
 * @param servlen  bytes of `serv`; 0 or less leaves the service out. NI_MAXSERV (32) is enough for any.
 * @param serv     receives the service and its NUL
 * @return 0; 1 for an unknown family, for names that do not fit, and when the lookup fails: then `host` holds
 *         "<unresolvable numeric address>", cut where it has less room, and `serv` "".
 *
 * Threads: any. It may wait for name services.
 * Raises:  no.
 */
KS_API int sysutl_host_name(const struct sockaddr *addr, int hostlen, char *host, int servlen, char *serv);

/**
 * Gives an address's host and port as numbers: sysutl_host_name() with NI_NUMERICHOST and NI_NUMERICSERV, so that no
 * name service is asked. Arguments, result and what stands in the buffers after a failure are the same.
 *
 * @return 0; 1 for an unknown family and for numbers that do not fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_host_numeric(const struct sockaddr *addr, int hostlen, char *host, int servlen, char *serv);

/**
 * Writes an address as "[host]:port", both as numbers: "[192.0.2.1]:371", "[2001:db8::1]:371",
 * "[fe80::1%eth0]:371".
 *
 * @param addr  the address
 * @param size  bytes of `buf`; SYSUTL_ADDR_TEXT_SIZE is enough for any. 0 writes nothing.
 * @param buf   receives the text and its NUL. An unknown family gives "<unresolvable address>", and so does a text
 *              that does not fit, since a cut one would name another host or port; that is cut where need be.
 * @return `buf`
 *
 * Threads: any. No name service is asked.
 * Raises:  no.
 */
KS_API char *sysutl_sockaddr_to_str(const struct sockaddr *addr, size_t size, char *buf);

/**
 * Writes the address in a transport's buffer as sysutl_sockaddr_to_str() does.
 *
 * @param netbuf  the platform's record, not NULL. Only its `buf` is read: an address of either family, or NULL,
 *                which counts as unknown. Its two lengths are not looked at.
 * @param size    bytes of `buf`
 * @param buf     receives the text and its NUL
 * @return `buf`
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *sysutl_netbuf_to_str(const struct netbuf *netbuf, size_t size, char *buf);

/**
 * Compares two addresses whole: all 16 or 28 bytes of their records, so host, port, flow label, scope, and the eight
 * bytes at the end of an IPv4 record, which should be 0 in both.
 *
 * @return 1 when they are equal; 0 when they are not, or their families differ or are unknown.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_equal(const struct sockaddr *a, const struct sockaddr *b);

/**
 * Compares the hosts of two addresses: 4 bytes of IPv4, 16 of IPv6; ports and scopes do not count. An IPv4 address
 * and its IPv4-mapped IPv6 form are of different families, and so not equal.
 *
 * @return 1 when they are equal; 0 when they are not, or their families differ or are unknown.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_host_equal(const struct sockaddr *a, const struct sockaddr *b);

/**
 * Copies an address: as many bytes as its family has.
 *
 * @param dst  receives 16 or 28 bytes; a struct sockaddr_storage has room for either. It may be `src`.
 * @param src  the address
 * @return 0; 1 for an unknown family, `dst` unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_copy_sockaddr(struct sockaddr *dst, const struct sockaddr *src);

/**
 * Sets the port of an address.
 *
 * @param port  stored as it is, without conversion: in network byte order, from htons(3)
 * @return 0; 1 for an unknown family, nothing changed.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_set_port(struct sockaddr *addr, uint16_t port);

/**
 * Gives the port of an address.
 *
 * @param out_port  receives it as it is stored, in network byte order: for ntohs(3). Unchanged on failure.
 * @return 0; 1 for an unknown family.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_get_port(const struct sockaddr *addr, uint16_t *out_port);

/**
 * Makes the wildcard address, for bind(2) to all interfaces: 0.0.0.0 or ::, with port 0, and with flow label and
 * scope 0 for IPv6.
 *
 * @param family  AF_INET or AF_INET6
 * @param addr    receives 16 or 28 bytes, every one of them set
 * @return 0; 1 for another family, nothing written.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_any_init(int family, struct sockaddr *addr);

/**
 * Makes the address of this host for itself: 127.0.0.1 or ::1. Otherwise as sysutl_sockaddr_any_init().
 *
 * @return 0; 1 for a family that is neither AF_INET nor AF_INET6, nothing written.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_sockaddr_loopback_init(int family, struct sockaddr *addr);

/** Whether an address is an IPv4 one in IPv6 form, ::ffff:a.b.c.d (RFC 4291, 2.5.5.2): 1, or 0. Raises: no. */
KS_API int sysutl_is_addr_v4mapped(const struct sockaddr *addr);

/**
 * Gives the IPv4 address inside an IPv4-mapped one: its last four bytes, in their order. Whether it is mapped is not
 * looked at; that is sysutl_is_addr_v4mapped().
 *
 * @param addr  an IPv6 address
 * @param out   receives four bytes; unchanged on failure
 * @return 0; 1 for a family other than AF_INET6.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_get_v4mapped_addr(const struct sockaddr *addr, uint8_t out[4]);

/**
 * Writes an IPv4 address in IPv6 form, ::ffff:a.b.c.d: the family AF_INET6 and the address. Port, flow label and
 * scope of the destination stay as they are, so that one which was not set before needs
 * sysutl_sockaddr_any_init() first.
 *
 * @param in4  an IPv4 address
 * @param in6  a record of 28 bytes, of whatever family; it may begin where `in4` does
 * @return 0; 1 when `in4` is of another family than AF_INET, nothing changed.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_set_ipv4_as_ipv6mapped(const struct sockaddr *in4, struct sockaddr *in6);

/**
 * A number that differs from call to call and process to process, mostly: seconds x 1000000 + microseconds of the
 * wall clock, of which the low 32 bits remain, as a signed number. It comes round after 71 minutes; nothing secret
 * may rest on it. Threads: any. Raises: no.
 */
KS_API int32_t sysutl_sock_port_uniquifier(void);
/**@}*/

/** @name Sockets */
/**@{*/

/**
 * Takes the next connection of a listening socket, as accept(2). The new descriptor is close-on-exec from the
 * start, blocks whatever the listener does, and lies above 2.
 *
 * @param fd       a listening socket
 * @param addr     receives the peer's address; NULL: it is not wanted
 * @param addrlen  its room in bytes, and then the address's own length, which is larger where it was cut;
 *                 NULL exactly if `addr` is
 * @return the descriptor, the caller's; -1 with errno of accept(2), the connection still in the queue:
 *         EINTR (call again, unless the thread is to stop), EAGAIN on a non-blocking listener without one, EMFILE or
 *         ENFILE without a descriptor, and others. When all that is free lies below 3, EMFILE, and the connection is
 *         closed. It is -1, not 1, as the result is a descriptor.
 *
 * Threads: any; several may wait at one socket.
 * Raises:  no.
 */
KS_API int sysutl_accept(int fd, struct sockaddr *addr, socklen_t *addrlen);

/**
 * Switches the non-blocking mode (O_NONBLOCK, fcntl(2)) of a descriptor on or off. The mode belongs to the open
 * file: descriptors that dup(2) or fork(2) made of this one have it too.
 *
 * @param on  0: reads and writes wait; else they fail with EAGAIN instead
 * @return 0, also when it was so before; 1 with errno EBADF for a descriptor that is not open.
 *
 * Threads: any; two that change other flags of the file at once may undo each other's.
 * Raises:  no.
 */
KS_API int sysutl_set_socket_nonblocking(int fd, int on);

/**
 * Asks for SIGIO to this process whenever input, or room for output, comes to a socket: makes the process its owner
 * (F_SETOWN, fcntl(2)) and switches FIOASYNC on.
 *
 * Warning: a process that neither handles nor ignores SIGIO is ended by it, and the first signal may come before this
 * call returns. Register a handler first: pfm_signal(SIGIO, ...). The library registers none. Several arrivals may
 * come as one signal, and one may come for what was read already: the handler looks at the socket without
 * blocking. After fork(2) signals go to the process that called this, not to the child; an exec resets handlers, so a
 * program that hands the socket on switches it off before.
 *
 * @param fd  a socket, or another descriptor that can signal, such as a terminal or a pipe
 * @return 0; 1 with errno, the owner as before: EBADF when it is not open, EINVAL, ENOTTY or another one of
 *         ioctl(2) when it cannot signal.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_set_socket_interrupting(int fd);

/**
 * Undoes sysutl_set_socket_interrupting(): switches FIOASYNC off and leaves the descriptor without an owner, whoever
 * that was. A signal that is under way already may still arrive; keep the handler, or ignore SIGIO.
 *
 * @return 0, also when it was off, and where it cannot be on; 1 with errno EBADF for a descriptor that is not open,
 *         or another one of ioctl(2). Both steps are tried in any case.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_clear_socket_interrupting(int fd);

/**
 * Tells how many bytes can be read from a descriptor without waiting (FIONREAD): of a stream all that has come, of
 * datagrams the size of the first. 0 is also the answer at the end of a stream, and for an empty datagram.
 *
 * @param count  receives the number; unchanged on failure
 * @return 0; 1 with errno: EBADF when it is not open, ENOTTY or EINVAL where it cannot be told, as of a listening
 *         socket.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_socket_bytes_ready(int fd, int *count);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
