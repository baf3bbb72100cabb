// Patterns as text against the slow reading of them, and anything as a compiled pattern.
#include "fuzz/fuzz_support.h"
#include "harness/wild_model.h"

#include <korvaks/wild.h>

#include <algorithm>

namespace {

// The slow reading tries every choice.
constexpr std::size_t pattern_max = 24;
constexpr std::size_t string_max = 16;
constexpr long choices_max = 6;

void check_against_model(const std::string &pattern, const std::string &string)
{
    const std::size_t size = 2 * pattern.size() + 5;
    const std::unique_ptr<char[]> buf(new char[size]);
    int has_wild = -1;
    const int length = wild_compile_pattern(pattern.c_str(), size, buf.get(), &has_wild);
    const auto items = test::wild::parse(pattern, false);
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
    const auto text = fuzz::exact_copy(string.c_str(), string.size() + 1);
    for (const bool is_path : {false, true}) {
        const bool expected = test::wild::Model(*items, string, is_path, false).matches();
        FUZZ_REQUIRE((wild_match(buf.get(), text.get(), is_path ? 1 : 0) != 0) == expected);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::string pattern = input.take_text();
    const std::string string = input.take_text();
    check_against_model(pattern.substr(0, pattern_max), string.substr(0, string_max));
    const auto compiled = fuzz::exact_copy(pattern.c_str(), pattern.size() + 1);
    const auto text = fuzz::exact_copy(string.c_str(), string.size() + 1);
    (void)wild_match(compiled.get(), text.get(), 0);
    (void)wild_match(compiled.get(), text.get(), 1);
    return 0;
}
