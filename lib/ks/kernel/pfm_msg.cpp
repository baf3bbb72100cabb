// Message table of the fault manager.
#include "kernel/pfm_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {ks::pfm_msg_abort, 1, "***ABORT***  '%s':%d\n"},
    {ks::pfm_msg_assertion_failed, 2, "PFM_ASSERT:(%s) failed: '%s':%d\n"},
    {ks::pfm_msg_notify_failed, 3, "Notify send failed, error %d (%s)\n"},
    {ks::pfm_msg_notify_short, 4, "Notify send failed, %d of %d bytes sent.\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 3;

} // namespace

extern "C" constinit const msg_table _pfm_ks_msg_table = ks::make_table("pfm", catalog_set, columns);
