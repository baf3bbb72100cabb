// Texts of the date module: the words of the traditional grammar and its description.
#pragma once

#include <korvaks/date.h>

enum DateMsg : unsigned {
    date_msg_today = 0,
    date_msg_yesterday = 1,
    date_msg_january = 2, // then "JAN", "FEBRUARY", "FEB" and so on, in pairs
    date_msg_monday = 26, // then "MON", "TUESDAY", "TUE" and so on, in pairs
    date_msg_field_separator = 40,
    date_msg_time_separator = 41,
    date_msg_date_time_separator = 42,
    date_msg_now = 43,
    date_msg_usage = 44,
    date_msg_none = 45,
    date_msg_utc = 46,
};
