// The command "ping": whether an RPC server answers, and if not, why.
#pragma once

#include "depot_command.h"

namespace depot {

Status ping(Job &job);

} // namespace depot
