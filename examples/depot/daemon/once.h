// Calls that run once, however often they arrive: each that comes again is answered as it was before.
#pragma once

#include "depot_wire.h"

#include <korvaks/svc.h>

namespace depot {

// Whether a call is to be run; end_once() is called then. Else it has been answered, or is one that gets no answer: it
// runs at this moment, or its caller has made another one since.
bool begin_once(SVCXPRT *transport, const CallNumber &call);

// Answers it.
void end_once(SVCXPRT *transport, const CallNumber &call, xdrproc_t routine, void *answer);

} // namespace depot
