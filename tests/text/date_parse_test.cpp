// What users type, at a time of the test's choosing: both grammars in tables, and every ISO form
// against a calendar that counts days one by one.
#include <korvaks/date.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

time_t fake_now = 0;

} // namespace

// The library's clock: a program's own function comes before the C library's.
extern "C" time_t time(time_t *out) noexcept
{
    if (out != nullptr)
        *out = fake_now;
    return fake_now;
}

namespace {

constexpr long day_seconds = 86400;

// Every day of 1500 to 2699, as the C library reads it.
const std::vector<tm> &calendar()
{
    static const std::vector<tm> days = [] {
        std::vector<tm> all;
        constexpr time_t first = -14831769600;
        tm day{};
        for (time_t t = first; gmtime_r(&t, &day)->tm_year < 800; t += day_seconds)
            all.push_back(day);
        return all;
    }();
    return days;
}

// Seconds of "YYYY-MM-DD hh:mm:ss" UTC.
time_t utc(const std::string &text)
{
    tm fields{};
    EXPECT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields), nullptr) << text;
    return timegm(&fields);
}

void set_zone(const char *zone)
{
    setenv("TZ", zone, 1);
}

using Reader = int (*)(const char *, int, time_t *);

std::string read(Reader reader, const std::string &text, int flags)
{
    time_t t = 4711;
    if (reader(text.c_str(), flags, &t) != 0)
        return t == 4711 ? "no" : "changed";
    tm fields{};
    char shown[64];
    strftime(shown, sizeof shown, "%Y-%m-%d %H:%M:%S", gmtime_r(&t, &fields));
    return shown;
}

// The texts between semicolons.
std::vector<std::string> split(const std::string &list)
{
    std::vector<std::string> texts;
    std::istringstream stream(list);
    for (std::string text; std::getline(stream, text, ';');)
        texts.push_back(text.substr(text.find_first_not_of(" \n")));
    return texts;
}

// "TEXT = UTC (FLAGS)": "no" where it fails, 00:00:00 without a time, flags 0 without any.
void check(Reader reader, const std::string &cases)
{
    for (const std::string &line : split(cases)) {
        SCOPED_TRACE(line);
        const size_t middle = line.find(" = ");
        const size_t end = line.find(" (");
        std::string expected = line.substr(middle + 3, end - middle - 3);
        if (expected.size() == 10)
            expected += " 00:00:00";
        const int flags = end == std::string::npos ? 0 : line[end + 2] - '0';
        EXPECT_EQ(read(reader, line.substr(0, middle), flags), expected);
    }
}

TEST(DateTraditional, WordsDaysAndTimes)
{
    set_zone("UTC");
    fake_now = utc("2026-11-21 12:00:00"); // a Saturday
    check(date_str_to_time_legacy, R"(
        now = 2026-11-21 12:00:00; NoW = 2026-11-21 12:00:00; none = 1970-01-01; today = 2026-11-21;
        YESTERDAY.23:59:60 = 2026-11-21; 5-mar-24.14:03 = 2024-03-05 14:03:00;
        05-MARCH-2024.14:03:00 = 2024-03-05 14:03:00; 5-mar = 2026-03-05; 31-dec = 2026-12-31;
        31-dec.1:2:3 = 2026-12-31 01:02:03 (1); 1-may-00 = 2000-05-01; 31-dec-68 = 2068-12-31; 1-jan-70 = 1970-01-01;
        29-feb-2000 = 2000-02-29; 29-february-2024 = 2024-02-29; 14:03 = 2026-11-21 14:03:00;
        4:3 = 2026-11-21 04:03:00; 4:3:2 = 2026-11-21 04:03:02; 14:03UTC = 2026-11-21 14:03:00;
        14:03UTC+1 = 2026-11-21 13:03:00; 14:03utc1 = 2026-11-21 13:03:00; 14:03UTC-05:30 = 2026-11-21 19:33:00;
        14:03UTC+ = 2026-11-21 14:03:00; 0:30UTC+13:00 = 2026-11-20 11:30:00;
        6-mar-24.0:30:10UTC+01:00 = 2024-03-05 23:30:10; saturday = 2026-11-21; sun = 2026-11-15;
        FRI.12:00 = 2026-11-20 12:00:00; sat.23:00 = 2026-11-21 23:00:00; saturday = 2026-11-21 (1);
        sun = 2026-11-22 (1); friday = 2026-11-27 (1); sun = 2026-11-22 (2); mon = 2026-11-16 (2))");
    fake_now = utc("2026-03-01 00:00:00");
    check(date_str_to_time_legacy, "yesterday = 2026-02-28");
    fake_now = utc("2028-03-01 23:00:00");
    check(date_str_to_time_legacy, "yesterday = 2028-02-29");
    fake_now = utc("2028-01-01 00:00:00");
    check(date_str_to_time_legacy, "yesterday.1:00 = 2027-12-31 01:00:00");
    fake_now = utc("2026-11-21 23:30:00"); // tomorrow where the text's clock stands
    check(date_str_to_time_legacy, "14:03UTC+1 = 2026-11-21 13:03:00; today.14:03UTC+1 = 2026-11-21 13:03:00");
    set_zone("Pacific/Kiritimati"); // where it is the 2nd
    fake_now = utc("2028-01-01 20:00:00");
    check(date_str_to_time_legacy, "today = 2028-01-01 10:00:00; 1:00UTC = 2028-01-02 01:00:00");
}

TEST(DateTraditional, RefusesWhatIsNoDate)
{
    set_zone("UTC");
    fake_now = utc("2026-11-21 12:00:00");
    const std::string just_fits = "now" + std::string(1020, ' ');
    const std::string too_long = just_fits + " ";
    for (const std::string &text : split(R"(
        no w; nowx; now.12:00; none.1:00; 5-mar-1900; 5-mar-1968; 5-mar-100; 5-mar-024; 5-mar-4; 5-mar-; 5-mar-0024;
        31-dec-69; 29-feb-2023; 29-feb-2100; 31-apr-2024; 32-jan-2024; 0-jan-2024; 5-mär-2024; 5-ma-2024; 5--2024;
        -5-mar-2024; 005-mar-2024; 5-mar-20244; 5-mar-24.; .14:03; 14; 14:; 14:03:; 24:00; 14:60; 14:03:61; 014:03;
        14:003; 14:03.; 14:03:00UT; 14:03UTC+24; 14:03UTC+1:60; 14:03UTC+1:5; 14:03UTC+123; 14:03UTC+-1; 14:03Z;
        today today; satur; 5-mar-24.14:03.1; 5-mar-24 14:03)"))
        EXPECT_EQ(read(date_str_to_time_legacy, text, 0), "no") << text;
    for (const std::string &text : {std::string(), std::string(" "), std::string("\xff\xfe"), too_long})
        EXPECT_EQ(read(date_str_to_time_legacy, text, 0), "no");
    EXPECT_EQ(read(date_str_to_time_legacy, just_fits, 0), "2026-11-21 12:00:00");
    EXPECT_EQ(read(date_str_to_time_legacy, "\t\v now\r\n", 0), "2026-11-21 12:00:00");
    EXPECT_EQ(read(date_str_to_time2, "\t2024w102 ", 0), "2024-03-05 00:00:00");
    time_t t = 1;
    EXPECT_EQ(date_str_to_time_legacy(nullptr, 0, &t), 1);
    EXPECT_EQ(date_str_to_time2(nullptr, 0, &t), 1);
}

TEST(DateIso, FormsAndCompletion)
{
    set_zone("UTC");
    fake_now = utc("2026-11-21 12:00:00");
    check(date_str_to_time2, R"(
        5-mar-24.14:03 = 2024-03-05 14:03:00; 2024-03-05T14:03:59+01:00 = 2024-03-05 13:03:59;
        20240305t140359-0530 = no; 20240305t140359-05:30 = 2024-03-05 19:33:59;
        2024-065T14:03:59.999999z = 2024-03-05 14:03:59; 2024-03-05T14+05 = 2024-03-05 09:00:00;
        2024-03-05T14.5 = 2024-03-05 14:30:00; 2024-03-05T14:03.25Z = 2024-03-05 14:03:15;
        2016-12-31T23:59:60Z = 2017-01-01; 1969-12-31T23:59:59Z = 1969-12-31 23:59:59; 1500-06-01 = 1500-06-01;
        14:03:59.5 = 2026-11-21 14:03:59; 14:03Z = 2026-11-21 14:03:00; T1403 = 2026-11-21 14:03:00 (1);
        T23 = 2026-11-21 23:00:00; T01:00+13:30 = 2026-11-20 11:30:00; 2020-W53-5 = 2021-01-01;
        2009-W01-1 = 2008-12-29; -W53-5 = 2021-01-01; -W53 = 2026-12-28 (1); -W53 = 2026-12-28 (2);
        --12-31 = 2025-12-31; --12-31 = 2026-12-31 (1); --12-31 = 2026-12-31 (7); --02-29 = 2024-02-29;
        --02-29 = 2028-02-29 (1); --02-29 = no (2); --11-21T12:00 = 2026-11-21 12:00:00;
        --11-21T12:00 = 2026-11-21 12:00:00 (1); --11-21T12:00:01 = 2025-11-21 12:00:01;
        --11-21T11:59 = 2027-11-21 11:59:00 (1); --11-21T14:00+02:01 = 2026-11-21 11:59:00; ---31 = 2026-10-31;
        ---31 = 2026-12-31 (1); ---31 = no (2); -W-7 = 2026-11-15; -W-1 = 2026-11-23 (1); -W-7 = 2026-11-22 (2);
        691231 = 1969-12-31; 691231 = 2069-12-31 (1); 691231 = 2069-12-31 (2); 000229 = 2000-02-29;
        000229 = 2400-02-29 (1); -9-W01-1 = 2018-12-31; -1-W53-1 = 2071-12-28 (1))");
    fake_now = utc("2026-12-31 12:00:00"); // where the text's clock stands it is the next year
    check(date_str_to_time2, R"(
        --01-01T00:30+14 = 2026-12-31 10:30:00; --01-01T00:30+14 = 2025-12-31 10:30:00 (2))");
    fake_now = utc("2027-01-01 12:00:00"); // in week 53 of 2026
    check(date_str_to_time2, R"(
        -W53-5 = 2027-01-01 (2); -W01-1 = 2027-01-04 (1); -001 = 2027-01-01)");
    for (const char *text : {"14", "1403", "240305", "2024"}) // a year and a date, never times
        EXPECT_NE(read(date_str_to_time2, text, 2).substr(0, 10), "2027-01-01") << text;
}

TEST(DateIso, RefusesEverythingElse)
{
    set_zone("UTC");
    fake_now = utc("2026-11-21 12:00:00");
    for (const std::string &text : split(R"(
        14; 024; 2; 20445; 202403055; 2024-3-5; 2024-03-5; 2024-0305; 202403-05; 2024/03/05; 2024-13-01; 2024-00-01;
        2024-02-30; 2023-02-29; 1900-02-29; 2100-02-29; 20240431; 2023-366; 2024-367; 2024-000; 2024-W00-1; 2024-W53-1;
        2020-W54-1; 2020-W53-0; 2020-W53-8; 2020-W5-1; 2020W53-5; 2020-W535; +2024-03-05; -2024-03-05; 2024-03-05T; T;
        TT12; 2024-03T12:00; 2024T12; 2024-W10T12:00; --03T12; 2024-03-05T24:00; 2024-03-05T23:60; 2024-03-05T23:59:61;
        2024-03-05T2; 2024-03-05T14:3; 2024-03-05T140; 2024-03-05T14035; 2024-03-05T14:0359; 2024-03-05T1403:59;
        2024-03-05T14:03:59.; 2024-03-05T14:03:59.1234567; 2024-03-05T14:03:59,5; 2024-03-05T14:03:59.5.5;
        2024-03-05T14:03:59.-1; 2024-03-05T14:03:59+; 2024-03-05T14:03:59+1; 2024-03-05T14:03:59+24;
        2024-03-05T14:03:59+01:60; 2024-03-05T14:03:59+01:0; 2024-03-05T14:03:59ZZ; 2024-03-05Z; 2024-03-05+01:00;
        2024-03-05 14:03:59; 2024-03-05T-03:59; T--59; -; --; ---; ----05; ---3; -W; -W-; -W-0; -W-8; --0229x; -24-;
        0x2024; 2024-03-05TZ; 2024-03-05T.5; 99999999)"))
        EXPECT_EQ(read(date_str_to_time2, text, 0), "no") << text;
    EXPECT_EQ(read(date_str_to_time2, "2024-03-0\xc3\xa9", 0), "no");
    EXPECT_EQ(read(date_str_to_time2, std::string("2024-03-05\0x", 12), 0), "2024-03-05 00:00:00");
}

// --- Against the calendar of single days ---

// The text that a form gives a day: strftime()'s, where "-%G" stands for the year's last digit only.
std::string render(const std::string &form, const tm &day)
{
    char text[32];
    (void)strftime(text, sizeof text, form.c_str(), &day);
    return form.starts_with("-%G") ? std::string("-") + (text + 4) : text;
}

// The first of its kind in everything that a form leaves out behind.
bool is_first(const std::string &form, const tm &day)
{
    const auto has = [&](const char *field) { return form.find(field) != std::string::npos; };
    if (has("%d") || has("%j") || has("%u"))
        return true;
    if (has("%V"))
        return day.tm_wday == 1;
    return day.tm_mday == 1 && (has("%m") || day.tm_mon == 0);
}

const std::vector<std::string> complete_forms = split(R"(
    %Y-%m-%d; %Y%m%d; %Y-%m; %Y; %Y-%j; %Y%j; %G-W%V-%u; %GW%V%u; %G-W%V; %GW%V)");
const std::vector<std::string> truncated_forms = split(R"(
    %y-%m-%d; %y%m%d; -%y-%m; -%y%m; -%y; --%m-%d; --%m%d; --%m; ---%d; %y-%j; %y%j; -%j; %g-W%V-%u; %gW%V%u; %g-W%V;
    %gW%V; -%G-W%V-%u; -%GW%V%u; -%G-W%V; -%GW%V; -W%V-%u; -W%V%u; -W%V; -W-%u)");

TEST(DateIso, CompleteFormsOfEveryDay)
{
    set_zone("UTC");
    EXPECT_EQ(calendar().size(), 3 * 146097u);
    for (tm day : calendar()) {
        for (const std::string &form : complete_forms) {
            if (day.tm_year < -10 || day.tm_year > 210 || !is_first(form, day))
                continue;
            time_t t = 0;
            const std::string text = render(form, day);
            ASSERT_EQ(date_str_to_time2(text.c_str(), 0, &t), 0) << text;
            ASSERT_EQ(t, timegm(&day)) << text;
        }
    }
}

TEST(DateIso, TruncatedFormsAgainstASearchDayByDay)
{
    set_zone("UTC");
    std::mt19937 random(20261121);
    const std::vector<tm> &days = calendar();
    tm first = days[0];
    for (int round = 0; round < 2500; ++round) {
        const std::string &form = truncated_forms[random() % truncated_forms.size()];
        const std::string text = render(form, days[random() % days.size()]);
        const size_t today = days.size() / 2 - 30000 + random() % 60000;
        const bool has_time = form.find_first_of("dju") != std::string::npos && random() % 2 == 0;
        const long second = has_time ? 12 * 3600 : 0;
        const long clock = random() % 3 == 0 ? second : static_cast<long>(random() % day_seconds);
        fake_now = timegm(&first) + static_cast<long>(today) * day_seconds + clock;
        const int flags = static_cast<int>(random() % 2);
        const bool is_today_passed_over = flags == 0 ? second > clock : second < clock;
        size_t at = today;
        const auto fits = [&] { return is_first(form, days[at]) && render(form, days[at]) == text; };
        while (at < days.size() && ((at == today && is_today_passed_over) || !fits()))
            at += flags == 0 ? SIZE_MAX : 1;
        if (at >= days.size())
            continue;
        SCOPED_TRACE(text + " flags " + std::to_string(flags) + " now " + std::to_string(fake_now));
        time_t t = 0;
        EXPECT_EQ(date_str_to_time2((text + (has_time ? "T12" : "")).c_str(), flags, &t), 0);
        EXPECT_EQ(t, timegm(&first) + static_cast<long>(at) * day_seconds + second);
    }
}

TEST(DateNumeric, ReadsItsFormsOnly)
{
    set_zone("UTC");
    const auto reader = [](const char *text, int, time_t *out) { // the form stands in front
        return 1 - date_numeric_str_to_time(text[0] - '0', text + 2, out);
    };
    check(reader, R"(
        0:240305-140359 = 2024-03-05 14:03:59; 1:20240305-140359 = 2024-03-05 14:03:59;
        2:240305-1403 = 2024-03-05 14:03:00; 3:20240305-1403 = 2024-03-05 14:03:00; 4:691231 = 2069-12-31;
        4:700101 = 1970-01-01; 4:991231 = 1999-12-31; 5:19691231 = 1969-12-31; 5:20000229 = 2000-02-29;
        8:240305-14:03 = 2024-03-05 14:03:00; 6:1709647439 = 2024-03-05 14:03:59; 6:-1 = 1969-12-31 23:59:59;
        7:65e7264f = 2024-03-05 14:03:59; 7:ffffffffffffffff = 1969-12-31 23:59:59; 0:240305-1403 = no;
        0:240305-140359  = no; 0:24030a-140359 = no; 0:240305_140359 = no; 0:240305-140361 = no; 2:240305-2403 = no;
        2:240305-14:03 = no; 4:230229 = no; 4:241301 = no; 4:240100 = no; 4: = no; 5:240305 = no; 6: = no; 6:12x = no;
        6:9223372036854775808 = no; 7:10000000000000000 = no; 7:xyz = no; 8:240305-1403 = no)");
    time_t t = 0;
    EXPECT_EQ(date_numeric_str_to_time(0, nullptr, &t), 0);
    EXPECT_DEATH(date_numeric_str_to_time(9, "1", &t), "form >= 0 && form <= 8.*lib/ks/date");
    EXPECT_DEATH(date_str_to_time2("now", 0, nullptr), "out != NULL.*lib/ks/date");
}

} // namespace
