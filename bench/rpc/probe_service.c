#include "probe_service.h"

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

struct blob {
    char *bytes;
    u_int size;
};

struct who {
    u_int flavour;
    u_int uid;
    u_int gid;
    char *machine;
    u_int *groups;
    u_int group_count;
};

static u_int counter;

/* The platform's xdr_void() has no arguments, and so is not of the type that replies want. */
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
    return xdr_u_int(xdrs, &who->flavour) && xdr_u_int(xdrs, &who->uid) && xdr_u_int(xdrs, &who->gid) &&
           xdr_string(xdrs, &who->machine, 255) &&
           xdr_array(xdrs, (char **)&who->groups, &who->group_count, 16, sizeof *who->groups, (xdrproc_t)xdr_u_int);
}

static void echo(const struct probe_replies *replies, SVCXPRT *transport)
{
    struct blob blob = {NULL, 0};
    if (!svc_getargs(transport, (xdrproc_t)xdr_blob, &blob))
        replies->bad_arguments(transport);
    else if (!replies->send(transport, (xdrproc_t)xdr_blob, &blob))
        replies->system_error(transport);
    svc_freeargs(transport, (xdrproc_t)xdr_blob, &blob);
}

static void tell_who(const struct probe_replies *replies, const struct svc_req *request, SVCXPRT *transport)
{
    char nobody[] = "";
    struct who who = {(u_int)request->rq_cred.oa_flavor, 0, 0, nobody, NULL, 0};
    if (request->rq_cred.oa_flavor == AUTH_UNIX) {
        const struct authunix_parms *caller = request->rq_clntcred;
        who.uid = caller->aup_uid;
        who.gid = caller->aup_gid;
        who.machine = caller->aup_machname;
        who.groups = caller->aup_gids;
        who.group_count = caller->aup_len;
    }
    (void)replies->send(transport, (xdrproc_t)xdr_who, &who);
}

static uint64_t now_us(void)
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000u + (uint64_t)now.tv_nsec / 1000u;
}

static void burn(u_int us)
{
    const uint64_t end = now_us() + us;
    while (now_us() < end) {
    }
}

/* Those that take a number. */
static void serve_number(const struct probe_replies *replies, u_int procedure, SVCXPRT *transport)
{
    u_int number = 0;
    if (!svc_getargs(transport, (xdrproc_t)xdr_u_int, &number)) {
        replies->bad_arguments(transport);
    } else if (procedure == PROBE_BUMP) {
        (void)__atomic_add_fetch(&counter, number, __ATOMIC_RELAXED);
    } else if (procedure == PROBE_SLEEP) {
        (void)usleep(number * 1000u);
        (void)replies->send(transport, xdr_nothing, NULL);
    } else {
        burn(number);
        (void)replies->send(transport, (xdrproc_t)xdr_u_int, &number);
    }
}

static void send_counter(const struct probe_replies *replies, u_int more, SVCXPRT *transport)
{
    u_int number = __atomic_add_fetch(&counter, more, __ATOMIC_RELAXED);
    (void)replies->send(transport, (xdrproc_t)xdr_u_int, &number);
}

void probe_serve(const struct probe_replies *replies, struct svc_req *request, SVCXPRT *transport)
{
    switch (request->rq_proc) {
    case PROBE_NULL:
        (void)replies->send(transport, xdr_nothing, NULL);
        break;
    case PROBE_ECHO:
        echo(replies, transport);
        break;
    case PROBE_SLEEP:
    case PROBE_BURN:
    case PROBE_BUMP:
        serve_number(replies, (u_int)request->rq_proc, transport);
        break;
    case PROBE_WHO:
        tell_who(replies, request, transport);
        break;
    case PROBE_COUNT:
        send_counter(replies, 0, transport);
        break;
    case PROBE_NEXT:
        send_counter(replies, 1, transport);
        break;
    default:
        replies->no_procedure(transport);
    }
}

int probe_option(int argc, char **argv, const char *name, int otherwise)
{
    for (int i = 1; i + 1 < argc; i += 2)
        if (strcmp(argv[i], name) == 0)
            return atoi(argv[i + 1]);
    return otherwise;
}

void probe_prepare(void)
{
    struct rlimit limit;
    (void)signal(SIGPIPE, SIG_IGN);
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int probe_port_of(int fd)
{
    struct sockaddr_in address = {0};
    socklen_t size = sizeof address;
    (void)getsockname(fd, (struct sockaddr *)&address, &size);
    return ntohs(address.sin_port);
}

void probe_say_ready(int tcp, int udp)
{
    printf("ready tcp=%d udp=%d pid=%d\n", tcp, udp, (int)getpid());
    (void)fflush(stdout);
}
