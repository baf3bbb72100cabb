// References to environment variables: against a plain expansion, with values that the input chooses.
#include "fuzz/fuzz_support.h"

#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace {

// Small texts may grow by every reference of every pass.
constexpr std::size_t value_max = 64;
constexpr std::size_t text_max = 512;

bool is_name_character(char c)
{
    return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0;
}

void append_value(std::string &out, const std::string &name)
{
    const char *value = std::getenv(name.c_str());
    if (value != nullptr)
        out += value;
}

std::string expand_plainly(const std::string &text, bool &out_found)
{
    out_found = false;
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char next = text.c_str()[at + 1];
        if (text[at] == '\\' && next != '\0') {
            out += text[++at];
        } else if (text[at] == '$' && next == '{') {
            const std::size_t end = std::min(text.find('}', at), text.size());
            append_value(out, text.substr(at + 2, end - at - 2));
            out_found = true;
            at = end;
        } else if (text[at] == '$' && is_name_character(next)) {
            std::size_t end = at + 1;
            while (end < text.size() && is_name_character(text[end]))
                ++end;
            append_value(out, text.substr(at + 1, end - at - 1));
            out_found = true;
            at = end - 1;
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
    const auto copy = fuzz::exact_copy(text.c_str(), text.size() + 1);
    char *expanded = strutl_expand_evs_status(copy.get(), &found);
    FUZZ_REQUIRE(expanded != nullptr && expected == expanded);
    FUZZ_REQUIRE(found == (is_expected ? 1U : 0U));
    stg_free(expanded);
}

void check_passes(const std::string &text, int passes)
{
    char *expanded = strutl_expand_evs_iterate(text.c_str(), passes);
    std::string expected = text;
    bool found = true;
    // The first pass and up to `passes` more; the last one must meet no reference.
    for (int pass = 0; pass <= passes && found; ++pass)
        expected = expand_plainly(expected, found);
    FUZZ_REQUIRE((expanded == nullptr) == found);
    if (expanded == nullptr)
        FUZZ_REQUIRE(errno == EINVAL);
    else
        FUZZ_REQUIRE(expected == expanded);
    stg_free(expanded);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const int passes = 1 + input.take_byte() % 3;
    const std::string value_a = input.take_text().substr(0, value_max);
    const std::string value_b = input.take_text().substr(0, value_max);
    (void)setenv("A", value_a.c_str(), 1);
    (void)setenv("B_1", value_b.c_str(), 1);
    const std::string text = input.take_text().substr(0, text_max);
    check_one_pass(text);
    check_passes(text.substr(0, 64), passes);
    return 0;
}
