// Settings and counters of the server.
#include "rpc/server/svc_impl.h"

namespace ks::svc {

constinit Counters counters{};

} // namespace ks::svc

extern "C" {

bool_t ks_rpc_control(int request, void *value)
{
    using namespace ks::svc;
    if (value == nullptr)
        return FALSE;
    int &number = *static_cast<int *>(value);
    switch (request) {
    case KS_SVC_SET_RECORD_LIMIT:
        if (number < 1)
            return FALSE;
        __ks_svc_maxrec = number;
        return TRUE;
    case KS_SVC_GET_RECORD_LIMIT:
        number = __ks_svc_maxrec.load();
        return TRUE;
    case KS_SVC_SET_MT_MODE:
        return set_mt_mode(number) ? TRUE : FALSE;
    case KS_SVC_GET_MT_MODE:
        number = mt_mode();
        return TRUE;
    case KS_SVC_SET_THREADS:
        return set_threads(number) ? TRUE : FALSE;
    case KS_SVC_GET_THREADS:
        number = max_threads();
        return TRUE;
    default:
        return FALSE;
    }
}

void ks_svc_get_counters(ks_svc_counters *out_counters)
{
    const ks::svc::Counters &own = ks::svc::counters;
    const ks::svc::PoolState pool = ks::svc::pool_state();
    *out_counters = {own.connections_accepted.load(),
                     own.connections_refused.load(),
                     own.connections_idled.load(),
                     own.connections_open.load(),
                     own.accept_pauses.load(),
                     own.dead_peers.load(),
                     own.bad_records.load(),
                     own.calls.load(),
                     own.succeeded.load(),
                     own.no_program.load(),
                     own.bad_version.load(),
                     own.no_procedure.load(),
                     own.bad_arguments.load(),
                     own.failed.load(),
                     own.denied.load(),
                     own.calls_abandoned.load(),
                     pool.queued,
                     pool.workers,
                     pool.busy};
}
}
