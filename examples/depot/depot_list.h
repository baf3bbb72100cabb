// The command "list".
#pragma once

#include "depot_command.h"

namespace depot {

Status list_entries(Job &job);

// More for its help page: formats and dates.
void explain_list();

} // namespace depot
