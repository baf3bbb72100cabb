// UTF-8 and UTF-16: hostile bytes and units stay inside their buffers, valid text comes back as it was.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <vector>

namespace {

using Units = std::vector<wchar_t>;

// Length of a valid sequence at the start of `text` (RFC 3629), 0 when it is none.
std::size_t valid_length(const unsigned char *at, std::size_t left)
{
    const unsigned lead = at[0];
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                               : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length == 0 || length > left)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xC0) != 0x80)
            return 0;
    }
    if ((lead == 0xE0 && at[1] < 0xA0) || (lead == 0xED && at[1] >= 0xA0) || (lead == 0xF0 && at[1] < 0x90) ||
        (lead == 0xF4 && at[1] >= 0x90))
        return 0;
    return length;
}

bool is_valid(const std::string &text)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = valid_length(bytes + at, text.size() - at);
        if (length == 0)
            return false;
        at += length;
    }
    return true;
}

// Decodes into exactly `room` elements; returns what stands before the closing 0.
Units decode(const std::string &text, std::size_t room, unsigned &out_result, std::size_t &out_used)
{
    const auto in = fuzz::exact_copy(reinterpret_cast<const unsigned char *>(text.data()), text.size());
    const std::unique_ptr<wchar_t[]> out(new wchar_t[room]);
    std::fill_n(out.get(), room, L'\x7777');
    out_used = 99999;
    out_result =
        strutl_utf8to16(out.get(), in.get(), static_cast<long>(text.size()), static_cast<long>(room), &out_used);
    FUZZ_REQUIRE(out_result == 0 || out_result == 1 || out_result == 3);
    FUZZ_REQUIRE(out_used <= text.size());
    FUZZ_REQUIRE((out_result == 0) == (out_used == text.size() && room > 0));
    if (room == 0)
        return {};
    // NUL bytes are characters: the end is the last 0 that was written.
    std::size_t end = room;
    while (end > 0 && out[end - 1] == L'\x7777')
        --end;
    FUZZ_REQUIRE(end > 0 && out[end - 1] == L'\0');
    return Units(out.get(), out.get() + end - 1);
}

std::string encode(const Units &units, std::size_t room, unsigned &out_result)
{
    const auto in = fuzz::exact_copy(units.data(), units.size());
    const std::unique_ptr<char[]> out(new char[room]);
    std::fill_n(out.get(), room, '\xFE'); // no byte of any sequence
    out_result = strutl_utf16to8(out.get(), in.get(), static_cast<long>(units.size()), static_cast<long>(room));
    FUZZ_REQUIRE(out_result == 0 || out_result == 3);
    std::size_t end = room;
    while (end > 0 && out[end - 1] == '\xFE')
        --end;
    FUZZ_REQUIRE(room == 0 || (end > 0 && out[end - 1] == '\0'));
    return std::string(out.get(), room == 0 ? 0 : end - 1);
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
    if (!is_valid(text))
        return;
    FUZZ_REQUIRE(result == 0);
    FUZZ_REQUIRE(encode(units, text.size() + 1, result) == text && result == 0);
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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t small_room = input.take_byte() % 32;
    const std::string bytes = input.take_rest();
    check_bytes(bytes, small_room);
    check_units(bytes, small_room);
    return 0;
}
