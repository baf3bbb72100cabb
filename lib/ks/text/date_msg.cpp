// Message table of the date module. Its texts are words that the tools read and write, so a translation
// changes the traditional grammar with them. A number whose text nothing settles is held by an empty text.
#include "text/date_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {0, 1, "TODAY"},
    {1, 2, "YESTERDAY"},
    {2, 3, "JANUARY"},
    {3, 4, "JAN"},
    {4, 5, "FEBRUARY"},
    {5, 6, "FEB"},
    {6, 7, "MARCH"},
    {7, 8, "MAR"},
    {8, 9, "APRIL"},
    {9, 10, "APR"},
    {10, 11, "MAY"},
    {11, 12, "MAY"},
    {12, 13, "JUNE"},
    {13, 14, "JUN"},
    {14, 15, "JULY"},
    {15, 16, "JUL"},
    {16, 17, "AUGUST"},
    {17, 18, "AUG"},
    {18, 19, "SEPTEMBER"},
    {19, 20, "SEP"},
    {20, 21, "OCTOBER"},
    {21, 22, "OCT"},
    {22, 23, "NOVEMBER"},
    {23, 24, "NOV"},
    {24, 25, "DECEMBER"},
    {25, 26, "DEC"},
    {26, 27, "MONDAY"},
    {27, 28, "MON"},
    {28, 29, "TUESDAY"},
    {29, 30, "TUE"},
    {30, 31, "WEDNESDAY"},
    {31, 32, "WED"},
    {32, 33, "THURSDAY"},
    {33, 34, "THU"},
    {34, 35, "FRIDAY"},
    {35, 36, "FRI"},
    {36, 37, "SATURDAY"},
    {37, 38, "SAT"},
    {38, 39, "SUNDAY"},
    {39, 40, "SUN"},
    {40, 41, "-"},
    {41, 42, ":"},
    {42, 43, "."},
    {43, 44, "NOW"},
    {44, 45,
     "<date-time> = <date>.<time> | <date> | <time> | \"now\" | \"none\"\n"
     "<date>      = d[d]-<month>[-[yy]yy] | <day-of-week> | \"today\" | \"yesterday\"\n"
     "<time>      = h[h]:m[m][:s[s]][UTC[+|-][h[h][:mm]]] (24-hour time)\n"},
    {45, 46, "NONE"},
    {46, 47, "UTC"},
    {47, 48, ""},
    {48, 49, ""},
};
constexpr auto columns = ks::split_rows(rows);

} // namespace

extern "C" {

constinit const msg_table _date_ks_msg_table = ks::make_table("ks/date", 12, columns);
}
