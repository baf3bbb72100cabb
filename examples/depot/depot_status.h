// The command "status": what a server has done and does.
#pragma once

#include "depot_command.h"

namespace depot {

Status show_status(Job &job);

} // namespace depot
