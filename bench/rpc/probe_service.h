/* Serves the probe program for a server of any library that has the platform's transports. */
#ifndef PROBE_SERVICE_H
#define PROBE_SERVICE_H

#include "probe.h"

#include <rpc/rpc.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How the library replies. */
struct probe_replies {
    bool_t (*send)(SVCXPRT *transport, xdrproc_t routine, void *result);
    void (*no_procedure)(SVCXPRT *transport);
    void (*bad_arguments)(SVCXPRT *transport);
    void (*system_error)(SVCXPRT *transport);
};

/* Any thread. */
void probe_serve(const struct probe_replies *replies, struct svc_req *request, SVCXPRT *transport);

/* The value of an option "--NAME VALUE", or `otherwise`. */
int probe_option(int argc, char **argv, const char *name, int otherwise);

/* As many descriptors as the process can get, and no end by writing to a peer that is gone. */
void probe_prepare(void);

/* The port a socket is bound to. */
int probe_port_of(int fd);

/* What the load generator's user is told. */
void probe_say_ready(int tcp, int udp);

#ifdef __cplusplus
}
#endif

#endif
