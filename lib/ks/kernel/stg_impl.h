// Private to the storage module: records of areas and chunks, and how it reports.
#pragma once

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "kernel/kernel.h"
#include "kernel/stg_msg.h"
#include "kernel/vlthread_gate.h"

#include <korvaks/llist.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

namespace ks {

inline constexpr const char *stg_subsystem = "ks/stg";

// Outside of the area that the caller may be inside of, for as long as it asks or tells the message
// modules something: they take locks and may wait for a reader of what they print. Areas are whole
// wherever they do that.
class AreaPause {
  public:
    AreaPause() : block_(fault_block_of_caller()), was_inside_(block_->inside_area != 0)
    {
        if (was_inside_)
            leave_area(block_);
    }
    ~AreaPause()
    {
        if (was_inside_)
            enter_area(block_);
    }
    AreaPause(const AreaPause &) = delete;
    AreaPause &operator=(const AreaPause &) = delete;

  private:
    pfm_fault_block *block_;
    bool was_inside_;
};

inline bool stg_is_traced(long level)
{
    if (!may_be_traced(level)) [[likely]]
        return false;
    const AreaPause pause;
    return imsg_should_trace(stg_subsystem, level) != 0;
}

// Whether heap and areas check what they hold.
inline bool stg_is_checking()
{
    return stg_is_traced(1);
}

inline unsigned long address_number(const void *address)
{
    return reinterpret_cast<unsigned long>(address);
}

// Prints a message of the module with raises held off: an allocation must not be lost to a jump
// between its making and its return.
template <typename... Args> void stg_print(MsgKind kind, StgMsg message, Args... args)
{
    const RaiseHold hold;
    const AreaPause pause;
    (void)imsg_print(kind, &_stg_ks_msg_table, message, args...); // there is no other way to report
}

// One piece of memory that an area hands out from the front.
struct StgChunk {
    uint64_t used;  // bytes already handed out
    StgChunk *next; // the next older chunk
    uint64_t size;  // bytes of data
    char *data;
    uint64_t filled; // bytes from the front that were filled; the rest waits until it is needed
    int fill;        // with what
};

} // namespace ks

struct stg_area {
    ks::StgChunk *chunks; // newest first
    uint64_t first_size;  // bytes wanted for the first chunk
    uint64_t incr;        // bytes wanted for a later one when growth is off
    uint64_t obtained;    // sizes of the chunks since the area was last cleared
    uint64_t desired;     // wanted (capped) sizes of the same
    float growth;         // 0: no growth
    uint32_t zero;        // fresh chunks hold 0 instead of 0xFF
    uint32_t incr_set;    // stg_set_incr() was called
    uint32_t busy;        // 1: some thread is changing the area
    vlthread_mutex_t lock;
};
