// Message numbers of the subsystem "ks/strutl".
#pragma once

#include <korvaks/strutl.h>

enum strutl_msg : unsigned {
    strutl_msg_bad_format = 0,
    strutl_msg_buffer_too_small = 1,
    strutl_msg_no_memory = 2,
    strutl_msg_null_string = 3,
    strutl_msg_invalid_character = 4,
    strutl_msg_to_wide_failed = 5,
    strutl_msg_to_narrow_failed = 6,
};
