// The depot's RPC program (RFC 5531): the name under which clients and servers of depots meet. docs/formats.md tells
// what its procedures take and answer, depot_wire.h has the types.
#pragma once

#include <cstdint>

namespace depot {

// Of the numbers that anybody may take for programs of his own, 0x20000000 to 0x3fffffff.
inline constexpr std::uint32_t program_number = 0x2000de70;
inline constexpr std::uint32_t program_version = 1;

// All but the first take calls that tell a user, in the product's own flavour or in AUTH_UNIX.
enum Procedure : std::uint32_t {
    procedure_null = 0,
    procedure_list = 1,
    procedure_get = 2,
    procedure_begin_put = 3,
    procedure_put_piece = 4,
    procedure_finish_put = 5,
    procedure_cancel_put = 6,
    procedure_verify = 7,
    procedure_remove = 8,
    procedure_status = 9,
    procedure_whoami = 10,
    procedure_count
};

} // namespace depot
