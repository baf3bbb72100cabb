// Names of flags: against a plain reading of the same text, and back from the text of a set.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>

#include <strings.h>

namespace {

constexpr strutl_flag_item_t items[] = {{"read", 1}, {"write", 2},         {"a", 4},
                                        {"aa", 8},   {"high", 0x80000000}, {"none", 0}};
constexpr std::size_t item_count = sizeof items / sizeof items[0];
constexpr std::size_t read_max = 1023;

struct Reading {
    unsigned flags = 0;
    std::size_t bad_word = std::string::npos;
};

Reading read_plainly(std::string text, bool case_sensitive, const std::string &sep)
{
    text.resize(std::min(text.size(), read_max));
    Reading reading;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find(sep, at);
        const std::string word = text.substr(at, end - at);
        const strutl_flag_item_t *row = nullptr;
        for (const auto &item : items) {
            const bool is_same = case_sensitive ? word == item.name : strcasecmp(word.c_str(), item.name) == 0;
            if (is_same && row == nullptr)
                row = &item;
        }
        if (row == nullptr)
            return {0, at};
        reading.flags |= static_cast<unsigned>(row->value);
        if (end == std::string::npos)
            break;
        at = end + sep.size();
    }
    return reading;
}

void check_text(const std::string &text, bool case_sensitive, const std::string &sep)
{
    const Reading expected = read_plainly(text, case_sensitive, sep.empty() ? " " : sep);
    const auto copy = fuzz::exact_copy(text.c_str(), text.size() + 1);
    const char *bad_word = "";
    const unsigned flags =
        strutl_flags_from_str(copy.get(), case_sensitive ? 1 : 0, sep.c_str(), items, item_count, &bad_word);
    FUZZ_REQUIRE(flags == expected.flags);
    FUZZ_REQUIRE(bad_word == (expected.bad_word == std::string::npos ? nullptr : copy.get() + expected.bad_word));
    FUZZ_REQUIRE(text == copy.get());
}

void check_round_trip(unsigned flags, const char *sep)
{
    flags &= 0x8000000FU;
    const char *text = strutl_flags_to_str(flags, sep, items, static_cast<int>(item_count));
    FUZZ_REQUIRE(strutl_flags_from_str(text, 1, sep, items, item_count, nullptr) == flags);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::uint8_t mode = input.take_byte();
    const std::string sep = input.take_text();
    const std::string text = input.take_text();
    check_text(text, (mode & 1) != 0, sep);
    check_text(text, true, "|");
    check_round_trip(mode | static_cast<unsigned>(mode) << 24, (mode & 2) != 0 ? "|" : nullptr);
    return 0;
}
