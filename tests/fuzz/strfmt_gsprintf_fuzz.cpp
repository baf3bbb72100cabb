// Control strings that a user wrote: nothing is written outside the buffer, whose text is the beginning
// of what a growing buffer gets, and both agree on what is a bad control string.
#include "fuzz/fuzz_support.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strfmt.h>

#include <algorithm>
#include <cstdlib>
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

// Columns of many digits cost memory and nothing else.
bool has_long_number(const std::string &text)
{
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 4)
            return true;
    }
    return false;
}

bool suppress_messages()
{
    static imsg_redirect_procs procs;
    procs.proc[6] = IMSG_PROC_SUPPRESS;
    imsg_set_redirect_procs(&procs, nullptr);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const bool is_quiet = suppress_messages();
    FUZZ_REQUIRE(is_quiet);
    fuzz::Input input(data, size);
    const std::size_t buffer_size = 1 + std::size_t{input.take_byte()} * 2;
    const std::string conversions = input.take_text();
    const std::string text = input.take_text();
    if (has_long_number(text))
        return 0;
    const auto control = fuzz::exact_copy(text.c_str(), text.size() + 1);
    const std::unique_ptr<char[]> fixed(new char[buffer_size]);
    const int fixed_result =
        strfmt_gsprintf(fixed.get(), buffer_size, conversions.c_str(), control.get(), nullptr, render);
    char *grown = nullptr;
    const int grown_result = strfmt_gsprintf_fmt(&grown, 0, conversions.c_str(), control.get(), nullptr, render);
    FUZZ_REQUIRE(grown != nullptr);
    const std::size_t length = strnlen(fixed.get(), buffer_size);
    FUZZ_REQUIRE(length < buffer_size);
    FUZZ_REQUIRE(std::strncmp(grown, fixed.get(), length) == 0);
    FUZZ_REQUIRE(fixed_result == 1 || grown_result == 0);
    if (fixed_result == 0)
        FUZZ_REQUIRE(std::strcmp(grown, fixed.get()) == 0);
    stg_free(grown);
    return 0;
}
