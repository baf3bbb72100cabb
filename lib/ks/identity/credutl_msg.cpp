// The texts of the subsystem "credutl".
#include "identity/credutl_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {credutl_msg_setgroups_failed, 1, "setgroups failed: %s\n"},
    {credutl_msg_setgid_failed, 2, "setgid %d failed: %s\n"},
    {credutl_msg_setuid_failed, 3, "setuid %d failed: %s\n"},
    {credutl_msg_getgroups_failed, 4, "getgroups failed: %s\n"},
    {credutl_msg_ids, 5, "UID: %d GID: %d "},
    {credutl_msg_groups, 6, "Groups: "},
    {credutl_msg_group_id, 7, "%d "},
    {credutl_msg_machname_too_long, 8,
     "Combined domain name \"%s\" and host name \"%s\" exceed %d bytes.  Using bogus string \"%s\".\n"},
    {credutl_msg_names, 9, "UID: %s GID: %s "},
    {credutl_msg_group_name, 10, "%s "},
    {credutl_msg_no_group_list, 11, "No group list for uid %ld, using gid=NOBODY and empty group list\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 14;

} // namespace

extern "C" constinit const msg_table _credutl_ks_msg_table = ks::make_table("credutl", catalog_set, columns);
