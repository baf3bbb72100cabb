// A stream over bytes of the caller's, in both directions: the platform's xdrmem_create() without its library.
#pragma once

#include "rpc/wire/rpc_platform.h"

namespace ks {

// Makes a stream that begins at `bytes` and never goes past `size` of them: what does not fit, or is not there, fails
// and leaves the place where it was. XDR_INLINE() gives NULL where the place is no multiple of 4 in memory. Words are
// read signed by XDR_GETLONG. The bytes stay the caller's: xdr_destroy() does nothing and need not be called.
void make_memory_stream(XDR &xdrs, void *bytes, u_int size, xdr_op op);

} // namespace ks
