/* The probe program on this library, over TCP and UDP.
 *
 *     probe_server [--threads N] [--maxrec BYTES] [--loop run|rt] [--port N]
 *
 *     --threads   workers; 0, the usual: none
 *     --maxrec    record limit, with which connections are non-blocking; 0, the usual: none
 *     --loop      whose loop it is: the server's own, or the event runtime's */
#include "probe_service.h"

#include <korvaks/rt.h>
#include <korvaks/svc.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <netinet/in.h>

static void fail(const char *what)
{
    perror(what);
    exit(1);
}

static void serve(struct svc_req *request, SVCXPRT *transport)
{
    static const struct probe_replies replies = {ks_svc_sendreply, ks_svcerr_noproc, ks_svcerr_decode,
                                                 ks_svcerr_systemerr};
    probe_serve(&replies, request, transport);
}

static const struct netconfig *find_transport(const char *netid)
{
    void *walk = __ks_rpc_setconf(netid);
    const struct netconfig *row = __ks_rpc_getconf(walk);
    while (row != NULL && strcmp(row->nc_netid, netid) != 0)
        row = __ks_rpc_getconf(walk);
    __ks_rpc_endconf(walk);
    return row;
}

/* The port that it got. */
static int open_transport(const char *netid, int port)
{
    struct sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons((uint16_t)port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    const struct t_bind bind_to = {{sizeof address, sizeof address, &address}, 4096};
    const SVCXPRT *transport = ks_svc_tli_create(-1, find_transport(netid), &bind_to, 0, 0);
    if (transport == NULL)
        fail(netid);
    return probe_port_of(transport->xp_fd);
}

static void serve_ready(ks_fd_set *ready, void *arg)
{
    (void)arg;
    ks_svc_getreqset(ready);
}

static void run(const char *loop, int threads)
{
    if (strcmp(loop, "rt") == 0) {
        if (rt_set_worker_threads(threads) != 0 || rt_handle_fd_set(RT_FD_READ, serve_ready, &ks_svc_fdset, NULL) == 0)
            fail("rt");
        rt_run();
        return;
    }
    int is_threaded = threads > 0;
    if (is_threaded &&
        (!ks_rpc_control(KS_SVC_SET_MT_MODE, &is_threaded) || !ks_rpc_control(KS_SVC_SET_THREADS, &threads)))
        fail("threads");
    ks_svc_run();
}

int main(int argc, char **argv)
{
    const int port = probe_option(argc, argv, "--port", 0);
    const char *loop = "run";
    int limit = probe_option(argc, argv, "--maxrec", 0);
    for (int i = 1; i + 1 < argc; i += 2)
        if (strcmp(argv[i], "--loop") == 0)
            loop = argv[i + 1];
    probe_prepare();
    if (limit != 0 && !ks_rpc_control(KS_SVC_SET_RECORD_LIMIT, &limit))
        fail("record limit");
    if (!ks_svc_register(NULL, PROBE_PROGRAM, PROBE_LOWEST, serve, 0) ||
        !ks_svc_register(NULL, PROBE_PROGRAM, PROBE_HIGHEST, serve, 0))
        fail("register");
    const int tcp = open_transport("tcp", port);
    probe_say_ready(tcp, open_transport("udp", port));
    run(loop, probe_option(argc, argv, "--threads", 0));
    fail("the server's loop has ended");
}
