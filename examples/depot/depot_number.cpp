#include "depot_number.h"

#include <korvaks/strutl.h>

#include <cstring>

namespace depot {

bool read_number(const char *word, std::uint32_t least, std::uint32_t most, std::uint32_t &out_number)
{
    const int base = std::strncmp(word, "0x", 2) == 0 ? 16 : 10;
    unsigned long number = 0;
    const bool has_digit = *word >= '0' && *word <= '9'; // no blanks and no sign before it
    if (!has_digit || strutl_strtoul(word, base, &number) != 0 || number < least || number > most)
        return false;
    out_number = static_cast<std::uint32_t>(number);
    return true;
}

} // namespace depot
