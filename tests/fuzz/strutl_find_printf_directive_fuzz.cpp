// Directives of formats: each is inside the format, well formed, and read alike at any buffer size.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <map>

namespace {

struct Found {
    unsigned is_found = 0;
    std::size_t next = 0;
    strutl_printf_kind kind = strutl_printf_kind_null;
    int star_width = 0;
    int star_precision = 0;
};

Found find(const char *format, std::size_t start, std::size_t size, char *text)
{
    Found found;
    found.is_found = strutl_find_printf_directive(format, start, size, text, &found.next, &found.kind,
                                                  &found.star_width, &found.star_precision);
    return found;
}

// The letters that a kind may end with.
const char *letters_of(strutl_printf_kind kind)
{
    const std::map<strutl_printf_kind, const char *> letters = {
        {strutl_printf_kind_percent, "%"},    {strutl_printf_kind_pointer, "p"}, {strutl_printf_kind_string, "s"},
        {strutl_printf_kind_double, "eEfgG"}, {strutl_printf_kind_int, "di"},    {strutl_printf_kind_long, "di"},
        {strutl_printf_kind_long_long, "di"}};
    const auto found = letters.find(kind);
    return found != letters.end() ? found->second : "ouxXc";
}

void check_directive(const std::string &format, std::size_t start, const Found &found, const std::string &text)
{
    FUZZ_REQUIRE(found.kind > strutl_printf_kind_null && found.kind < strutl_printf_kind_end_marker);
    FUZZ_REQUIRE(found.next >= start + 2 && found.next <= format.size());
    FUZZ_REQUIRE(format.compare(found.next - text.size(), text.size(), text) == 0);
    FUZZ_REQUIRE(text.size() >= 2 && text.front() == '%');
    FUZZ_REQUIRE(std::strchr(letters_of(found.kind), text.back()) != nullptr);
    FUZZ_REQUIRE(text.find_first_not_of(" #'+-0123456789.*hl", 1) == text.size() - 1);
    // Nothing before it was a directive.
    FUZZ_REQUIRE(format.find('%', start) == found.next - text.size());
    FUZZ_REQUIRE(std::count(text.begin(), text.end(), '*') == found.star_width + found.star_precision);
}

void check_at(const std::string &format, std::size_t start, std::size_t small_size)
{
    std::string text(format.size() + 1, 'x');
    const Found found = find(format.c_str(), start, text.size(), text.data());
    const Found measured = find(format.c_str(), start, 0, nullptr);
    FUZZ_REQUIRE(measured.next == found.next && measured.kind == found.kind && measured.is_found == found.is_found);
    if (found.is_found == 0) {
        FUZZ_REQUIRE(found.kind == strutl_printf_kind_null);
        FUZZ_REQUIRE(found.next == format.size() || (found.next >= start && format[found.next] == '%'));
        return;
    }
    text.resize(std::strlen(text.c_str()));
    check_directive(format, start, found, text);
    const auto small = fuzz::exact_room(small_size, 'x');
    FUZZ_REQUIRE(find(format.c_str(), start, small_size, small.get()).next == found.next);
    FUZZ_REQUIRE(small_size == 0 || text.compare(0, small_size - 1, small.get()) == 0);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::size_t small_size = input.take_byte() % 4;
    const std::string format = input.take_text();
    // Positions lie on the first byte of a character: in the C locale, on any.
    for (std::size_t start = 0; start <= format.size(); ++start)
        check_at(format, start, small_size <= format.size() ? small_size : 0);
}
