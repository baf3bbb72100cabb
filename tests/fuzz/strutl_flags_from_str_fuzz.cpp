// Names of flags: against a plain reading of the same text, and back from the text of a set.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <iterator>

#include <strings.h>

namespace {

constexpr strutl_flag_item_t items[] = {{"read", 1}, {"write", 2},         {"a", 4},
                                        {"aa", 8},   {"high", 0x80000000}, {"none", 0}};
constexpr std::size_t read_max = 1023;

struct Reading {
    unsigned flags = 0;
    std::size_t bad_word = std::string::npos;
};

Reading read_plainly(const std::string &whole, bool case_sensitive, const std::string &sep)
{
    const std::string text = whole.substr(0, read_max);
    Reading reading;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find(sep, at);
        const std::string word = text.substr(at, end - at);
        const auto *row = std::find_if(std::begin(items), std::end(items), [&](const auto &item) {
            return case_sensitive ? word == item.name : strcasecmp(word.c_str(), item.name) == 0;
        });
        if (row == std::end(items))
            return {0, at};
        reading.flags |= static_cast<unsigned>(row->value);
        at = end == std::string::npos ? end : end + sep.size();
    }
    return reading;
}

void check_text(const std::string &text, bool case_sensitive, const std::string &sep)
{
    const Reading expected = read_plainly(text, case_sensitive, sep.empty() ? " " : sep);
    const fuzz::ExactText copy(text);
    const char *bad_word = "";
    const unsigned flags =
        strutl_flags_from_str(copy, case_sensitive ? 1 : 0, sep.c_str(), items, std::size(items), &bad_word);
    FUZZ_REQUIRE(flags == expected.flags);
    FUZZ_REQUIRE(bad_word == (expected.bad_word == std::string::npos ? nullptr : copy + expected.bad_word));
    FUZZ_REQUIRE(text == static_cast<const char *>(copy));
}

void check_round_trip(unsigned flags, const char *sep)
{
    const char *text = strutl_flags_to_str(flags, sep, items, static_cast<int>(std::size(items)));
    FUZZ_REQUIRE(strutl_flags_from_str(text, 1, sep, items, std::size(items), nullptr) == flags);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::uint8_t mode = input.take_byte();
    const std::string sep = input.take_text();
    const std::string text = input.take_text();
    check_text(text, (mode & 1) != 0, sep);
    check_text(text, true, "|");
    check_round_trip((mode | static_cast<unsigned>(mode) << 24) & 0x8000000FU, (mode & 2) != 0 ? "|" : nullptr);
}
