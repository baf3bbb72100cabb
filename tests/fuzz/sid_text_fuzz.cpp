// Texts of SIDs, whatever their bytes are, in buffers of every size.
#include "fuzz/fuzz_support.h"

#include <korvaks/credutl.h>

#include <cstring>

namespace {

std::string model(const std::string &bytes)
{
    std::string digits;
    for (int i = 2; i < bytes[0] && i < CREDUTL_SID_LENGTH_MAX; ++i)
        for (const int shift : {4, 0})
            digits += "0123456789abcdef"[bytes[std::size_t(i)] >> shift & 15];
    const int kind = bytes[1];
    if (kind == 2 && bytes[0] == 7)
        return (bytes[6] == 1 ? "UNIX:UID-" : "UNIX:GID-") +
               std::to_string(int(std::stoul(digits.substr(0, 8), nullptr, 16)));
    return kind == 0 ? "NOBODY" : kind == 1 ? "DONTCARE" : "SID:" + std::to_string(kind) + "." + digits;
}

} // namespace

FUZZ_TARGET(input)
{
    const std::size_t size = input.take_byte() + 1u;
    credutl_sid_t sid;
    std::string bytes = input.take_bytes(sizeof sid);
    bytes.resize(sizeof sid);
    bytes[6] = bytes[6] % 2 == 0 ? 2 : 1; // another type ends the process
    std::memcpy(&sid, bytes.data(), sizeof sid);
    const std::string text = model(bytes);
    const auto buf = fuzz::exact_room(size, '#');
    FUZZ_REQUIRE(credutl_sid_to_str(&sid, size, buf.get()) == (text.size() < size ? text : ""));
}
