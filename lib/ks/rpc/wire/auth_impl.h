// Private to the authentication flavours: what the client halves share.
#pragma once

#include "base/ks_base.h"
#include "rpc/wire/rpc_platform.h"

namespace ks::auth {

inline constexpr ks::AssertPath here{"lib/ks/rpc/auth"};

// Credential and verifier behind each other, as they stand in a call; their size, or 0 when they do not fit. On failure
// the bytes are somehow.
[[nodiscard]] u_int marshal(AUTH &auth, void *bytes, u_int size);

// The platform's slots for flavours that protect arguments and results; those here send them as they are.
extern "C" int ks_auth_pass_through(AUTH *auth, XDR *xdrs, xdrproc_t routine, caddr_t where);

} // namespace ks::auth
