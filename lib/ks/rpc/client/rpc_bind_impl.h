// Private to the search for servers, and to its tests: a binder at another port, and less patience.
#pragma once

#include "rpc/wire/rpc_platform.h"

#include <sys/time.h>

namespace ks::rpc {

struct Binder {
    in_port_t port;        // in the host's byte order
    timeval time_limit;    // for each address
    timeval resend_period; // at first, over datagrams
};

// __ks_rpcb_findaddr(), which asks the binder of the standard.
netbuf *find_address(rpcprog_t prog, rpcvers_t vers, const netconfig *nconf, const char *host, const Binder &binder);

} // namespace ks::rpc
