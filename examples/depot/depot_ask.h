// Questions before something is overwritten or removed.
#pragma once

#include "depot_msg.h"

namespace depot {

// Whether anybody would be asked.
bool may_ask();

// Whether to go on. The question is about a name. Who is not at a terminal is not asked, and means what the
// command line says. A raise point.
bool confirm(Msg question, const char *name);

} // namespace depot
