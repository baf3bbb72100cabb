// Dates under failing calls: a result or NULL, and readers that need nothing. None of them has a delivery check
// for raises.
#include "harness/fault_sweep.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

namespace {

using test::fault::ends_of_start;
using test::fault::has_said;
using test::fault::Trial;

constexpr time_t march_5 = 1709647439; // 2024-03-05 14:03:59 UTC

char *text = nullptr;
const char *expected = nullptr; // how the text begins
int error = 0;

const char *check_text(const Trial &trial)
{
    if (text == nullptr)
        return trial.fired ? nullptr : "refused without a cause";
    return std::strncmp(text, expected, std::strlen(expected)) == 0 ? nullptr : "not the text";
}

struct TextCall {
    const char *name;
    void (*act)();
    const char *expected;
};

constexpr TextCall text_calls[] = {
    {"date_fmt_token_date_time", [] { text = date_fmt_token_date_time(march_5); }, "2024-03-05T14:03:59Z"},
    {"date_fmt_ls_date_time", [] { text = date_fmt_ls_date_time(march_5); }, "Mar 05  2024"},
    {"date_fmt_token_numeric", [] { text = date_fmt_token_numeric(5, march_5); }, "20240305"},
    {"date_usage_date_time", [] { text = date_usage_date_time(); }, "<date-time> = "},
};

TEST(FaultDate, TextsOfTheThread)
{
    setenv("TZ", "UTC", 1);
    for (const TextCall &call : text_calls) {
        expected = call.expected;
        test::fault::sweep_first_use({
            .name = call.name,
            .setup = [] { text = nullptr; },
            .act = call.act,
            .check = check_text,
            .ends = ends_of_start(),
        });
    }
}

TEST(FaultDate, NewTokens)
{
    setenv("TZ", "Europe/Berlin", 1);
    static int style = 0;
    for (style = 1; style <= 2; ++style) {
        expected = style == 1 ? "05-Mar-24.15:03:59" : "2024-03-05T15:03:59+01:00";
        test::fault::sweep({
            .name = "date_fmt_token_general",
            .setup = [] { text = nullptr; },
            .act =
                [] {
                    text = date_fmt_token_general(march_5, 0, style, 0, 0, 0);
                    error = errno;
                },
            .check = [](const Trial &trial) -> const char * {
                if (text == nullptr && (error != ENOMEM || has_said("memory")))
                    return "not quietly ENOMEM";
                return check_text(trial);
            },
            .cleanup = [] { stg_free(text); },
        });
    }
}

time_t t = 0;

// Words fetched while something failed are still words.
TEST(FaultDate, Readers)
{
    setenv("TZ", "UTC", 1);
    static const char *texts[] = {"5-mar-24.14:03:59", "05-march-24.16:03:59utc+2"};
    static const char *source = nullptr;
    for (const char *each : texts) {
        source = each;
        test::fault::sweep_first_use({
            .name = each,
            .setup = [] { t = 0; },
            .act = [] { error = date_str_to_time(source, 0, &t); },
            .check = [](const Trial &) -> const char * {
                return error == 0 && t == march_5 ? nullptr : "not the time";
            },
            .ends = ends_of_start(),
        });
    }
}

TEST(FaultDate, Style)
{
    setenv("VELM_ISO_DATE_FMT", "0", 1);
    test::fault::sweep_first_use({
        .name = "date_fmt_get_default_date_style",
        .act = [] { error = date_fmt_get_default_date_style(); },
        .check = [](const Trial &) { return error == 1 ? nullptr : "not the style"; },
        .ends = ends_of_start(),
    });
}

} // namespace
