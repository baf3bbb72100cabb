#include "daemon/serve.h"

#include "daemon/daemon_msg.h"
#include "daemon/procedures.h"
#include "daemon/puts.h"
#include "depot_program.h"

#include <korvaks/credutl.h>
#include <korvaks/korvaks.hpp>
#include <korvaks/rt.h>

namespace depot {

namespace {

// With a limit no connection is waited for: whoever sends half a call, or is silent, holds no thread.
constexpr int record_bytes_max = 1 << 20;

constexpr int end_patience_ms = 5000;
constexpr long put_check_s = 60;
constexpr std::int64_t put_silent_ms_max = 600000;

constinit rt_event *put_timer = nullptr;

extern "C" void serve_ready(ks_fd_set *ready, void *)
{
    ks_svc_getreqset(ready);
}

extern "C" void end_silent_puts(void *)
{
    end_puts(put_silent_ms_max);
    put_timer = rt_sched(end_silent_puts, nullptr, put_check_s);
}

bool listen(Serving &serving)
{
    bool is_done = true;
    const auto listen_everywhere = [&](stg_area *area) {
        for (unsigned i = 0; is_done && i < serving.place_count; ++i)
            is_done = listen_at(area, serving.places[i], serving.listeners) == Search::found;
    };
    return korvaks::with_area(8192, listen_everywhere) && is_done;
}

} // namespace

bool start_serving(Serving &serving, const char *depot_path)
{
    if (serving.place_count == 0)
        return true;
    int limit = record_bytes_max;
    set_served_depot(depot_path, serving.threads);
    if (credutl_svc_auth_register() >= 0 && ks_rpc_control(KS_SVC_SET_RECORD_LIMIT, &limit) && listen(serving) &&
        ks_svc_register(nullptr, program_number, program_version, serve_call, 0) &&
        rt_set_worker_threads(static_cast<int>(serving.threads)) == 0 &&
        rt_handle_fd_set(RT_FD_READ, serve_ready, &ks_svc_fdset, nullptr) != 0) {
        put_timer = rt_sched(end_silent_puts, nullptr, put_check_s);
        return true;
    }
    say(IMSG_ERROR, msg_daemon_no_server);
    return false;
}

void stop_serving(Serving &serving)
{
    if (serving.place_count == 0)
        return;
    (void)rt_unhandle_fd_set(RT_FD_READ, &ks_svc_fdset);
    close_listeners(serving.listeners);
    if (const int running = ks_svc_end_threads(end_patience_ms); running > 0)
        say(IMSG_ERROR, msg_daemon_cut_off, running);
    if (put_timer != nullptr)
        (void)rt_unsched(put_timer);
    put_timer = nullptr;
    end_puts(0);
}

void report_calls(const Serving &serving)
{
    if (serving.place_count == 0)
        return;
    ks_svc_counters counters;
    ks_svc_get_counters(&counters);
    say(IMSG_OK, msg_daemon_calls, static_cast<unsigned long long>(counters.calls),
        static_cast<unsigned long long>(counters.calls_denied),
        static_cast<unsigned long long>(counters.connections_accepted));
}

} // namespace depot
