// The tables that go into the catalogue "veldepot", for tools/catgen, which prints its source.
#pragma once

#include "depot_msg.h"

#include <array>

namespace ks {

inline constexpr std::array message_tables{&_depot_ks_msg_table};

} // namespace ks
