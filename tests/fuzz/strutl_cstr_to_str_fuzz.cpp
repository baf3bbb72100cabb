// Escapes of string literals: never longer than the literal, and what is escaped comes back.
#include "fuzz/fuzz_support.h"

#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <cstring>

namespace {

// The literal with each byte in octal, three digits, which no following digit can join. A NUL byte
// has the form "\0".
std::string escaped(const std::string &bytes)
{
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0100) { // fewer than three digits, or a leading 0: written in hexadecimal
            const char digits[] = "0123456789abcdef";
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
        } else {
            text += '\\';
            for (const int shift : {6, 3, 0})
                text += static_cast<char>('0' + (byte >> shift & 7));
        }
    }
    return text;
}

void check_hostile(const std::string &text, int quoted)
{
    char mark = 'm';
    char *made = &mark;
    const auto literal = fuzz::exact_copy(text.c_str(), text.size() + 1);
    if (strutl_cstr_to_str(literal.get(), quoted, &made) != 0) {
        FUZZ_REQUIRE(made == &mark);
        return;
    }
    FUZZ_REQUIRE(made != nullptr && made != &mark);
    FUZZ_REQUIRE(std::strlen(made) <= text.size());
    if (quoted == 0 && text.find('\\') == std::string::npos)
        FUZZ_REQUIRE(text == made);
    if (quoted != 0)
        FUZZ_REQUIRE(text.size() >= 2 && text.front() == '"' && text.back() == '"');
    stg_free(made);
}

void check_round_trip(const std::string &bytes, bool quoted)
{
    std::string literal = escaped(bytes);
    if (quoted)
        literal = '"' + literal + '"';
    char *made = nullptr;
    FUZZ_REQUIRE(strutl_cstr_to_str(literal.c_str(), quoted ? 1 : 0, &made) == 0);
    // A result may hold NUL bytes.
    FUZZ_REQUIRE(std::memcmp(made, bytes.c_str(), bytes.size() + 1) == 0);
    stg_free(made);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const bool quoted = (input.take_byte() & 1) != 0;
    const std::string bytes = input.take_rest();
    check_hostile(bytes.c_str(), quoted ? 1 : 0);
    check_hostile('"' + std::string(bytes.c_str()) + '"', 1);
    check_round_trip(bytes, quoted);
    return 0;
}
