// Who calls: the user whom the daemon takes a caller for, which decides what it may change, and is told in the log.
#pragma once

#include "depot_entry.h"
#include "depot_wire.h"

#include <korvaks/credutl.h>
#include <korvaks/svc.h>

#include <sys/types.h>

namespace depot {

struct Caller {
    uid_t user; // of nobody: -2
    bool is_privileged;
    credutl_caller_t told;
    const netbuf *address;
};

// False for one that does not say who it is in a flavour that is served, which has been answered.
bool identify(const svc_req *request, SVCXPRT *transport, Caller &out_caller);

using UserName = char[owner_bytes_max + 1];

// The name by which entries know their owner: "NOBODY", and "UNIX:UID-7" for one that this host does not know.
bool name_user(const Caller &caller, UserName &out_name);

// All that is known of it.
bool describe(const Caller &caller, Identity &out_identity);

// For the log: the user, what the caller claims to be, and its address.
using CallerText = char[1400];
void describe(const Caller &caller, CallerText &out_text);

} // namespace depot
