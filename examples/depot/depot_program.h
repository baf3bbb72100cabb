// The depot's RPC program (RFC 5531): the name under which clients and servers of depots meet.
#pragma once

#include <cstdint>

namespace depot {

// Of the numbers that anybody may take for programs of his own, 0x20000000 to 0x3fffffff.
inline constexpr std::uint32_t program_number = 0x2000de70;
inline constexpr std::uint32_t program_version = 1;

} // namespace depot
