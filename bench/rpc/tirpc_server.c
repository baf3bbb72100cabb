/* The probe program on the platform's RPC library, the peer: one thread, over TCP and UDP.
 *
 *     tirpc_server [--maxrec BYTES] [--port N]
 *
 * With a record limit its connections are non-blocking. */
#include "probe_service.h"

#include <stdio.h>
#include <stdlib.h>

#include <netinet/in.h>
#include <rpc/rpc_com.h>
#include <sys/socket.h>

static void serve(struct svc_req *request, SVCXPRT *transport)
{
    static const struct probe_replies replies = {svc_sendreply, svcerr_noproc, svcerr_decode, svcerr_systemerr};
    probe_serve(&replies, request, transport);
}

static void fail(const char *what)
{
    perror(what);
    exit(1);
}

/* The port that it got. */
static int serve_socket(int type, int port)
{
    const int fd = socket(AF_INET, type, 0);
    const int on = 1;
    const struct sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons((uint16_t)port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd < 0 || bind(fd, (const struct sockaddr *)&address, sizeof address) != 0)
        fail("bind");
    if (type == SOCK_STREAM && listen(fd, 4096) != 0)
        fail("listen");
    SVCXPRT *transport = type == SOCK_DGRAM ? svc_dg_create(fd, 0, 0) : svc_vc_create(fd, 0, 0);
    /* without a netconfig no binder is told */
    if (transport == NULL || !svc_reg(transport, PROBE_PROGRAM, PROBE_LOWEST, serve, NULL) ||
        !svc_reg(transport, PROBE_PROGRAM, PROBE_HIGHEST, serve, NULL))
        fail("transport");
    return probe_port_of(fd);
}

int main(int argc, char **argv)
{
    const int port = probe_option(argc, argv, "--port", 0);
    int limit = probe_option(argc, argv, "--maxrec", 0);
    probe_prepare();
    if (limit != 0 && !rpc_control(RPC_SVC_CONNMAXREC_SET, &limit))
        fail("record limit");
    const int tcp = serve_socket(SOCK_STREAM, port);
    probe_say_ready(tcp, serve_socket(SOCK_DGRAM, port));
    svc_run();
    fail("svc_run");
}
