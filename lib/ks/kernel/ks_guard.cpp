// The one place in the library where a raise is caught.
#include "kernel/ks_guard.h"

#include "kernel/kernel.h"

namespace ks {

namespace {

// Starts the record without delivering a raise, which would go to the enclosing record and pass by
// what the caller already owns.
void arm(pfm_cleanup_rec &record)
{
    const RaiseHold hold;
    (void)pfm_cleanup_start(&record, 0); // 0: this is the first pass
    --record.inh;                        // the hold ends before the work
}

} // namespace

// Never inlined: the record must not share a frame with locals that the work changes.
[[gnu::noinline]] int32_t protect_call(void (*work)(void *argument), void *argument)
{
    pfm_cleanup_rec record{};
    record.status = sigsetjmp(record.jump, 1);
    if (record.status != 0)
        return pfm_cleanup_start(&record, 0);
    arm(record);
    pfm_test_raise(nullptr); // a raise that was pending comes back here and goes out through the caller
    work(argument);
    pfm_cleanup_rls(&record);
    return 0;
}

} // namespace ks
