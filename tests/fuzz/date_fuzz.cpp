// Dates as users and file names have them: every reader refuses a text without a trace, or gives a time that the
// tokens of that time lead back to.
#include "fuzz/fuzz_support.h"

#include <korvaks/date.h>

#include <algorithm>
#include <cstring>
#include <ctime>

namespace {

constexpr const char *zones[] = {"Australia/Lord_Howe", "Europe/Berlin", "America/St_Johns", "Pacific/Apia"};

// Any of the readers, with 0 as success. A refused text leaves the time as it was.
template <typename Reader> bool read(Reader reader, const std::string &text, time_t &out)
{
    const fuzz::ExactText copy(text);
    constexpr time_t untouched = -4711;
    out = untouched;
    const int result = reader(copy, &out);
    FUZZ_REQUIRE(result == 0 || (result == 1 && out == untouched));
    return result == 0;
}

// A token of either style; empty for times that have none.
std::string token_of(time_t t, int style, int utc)
{
    const fuzz::Given<char> token(date_fmt_token_general(t, 0, style, 0, utc, 0));
    FUZZ_REQUIRE((token == nullptr) == (t < 0));
    return token == nullptr ? "" : token.get();
}

// Words for now change from call to call.
bool is_about_now(time_t t)
{
    return std::llabs(t - time(nullptr)) < 200000;
}

void check_iso(const std::string &text, int flags)
{
    const auto reader = [flags](const char *s, time_t *out) { return date_str_to_time2(s, flags, out); };
    time_t t = 0;
    if (!read(reader, text, t))
        return;
    std::string spelling = text;
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }))
        std::transform(text.begin(), text.end(), spelling.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    time_t again = 0;
    if (text.size() < 1000)
        FUZZ_REQUIRE(read(reader, " \t" + spelling + "\n", again) && (again == t || is_about_now(t)));
    for (const int utc : {0, 1}) {
        const std::string token = token_of(t, 2, utc);
        const bool has_its_form = token.size() > 4 && token[4] == '-'; // four digits of the year
        FUZZ_REQUIRE(token.empty() || (read(reader, token, again) == has_its_form && (!has_its_form || again == t)));
    }
}

void check_traditional(const std::string &text, int flags)
{
    const auto reader = [flags](const char *s, time_t *out) { return date_str_to_time_legacy(s, flags, out); };
    time_t t = 0;
    if (!read(reader, text, t))
        return;
    constexpr time_t year_2069 = 3124137600; // from there on two digits mean 1969
    time_t again = 0;
    FUZZ_REQUIRE(t >= 0);
    FUZZ_REQUIRE(t >= year_2069 || (read(reader, token_of(t, 1, 1), again) && again == t));
    FUZZ_REQUIRE(date_str_to_time(text.c_str(), flags, &again) == 0 && (again == t || is_about_now(t)));
}

// Forms with two digits of the year stand for 1970 to 2069 only.
bool has_four_digits_of_year(int form)
{
    return form == 1 || form == 3 || form == 5;
}

void check_numeric(const std::string &text, int form)
{
    const auto reader = [form](const char *s, time_t *out) { return 1 - date_numeric_str_to_time(form, s, out); };
    const bool is_number = form == 6 || form == 7;
    time_t t = 0;
    if (read(reader, text, t)) {
        const char *token = date_fmt_token_numeric(form, t);
        // "+1" and "0x1F" are numbers; a leap second is the next one; "%Y" has no zeros in front.
        const bool may_differ = is_number || text.find("60") != std::string::npos ||
                                (has_four_digits_of_year(form) && text.starts_with('0'));
        FUZZ_REQUIRE(token != nullptr && (may_differ || text == token));
    } else {
        std::memcpy(&t, text.data(), std::min(text.size(), sizeof t)); // any other time
    }
    const char *made = date_fmt_token_numeric(form, t);
    const std::string token = made == nullptr ? "" : made;
    if (token.empty())
        return;
    time_t again = 0;
    // A year of more or fewer digits than the form has, or a leap day that the year of two digits does not have.
    if (!read(reader, token, again))
        FUZZ_REQUIRE(!is_number && (has_four_digits_of_year(form) || token.find("0229") != std::string::npos));
    else
        FUZZ_REQUIRE(token == date_fmt_token_numeric(form, again));
}

} // namespace

FUZZ_TARGET(input)
{
    const int mode = input.take_byte();
    const std::string text = input.take_text();
    setenv("TZ", zones[mode % 4], 1);
    check_iso(text, mode / 4 % 3);
    check_traditional(text, mode / 4 % 3);
    setenv("TZ", "UTC", 1); // where no token is ambiguous
    check_numeric(text, mode / 12 % 9);
}
