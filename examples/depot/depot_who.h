// Names of users and groups; and the command "whoami": who one is, here or for a server.
#pragma once

#include "depot_command.h"

#include <korvaks/credutl.h>

namespace depot {

// The name of a user or group, in the form of credutl_sid_to_name(). What fails is told by fail().
bool name_sid(const credutl_sid_t &sid, char (&out_name)[owner_bytes_max + 1]);

// Of all: user, group and groups of the record.
bool name_all(const credutl_sid_credentials_t &credentials, Identity &out_identity);

Status show_identity(Job &job);

} // namespace depot
