// The platform's RPC interface (libtirpc): its types, its XDR primitives and its rpcbind client. The
// only place in the library that includes it.
#pragma once

#include <rpc/rpc.h>

#include <rpc/nettype.h>
#include <rpc/rpcb_clnt.h>
#include <rpc/rpcb_prot.h>

#include <netconfig.h>
