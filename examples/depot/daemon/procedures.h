// The procedures of the depot's program, as the daemon serves them.
#pragma once

#include <korvaks/svc.h>

namespace depot {

// Set before the first call: the depot's directory, and the number of threads that will serve.
void set_served_depot(const char *path, long threads);

// Serves one call; in any of the threads that serve.
extern "C" void serve_call(svc_req *request, SVCXPRT *transport);

} // namespace depot
