// What is told of calls that fail.
#pragma once

#include <korvaks/clnt.h>

namespace depot {

// Why a server has refused a credential. A text for report().
const char *denial_text(const rpc_err &error);

// Why a call has failed. A text for report().
const char *failure_text(const rpc_err &error);

} // namespace depot
