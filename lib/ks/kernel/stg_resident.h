// The one thread that may allocate from an area without the area's mutex.
//
// Nearly every area is used by one thread, and a lock and its release would be most of the cost of
// an allocation. So the thread that makes the area's first chunk becomes its resident: it marks
// itself inside, looks whether it still is the resident, and moves the position, all without an
// atomic read-modify-write. Any other thread has the mutex before it touches the area; it ends the
// residence for good and waits until the resident is outside. From then on all take the mutex.
//
// The resident's mark and its look at the residence must not change places, which would need a
// fence in each allocation. Instead the thread that ends a residence has the kernel run a fence on
// every running thread of the process, once in the life of a shared area.
#pragma once

#include "kernel/stg_impl.h"

namespace ks {

// Prepares the process for residences; without it, or where the kernel refuses, there are none.
void stg_prepare_residence();

// Makes the caller the resident, if the area never had one. Under the area's mutex.
void stg_settle(stg_area *area);

// Ends the residence of another thread, if there is one. Under the area's mutex.
void stg_end_foreign_residence(stg_area *area);

// Whether the caller is the resident, and then it is inside until it leaves.
inline bool stg_enter_as_resident(stg_area *area)
{
    if (__atomic_load_n(&area->resident, __ATOMIC_RELAXED) != self())
        return false;
    __atomic_store_n(&area->resident_inside, 1, __ATOMIC_RELAXED);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (__atomic_load_n(&area->resident, __ATOMIC_RELAXED) == self()) [[likely]]
        return true;
    __atomic_store_n(&area->resident_inside, 0, __ATOMIC_RELEASE);
    return false;
}

inline void stg_leave_as_resident(stg_area *area)
{
    __atomic_store_n(&area->resident_inside, 0, __ATOMIC_RELEASE);
}

} // namespace ks
