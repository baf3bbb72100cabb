// Message table of the storage module.
#include "kernel/stg_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {0, 1, "Storage area 0x%08lX: corrupted at 0x%08lX.\n"},
    {1, 2, "No more memory available.\n"},
    {2, 3, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n"},
    {3, 4, "(stg) Heap block 0x%08lX: allocated (size %u).\n"},
    {4, 5, "(stg) Heap block 0x%08lX: freeing block.\n"},
    {5, 6, "(stg) Area 0x%08lX: allocated 0x%08lX (size %u).\n"},
    {6, 7, "(stg) Area 0x%08lX: created chunk 0x%08lX (size %u).\n"},
    {7, 8, "(stg) Area 0x%08lX: freeing chunk 0x%08lX.\n"},
    {8, 9, "(stg) Area 0x%08lX: clearing area.\n"},
    {9, 10, "(stg) Area 0x%08lX: created area.\n"},
    {10, 11, "(stg) Area 0x%08lX: deleting area.\n"},
    {11, 12, "(stg) area 0x%08lX: allocd=%lu used=%lu #chks=%d 1st=%lu base=%lu des=%lu gf=%.2f\n"},
    {12, 13, "(stg)   chunk 0x%08lX: size=%lu avail=%lu data=0x%08lX prev=0x%08lX\n"},
    {13, 14, "(stg) Heap block 0x%08lX: reallocated as 0x%08lX: (size %u).\n"},
};
constexpr auto columns = ks::split_rows(rows);

} // namespace

extern "C" {

constinit const msg_table _stg_ks_msg_table = ks::make_table("ks/stg", 1, columns);
}
