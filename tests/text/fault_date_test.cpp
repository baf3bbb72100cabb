// Dates under failing calls: a result or NULL, and readers that need nothing. None of them has a delivery check
// for raises.
#include "harness/fault_sweep.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>

#include <cstdlib>
#include <cstring>

namespace {

using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr time_t march_5 = 1709647439; // 2024-03-05 14:03:59 UTC

char *text = nullptr;

Operation text_that_begins(const char *name, const char *expected, char *(*make)())
{
    return Operation(name).act([make] { return (text = make()) != nullptr; }).gives([expected] {
        return std::strncmp(text, expected, std::strlen(expected)) == 0;
    });
}

TEST(FaultDate, TextsOfTheThread)
{
    setenv("TZ", "UTC", 1);
    for (Operation operation : {
             text_that_begins("date_fmt_token_date_time", "2024-03-05T14:03:59Z",
                              [] { return date_fmt_token_date_time(march_5); }),
             text_that_begins("date_fmt_ls_date_time", "Mar 05  2024", [] { return date_fmt_ls_date_time(march_5); }),
             text_that_begins("date_fmt_token_numeric", "20240305", [] { return date_fmt_token_numeric(5, march_5); }),
             text_that_begins("date_usage_date_time", "<date-time> = ", date_usage_date_time),
         })
        operation.sweep_first_use();
}

TEST(FaultDate, NewTokens)
{
    setenv("TZ", "Europe/Berlin", 1);
    const auto is_quiet = [] { return !has_said("memory"); };
    const auto token = [](int style) { return date_fmt_token_general(march_5, 0, style, 0, 0, 0); };
    static const auto make = token;
    for (Operation operation : {
             text_that_begins("date_fmt_token_general", "05-Mar-24.15:03:59", [] { return make(1); }),
             text_that_begins("date_fmt_token_general", "2024-03-05T15:03:59+01:00", [] { return make(2); }),
         })
        operation.keeps(is_quiet).sets_errno().cleanup([] { stg_free(text); }).sweep();
}

// Words fetched while something failed are still words.
TEST(FaultDate, Readers)
{
    setenv("TZ", "UTC", 1);
    time_t t = 0;
    int result = 0;
    for (const char *source : {"5-mar-24.14:03:59", "05-march-24.16:03:59utc+2"})
        Operation(source)
            .setup([&] { t = 0; })
            .act([&] { result = date_str_to_time(source, 0, &t); })
            .gives([&] { return result == 0 && t == march_5; })
            .sweep_first_use();
    setenv("VELM_ISO_DATE_FMT", "0", 1);
    Operation("date_fmt_get_default_date_style")
        .act([&] { result = date_fmt_get_default_date_style(); })
        .gives([&] { return result == 1; })
        .sweep_first_use();
}

} // namespace
