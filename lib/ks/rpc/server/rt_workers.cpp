// The number of the server's workers, for programs that run the event loop.
#include "base/ks_base.h"
#include "base/msg_port.h"

#include "events/rt_msg.h"

#include <korvaks/imsg.h>
#include <korvaks/rt.h>
#include <korvaks/svc.h>

#include <cstdint>

namespace {

constexpr ks::AssertPath here{"lib/ks/rt"};

int fail(uint32_t message)
{
    (void)imsg_print(ks::msg_error, &_rt_ks_msg_table, message); // the result says it too
    return 1;
}

} // namespace

extern "C" {

int rt_set_worker_threads(int count)
{
    if (count < 0)
        return 1;
    int mode = count != 0 ? 1 : 0;
    if (ks_rpc_control(KS_SVC_SET_MT_MODE, &mode) == FALSE)
        return fail(rt_msg_mode_not_set);
    if (mode == 1 && ks_rpc_control(KS_SVC_SET_THREADS, &count) == FALSE)
        return fail(rt_msg_workers_not_set);
    here.require(ks_svc_setup_threads() != FALSE, "ks_svc_setup_threads()");
    return 0;
}

int rt_get_worker_threads(int *out_count)
{
    int mode = 0;
    if (ks_rpc_control(KS_SVC_GET_MT_MODE, &mode) == FALSE)
        return fail(rt_msg_mode_not_read);
    if (mode == 0)
        *out_count = 0;
    if (mode == 1 && ks_rpc_control(KS_SVC_GET_THREADS, out_count) == FALSE)
        return fail(rt_msg_workers_not_read);
    return 0;
}
}
