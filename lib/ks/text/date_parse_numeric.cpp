// Numeric tokens read back.
#include "text/date_impl.h"

#include <korvaks/strutl.h>

namespace ks::date {

namespace {

// Kept exactly: the pivot is 70 here and 69 in the traditional grammar.
long year_of(const Fields &fields)
{
    const int year = fields.values[field_year];
    if (fields.digits[field_year] == 4)
        return year;
    return year + (year < 70 ? 2000 : 1900);
}

bool read_digits(const Pattern &pattern, const char *s, time_t &out)
{
    Fields fields;
    TimeOfDay time;
    long day = 0;
    return match(pattern, s, fields) && time_of(fields, time) &&
           day_of(year_of(fields), fields.values[field_month], fields.values[field_day], day) &&
           moment_at(day, time, {}, out);
}

bool read_decimal(const char *s, time_t &out)
{
    long seconds = 0;
    if (strutl_strtol(s, 10, &seconds) != 0)
        return false;
    out = seconds;
    return true;
}

bool read_hexadecimal(const char *s, time_t &out)
{
    unsigned long seconds = 0;
    if (strutl_strtoul(s, 16, &seconds) != 0)
        return false;
    out = static_cast<time_t>(seconds); // written as the same 64 bits
    return true;
}

} // namespace

} // namespace ks::date

extern "C" {

// Kept exactly: 1 is success.
int date_numeric_str_to_time(int form, const char *s, time_t *out)
{
    static constexpr ks::date::Pattern patterns[] = {
        "YYMMDD-hhmmss", "YYYYMMDD-hhmmss", "YYMMDD-hhmm", "YYYYMMDD-hhmm", "YYMMDD", "YYYYMMDD", "", "",
        "YYMMDD-hh:mm",
    };
    ks::date::here.require(form >= 0 && form <= 8, "form >= 0 && form <= 8");
    ks::date::here.require(out != nullptr, "out != NULL");
    if (s == nullptr)
        return 0;
    if (form == 6)
        return ks::date::read_decimal(s, *out) ? 1 : 0;
    if (form == 7)
        return ks::date::read_hexadecimal(s, *out) ? 1 : 0;
    return ks::date::read_digits(patterns[form], s, *out) ? 1 : 0;
}
}
