// The platform's RPC interface (libtirpc): its types and its macros; no function of it is called. The only place in
// the library that includes it.
#pragma once

#include <rpc/rpc.h>

#include <netconfig.h>
