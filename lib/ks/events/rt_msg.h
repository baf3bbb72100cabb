// Numbers of the messages of the event runtime and its children. The numbers left out are reserved: nothing
// settles their texts.
#pragma once

enum RtMsg : unsigned {
    rt_msg_malloc_failed = 2, // source, line
    rt_msg_sigchld_conflict = 3,
    rt_msg_fd_too_large = 7, // descriptor
    rt_msg_select_limited = 8,
    rt_msg_mode_not_set = 9,
    rt_msg_workers_not_set = 10,
    rt_msg_mode_not_read = 11,
    rt_msg_workers_not_read = 12,

    rt_msg_count = 13,
};
