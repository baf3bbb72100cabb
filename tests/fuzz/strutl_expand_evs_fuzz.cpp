// References to environment variables: against a plain expansion, with values that the input chooses.
#include "fuzz/fuzz_support.h"

#include <korvaks/strutl.h>

#include <cctype>
#include <cerrno>

namespace {

// Small texts may grow by every reference of every pass.
constexpr std::size_t value_max = 64;
constexpr std::size_t text_max = 512;

bool is_name_character(char c)
{
    return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0;
}

std::string value_of(const std::string &name)
{
    const char *value = std::getenv(name.c_str());
    return value == nullptr ? "" : value;
}

std::string expand_plainly(const std::string &text, bool &out_found)
{
    out_found = false;
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char next = text.c_str()[at + 1];
        const bool is_braced = text[at] == '$' && next == '{';
        if (text[at] == '\\' && next != '\0') {
            out += text[++at];
        } else if (is_braced || (text[at] == '$' && is_name_character(next))) {
            const std::size_t from = at + (is_braced ? 2 : 1);
            std::size_t end = from;
            while (end < text.size() && (is_braced ? text[end] != '}' : is_name_character(text[end])))
                ++end;
            out += value_of(text.substr(from, end - from));
            out_found = true;
            at = is_braced ? end : end - 1;
        } else {
            out += text[at];
        }
    }
    return out;
}

void check_one_pass(const std::string &text)
{
    bool is_expected = false;
    const std::string expected = expand_plainly(text, is_expected);
    unsigned found = 9;
    const fuzz::Given<char> expanded(strutl_expand_evs_status(fuzz::ExactText(text), &found));
    FUZZ_REQUIRE(expanded != nullptr && expected == expanded.get());
    FUZZ_REQUIRE(found == (is_expected ? 1U : 0U));
}

void check_passes(const std::string &text, int passes)
{
    const fuzz::Given<char> expanded(strutl_expand_evs_iterate(text.c_str(), passes));
    const int error = errno;
    std::string expected = text;
    bool found = true;
    // The first pass and up to `passes` more; the last one must meet no reference.
    for (int pass = 0; pass <= passes && found; ++pass)
        expected = expand_plainly(expected, found);
    FUZZ_REQUIRE((expanded == nullptr) == found);
    FUZZ_REQUIRE(found ? error == EINVAL : expected == expanded.get());
}

} // namespace

FUZZ_TARGET(input)
{
    const int passes = 1 + input.take_byte() % 3;
    for (const char *name : {"A", "B_1"})
        (void)setenv(name, input.take_text().substr(0, value_max).c_str(), 1);
    const std::string text = input.take_text().substr(0, text_max);
    check_one_pass(text);
    check_passes(text.substr(0, 64), passes);
}
