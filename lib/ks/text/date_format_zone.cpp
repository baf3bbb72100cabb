// Local time and back. The C library follows a change of TZ only in some of its calls, and reads TZ without
// regard to other threads; here every conversion follows the TZ of its moment, under the environment's lock.
//
// Times that are converted one after another mostly lie close together, so each thread keeps one
// block of a quarter of an hour in which local time runs straight on. TZ itself is compared every time.
#include "text/date_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/tls_impl.h>

#include <cstring>

#include <unistd.h>

namespace ks::date {

namespace {

constexpr time_t block_seconds = 900;

enum ZoneState : int { zone_unknown = 0, zone_unset, zone_set };
enum BlockState : int {
    block_none = 0,
    block_met, // one time of it was converted; the second one makes it worth its two conversions
    block_straight,
    block_uneven, // a change of offset, a leap second or midnight lies in it
};

long second_of_day(const tm &fields)
{
    return fields.tm_hour * seconds_per_hour + fields.tm_min * seconds_per_minute + fields.tm_sec;
}

bool is_zone_entry(const char *entry)
{
    return entry[0] == 'T' && entry[1] == 'Z' && entry[2] == '=';
}

// getenv("TZ"), for every token that is made. Setting a variable replaces its first entry, so that the one which
// was found last time is still the first as long as it is there, and addresses are faster to compare than names.
const char *zone_variable(date_zone_cache &cache)
{
    if (environ == nullptr)
        return nullptr;
    char **entry = environ;
    if (cache.entry != nullptr) {
        while (*entry != nullptr && *entry != cache.entry)
            ++entry;
        if (*entry != nullptr && is_zone_entry(*entry))
            return *entry + 3;
        entry = environ;
    }
    while (*entry != nullptr && !is_zone_entry(*entry))
        ++entry;
    cache.entry = *entry;
    return *entry == nullptr ? nullptr : *entry + 3;
}

bool is_noted(const date_zone_cache &cache, const char *zone)
{
    if (zone == nullptr)
        return cache.zone_state == zone_unset;
    return cache.zone_state == zone_set && std::strcmp(cache.zone, zone) == 0;
}

// Forgets the block of another zone. A name that is too long to keep is another one every time.
void note_zone(date_zone_cache &cache)
{
    const char *zone = zone_variable(cache);
    if (is_noted(cache, zone)) [[likely]]
        return;
    cache.block_state = block_none;
    cache.zone_state = zone == nullptr ? zone_unset : zone_unknown;
    if (zone != nullptr && std::strlen(zone) < sizeof cache.zone) {
        std::memcpy(cache.zone, zone, std::strlen(zone) + 1);
        cache.zone_state = zone_set;
    }
}

// Whether local time runs straight on through the block that begins at `start`; then `out` is its beginning.
bool is_straight(time_t start, tm &out)
{
    tm end{};
    time_t last = 0;
    if (__builtin_add_overflow(start, block_seconds - 1, &last) || localtime_r(&start, &out) == nullptr ||
        localtime_r(&last, &end) == nullptr)
        return false;
    return out.tm_year == end.tm_year && out.tm_yday == end.tm_yday && out.tm_isdst == end.tm_isdst &&
           out.tm_gmtoff == end.tm_gmtoff && second_of_day(end) - second_of_day(out) == block_seconds - 1;
}

void note_block(date_zone_cache &cache, time_t block)
{
    if (cache.block_state == block_none || cache.block != block) {
        cache.block = block;
        cache.block_state = block_met;
    } else if (cache.block_state == block_met) {
        time_t start = 0;
        const bool is_kept = !__builtin_mul_overflow(block, block_seconds, &start) && is_straight(start, cache.start);
        cache.block_state = is_kept ? block_straight : block_uneven;
    }
}

void advance(tm &fields, long seconds)
{
    const long second = second_of_day(fields) + seconds;
    fields.tm_hour = static_cast<int>(second / seconds_per_hour);
    fields.tm_min = static_cast<int>(second / seconds_per_minute % 60);
    fields.tm_sec = static_cast<int>(second % 60);
}

// Whether a clock shows this at `t`, in seconds since it showed 1970-01-01 00:00:00; `fields` is what it shows.
// Where leap seconds are counted, seconds do not agree.
template <typename Convert> bool shows(Convert convert_time, time_t t, long shown, tm &fields)
{
    return convert_time(&t, &fields) != nullptr && t + fields.tm_gmtoff == shown &&
           shown - floor_divide(shown, 60) * 60 == fields.tm_sec;
}

// mktime() or timegm(), told apart from the moment before 1970 by a field that they set.
template <typename Convert> bool convert(Convert convert_fields, long day, const TimeOfDay &time, time_t &out)
{
    const CalendarDay date = calendar_day(day);
    tm fields{};
    fields.tm_year = static_cast<int>(date.year - 1900); // of a text's four digits, or near a time's year
    fields.tm_mon = date.month - 1;
    fields.tm_mday = date.day;
    fields.tm_hour = time.hour;
    fields.tm_min = time.minute;
    fields.tm_sec = time.second;
    fields.tm_isdst = -1;
    fields.tm_wday = -1;
    const time_t t = convert_fields(&fields);
    if (t == -1 && fields.tm_wday == -1)
        return false;
    out = t;
    return true;
}

// Days of the same part of a year mostly have the same offset from UTC.
std::size_t season_of(long day)
{
    constexpr long days_in_4_years = 1461;
    const long quarter_days = day * 4 - floor_divide(day * 4, days_in_4_years) * days_in_4_years;
    return static_cast<std::size_t>(quarter_days * date_seasons / days_in_4_years);
}

} // namespace

bool local_fields(time_t t, tm &out)
{
    return local_fields(t, ks_tls_get()->date, out);
}

bool local_fields(time_t t, date_tls &section, tm &out)
{
    date_zone_cache &cache = section.zone;
    const time_t block = floor_divide(t, block_seconds);
    const LockGuard lock(evutl_environ_crit);
    note_zone(cache);
    if (cache.block_state == block_straight && cache.block == block) {
        out = cache.start;
        advance(out, t - block * block_seconds);
        return true;
    }
    tzset(); // localtime_r() need not
    if (localtime_r(&t, &out) == nullptr)
        return false;
    note_block(cache, block);
    return true;
}

bool local_day(time_t now, long &out_day)
{
    tm fields{};
    if (!local_fields(now, fields))
        return false;
    out_day = day_number(fields.tm_year + 1900L, fields.tm_mon + 1, fields.tm_mday);
    return true;
}

bool moment_at(long day, const TimeOfDay &time, const Zone &zone, time_t &out)
{
    const long shown =
        day * seconds_per_day + time.hour * seconds_per_hour + time.minute * seconds_per_minute + time.second;
    tm fields{};
    if (!zone.is_local) {
        time_t as_utc = shown;
        return (shows(gmtime_r, as_utc, shown, fields) || convert(timegm, day, time, as_utc)) &&
               !__builtin_sub_overflow(as_utc, zone.offset, &out);
    }
    date_zone_cache &cache = ks_tls_get()->date.zone;
    int &offset = cache.offsets[season_of(day)];
    const LockGuard lock(evutl_environ_crit); // which these two and mktime() read
    tzset();
    out = shown - offset;
    if (shows(localtime_r, out, shown, fields))
        return true;
    offset = static_cast<int>(fields.tm_gmtoff);
    out = shown - offset;
    return shows(localtime_r, out, shown, fields) || convert(mktime, day, time, out);
}

} // namespace ks::date

extern "C" {

struct tm *date_get_localtime(time_t t, struct tm *out)
{
    return ks::date::local_fields(t, *out) ? out : nullptr;
}

struct tm *date_get_gmtime(time_t t, struct tm *out)
{
    return gmtime_r(&t, out);
}
}
