// Message table of the storage module.
#include "kernel/stg_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {ks::stg_msg_area_corrupted, 1, "Storage area 0x%08lX: corrupted at 0x%08lX.\n"},
    {ks::stg_msg_no_memory, 2, "No more memory available.\n"},
    {ks::stg_msg_guard_overwritten, 3, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n"},
    {ks::stg_msg_block_allocated, 4, "(stg) Heap block 0x%08lX: allocated (size %u).\n"},
    {ks::stg_msg_block_freeing, 5, "(stg) Heap block 0x%08lX: freeing block.\n"},
    {ks::stg_msg_area_allocated, 6, "(stg) Area 0x%08lX: allocated 0x%08lX (size %u).\n"},
    {ks::stg_msg_chunk_created, 7, "(stg) Area 0x%08lX: created chunk 0x%08lX (size %u).\n"},
    {ks::stg_msg_chunk_freeing, 8, "(stg) Area 0x%08lX: freeing chunk 0x%08lX.\n"},
    {ks::stg_msg_area_clearing, 9, "(stg) Area 0x%08lX: clearing area.\n"},
    {ks::stg_msg_area_created, 10, "(stg) Area 0x%08lX: created area.\n"},
    {ks::stg_msg_area_deleting, 11, "(stg) Area 0x%08lX: deleting area.\n"},
    {ks::stg_msg_area_dump, 12, "(stg) area 0x%08lX: allocd=%lu used=%lu #chks=%d 1st=%lu base=%lu des=%lu gf=%.2f\n"},
    {ks::stg_msg_chunk_dump, 13, "(stg)   chunk 0x%08lX: size=%lu avail=%lu data=0x%08lX prev=0x%08lX\n"},
    {ks::stg_msg_block_reallocated, 14, "(stg) Heap block 0x%08lX: reallocated as 0x%08lX: (size %u).\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 1;

} // namespace

extern "C" constinit const msg_table _stg_ks_msg_table = ks::make_table("ks/stg", catalog_set, columns);
