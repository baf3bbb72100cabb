// Message table of the date module. Its texts are words that the tools read and write, so a translation
// changes the traditional grammar with them.
#include "text/date_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {date_msg_today, 1, "TODAY"},
    {date_msg_yesterday, 2, "YESTERDAY"},
    {date_msg_january, 3, "JANUARY"},
    {date_msg_jan, 4, "JAN"},
    {date_msg_february, 5, "FEBRUARY"},
    {date_msg_feb, 6, "FEB"},
    {date_msg_march, 7, "MARCH"},
    {date_msg_mar, 8, "MAR"},
    {date_msg_april, 9, "APRIL"},
    {date_msg_apr, 10, "APR"},
    {date_msg_may, 11, "MAY"},
    {date_msg_may_short, 12, "MAY"},
    {date_msg_june, 13, "JUNE"},
    {date_msg_jun, 14, "JUN"},
    {date_msg_july, 15, "JULY"},
    {date_msg_jul, 16, "JUL"},
    {date_msg_august, 17, "AUGUST"},
    {date_msg_aug, 18, "AUG"},
    {date_msg_september, 19, "SEPTEMBER"},
    {date_msg_sep, 20, "SEP"},
    {date_msg_october, 21, "OCTOBER"},
    {date_msg_oct, 22, "OCT"},
    {date_msg_november, 23, "NOVEMBER"},
    {date_msg_nov, 24, "NOV"},
    {date_msg_december, 25, "DECEMBER"},
    {date_msg_dec, 26, "DEC"},
    {date_msg_monday, 27, "MONDAY"},
    {date_msg_mon, 28, "MON"},
    {date_msg_tuesday, 29, "TUESDAY"},
    {date_msg_tue, 30, "TUE"},
    {date_msg_wednesday, 31, "WEDNESDAY"},
    {date_msg_wed, 32, "WED"},
    {date_msg_thursday, 33, "THURSDAY"},
    {date_msg_thu, 34, "THU"},
    {date_msg_friday, 35, "FRIDAY"},
    {date_msg_fri, 36, "FRI"},
    {date_msg_saturday, 37, "SATURDAY"},
    {date_msg_sat, 38, "SAT"},
    {date_msg_sunday, 39, "SUNDAY"},
    {date_msg_sun, 40, "SUN"},
    {date_msg_field_separator, 41, "-"},
    {date_msg_time_separator, 42, ":"},
    {date_msg_date_time_separator, 43, "."},
    {date_msg_now, 44, "NOW"},
    {date_msg_usage, 45,
     "<date-time> = <date>.<time> | <date> | <time> | \"now\" | \"none\"\n"
     "<date>      = d[d]-<month>[-[yy]yy] | <day-of-week> | \"today\" | \"yesterday\"\n"
     "<time>      = h[h]:m[m][:s[s]][UTC[+|-][h[h][:mm]]] (24-hour time)\n"},
    {date_msg_none, 46, "NONE"},
    {date_msg_utc, 47, "UTC"},
    {date_msg_usage_iso, 48,
     "A <date-time> may be in ISO 8601, too: 2024-03-05, 2024-03-05T14:03:59+01:00, --03-05, T14:03, 2024-W10 ...\n"},
};
constexpr auto columns = ks::split_sparse_rows<date_msg_count>(rows);
constexpr std::uint16_t catalog_set = 12;

} // namespace

extern "C" constinit const msg_table _date_ks_msg_table = ks::make_table("ks/date", catalog_set, columns);
