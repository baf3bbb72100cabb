// The traditional grammar: what it accepts is a time from 1970 on that its own token leads back to, and
// the full reader says the same.
#include "fuzz/fuzz_support.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>

#include <cstdlib>
#include <ctime>

namespace {

void check_token(time_t t)
{
    constexpr time_t year_2069 = 3124137600; // from there on two digits mean 1969
    char *token = date_fmt_token_general(t, 0, 1, 0, 1, 0);
    FUZZ_REQUIRE(token != nullptr);
    time_t again = 0;
    FUZZ_REQUIRE(t >= year_2069 || (date_str_to_time_legacy(token, 0, &again) == 0 && again == t));
    stg_free(token);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::uint8_t mode = input.take_byte();
    setenv("TZ", (mode & 1) != 0 ? "America/New_York" : "Australia/Lord_Howe", 1);
    const std::string text = input.take_text();
    const auto copy = fuzz::exact_copy(text.c_str(), text.size() + 1);
    const int flags = mode / 2 % 3;
    constexpr time_t untouched = -4711;
    time_t t = untouched;
    if (date_str_to_time_legacy(copy.get(), flags, &t) != 0) {
        FUZZ_REQUIRE(t == untouched);
        return 0;
    }
    FUZZ_REQUIRE(t >= 0 && text == copy.get());
    check_token(t);
    time_t by_full_reader = 0;
    FUZZ_REQUIRE(date_str_to_time(copy.get(), flags, &by_full_reader) == 0);
    FUZZ_REQUIRE(by_full_reader == t || std::llabs(t - time(nullptr)) < 200000); // relative to now
    return 0;
}
