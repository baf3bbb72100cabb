// Private to the transports: their database, by which sockets are known too.
#pragma once

#include "rpc/wire/rpc_platform.h"

#include <array>

namespace ks::rpc {

extern const std::array<netconfig, 4> transports;

} // namespace ks::rpc
