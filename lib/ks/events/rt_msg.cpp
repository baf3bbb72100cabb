// The messages of the event runtime and its children.
#include "events/rt_msg.h"

#include "base/msg_table.h"

#include <korvaks/rt.h>

namespace {

constexpr ks::MsgRow rows[] = {
    {rt_msg_malloc_failed, 3, "Malloc failed at \"%s\":%d\n"},
    {rt_msg_sigchld_conflict, 4, "rt_proc: child death signal handler conflict!\n"},
    {rt_msg_fd_too_large, 8, "File descriptor (%d) too large for rt\n"},
    {rt_msg_select_limited, 9, "File descriptors too large for select, limiting\n"},
    {rt_msg_mode_not_set, 10, "Unable to set multithread mode\n"},
    {rt_msg_workers_not_set, 11, "Unable to set worker threads number\n"},
    {rt_msg_mode_not_read, 12, "Unable to get current multithread mode\n"},
    {rt_msg_workers_not_read, 13, "Unable to get current worker threads number\n"},
};
constexpr auto columns = ks::split_sparse_rows<rt_msg_count>(rows);
constexpr std::uint16_t catalog_set = 13;

} // namespace

extern "C" constinit const msg_table _rt_ks_msg_table = ks::make_table("rt", catalog_set, columns);
