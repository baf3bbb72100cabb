// Escapes of string literals: never longer than the literal, and what is escaped comes back.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <cstring>

namespace {

// The literal with each byte as a number that no following digit can join: three octal digits, or two
// hexadecimal ones where octal would be shorter or begin with 0. A NUL byte has the form "\0".
std::string escaped(const std::string &bytes)
{
    std::string text;
    for (const char c : bytes) {
        char number[8];
        const auto byte = static_cast<unsigned char>(c);
        std::snprintf(number, sizeof number, byte < 0100 ? "\\x%02x" : "\\%03o", unsigned{byte});
        text += number;
    }
    return text;
}

void check_hostile(const std::string &text, int quoted)
{
    char mark = 'm';
    char *made = &mark;
    if (strutl_cstr_to_str(fuzz::ExactText(text), quoted, &made) != 0) {
        FUZZ_REQUIRE(made == &mark);
        return;
    }
    FUZZ_REQUIRE(made != nullptr && made != &mark);
    const fuzz::Given<char> result(made);
    FUZZ_REQUIRE(std::strlen(made) <= text.size());
    if (quoted != 0)
        FUZZ_REQUIRE(text.size() >= 2 && text.front() == '"' && text.back() == '"');
    else
        FUZZ_REQUIRE(text == made || text.find('\\') != std::string::npos);
}

void check_round_trip(const std::string &bytes, int quoted)
{
    const std::string literal = quoted != 0 ? '"' + escaped(bytes) + '"' : escaped(bytes);
    char *made = nullptr;
    FUZZ_REQUIRE(strutl_cstr_to_str(literal.c_str(), quoted, &made) == 0);
    const fuzz::Given<char> result(made);
    // A result may hold NUL bytes.
    FUZZ_REQUIRE(std::memcmp(made, bytes.c_str(), bytes.size() + 1) == 0);
}

} // namespace

FUZZ_TARGET(input)
{
    const int quoted = input.take_byte() & 1;
    const std::string bytes = input.take_rest();
    check_hostile(bytes.c_str(), quoted);
    check_hostile('"' + std::string(bytes.c_str()) + '"', 1);
    check_round_trip(bytes, quoted);
}
