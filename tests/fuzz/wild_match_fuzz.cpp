// Patterns as text against the slow reading of them, and anything as a compiled pattern.
#include "fuzz/fuzz_support.h"
#include "harness/wild_model.h"

#include <korvaks/wild.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>

namespace {

// The slow reading tries every choice.
constexpr std::size_t pattern_max = 24;
constexpr std::size_t string_max = 16;
constexpr long choices_max = 6;

void check_against_model(const std::string &pattern, const std::string &string, bool is_utf8)
{
    const std::size_t size = 2 * pattern.size() + 5;
    const auto buf = fuzz::exact_room(size, 'x');
    int has_wild = -1;
    const int length = wild_compile_pattern(pattern.c_str(), size, buf.get(), &has_wild);
    const auto items = test::wild::parse(pattern, is_utf8);
    FUZZ_REQUIRE(length == WILD_MALFORMED || (length > 0 && static_cast<std::size_t>(length) <= size - 4));
    FUZZ_REQUIRE((length > 0) == items.has_value());
    if (!items)
        return;
    const auto is_wild = [](const test::wild::Item &item) { return item.kind != test::wild::Item::character; };
    FUZZ_REQUIRE(has_wild == (std::any_of(items->begin(), items->end(), is_wild) ? 1 : 0));
    const auto is_choice = [](const test::wild::Item &item) {
        return item.kind == test::wild::Item::run || item.kind == test::wild::Item::levels;
    };
    if (std::count_if(items->begin(), items->end(), is_choice) > choices_max)
        return;
    const fuzz::ExactText text(string);
    for (const bool is_path : {false, true}) {
        const bool expected = test::wild::Model(*items, string, is_path, is_utf8).matches();
        FUZZ_REQUIRE((wild_match(buf.get(), text, is_path ? 1 : 0) != 0) == expected);
    }
}

} // namespace

FUZZ_TARGET(input)
{
    const bool is_utf8 = input.take_byte() % 2 == 1;
    FUZZ_REQUIRE(std::setlocale(LC_ALL, is_utf8 ? "C.UTF-8" : "C") != nullptr);
    const std::string pattern = input.take_text();
    const std::string string = input.take_text();
    // Of characters of several bytes the model knows one, and none that is broken.
    const auto is_modelled = [is_utf8](const std::string &text) {
        return !is_utf8 || (std::mbstowcs(nullptr, text.c_str(), 0) != static_cast<std::size_t>(-1) &&
                            std::all_of(text.begin(), text.end(), [](char c) {
                                return static_cast<signed char>(c) >= 0 || c == '\xC3' || c == '\xA9';
                            }));
    };
    const std::string short_pattern = pattern.substr(0, pattern_max);
    const std::string short_string = string.substr(0, string_max);
    if (is_modelled(short_pattern) && is_modelled(short_string))
        check_against_model(short_pattern, short_string, is_utf8);
    for (const int is_path : {0, 1})
        (void)wild_match(fuzz::ExactText(pattern), fuzz::ExactText(string), is_path);
}
