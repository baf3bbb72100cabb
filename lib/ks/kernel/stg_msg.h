// Messages of the storage module, by event.
#pragma once

#include <korvaks/stg.h>

namespace ks {

enum StgMsg : unsigned {
    stg_msg_area_corrupted = 0,
    stg_msg_no_memory = 1,
    stg_msg_guard_overwritten = 2,
    stg_msg_block_allocated = 3,
    stg_msg_block_freeing = 4,
    stg_msg_area_allocated = 5,
    stg_msg_chunk_created = 6,
    stg_msg_chunk_freeing = 7,
    stg_msg_area_clearing = 8,
    stg_msg_area_created = 9,
    stg_msg_area_deleting = 10,
    stg_msg_area_dump = 11,
    stg_msg_chunk_dump = 12,
    stg_msg_block_reallocated = 13,
};

} // namespace ks
