// Beginning and end of residences.
#include "kernel/stg_resident.h"

#include <atomic>

#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

constinit std::atomic<bool> can_fence{false};

long membarrier(int command)
{
    return syscall(SYS_membarrier, command, 0, 0);
}

// A process that has since given up the call (a sandbox) waits far longer than any store stays
// unseen.
void fence_all_threads()
{
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0)
        return;
    const timespec ten_ms = {0, 10'000'000};
    (void)nanosleep(&ten_ms, nullptr); // cut short by a signal, it is still long enough
}

} // namespace

namespace ks {

void stg_prepare_residence()
{
    const ErrnoSaver saver;
    can_fence.store(membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0, std::memory_order_relaxed);
}

void stg_settle(stg_area *area)
{
    if (area->had_resident || !can_fence.load(std::memory_order_relaxed))
        return;
    area->had_resident = true;
    __atomic_store_n(&area->resident, self(), __ATOMIC_RELAXED);
}

void stg_end_foreign_residence(stg_area *area)
{
    const vlthread_t resident = __atomic_load_n(&area->resident, __ATOMIC_RELAXED);
    if (resident == VLTHREAD_INVALID_TID || resident == self()) [[likely]]
        return;
    const ErrnoSaver saver;
    __atomic_store_n(&area->resident, VLTHREAD_INVALID_TID, __ATOMIC_RELAXED);
    fence_all_threads();
    while (__atomic_load_n(&area->resident_inside, __ATOMIC_ACQUIRE) != 0)
        (void)sched_yield();
}

} // namespace ks
