// What users type, at a time of the test's choosing: both grammars in tables, and every ISO form
// against a calendar that counts days one by one.
#include <korvaks/date.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
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

struct Day {
    long number; // from 1970-01-01
    int year, month, day, ordinal, weekday, week_year, week;
};

bool is_leap(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Every day of 1500 to 2699, counted on from one that everybody knows.
const std::vector<Day> &calendar()
{
    static const std::vector<Day> days = [] {
        std::vector<Day> all;
        constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        int day_of_week = 1; // of 1 January 1500; the 1970-01-01 that follows from it is a Thursday, see below
        for (int year = 1500; year < 2700; ++year) {
            int ordinal = 1;
            for (int month = 1; month <= 12; ++month) {
                const int length = lengths[month - 1] + (month == 2 && is_leap(year) ? 1 : 0);
                for (int day = 1; day <= length; ++day) {
                    all.push_back({0, year, month, day, ordinal++, day_of_week, 0, 0});
                    day_of_week = day_of_week % 7 + 1;
                }
            }
        }
        size_t epoch = 0;
        while (all[epoch].year != 1970)
            ++epoch;
        EXPECT_EQ(all[epoch].weekday, 4);
        for (size_t i = 0; i < all.size(); ++i) {
            all[i].number = static_cast<long>(i) - static_cast<long>(epoch);
            const size_t thursday = std::min(i + 4 - static_cast<size_t>(all[i].weekday), all.size() - 1);
            all[i].week_year = all[thursday].year;
            all[i].week = (all[thursday].ordinal - 1) / 7 + 1;
        }
        return all;
    }();
    return days;
}

// Seconds of "YYYY-MM-DD hh:mm:ss" UTC.
time_t utc(const std::string &text)
{
    int f[6] = {};
    EXPECT_EQ(sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5]), 6) << text;
    static const std::map<int, long> numbers = [] {
        std::map<int, long> all;
        for (const Day &day : calendar())
            all[day.year * 10000 + day.month * 100 + day.day] = day.number;
        return all;
    }();
    return numbers.at(f[0] * 10000 + f[1] * 100 + f[2]) * 86400 + f[3] * 3600 + f[4] * 60 + f[5];
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

// The text that a form gives a day.
std::string render(const std::string &form, const Day &day)
{
    const bool is_week_form = form.find('W') != std::string::npos;
    std::string text;
    for (size_t i = form.size(); i-- > 0;) {
        static constexpr char letters[] = "YMDOwd";
        const int values[] = {
            is_week_form ? day.week_year : day.year, day.month, day.day, day.ordinal, day.week, day.weekday};
        const char *letter = strchr(letters, form[i]);
        if (letter == nullptr) {
            text.insert(0, 1, form[i]);
            continue;
        }
        int value = values[letter - letters];
        for (size_t j = i + 1; j < form.size() && form[j] == form[i]; ++j)
            value /= 10;
        text.insert(0, 1, static_cast<char>('0' + value % 10));
    }
    return text;
}

// The first of its kind in everything that a form leaves out behind.
bool is_first(const std::string &form, const Day &day)
{
    const auto has = [&](char letter) { return form.find(letter) != std::string::npos; };
    if (has('D') || has('O') || has('d'))
        return true;
    if (has('w'))
        return day.weekday == 1;
    return day.day == 1 && (has('M') || day.month == 1);
}

const std::vector<std::string> forms = split(R"(
    YYYY-MM-DD; YYYYMMDD; YYYY-MM; YYYY; YY-MM-DD; YYMMDD; -YY-MM; -YYMM; -YY; --MM-DD; --MMDD; --MM; ---DD;
    YYYY-OOO; YYYYOOO; YY-OOO; YYOOO; -OOO; YYYY-Www-d; YYYYWwwd; YYYY-Www; YYYYWww; YY-Www-d; YYWwwd; YY-Www;
    YYWww; -Y-Www-d; -YWwwd; -Y-Www; -YWww; -Www-d; -Wwwd; -Www; -W-d)");

TEST(DateIso, CompleteFormsOfEveryDay)
{
    set_zone("UTC");
    size_t count = 0;
    for (const Day &day : calendar()) {
        if (day.year < 1890 || day.year > 2110)
            continue;
        for (const std::string &form : forms) {
            if (form.substr(0, 4) != "YYYY" || !is_first(form, day))
                continue;
            time_t t = 0;
            const std::string text = render(form, day);
            ASSERT_EQ(date_str_to_time2(text.c_str(), 0, &t), 0) << text;
            ASSERT_EQ(t, day.number * 86400) << text;
            ++count;
        }
    }
    EXPECT_GT(count, 480000u);
}

TEST(DateIso, TruncatedFormsAgainstASearchDayByDay)
{
    set_zone("UTC");
    std::mt19937 random(20261121);
    const std::vector<Day> &days = calendar();
    int checked = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string &form = forms[random() % forms.size()];
        if (form.substr(0, 4) == "YYYY")
            continue;
        const Day &sample = days[random() % days.size()];
        const size_t today = days.size() / 2 - 30000 + random() % 60000;
        const bool has_time = form.find_first_of("DOd") != std::string::npos && random() % 2 == 0;
        const long second = has_time ? 12 * 3600 : 0;
        fake_now = days[today].number * 86400 + (random() % 3 == 0 ? second : static_cast<long>(random() % 86400));
        const int flags = static_cast<int>(random() % 2);
        const std::string text = render(form, sample);
        const long step = flags == 0 ? -1 : 1;
        long at = static_cast<long>(today);
        const auto fits = [&](const Day &day) {
            const time_t moment = day.number * 86400 + second;
            return (flags == 0 ? moment <= fake_now : moment >= fake_now) && is_first(form, day) &&
                   render(form, day) == text;
        };
        while (at >= 0 && at < static_cast<long>(days.size()) && !fits(days[static_cast<size_t>(at)]))
            at += step;
        if (at < 0 || at >= static_cast<long>(days.size()))
            continue;
        SCOPED_TRACE(text + " flags " + std::to_string(flags) + " now " + std::to_string(fake_now));
        time_t t = 0;
        EXPECT_EQ(date_str_to_time2((text + (has_time ? "T12" : "")).c_str(), flags, &t), 0);
        EXPECT_EQ(t, days[static_cast<size_t>(at)].number * 86400 + second);
        ++checked;
    }
    EXPECT_GT(checked, 2000);
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
