// Numeric tokens: a token of any time is read back to the same token, and an accepted text of digits
// is the token of its time.
#include "fuzz/fuzz_support.h"

#include <korvaks/date.h>

#include <cstdlib>
#include <cstring>

namespace {

// Forms with two digits of the year stand for 1970 to 2069 only.
bool has_four_digits_of_year(int form)
{
    return form == 1 || form == 3 || form == 5;
}

void check_text(int form, const std::string &text)
{
    const auto copy = fuzz::exact_copy(text.c_str(), text.size() + 1);
    constexpr time_t untouched = 4711;
    time_t t = untouched;
    const int result = date_numeric_str_to_time(form, copy.get(), &t);
    FUZZ_REQUIRE(result == 1 || (result == 0 && t == untouched));
    if (result == 0)
        return;
    const char *token = date_fmt_token_numeric(form, t);
    FUZZ_REQUIRE(token != nullptr);
    // "+1" and "0x1F" are numbers; a leap second is the next one; "%Y" has no zeros in front.
    const bool may_differ = form == 6 || form == 7 || text.find("60") != std::string::npos ||
                            (has_four_digits_of_year(form) && text.starts_with('0'));
    FUZZ_REQUIRE(may_differ || text == token);
}

void check_time(int form, time_t t)
{
    const char *made = date_fmt_token_numeric(form, t);
    if (made == nullptr)
        return;
    const std::string token = made;
    time_t read = 0;
    if (date_numeric_str_to_time(form, token.c_str(), &read) == 0) {
        // A year of more or fewer digits than the form has, or a leap day that the year of two digits does not have.
        const bool is_leap_day = token.find("0229") != std::string::npos;
        FUZZ_REQUIRE(form != 6 && form != 7 && (has_four_digits_of_year(form) || is_leap_day));
        return;
    }
    FUZZ_REQUIRE(token == date_fmt_token_numeric(form, read));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    setenv("TZ", "UTC", 1);
    fuzz::Input input(data, size);
    const int form = input.take_byte() % 9;
    time_t t = 0;
    const std::string bytes = input.take_bytes(sizeof t);
    std::memcpy(&t, bytes.data(), bytes.size());
    check_time(form, t);
    check_time(form, t % 4102444800);
    check_text(form, input.take_text());
    return 0;
}
