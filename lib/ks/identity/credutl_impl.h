// Private to the credentials module.
#pragma once

#include "base/ks_base.h"

#include <korvaks/credutl.h>

#include <algorithm>
#include <cstdint>

namespace ks::credutl {

inline constexpr ks::AssertPath here{"lib/ks/credutl"};

inline constexpr uint32_t nobody_id = static_cast<uint32_t>(-2);
inline constexpr uint32_t dontcare_id = static_cast<uint32_t>(-1);

// Whether a record's number is one of the system's, perhaps with its sign widened. Any other would become somebody
// else's when it is cut: 2^32 would be root's.
constexpr bool is_system_id(unsigned long id)
{
    const auto cut = static_cast<uint32_t>(id);
    return id == cut || id == static_cast<unsigned long>(static_cast<long>(static_cast<int32_t>(cut)));
}

// Groups of a record that holds them itself, whose number may have come from outside.
constexpr int held_groups(int ngroups)
{
    return std::clamp(ngroups, 0, static_cast<int>(CREDUTL_GROUPS_MAX));
}

// Whether the SID is one of a user, or of a group, of this system's kind.
bool is_unix_sid(const credutl_sid_t &sid, int type);

// Nobody, in no group: what a caller is who is not believed.
credutl_sid_credentials_t nobody();

} // namespace ks::credutl
