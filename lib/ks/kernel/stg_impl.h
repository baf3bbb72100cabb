// Private to the kernel: records of areas and chunks, and what a fork does with all areas.
#pragma once

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "kernel/stg_msg.h"
#include "kernel/kernel.h"

#include <korvaks/llist.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

namespace ks {

inline constexpr const char *stg_subsystem = "ks/stg";

// Whether heap and areas check what they hold.
inline bool stg_is_checking()
{
    return is_traced(stg_subsystem, 1);
}

inline unsigned long address_number(const void *address)
{
    return reinterpret_cast<unsigned long>(address);
}

// Prints a message of the module with raises held off: an allocation must not be lost to a jump
// between its making and its return.
template <typename... Args> void stg_print(MsgKind kind, StgMsg message, Args... args)
{
    RaiseHold hold;
    (void)imsg_print(kind, &_stg_ks_msg_table, message, args...); // there is no other way to report
}

// One piece of memory that an area hands out from the front. Record and data are heap blocks.
struct StgChunk {
    uint64_t used;  // bytes already handed out
    StgChunk *next; // the next older chunk
    uint64_t size;  // bytes of data
    char *data;
    uint64_t filled; // bytes from the front that were filled; the rest waits until it is needed
    int fill;        // with what
};

// Holds every area still across a fork. A caller that does not get them all at once gets none
// and tries again: an area's holder may be waiting for a lock the caller has.
[[nodiscard]] bool stg_try_hold_all_areas();
void stg_release_all_areas();
// In the child of a fork, whose areas are held: no other thread is inside any of them.
void stg_forget_foreign_residents();

// While the gate is closed, threads that hold no lock wait before they take an area, so that a
// fork gets all of them in bounded time. The closer also opens it, in parent and child.
void stg_close_fork_gate();
void stg_open_fork_gate();

} // namespace ks

struct stg_area {
    ks::StgChunk *chunks; // newest first
    uint64_t first_size;  // bytes wanted for the first chunk
    uint64_t incr;        // bytes wanted for a later one when growth is off
    uint64_t obtained;    // sizes of the chunks since the area was last cleared
    uint64_t desired;     // wanted (capped) sizes of the same
    float growth;         // 0: no growth
    uint32_t slot;        // index in the registry
    uint32_t zero;        // fresh chunks hold 0 instead of 0xFF
    uint32_t incr_set;    // stg_set_incr() was called
    vlthread_mutex_t lock;
    llist_link all_link;      // on the list of all areas; guarded by stg_area_crit
    bool had_resident;        // guarded by lock
    uint32_t resident_inside; // the resident is allocating; written by it alone
    vlthread_t resident;      // who may allocate without the lock (stg_resident.h), 0 for nobody
};
