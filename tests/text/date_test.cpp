// Dates as text: both styles, formats of the locale, numeric tokens; zones and the edges of daylight
// saving; words from a translated catalogue.
#include "harness/child.h"
#include "harness/locale.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace {

constexpr time_t day_seconds = 86400;
constexpr time_t march_5 = 1709647439; // 2024-03-05 14:03:59 UTC

void set_zone(const char *zone)
{
    setenv("TZ", zone, 1); // nothing calls tzset(): the library notices by itself
}

std::string general(time_t t, int precision, int style, int usec = 0, int utc = 0)
{
    char *token = date_fmt_token_general(t, precision, style, usec, utc, 0);
    const std::string text = token == nullptr ? "NULL" : token;
    stg_free(token);
    return text;
}

// The C library's own answer, in the zone that the test has set.
std::string by_strftime(const char *format, time_t t)
{
    tzset();
    tm fields{};
    char text[128];
    localtime_r(&t, &fields);
    strftime(text, sizeof text, format, &fields);
    return text;
}

TEST(DateToken, BothStylesInAllPrecisions)
{
    set_zone("Europe/Berlin");
    const time_t now = time(nullptr);
    const struct {
        const char *expected;
        time_t t;
        int precision, style, usec, utc;
    } cases[] = {
        {"05-Mar-24.15:03:59", march_5, 0, 1, 0, 0},
        {"05-Mar-24", march_5, 1, 1, 0, 0},
        {"05-Mar-2024", march_5, 2, 1, 0, 0},
        {"01-Jan-70.00:00:00UTC", 0, 0, 1, 0, 1},
        {"2024-03-05T15:03:59+01:00", march_5, 0, 2, 0, 0},
        {"2024-03-05T14:03:59Z", march_5, 0, 2, 0, 1},
        {"2024-03-05T15:03:59.120456+01:00", march_5, 3, 2, 120456, 0},
        {"2024-03-05", march_5, 2, 2, 0, 0},
        {"10000-01-01T00:00:00Z", 253402300800, 0, 2, 0, 1},
        {"2147485547-12-31T23:59:59Z", 67768036191676799, 0, 2, 0, 1}, // the last one there is
        {"NULL", 67768036191676800, 0, 2, 0, 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(general(c.t, c.precision, c.style, c.usec, c.utc), c.expected) << c.precision;
    const time_t recent = now - 40 * day_seconds;
    EXPECT_EQ(general(recent, 2, 1), by_strftime("%d-%b.%H:%M", recent));
    EXPECT_EQ(general(recent, 2, 1, 0, 1).substr(12), "UTC");
    EXPECT_EQ(general(recent, 2, 2), by_strftime("--%m-%dT%H:%M", recent));
    EXPECT_EQ(general(now + 3600, 2, 2), by_strftime("%Y-%m-%d", now + 3600)); // the future is not recent
    EXPECT_EQ(general(date_one_year_ago(now) - 5, 2, 2), by_strftime("%Y-%m-%d", date_one_year_ago(now) - 5));
    EXPECT_EQ(general(date_one_year_ago(now) + 60, 2, 2).substr(0, 2), "--");
    EXPECT_DEATH(general(0, 4, 1), "precision >= 0 && precision <= 3.*lib/ks/date");
    EXPECT_DEATH(general(0, 3, 2, 1000000), "usec >= 0 && usec <= 999999");
    EXPECT_DEATH(date_fmt_set_default_style(0), "style == 1 || style == 2");
}

TEST(DateStyle, ReadFromTheEnvironmentOnce)
{
    set_zone("UTC");
    for (const auto &[value, style] : {std::pair{"0", 1}, {"", 2}, {"00", 2}, {"0 ", 2}}) {
        SCOPED_TRACE(value);
        test::in_child([value = value, style = style] {
            setenv("VELM_ISO_DATE_FMT", value, 1);
            EXPECT_STREQ(date_fmt_token_date(march_5), style == 1 ? "05-Mar-24" : "2024-03-05");
            setenv("VELM_ISO_DATE_FMT", style == 1 ? "1" : "0", 1);
            EXPECT_EQ(date_fmt_set_default_style(3 - style), style);
            EXPECT_EQ(date_fmt_get_default_date_style(), 3 - style);
        });
    }
    setenv("VELM_ISO_DATE_FMT", "0", 1); // a style that is set first counts, and yet what it replaced is told
    EXPECT_EQ(test::run_child([] {
                  return date_fmt_set_default_style(2) * 10 + date_fmt_get_default_date_style();
              }).exit_status,
              12);
    unsetenv("VELM_ISO_DATE_FMT");
}

TEST(DateToken, OnePlaceInEachThread)
{
    set_zone("UTC");
    char *token = date_fmt_token_date_time(march_5);
    EXPECT_STREQ(token, "2024-03-05T14:03:59Z");
    EXPECT_STREQ(date_fmt_token_date_time_pname(march_5), "2024-03-05T14:03:59Z");
    EXPECT_STREQ(date_fmt_token_utc(march_5), "2024-03-05T14:03:59Z");
    EXPECT_STREQ(date_fmt_token_short_date_time(march_5), "2024-03-05");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 2000; ++n) {
                const time_t t = march_5 + i * day_seconds;
                EXPECT_EQ(date_fmt_token_date(t), "2024-03-0" + std::to_string(5 + i));
                time_t read = 0;
                EXPECT_EQ(date_str_to_time(("0" + std::to_string(5 + i) + "-mar-24.14:03:59").c_str(), 0, &read), 0);
                EXPECT_EQ(read, t);
                date_fmt_set_default_style(2);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(date_fmt_token_date(-1), nullptr);
}

TEST(DateFormats, OfTheLocale)
{
    set_zone("America/St_Johns");
    const time_t now = time(nullptr);
    for (const time_t t :
         {march_5, now - 20 * day_seconds, now + 5000, now - 364 * day_seconds, now - 367 * day_seconds}) {
        EXPECT_EQ(date_fmt_long_date_time(t), by_strftime("%c", t));
        EXPECT_EQ(date_fmt_short_date_time(t), by_strftime("%x %X", t));
        EXPECT_EQ(date_fmt_short_date(t), by_strftime("%x", t));
        EXPECT_EQ(date_fmt_short_time(t), by_strftime("%H:%M:%S", t));
        const bool is_recent = t <= now && t > date_one_year_ago(now);
        EXPECT_EQ(date_fmt_ls_date_time(t), by_strftime(is_recent ? "%b %d %H:%M" : "%b %d  %Y", t));
    }
    EXPECT_EQ(date_fmt_long_date_time(LONG_MAX), nullptr);
    EXPECT_EQ(date_fmt_ls_date_time(LONG_MIN), nullptr);
    if (const test::CompiledLocale french("fr_FR", "ISO-8859-1"); french.is_there()) {
        EXPECT_EQ(general(march_5 + 150 * day_seconds, 1, 1), "02-ao\xfbt-24");
    }
}

TEST(DateFormats, NumericTokens)
{
    set_zone("UTC");
    const char *expected[] = {"240305-140359", "20240305-140359", "240305-1403", "20240305-1403", "240305",
                              "20240305",      "1709647439",      "65e7264f",    "240305-14:03"};
    for (int form = 0; form <= 8; ++form)
        EXPECT_STREQ(date_fmt_token_numeric(form, march_5), expected[form]);
    EXPECT_STREQ(date_fmt_token_numeric(7, -1), "ffffffffffffffff");
    EXPECT_EQ(date_fmt_token_numeric(0, LONG_MAX), nullptr);
    EXPECT_DEATH(date_fmt_token_numeric(9, 0), "form >= 0 && form <= 8");
}

// March counts with the months before the leap day, and every fourth year is one.
TEST(DateOneYearAgo, MonthsAndYears)
{
    set_zone("UTC");
    for (const auto &[date, days] :
         {std::pair{"20240331", 365}, {"20240401", 366}, {"20250331", 366}, {"20250401", 365}, {"21000401", 366}}) {
        time_t t = 0;
        ASSERT_EQ(date_numeric_str_to_time(5, date, &t), 1);
        EXPECT_EQ(t - date_one_year_ago(t), days * day_seconds) << date;
    }
    EXPECT_EQ(date_one_year_ago(LONG_MIN), LONG_MIN);
}

// --- Zones ---

TEST(DateZones, AcrossChanges)
{
    const struct {
        const char *zone;
        time_t change;
        const char *before, *after; // the last second and the first
    } cases[] = {
        {"Europe/Berlin", 1711846800, "2024-03-31T01:59:59+01:00", "2024-03-31T03:00:00+02:00"},
        {"Europe/Berlin", 1729990800, "2024-10-27T02:59:59+02:00", "2024-10-27T02:00:00+01:00"},
        {"Australia/Lord_Howe", 1712415600, "2024-04-07T01:59:59+11:00", "2024-04-07T01:30:00+10:30"},
        {"Asia/Kathmandu", 504901800, "1985-12-31T23:59:59+05:30", "1986-01-01T00:15:00+05:45"},
        {"Pacific/Apia", 1325239200, "2011-12-29T23:59:59-10:00", "2011-12-31T00:00:00+14:00"},
    };
    for (const auto &c : cases) {
        set_zone(c.zone);
        for (time_t t = c.change - 2000; t < c.change + 2000; ++t)
            ASSERT_EQ(std::string(date_fmt_token_date_time(t), 19), by_strftime("%Y-%m-%dT%H:%M:%S", t)) << c.zone;
        EXPECT_STREQ(date_fmt_token_date_time(c.change - 1), c.before);
        EXPECT_STREQ(date_fmt_token_date_time(c.change), c.after);
    }
}

TEST(DateZones, TimesThatDaylightSavingSkipsAndLeapSeconds)
{
    set_zone("Europe/Berlin");
    time_t t = 0;
    ASSERT_EQ(date_str_to_time2("2024-03-31T02:30", 0, &t), 0);
    EXPECT_TRUE(t == 1711846800 - 1800 || t == 1711846800 + 1800);
    set_zone("right/UTC"); // counts leap seconds, so that UTC is not a day of 86400 seconds
    for (t = 1483228700; t < 1483228900; ++t) {
        time_t read = 0;
        const std::string token = general(t, 0, 2);
        ASSERT_EQ(token, by_strftime("%Y-%m-%dT%H:%M:%S", t) + "Z");
        ASSERT_EQ(date_str_to_time2(token.c_str(), 0, &read), 0);
        ASSERT_EQ(read, t) << token; // 23:59:60 as well
    }
    set_zone(":/usr/share/zoneinfo/../zoneinfo/../zoneinfo/Europe/Berlin"); // longer than what is compared
    EXPECT_EQ(general(march_5, 0, 2), "2024-03-05T15:03:59+01:00");
    set_zone(":/usr/share/zoneinfo/../zoneinfo/../zoneinfo/Asia/Kathmandu");
    EXPECT_EQ(general(march_5, 0, 2), "2024-03-05T19:48:59+05:45");
}

// --- Times, words ---

TEST(DateTimes, NowAndConversions)
{
    set_zone("Asia/Kathmandu");
    timeval now{};
    date_get_timeval(&now);
    EXPECT_LE(std::abs(now.tv_sec - time(nullptr)), 1);
    tm local{};
    tm utc{};
    ASSERT_TRUE(date_get_localtime(march_5, &local) == &local && date_get_gmtime(march_5, &utc) == &utc);
    EXPECT_EQ(local.tm_hour * 60 + local.tm_min - utc.tm_hour * 60 - utc.tm_min, 345);
    EXPECT_EQ(date_get_localtime(LONG_MAX, &local), nullptr);
}

TEST(DateWords, ATranslationChangesTheTraditionalStyleOnly)
{
    const test::TempDir dir;
    test::write_file(dir.file("ks_lib.msg"),
                     "$set 12\n$quote \"\n1 \"Heute\"\n7 \"März\"\n41 \"/\"\n42 \";\"\n43 \" um \"\n"
                     "44 \"jetzt\"\n45 \"so: %s\"\n47 \"WZ\"\n27 \"0123456789012345678901234567890123456789"
                     "012345678901234567890123456789\"\n46 \"\"\n");
    ASSERT_EQ(system(("gencat " + dir.file("ks_lib.cat") + " " + dir.file("ks_lib.msg")).c_str()), 0);
    const auto result = test::run_child([&] {
        setenv("NLSPATH", dir.file("%N.cat").c_str(), 1);
        set_zone("UTC");
        printf("%s|%s|%s|", general(march_5, 0, 1, 0, 1).c_str(), general(march_5, 1, 1).c_str(),
               general(march_5, 0, 2).c_str());
        printf("%s|%.11s", date_fmt_token_numeric(8, march_5), date_usage_date_time());
        for (const char *text : {"5/märz/24", "jetzt", "heute", "now", "today", "14;03WZ", "14:03UTC", "5-apr-24",
                                 "5/apr/24", "monday", "none"}) {
            time_t t = 0;
            printf("|%s %d", text, date_str_to_time_legacy(text, 0, &t));
        }
    });
    EXPECT_EQ(result.exit_status, 0);
    // A separator with blanks is written without them, and texts can have none inside.
    EXPECT_EQ(result.out,
              "05/Mar/24um14;03;59WZ|05/Mar/24|2024-03-05T14:03:59Z|240305-14:03|<date-time>"
              "|5/märz/24 0|jetzt 0|heute 0|now 1|today 1|14;03WZ 0|14:03UTC 1|5-apr-24 1|5/apr/24 0|monday 0|none 0");
}

} // namespace
