// Changes of the depot that callers ask for: who may make them, one at a time for an entry, and what the log says.
#pragma once

#include "daemon/caller.h"
#include "daemon/daemon_msg.h"
#include "depot.h"

#include <korvaks/korvaks.hpp>

namespace depot {

// While it lives no other change is made to an entry. So what check_owner() has seen is what is changed.
class ChangeTurn {
  public:
    explicit ChangeTurn(const char *name);

  private:
    korvaks::Lock lock_;
};

// Whether a caller may replace or remove an entry: if it has none yet, or no owner; if it is the caller's own; and in
// any case if the caller is privileged. Only such a one may change what does not tell its owner since it is damaged.
bool check_owner(const Depot &depot, const Caller &caller, const char *name);

// What came of it. Of a put that is not known there is nothing to say.
void log_change(const Caller &caller, const char *name, const Failure &failure, DaemonMsg done, DaemonMsg refused);

} // namespace depot
