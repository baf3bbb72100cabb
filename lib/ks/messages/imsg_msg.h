// Messages of the message module, by event.
#pragma once

#include <korvaks/imsg.h>

enum ImsgMsg : unsigned {
    imsg_msg_unknown_kind = 0,      // kind, file, line
    imsg_msg_daemon_log_failed = 2, // path
    imsg_msg_unable_to_open = 3,    // path, error text
    imsg_msg_default_follows = 4,
    imsg_msg_dot_accepts_default = 5,
    imsg_msg_input_failed = 6, // error text
    imsg_msg_input_overflow = 7,
    imsg_msg_ambiguous = 8,
    imsg_msg_answer_one_of = 9,
    imsg_msg_yes = 10,
    imsg_msg_no = 11,
    imsg_msg_abort = 12,
    imsg_msg_proceed = 13,
    imsg_msg_head_ok = 14,
    imsg_msg_head_warning = 15,
    imsg_msg_head_error = 16,
    imsg_msg_head_system = 17,
    imsg_msg_null_message = 18, // where
    imsg_msg_bad_number = 19,   // where, table address (long), number
    imsg_msg_log_header = 71,   // date, host, pid, user
    imsg_msg_not_daemon_drain = 99,
    imsg_msg_not_daemon_blocking = 100,
    imsg_msg_not_daemon_fd = 101,
    imsg_msg_log_not_open = 102,
    imsg_msg_buffer_too_small = 103,
};
