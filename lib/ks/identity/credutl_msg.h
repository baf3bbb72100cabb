// Message numbers of the subsystem "credutl".
#pragma once

#include <korvaks/credutl.h>

enum credutl_msg : unsigned {
    credutl_msg_setgroups_failed = 0,
    credutl_msg_setgid_failed = 1,
    credutl_msg_setuid_failed = 2,
    credutl_msg_getgroups_failed = 3,
    credutl_msg_ids = 4,
    credutl_msg_groups = 5,
    credutl_msg_group_id = 6,
    credutl_msg_machname_too_long = 7,
    credutl_msg_names = 8,
    credutl_msg_group_name = 9,
    credutl_msg_no_group_list = 10,
};
