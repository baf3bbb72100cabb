// ISO 8601 texts. docs/dates.md shows the same table of forms with what each one means.
#include "text/date_impl.h"

#include <algorithm>

namespace ks::date {

namespace {

// All forms of a date, the usual ones first. Which part is implied follows from the leading parts that a
// form does not have; missing trailing parts are the first of their kind.
constexpr std::array<Pattern, 34> date_forms{
    "YYYY-MM-DD", "YYYYMMDD", "YYYY-MM",  "YYYY",            // calendar dates
    "--MM-DD",    "--MMDD",   "--MM",     "---DD",           // of the current year, month
    "YY-MM-DD",   "YYMMDD",   "-YY-MM",   "-YYMM",   "-YY",  // of the current century
    "YYYY-OOO",   "YYYYOOO",  "YY-OOO",   "YYOOO",   "-OOO", // ordinal dates
    "YYYY-Www-d", "YYYYWwwd", "YYYY-Www", "YYYYWww",         // week dates
    "YY-Www-d",   "YYWwwd",   "YY-Www",   "YYWww",           // of the current century
    "-Y-Www-d",   "-YWwwd",   "-Y-Www",   "-YWww",           // of the current decade
    "-Www-d",     "-Wwwd",    "-Www",     "-W-d",            // of the current year, week
};

struct TimeForm {
    Pattern pattern;
    long last_unit; // seconds of the unit that a fraction divides
};
constexpr TimeForm time_forms[] = {
    {"hh:mm:ss", 1},          {"hhmmss", 1}, {"hh:mm", seconds_per_minute}, {"hhmm", seconds_per_minute},
    {"hh", seconds_per_hour},
};
constexpr std::size_t fraction_digits_max = 6;

consteval bool can_both_match(const Pattern &a, const Pattern &b)
{
    for (std::size_t i = 0; i < a.text.size() && i < b.text.size(); ++i) {
        const bool both_digits = a.fields[i] != field_none && b.fields[i] != field_none;
        if (!both_digits && a.text[i] != b.text[i])
            return false;
    }
    return a.text.size() == b.text.size();
}

// No text has two of the forms, so that their order means nothing but speed.
consteval bool are_distinct()
{
    for (std::size_t i = 0; i < date_forms.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (can_both_match(date_forms[i], date_forms[j]))
                return false;
        }
    }
    return true;
}
static_assert(are_distinct());

// A letter in either case.
bool is_letter(char c, char capital)
{
    return c == capital || c == capital - 'A' + 'a';
}

template <typename Predicate> std::size_t find_if(std::string_view text, Predicate is_wanted)
{
    const auto *at = std::find_if(text.begin(), text.end(), is_wanted);
    return at == text.end() ? std::string_view::npos : static_cast<std::size_t>(at - text.begin());
}

// --- Times ---

// What of a unit the digits behind the point stand for, in whole seconds.
bool read_fraction(std::string_view digits, long unit, long &out_seconds)
{
    if (digits.empty() || digits.size() > fraction_digits_max)
        return false;
    long value = 0;
    long scale = 1;
    for (const char c : digits) {
        if (!is_digit(c))
            return false;
        value = value * 10 + (c - '0');
        scale *= 10;
    }
    out_seconds = value * unit / scale;
    return true;
}

bool read_time_of_day(std::string_view whole, std::string_view fraction, TimeOfDay &out)
{
    for (const TimeForm &form : time_forms) {
        Fields fields;
        if (!match(form.pattern, whole, fields))
            continue;
        long seconds = 0;
        if (!time_of(fields, out) ||
            (!fraction.empty() && !read_fraction(part_of(fraction, 1), form.last_unit, seconds)))
            return false;
        out.minute += static_cast<int>(seconds / seconds_per_minute);
        out.second += static_cast<int>(seconds % seconds_per_minute);
        return true;
    }
    return false;
}

// "Z", or hh[:mm] behind a sign.
bool read_zone(std::string_view text, Zone &out)
{
    if (is_letter(text.front(), 'Z') && text.size() == 1) {
        out = {false, 0};
        return true;
    }
    if (text.front() != '+' && text.front() != '-')
        return false;
    Fields fields;
    TimeOfDay time;
    const std::string_view digits = part_of(text, 1);
    if ((!match("hh", digits, fields) && !match("hh:mm", digits, fields)) || !time_of(fields, time))
        return false;
    const long offset = time.hour * seconds_per_hour + time.minute * seconds_per_minute;
    out = {false, text.front() == '-' ? -offset : offset};
    return true;
}

// A time of day and the clock that shows it.
struct Moment {
    TimeOfDay time;
    Zone zone;
};

bool read_time(std::string_view text, Moment &out)
{
    const std::string_view whole = text.substr(0, find_if(text, [](char c) { return !is_digit(c) && c != ':'; }));
    std::string_view rest = part_of(text, whole.size());
    std::string_view fraction; // with its point
    if (!rest.empty() && rest.front() == '.') {
        fraction = rest.substr(0, find_if(rest, [](char c) { return !is_digit(c) && c != '.'; }));
        rest.remove_prefix(fraction.size());
    }
    return read_time_of_day(whole, fraction, out.time) && (rest.empty() || read_zone(rest, out.zone));
}

// --- Dates ---

// The part of a date that is the current one's.
enum class Implied { nothing, century, decade, year, month, week };

Implied implied_part(const Fields &fields)
{
    switch (fields.digits[field_year]) {
    case 4:
        return Implied::nothing;
    case 2:
        return Implied::century;
    case 1:
        return Implied::decade;
    default:
        break;
    }
    if (fields.has(field_month) || fields.has(field_ordinal) || fields.has(field_week))
        return Implied::year;
    return fields.has(field_day) ? Implied::month : Implied::week;
}

bool names_a_day(const Fields &fields)
{
    return fields.has(field_day) || fields.has(field_ordinal) || fields.has(field_weekday);
}

// The year, where the implied part is `step` such parts away from the current one.
long year_of(const Fields &fields, Implied implied, long current, long step)
{
    const int digits = fields.get(field_year, 0);
    switch (implied) {
    case Implied::century:
        return (floor_divide(current, 100) + step) * 100 + digits;
    case Implied::decade:
        return (floor_divide(current, 10) + step) * 10 + digits;
    case Implied::year:
        return current + step;
    default:
        return digits;
    }
}

bool week_day(const Fields &fields, Implied implied, long today, long step, long &out_day)
{
    const int day_of_week = fields.get(field_weekday, 1);
    if (day_of_week < 1 || day_of_week > 7)
        return false;
    if (implied == Implied::week) {
        out_day = monday_of(today) + 7 * step + day_of_week - 1;
        return true;
    }
    const long year = year_of(fields, implied, year_of_week(today), step);
    const int week = fields.values[field_week];
    if (week < 1 || week > weeks_in_year(year))
        return false;
    out_day = first_monday_of_weeks(year) + 7 * (week - 1) + day_of_week - 1;
    return true;
}

// The day that a form gives, or false where that year or month has no such day.
bool candidate(const Fields &fields, Implied implied, long today, long step, long &out_day)
{
    if (fields.has(field_week) || fields.has(field_weekday))
        return week_day(fields, implied, today, step, out_day);
    const long current_year = implied == Implied::nothing ? 0 : calendar_day(today).year;
    if (implied == Implied::month) {
        const long month = current_year * 12 + calendar_day(today).month - 1 + step;
        return day_of(floor_divide(month, 12), static_cast<int>(month - floor_divide(month, 12) * 12) + 1,
                      fields.values[field_day], out_day);
    }
    const long year = year_of(fields, implied, current_year, step);
    if (!fields.has(field_ordinal))
        return day_of(year, fields.get(field_month, 1), fields.get(field_day, 1), out_day);
    const int ordinal = fields.values[field_ordinal];
    out_day = first_day_of_year(year) + ordinal - 1;
    return ordinal >= 1 && ordinal <= days_in_year(year);
}

// Steps through the implied part until there is such a day on the right side of now: from the one behind the current
// one, because the zone of the text may be there already. The calendar repeats after 400 years: what forty decades do
// not have, none has.
bool complete(const Fields &fields, const Moment &moment, int flags, time_t &out)
{
    constexpr long steps_max = 40;
    const Implied implied = implied_part(fields);
    const bool is_searched = implied != Implied::nothing && (flags == 0 || flags == 1);
    const long direction = flags == 0 ? -1 : 1;
    const time_t now = implied == Implied::nothing ? 0 : time(nullptr);
    long today = 0;
    if (implied != Implied::nothing && !local_day(now, today))
        return false;
    for (long step = is_searched ? -1 : 0; step <= (is_searched ? steps_max : 0); ++step) {
        long day = 0;
        if (!candidate(fields, implied, today, step * direction, day))
            continue;
        if (!moment_at(day, moment.time, moment.zone, out))
            return false;
        if (!is_searched || (flags == 0 ? out <= now : out >= now))
            return true;
    }
    return false;
}

bool find_form(std::string_view text, Fields &out)
{
    for (const Pattern &form : date_forms) {
        if (match(form, text, out))
            return true;
    }
    return false;
}

bool read_time_alone(std::string_view text, time_t &out)
{
    Moment moment;
    long today = 0;
    return read_time(text, moment) && local_day(time(nullptr), today) &&
           moment_at(today, moment.time, moment.zone, out);
}

} // namespace

bool read_iso(std::string_view text, int flags, time_t &out)
{
    if (text.size() > 2 && text[2] == ':')
        return read_time_alone(text, out);
    const std::size_t mark = find_if(text, [](char c) { return is_letter(c, 'T'); });
    if (mark == 0)
        return read_time_alone(part_of(text, 1), out);
    Fields fields;
    Moment moment;
    if (!find_form(text.substr(0, mark), fields))
        return false;
    if (mark != std::string_view::npos && (!names_a_day(fields) || !read_time(part_of(text, mark + 1), moment)))
        return false;
    return complete(fields, moment, flags, out);
}

} // namespace ks::date
