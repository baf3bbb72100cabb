// Message numbers of the subsystem "ks/clp".
#pragma once

#include <korvaks/clp.h>

enum clp_msg : unsigned {
    clp_msg_nested_groups = 0,
    clp_msg_end_without_start = 1,
    clp_msg_same_value = 2,
    clp_msg_alias_of_nothing = 3,
    clp_msg_unterminated_quote = 4,
    clp_msg_duplicate_flag = 5,
    clp_msg_exclusive_flags = 6,
    clp_msg_bad_magic = 7,
    clp_msg_null_handle = 8,
    clp_msg_null_flags = 9,
    clp_msg_null_constraints = 10,
    clp_msg_null_argv = 11,
    clp_msg_null_word = 12,
    clp_msg_no_area_for_switch = 13,
    clp_msg_unrecognized_option = 14,
    clp_msg_obsolete_name = 15,
    clp_msg_obsolete_syntax = 16,
    clp_msg_token_too_long = 17,
};
