/* A server of the platform's RPC library, for tests that call one: TCP and UDP, on the loopback addresses of IPv4 and
 * IPv6, at one port that the system chooses. No binder is told.
 *
 * It prints "ready tcp=PORT udp=PORT tcp6=PORT udp6=PORT pid=PID" when it serves, with 0 for IPv6 where the host has
 * none, and ends when its standard input does. */
#include "tirpc_peer.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <sys/socket.h>

struct blob {
    char *bytes;
    u_int size;
};

struct who {
    u_int flavour;
    char *machine;
    u_int uid;
    u_int gid;
    u_int *groups;
    u_int group_count;
};

static u_int counter;

/* The platform's xdr_void() has no arguments, and so is not of the type that calls want. */
static bool_t xdr_nothing(XDR *xdrs, ...)
{
    (void)xdrs;
    return TRUE;
}

static bool_t xdr_blob(XDR *xdrs, struct blob *blob)
{
    return xdr_bytes(xdrs, &blob->bytes, &blob->size, ~0u);
}

static bool_t xdr_who(XDR *xdrs, struct who *who)
{
    return xdr_u_int(xdrs, &who->flavour) && xdr_string(xdrs, &who->machine, 255) && xdr_u_int(xdrs, &who->uid) &&
           xdr_u_int(xdrs, &who->gid) &&
           xdr_array(xdrs, (char **)&who->groups, &who->group_count, 16, sizeof *who->groups, (xdrproc_t)xdr_u_int);
}

static void reply(SVCXPRT *transport, xdrproc_t routine, void *result)
{
    if (!svc_sendreply(transport, routine, result))
        svcerr_systemerr(transport);
}

static void echo(SVCXPRT *transport)
{
    struct blob blob = {NULL, 0};
    if (svc_getargs(transport, (xdrproc_t)xdr_blob, &blob))
        reply(transport, (xdrproc_t)xdr_blob, &blob);
    else
        svcerr_decode(transport);
    svc_freeargs(transport, (xdrproc_t)xdr_blob, &blob);
}

static void tell_who(const struct svc_req *request, SVCXPRT *transport)
{
    char nobody[] = "";
    struct who who = {(u_int)request->rq_cred.oa_flavor, nobody, 0, 0, NULL, 0};
    if (request->rq_cred.oa_flavor == AUTH_UNIX) {
        const struct authunix_parms *caller = request->rq_clntcred;
        who.machine = caller->aup_machname;
        who.uid = caller->aup_uid;
        who.gid = caller->aup_gid;
        who.groups = caller->aup_gids;
        who.group_count = caller->aup_len;
    }
    reply(transport, (xdrproc_t)xdr_who, &who);
}

/* Those that take a number. */
static void serve_number(u_int procedure, SVCXPRT *transport)
{
    u_int number = 0;
    if (!svc_getargs(transport, (xdrproc_t)xdr_u_int, &number)) {
        svcerr_decode(transport);
        return;
    }
    if (procedure == TIRPC_PEER_BUMP) {
        counter += number;
        return;
    }
    (void)poll(NULL, 0, (int)number);
    reply(transport, xdr_nothing, NULL);
}

static void serve(struct svc_req *request, SVCXPRT *transport)
{
    switch (request->rq_proc) {
    case TIRPC_PEER_NULL:
        reply(transport, xdr_nothing, NULL);
        break;
    case TIRPC_PEER_ECHO:
        echo(transport);
        break;
    case TIRPC_PEER_SLEEP:
    case TIRPC_PEER_BUMP:
        serve_number((u_int)request->rq_proc, transport);
        break;
    case TIRPC_PEER_WHO:
        tell_who(request, transport);
        break;
    case TIRPC_PEER_WEAK:
        svcerr_weakauth(transport);
        break;
    case TIRPC_PEER_FAIL:
        svcerr_systemerr(transport);
        break;
    case TIRPC_PEER_COUNT:
        reply(transport, (xdrproc_t)xdr_u_int, &counter);
        break;
    default:
        svcerr_noproc(transport);
    }
}

static void fail(const char *what)
{
    perror(what);
    exit(1);
}

/* 0: the port is taken, or the host has no such address. */
static int bind_loopback(int fd, int family, in_port_t port)
{
    const struct sockaddr_in6 in6 = {.sin6_family = AF_INET6, .sin6_port = port, .sin6_addr = IN6ADDR_LOOPBACK_INIT};
    const struct sockaddr_in in = {.sin_family = AF_INET, .sin_port = port, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    if (family == AF_INET6)
        return bind(fd, (const struct sockaddr *)&in6, sizeof in6) == 0;
    return bind(fd, (const struct sockaddr *)&in, sizeof in) == 0;
}

/* -1: as bind_loopback(). */
static int open_socket(int family, int type, in_port_t port)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd >= 0 && bind_loopback(fd, family, port))
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

/* IPv4 and IPv6 have the port at the same place. */
static in_port_t port_of(int fd)
{
    struct sockaddr_in address = {0};
    socklen_t size = sizeof address;
    if (getsockname(fd, (struct sockaddr *)&address, &size) != 0)
        fail("getsockname");
    return address.sin_port;
}

enum { TCP, UDP, TCP6, UDP6, SOCKETS };

static const int families[SOCKETS] = {AF_INET, AF_INET, AF_INET6, AF_INET6};
static const int types[SOCKETS] = {SOCK_STREAM, SOCK_DGRAM, SOCK_STREAM, SOCK_DGRAM};

/* All at the port that the system has chosen for the first; 0 when another one of it is taken. */
static int open_sockets(int fds[SOCKETS], int count)
{
    in_port_t port = 0;
    for (int i = 0; i < count; ++i) {
        fds[i] = open_socket(families[i], types[i], port);
        if (fds[i] < 0) {
            while (i-- > 0)
                close(fds[i]);
            return 0;
        }
        port = port_of(fds[i]);
    }
    return 1;
}

static int has_ipv6(void)
{
    const int fd = open_socket(AF_INET6, SOCK_DGRAM, 0);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

static void serve_socket(int fd, int type)
{
    const u_int longest_datagram = 65000;
    SVCXPRT *transport;
    if (type == SOCK_STREAM && listen(fd, SOMAXCONN) != 0)
        fail("listen");
    transport = type == SOCK_STREAM ? svc_vc_create(fd, 0, 0) : svc_dg_create(fd, longest_datagram, longest_datagram);
    if (transport == NULL)
        fail("transport");
    for (u_int version = TIRPC_PEER_LOWEST; version <= TIRPC_PEER_HIGHEST; ++version)
        if (!svc_reg(transport, TIRPC_PEER_PROGRAM, version, serve, NULL))
            fail("svc_reg");
}

/* svc_run() does not look at anything else. */
static void run(void)
{
    for (;;) {
        const int count = svc_max_pollfd;
        struct pollfd *fds = calloc((size_t)count + 1, sizeof *fds);
        if (fds == NULL)
            fail("calloc");
        memcpy(fds, svc_pollfd, (size_t)count * sizeof *fds);
        fds[count].fd = STDIN_FILENO;
        fds[count].events = POLLIN;
        int ready = poll(fds, (nfds_t)count + 1, -1);
        if (ready > 0 && fds[count].revents != 0) {
            char bytes[256];
            if (read(STDIN_FILENO, bytes, sizeof bytes) <= 0)
                _exit(0); /* the transports are left to the system */
            --ready;
        }
        if (ready > 0)
            svc_getreq_poll(fds, ready);
        free(fds);
    }
}

int main(void)
{
    int fds[SOCKETS];
    int ports[SOCKETS] = {0};
    int tries = 100;
    const int count = has_ipv6() ? SOCKETS : TCP6;
    (void)signal(SIGPIPE, SIG_IGN);
    while (!open_sockets(fds, count))
        if (--tries == 0)
            fail("bind");
    for (int i = 0; i < count; ++i) {
        serve_socket(fds[i], types[i]);
        ports[i] = ntohs(port_of(fds[i]));
    }
    printf("ready tcp=%d udp=%d tcp6=%d udp6=%d pid=%d\n", ports[TCP], ports[UDP], ports[TCP6], ports[UDP6],
           (int)getpid());
    (void)fflush(stdout);
    run();
}
