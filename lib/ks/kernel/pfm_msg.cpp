// Message table of the fault manager.
#include "kernel/pfm_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {0, 1, "***ABORT***  '%s':%d\n"},
    {1, 2, "PFM_ASSERT:(%s) failed: '%s':%d\n"},
    {2, 3, "Notify send failed, error %d (%s)\n"},
    {3, 4, "Notify send failed, %d of %d bytes sent.\n"},
};
constexpr auto columns = ks::split_rows(rows);

} // namespace

extern "C" {

constinit const msg_table _pfm_ks_msg_table = ks::make_table("pfm", 3, columns);
}
