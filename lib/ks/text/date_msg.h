// Texts of the date module: the words of the traditional grammar and its description. The numbers left out are
// reserved: nothing settles their texts.
#pragma once

#include <korvaks/date.h>

enum DateMsg : unsigned {
    date_msg_today = 0,
    date_msg_yesterday,
    // Months and days, each with its short form behind it.
    date_msg_january,
    date_msg_jan,
    date_msg_february,
    date_msg_feb,
    date_msg_march,
    date_msg_mar,
    date_msg_april,
    date_msg_apr,
    date_msg_may,
    date_msg_may_short,
    date_msg_june,
    date_msg_jun,
    date_msg_july,
    date_msg_jul,
    date_msg_august,
    date_msg_aug,
    date_msg_september,
    date_msg_sep,
    date_msg_october,
    date_msg_oct,
    date_msg_november,
    date_msg_nov,
    date_msg_december,
    date_msg_dec,
    date_msg_monday,
    date_msg_mon,
    date_msg_tuesday,
    date_msg_tue,
    date_msg_wednesday,
    date_msg_wed,
    date_msg_thursday,
    date_msg_thu,
    date_msg_friday,
    date_msg_fri,
    date_msg_saturday,
    date_msg_sat,
    date_msg_sunday,
    date_msg_sun,
    // Punctuation and the other words.
    date_msg_field_separator,
    date_msg_time_separator,
    date_msg_date_time_separator,
    date_msg_now,
    date_msg_usage,
    date_msg_none,
    date_msg_utc,

    date_msg_count = 49,
};
