// Scrambled text: comes back as it was, in exactly the room it needs; anything else is refused cleanly.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>

namespace {

bool is_printable(const std::string &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

// The result, in a buffer of exactly `room` bytes.
std::string tail_of(const std::string &scrambled, std::size_t room, unsigned &out_result)
{
    const auto out = fuzz::exact_room(room, 'x');
    out_result = strutl_extract_tail(fuzz::ExactText(scrambled), out.get(), room);
    FUZZ_REQUIRE(room > 0 || out_result == 1);
    if (room == 0)
        return {};
    FUZZ_REQUIRE(out_result <= 1 && std::memchr(out.get(), '\0', room) != nullptr);
    FUZZ_REQUIRE(out_result == 0 || *out.get() == '\0');
    return out.get();
}

void check_round_trip(const std::string &text)
{
    const std::size_t padding = text.size() % 3 == 0 ? 0 : text.size() % 3 + 1;
    const std::size_t length = text.empty() ? 0 : text.size() / 3 * 4 + padding + 1;
    const auto scrambled = fuzz::exact_room(length + 1, 'x');
    FUZZ_REQUIRE(strutl_extract_head(text.c_str(), scrambled.get(), length + 1) == 0);
    FUZZ_REQUIRE(std::strlen(scrambled.get()) == length && is_printable(scrambled.get()));
    unsigned result = 1;
    FUZZ_REQUIRE(tail_of(scrambled.get(), text.size() + 1, result) == text && result == 0);
    FUZZ_REQUIRE(tail_of(scrambled.get(), text.size(), result).empty() && result == 1);

    const auto small = fuzz::exact_room(length, 'x');
    FUZZ_REQUIRE(strutl_extract_head(text.c_str(), small.get(), length) == 1);
    FUZZ_REQUIRE(length == 0 || *small.get() == '\0');
}

void check_hostile(const std::string &scrambled, std::size_t small_room)
{
    unsigned result = 0;
    const std::string text = tail_of(scrambled, scrambled.size() + 1, result);
    FUZZ_REQUIRE(result == 1 || (is_printable(scrambled) && text.size() * 4 <= scrambled.size() * 3));
    (void)tail_of(scrambled, small_room, result);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::size_t small_room = input.take_byte() % 16;
    const std::string text = input.take_text();
    check_round_trip(text);
    check_hostile(text, small_room);
    check_hostile(input.take_text(), small_room);
}
