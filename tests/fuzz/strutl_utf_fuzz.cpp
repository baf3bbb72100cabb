// UTF-8 and UTF-16: hostile bytes and units stay inside their buffers, and what was read comes back as it was.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace {

using Units = std::vector<wchar_t>;

// What stands before the closing 0 in a room that was filled. NUL bytes are characters: the end is the
// last 0 that was written.
template <typename T> std::vector<T> written(const T *out, std::size_t room, T fill)
{
    std::size_t end = room;
    while (end > 0 && out[end - 1] == fill)
        --end;
    FUZZ_REQUIRE(room == 0 || (end > 0 && out[end - 1] == T{0}));
    return {out, out + (room == 0 ? 0 : end - 1)};
}

// Decodes into exactly `room` elements; returns what stands before the closing 0.
Units decode(const std::string &text, std::size_t room, unsigned &out_result, std::size_t &out_used)
{
    const auto in = fuzz::exact_copy(reinterpret_cast<const unsigned char *>(text.data()), text.size());
    const auto out = fuzz::exact_room(room, L'\x7777');
    out_used = 99999;
    out_result =
        strutl_utf8to16(out.get(), in.get(), static_cast<long>(text.size()), static_cast<long>(room), &out_used);
    FUZZ_REQUIRE(out_result == 0 || out_result == 1 || out_result == 3);
    FUZZ_REQUIRE(out_used <= text.size());
    FUZZ_REQUIRE((out_result == 0) == (out_used == text.size() && room > 0));
    return written(out.get(), room, L'\x7777');
}

std::string encode(const Units &units, std::size_t room, unsigned &out_result)
{
    const auto in = fuzz::exact_copy(units.data(), units.size());
    const auto out = fuzz::exact_room(room, '\xFE'); // no byte of any sequence
    out_result = strutl_utf16to8(out.get(), in.get(), static_cast<long>(units.size()), static_cast<long>(room));
    FUZZ_REQUIRE(out_result == 0 || out_result == 3);
    const std::vector<char> bytes = written(out.get(), room, '\xFE');
    return {bytes.begin(), bytes.end()};
}

void check_bytes(const std::string &text, std::size_t small_room)
{
    unsigned result = 0;
    std::size_t used = 0;
    const Units units = decode(text, text.size() + 1, result, used);
    FUZZ_REQUIRE(result != 3); // no byte becomes more than one unit
    for (const wchar_t unit : units)
        FUZZ_REQUIRE(unit >= 0 && unit <= 0xFFFF);
    unsigned small_result = 0;
    std::size_t small_used = 0;
    const Units few = decode(text, small_room, small_result, small_used);
    FUZZ_REQUIRE(few.size() < small_room || small_room == 0);
    FUZZ_REQUIRE(few.size() <= units.size() && std::equal(few.begin(), few.end(), units.begin()));
    FUZZ_REQUIRE(small_used <= used);
    const std::string again = encode(units, 2 * text.size() + 1, result);
    FUZZ_REQUIRE(result == 0 && decode(again, again.size() + 1, result, used) == units && result == 0);
}

void check_units(const std::string &bytes, std::size_t small_room)
{
    Units units(bytes.size() / sizeof(wchar_t));
    if (!units.empty())
        std::memcpy(units.data(), bytes.data(), units.size() * sizeof(wchar_t));
    unsigned result = 0;
    const std::string text = encode(units, 4 * units.size() + 1, result);
    FUZZ_REQUIRE(result == 0);
    const std::string cut = encode(units, small_room, result);
    FUZZ_REQUIRE(text.compare(0, cut.size(), cut) == 0 && (cut.size() < small_room || small_room == 0));
    FUZZ_REQUIRE((result == 0) == (text.size() < small_room));
}

} // namespace

FUZZ_TARGET(input)
{
    const std::size_t small_room = input.take_byte() % 32;
    const std::string bytes = input.take_rest();
    check_bytes(bytes, small_room);
    check_units(bytes, small_room);
}
