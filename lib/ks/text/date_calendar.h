// The calendar (ISO 8601, proleptic Gregorian): days are counted from 1970-01-01, weeks begin on
// Monday, and week 1 of a year is the one with 4 January.
#pragma once

namespace ks::date {

inline constexpr long seconds_per_minute = 60;
inline constexpr long seconds_per_hour = 3600;
inline constexpr long seconds_per_day = 86400;

struct CalendarDay {
    long year;
    int month; // 1 to 12
    int day;   // 1 to 31
};

constexpr long floor_divide(long dividend, long divisor)
{
    return dividend / divisor - (dividend % divisor < 0 ? 1 : 0);
}

constexpr bool is_leap_year(long year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr int days_in_month(long year, int month)
{
    constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap_year(year) ? 29 : lengths[month - 1];
}

constexpr int days_in_year(long year)
{
    return is_leap_year(year) ? 366 : 365;
}

// Days from 1970-01-01 to 1 January of a year.
constexpr long first_day_of_year(long year)
{
    constexpr long days_before_1970 = 719162; // from 1 January of the year 1
    const long before = year - 1;
    return 365 * before + floor_divide(before, 4) - floor_divide(before, 100) + floor_divide(before, 400) -
           days_before_1970;
}

constexpr long day_number(long year, int month, int day)
{
    constexpr int days_before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const int leap_day = month > 2 && is_leap_year(year) ? 1 : 0;
    return first_day_of_year(year) + days_before[month - 1] + leap_day + day - 1;
}

constexpr CalendarDay calendar_day(long number)
{
    constexpr long days_in_400_years = 146097;
    // Too early by a year at most: no year is longer than the mean one by more than a day.
    long year = 1970 + floor_divide(number * 400, days_in_400_years) - 1;
    while (first_day_of_year(year + 1) <= number)
        ++year;
    int left = static_cast<int>(number - first_day_of_year(year));
    int month = 1;
    while (left >= days_in_month(year, month))
        left -= days_in_month(year, month++);
    return {year, month, left + 1};
}

// 1 Monday to 7 Sunday.
constexpr int weekday(long number)
{
    return static_cast<int>(number + 3 - floor_divide(number + 3, 7) * 7) + 1;
}

constexpr long monday_of(long number)
{
    return number - weekday(number) + 1;
}

constexpr long first_monday_of_weeks(long year)
{
    return monday_of(day_number(year, 1, 4));
}

constexpr int weeks_in_year(long year)
{
    return static_cast<int>((first_monday_of_weeks(year + 1) - first_monday_of_weeks(year)) / 7);
}

// The year that the week of a day belongs to: that of its Thursday.
constexpr long year_of_week(long number)
{
    return calendar_day(monday_of(number) + 3).year;
}

} // namespace ks::date
