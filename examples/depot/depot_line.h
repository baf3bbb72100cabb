// Reading the command line.
#pragma once

#include "depot_command.h"

namespace depot {

// Takes a command line apart. False when it is wrong, which has been reported. What it needs
// is made in the area.
bool read_line(clp_handle *handle, stg_area *area, CommandLine &out_line);

} // namespace depot
