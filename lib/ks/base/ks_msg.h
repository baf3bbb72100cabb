// Messages of the library at large, by event. The numbers left out are reserved: nothing settles their texts.
#pragma once

#include <korvaks/base.h>

extern "C" KS_API const msg_table _ks_ks_msg_table;

enum KsMsg : unsigned {
    ks_msg_operation = 2,      // operation, error text
    ks_msg_operation_on = 3,   // operation, object, error text
    ks_msg_unable_to_open = 4, // path, error text
    ks_msg_not_installed = 8,
    ks_msg_no_hostdata_dir = 9,    // directory
    ks_msg_bad_format_number = 13, // what was read
    ks_msg_no_storage = 15,
    ks_msg_cl_bad_option = 19,
    ks_msg_cl_conflicting_option = 20,
    ks_msg_cl_bad_argument = 21,
    ks_msg_cl_unknown_error = 22,
    ks_msg_out_of_memory = 23,
    ks_msg_hash_unexpected_error = 24,
    ks_msg_hash_copied_key_leak = 25,
    ks_msg_application_will_exit = 27,
    ks_msg_file_changed_size = 33, // path
    ks_msg_pipe_failed = 34,       // error text
    ks_msg_fork_failed = 36,       // error text

    ks_msg_count = 45,
};
