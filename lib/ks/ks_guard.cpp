// The one place in the library where a raise is caught.
#include "ks_guard.h"

namespace ks {

// Never inlined: the record must not share a frame with locals that the work changes.
__attribute__((noinline)) int32_t protect_call(void (*work)(void *argument), void *argument)
{
    pfm_cleanup_rec record{};
    record.status = sigsetjmp(record.jump, 1);
    const int32_t status = pfm_cleanup_start(&record, 0);
    if (status != 0)
        return status;
    work(argument);
    pfm_cleanup_rls(&record);
    return 0;
}

} // namespace ks
