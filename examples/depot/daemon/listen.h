// Where the depot is served: sockets for TCP and UDP at the same port, and the transports over them.
#pragma once

#include "depot_host.h"

#include <korvaks/svc.h>

namespace depot {

inline constexpr unsigned listeners_max = 64;

// A TCP and a UDP transport at one address.
struct Listener {
    Address address;
    SVCXPRT *transports[2];
};

struct Listeners {
    Listener items[listeners_max];
    unsigned count = 0;
};

// Adds listeners for a "HOST:PORT" at all its addresses. What fails has been reported; what was made before stays.
Search listen_at(stg_area *area, const char *word, Listeners &listeners);

// Nothing comes any more, not even to a transport's queue; connections are no part of it and stay.
void close_listeners(Listeners &listeners);

} // namespace depot
