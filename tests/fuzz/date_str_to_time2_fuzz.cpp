// Dates as users type them: a text is refused without a trace, or it is a time that the tokens of that
// time lead back to; white space at the ends and the case of letters mean nothing.
#include "fuzz/fuzz_support.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace {

constexpr const char *zones[] = {"UTC", "Europe/Berlin", "America/St_Johns", "Pacific/Apia"};

bool read(const std::string &text, int flags, time_t &out)
{
    const auto copy = fuzz::exact_copy(text.c_str(), text.size() + 1);
    constexpr time_t untouched = 4711;
    out = untouched;
    const int result = date_str_to_time2(copy.get(), flags, &out);
    FUZZ_REQUIRE(result == 0 || (result == 1 && out == untouched));
    return result == 0;
}

void check_token(time_t t, int utc)
{
    char *token = date_fmt_token_general(t, 0, 2, 0, utc, 0);
    FUZZ_REQUIRE((token == nullptr) == (t < 0));
    if (token == nullptr)
        return;
    time_t again = 0;
    const bool has_its_form = token[4] == '-'; // four digits of the year
    FUZZ_REQUIRE(read(token, 0, again) == has_its_form && (!has_its_form || again == t));
    stg_free(token);
}

// Words for now change from call to call.
bool is_about_now(time_t t)
{
    return std::llabs(t - time(nullptr)) < 100;
}

void check_spelling(std::string text, int flags, time_t t)
{
    const bool is_ascii = std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
    for (char &c : text) {
        if (is_ascii && c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    time_t again = 0;
    if (text.size() < 1000)
        FUZZ_REQUIRE(read(" \t" + text + "\n", flags, again) && (again == t || is_about_now(t)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::uint8_t mode = input.take_byte();
    setenv("TZ", zones[mode % 4], 1);
    const int flags = mode / 4 % 3;
    const std::string text = input.take_text();
    time_t t = 0;
    if (!read(text, flags, t))
        return 0;
    check_spelling(text, flags, t);
    check_token(t, 0);
    check_token(t, 1);
    return 0;
}
