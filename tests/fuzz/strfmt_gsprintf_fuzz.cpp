// Control strings that a user wrote: nothing is written outside the buffer, whose text is the beginning
// of what a growing buffer gets, and both agree on what is a bad control string.
#include "fuzz/fuzz_support.h"

#include <korvaks/strfmt.h>

#include <algorithm>
#include <cstring>

namespace {

// "r" is rejected, everything else is rendered from all that is handed over, in a bounded width.
int render(void *, char *out, std::size_t space, const strfmt_directive *directive)
{
    FUZZ_REQUIRE(space >= 1);
    FUZZ_REQUIRE(std::strlen(directive->text) <= STRFMT_BRACKET_MAX);
    FUZZ_REQUIRE(std::strlen(directive->argument) <= STRFMT_BRACKET_MAX);
    if (directive->conversion == 'r')
        return 1;
    const int width = directive->width == STRFMT_NONE ? 0 : std::clamp(directive->width, -500, 500);
    const int length = std::snprintf(out, space, "%*s%.*s%s", width, directive->text,
                                     std::abs(directive->precision % 50), directive->argument, directive->modifiers);
    return length < 0 ? 1 : static_cast<std::size_t>(length) < space ? 0 : STRFMT_FULL;
}

} // namespace

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    const std::size_t size = 1 + std::size_t{input.take_byte()} * 2;
    const std::string conversions = input.take_text();
    const std::string text = input.take_text();
    if (fuzz::has_long_number(text))
        return;
    const fuzz::ExactText control(text);
    const auto fixed = fuzz::exact_room(size, 'x');
    const int fixed_result = strfmt_gsprintf(fixed.get(), size, conversions.c_str(), control, nullptr, render);
    char *made = nullptr;
    const int grown_result = strfmt_gsprintf_fmt(&made, 0, conversions.c_str(), control, nullptr, render);
    const fuzz::Given<char> grown(made);
    FUZZ_REQUIRE(made != nullptr);
    const std::size_t length = strnlen(fixed.get(), size);
    FUZZ_REQUIRE(length < size);
    FUZZ_REQUIRE(std::strncmp(made, fixed.get(), length) == 0);
    FUZZ_REQUIRE(fixed_result == 1 || (grown_result == 0 && std::strcmp(made, fixed.get()) == 0));
}
