// Numbers on a command line.
#pragma once

#include <cstdint>

namespace depot {

// Reads a whole word as a number, decimal or with "0x" hexadecimal. False when it is none or out of range.
bool read_number(const char *word, std::uint32_t least, std::uint32_t most, std::uint32_t &out_number);

} // namespace depot
