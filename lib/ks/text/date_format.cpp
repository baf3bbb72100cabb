// The formats of the locale and the numeric tokens, each in the thread's own buffer; and what counts
// as a year ago.
#include "text/date_impl.h"

#include <korvaks/stg.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <cstdint>

namespace ks::date {

namespace {

constexpr time_t days_365 = 365 * seconds_per_day;
constexpr time_t days_366 = 366 * seconds_per_day;

time_t earlier(time_t t, time_t seconds)
{
    return __builtin_sub_overflow(t, seconds, &t) ? INT64_MIN : t;
}

char *thread_text(date_text which)
{
    ks_tls *tls = ks_tls_get();
    char *&text = tls->date.texts[which];
    if (text == nullptr)
        text = static_cast<char *>(stg_alloc_nr(tls->area, text_size));
    return text;
}

// strftime() of local time into the thread's text.
char *format_local(date_text which, const char *format, time_t t)
{
    tm fields{};
    if (!local_fields(t, fields))
        return nullptr;
    char *text = thread_text(which);
    if (text == nullptr)
        return nullptr;
    char whole[4 * text_size];
    const std::size_t length = strftime(whole, sizeof whole, format, &fields);
    whole[length] = '\0';                         // nothing fitted, or nothing is what the locale has for it
    (void)strutl_cpy_buf(text, whole, text_size); // a longer text is cut
    return text;
}

} // namespace

bool is_recent(time_t t)
{
    const time_t now = time(nullptr);
    if (t > now)
        return false;
    // Only the day between the two lengths of a year needs the calendar.
    return t > earlier(now, days_365) || (t > earlier(now, days_366) && t > date_one_year_ago(now));
}

} // namespace ks::date

extern "C" {

void date_get_timeval(struct timeval *out)
{
    *out = ks::wall_clock();
}

time_t date_one_year_ago(time_t t)
{
    tm fields{};
    if (!ks::date::local_fields(t, fields))
        return ks::date::earlier(t, ks::date::days_365);
    // Kept exactly: March counts with the months before the leap day, and every fourth year is a leap year. Listings
    // of all tools change from time to year on the same day.
    const long year = fields.tm_year + 1900L;
    const bool is_april_or_later = fields.tm_mon >= 3;
    const bool had_leap_day = is_april_or_later ? year % 4 == 0 : (year - 1) % 4 == 0;
    return ks::date::earlier(t, had_leap_day ? ks::date::days_366 : ks::date::days_365);
}

char *date_fmt_long_date_time(time_t t)
{
    return ks::date::format_local(date_text_long, "%c", t);
}

char *date_fmt_short_date_time(time_t t)
{
    return ks::date::format_local(date_text_short, "%x %X", t);
}

char *date_fmt_short_date(time_t t)
{
    return ks::date::format_local(date_text_short_date, "%x", t);
}

char *date_fmt_short_time(time_t t)
{
    return ks::date::format_local(date_text_short_time, "%H:%M:%S", t);
}

char *date_fmt_ls_date_time(time_t t)
{
    // Kept exactly: two blanks, so that the year ends in the column in which a time ends.
    return ks::date::format_local(date_text_ls, ks::date::is_recent(t) ? "%b %d %H:%M" : "%b %d  %Y", t);
}

char *date_fmt_token_numeric(int form, time_t t)
{
    static constexpr const char *formats[] = {
        "%y%m%d-%H%M%S", "%Y%m%d-%H%M%S", "%y%m%d-%H%M", "%Y%m%d-%H%M",  "%y%m%d",
        "%Y%m%d",        nullptr,         nullptr,       "%y%m%d-%H:%M",
    };
    ks::date::here.require(form >= 0 && form <= 8, "form >= 0 && form <= 8");
    if (formats[form] != nullptr)
        return ks::date::format_local(date_text_numeric, formats[form], t);
    char *text = ks::date::thread_text(date_text_numeric);
    if (text != nullptr)
        (void)strutl_snprintf(text, ks::date::text_size, form == 6 ? "%ld" : "%lx",
                              static_cast<long>(t)); // always fits
    return text;
}
}
