// The catalogue "veldepot", for tools/catgen, which prints its source.
#include "catgen.h"

#include "daemon/daemon_msg.h"
#include "depot_msg.h"

namespace {

constexpr const msg_table *tables[] = {&_depot_ks_msg_table, depot::daemon_messages};

} // namespace

constinit const std::span<const msg_table *const> catalogue_tables = tables;
