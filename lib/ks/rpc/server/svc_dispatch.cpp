// How calls come in: transports that are ready, the calls on them, and the routines that serve those.
#include "rpc/server/svc_impl.h"

#include "kernel/ks_guard.h"

#include <bit>
#include <cstring>

namespace ks::svc {

constinit Transport *served_by_main_thread = nullptr;

namespace {

// A call as it is received, with room for all that it may hold.
struct Call {
    Call()
    {
        msg.rm_call.cb_cred.oa_base = credential;
        msg.rm_call.cb_verf.oa_base = verifier;
    }
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    rpc_msg msg{};
    char credential[KS_MAX_AUTH_BYTES];
    char verifier[KS_MAX_AUTH_BYTES];
};

void dispatch(Transport &transport, rpc_msg &msg)
{
    alignas(std::max_align_t) char credential[KS_SVC_CREDENTIAL_SIZE];
    svc_req request{};
    request.rq_clntcred = credential;
    count(counters.calls);
    (void)ks_svc_handle_message(handle_of(transport), &msg, &request); // whoever called was told
    if (transport.handle.reply_in_progress != 0)
        drop_reply_in_progress(transport);
}

// Whether the turn goes on. After each look, whether a call came of it or not, the transport is looked for by its
// number.
bool serve_one(Transport &transport, const Registration &registration)
{
    SVCXPRT *xprt = handle_of(transport);
    {
        Call call;
        if (transport.handle.ops->recv(xprt, &call.msg) != FALSE)
            dispatch(transport, call.msg);
    }
    if (!is_registered(registration))
        return false;
    const xprt_stat status = transport.handle.ops->stat(xprt);
    if (status == XPRT_DIED)
        end_served(transport);
    return status == XPRT_MOREREQS;
}

void serve_inline(Transport &transport, Transport *&current)
{
    if (!begin_service(transport)) { // by a routine that serves others meanwhile
        transport.is_passed_over = true;
        deselect(transport);
        return release(transport);
    }
    Transport *outer = std::exchange(current, &transport);
    bool is_kept = false;
    while (!is_kept && serve_turn(transport))
        is_kept = serve_later(transport);
    current = outer;
    end_service(transport);
    if (std::exchange(transport.is_passed_over, false))
        select_again(transport);
    if (!is_kept)
        release(transport);
}

// Serves one transport with raises held off. One that comes by a jump all the same costs the connection.
template <typename Work> void serve_alone(Transport &transport, Work work)
{
    hold(transport);
    const int32_t status = ks::protect([&] {
        const ks::RaiseHold raises;
        work();
    });
    if (status != 0)
        return pass_on(status, &transport);
    release(transport);
}

// Of the main thread, which may serve from within a routine that it serves.
template <typename Work> void serve_on_main_thread(Work work)
{
    Transport *outer = std::exchange(served_by_main_thread, nullptr);
    const int32_t status = ks::protect([&] {
        const ks::RaiseHold hold;
        begin_serving();
        work();
        end_serving();
        resume_when_due();
    });
    Transport *served = std::exchange(served_by_main_thread, outer);
    if (status != 0)
        pass_on(status, served);
}

// A loop may tell of a transport that was handed over already, when it goes by a set of some time ago.
void hand_over_itself(Transport &transport)
{
    if (!begin_service(transport))
        return release(transport);
    deselect(transport);
    hand_over(transport);
}

// A call of a datagram socket is read here, so that the socket goes on being selected on. Where every worker is busy,
// or memory is short, it stays unread, and a worker gets the transport itself.
void hand_over_datagram(Transport &transport)
{
    Transport *clone = has_idle_worker() ? make_clone(transport) : nullptr;
    if (clone == nullptr)
        return hand_over_itself(transport);
    hold(*clone);
    if (clone->handle.ops->recv(handle_of(*clone), held_call(*clone)) != FALSE)
        hand_over(*clone);
    else
        give_up(*clone);
    release(transport);
}

// Takes over the caller's hold.
void serve_ready(Transport &transport)
{
    if (is_ending.load(std::memory_order_acquire)) {
        deselect(transport);
        release(transport);
    } else if (transport.kind->serving == Serving::inline_by_main_thread) {
        (void)transport.handle.ops->recv(handle_of(transport), nullptr); // brings no call
        release(transport);
    } else if (!is_multi_threaded.load(std::memory_order_acquire)) {
        serve_inline(transport, served_by_main_thread);
    } else if (transport.kind->serving == Serving::as_clone) {
        hand_over_datagram(transport);
    } else {
        hand_over_itself(transport);
    }
}

void serve_words(const ks_fd_set &ready)
{
    for (std::size_t i = 0; i < set_words; ++i)
        for (uint64_t rest = ready.words[i]; rest != 0; rest &= rest - 1)
            if (Transport *transport = hold_transport(static_cast<int>(i * 64) + std::countr_zero(rest)))
                serve_ready(*transport);
}

} // namespace

void drop_reply_in_progress(Transport &transport)
{
    transport.handle.reply_in_progress = 0;
    transport.handle.pending_reply = nullptr;
    if (transport.kind->is_connection)
        drop_reply(transport);
}

bool serve_turn(Transport &transport)
{
    const Registration registration = registration_of(transport);
    const bool is_connection = transport.kind->is_connection;
    for (int calls = 1; serve_one(transport, registration) || (has_arrivals(transport) && is_registered(registration));
         ++calls)
        if (calls >= calls_per_turn && (!is_multi_threaded.load(std::memory_order_relaxed) || is_anybody_queued()))
            break;
    if (!is_connection || !is_registered(registration))
        return false;
    if (send_held_replies(transport))
        return has_input_in_memory(transport);
    end_served(transport);
    return false;
}

void serve_clone(Transport &clone)
{
    dispatch(clone, *held_call(clone));
    end_served(clone);
}

void give_up(Transport &transport)
{
    if (is_clone(transport))
        end_served(transport);
    end_service(transport);
    release(transport);
}

void abandon_call(Transport &transport)
{
    count(counters.calls_abandoned);
    if (transport.kind->is_connection || is_clone(transport)) {
        end_served(transport);
    } else {
        drop_arrivals(transport);
        end_service(transport);
        transport.handle.reply_in_progress = 0;
        transport.handle.pending_reply = nullptr;
        select_again(transport);
    }
    release(transport);
}

void serve_leftover(Transport &transport)
{
    serve_inline(transport, served_by_main_thread);
}

void pass_on(int32_t status, Transport *served)
{
    if (served != nullptr)
        abandon_call(*served);
    end_serving();
    pfm_raise(status);
}

void serve_set(const ks_fd_set &ready)
{
    begin_serving();
    serve_words(ready);
    end_serving();
    resume_when_due();
}

} // namespace ks::svc

extern "C" {

bool_t ks_svc_handle_message(SVCXPRT *xprt, rpc_msg *msg, svc_req *request)
{
    request->rq_prog = static_cast<uint32_t>(msg->rm_call.cb_prog);
    request->rq_vers = static_cast<uint32_t>(msg->rm_call.cb_vers);
    request->rq_proc = static_cast<uint32_t>(msg->rm_call.cb_proc);
    request->rq_cred = msg->rm_call.cb_cred;
    request->rq_xprt = xprt;
    xprt->xp_verf.oa_flavor = AUTH_NONE;
    xprt->xp_verf.oa_length = 0;
    const auth_stat why = _ks_authenticate(request, msg);
    if (why != AUTH_OK) {
        ks_svcerr_auth(xprt, why);
        return TRUE;
    }
    const ks::svc::Found found = ks::svc::find_program(msg->rm_call.cb_prog, msg->rm_call.cb_vers);
    if (found.dispatch != nullptr) {
        found.dispatch(request, xprt);
        return TRUE;
    }
    if (found.is_program_known)
        ks_svcerr_progvers(xprt, found.low, found.high);
    else
        ks_svcerr_noprog(xprt);
    return FALSE;
}

void ks_svc_process_request(SVCXPRT *xprt)
{
    ks::svc::Transport &transport = ks::svc::transport_of(xprt);
    ks::svc::serve_alone(transport, [&] {
        while (ks::svc::serve_turn(transport)) {
        }
    });
}

void ks_svc_process_clone(SVCXPRT *xprt)
{
    ks::svc::Transport &transport = ks::svc::transport_of(xprt);
    ks::svc::here.require(ks::svc::is_clone(transport), "is_clone(xprt)");
    ks::svc::serve_alone(transport, [&] { ks::svc::serve_clone(transport); });
}

void ks_svc_getreq_common(SVCXPRT *xprt)
{
    ks::svc::Transport &transport = ks::svc::transport_of(xprt);
    ks::svc::hold(transport);
    ks::svc::serve_on_main_thread([&] { ks::svc::serve_ready(transport); });
}

void ks_svc_getreqset(ks_fd_set *fdset)
{
    ks::svc::serve_on_main_thread([&] { ks::svc::serve_words(*fdset); });
}

void ks_svc_getreq(int mask)
{
    ks_fd_set set{};
    set.words[0] = static_cast<uint32_t>(mask);
    ks_svc_getreqset(&set);
}

void ks_svc_getreq_poll(pollfd *fds, int count)
{
    ks::svc::serve_on_main_thread([&] {
        for (int seen = 0; seen < count; ++fds) {
            if (fds->revents == 0)
                continue;
            ++seen;
            if ((fds->revents & POLLNVAL) != 0)
                ks::svc::clear_selected(fds->fd);
            else if (ks::svc::Transport *transport = ks::svc::hold_transport(fds->fd))
                ks::svc::serve_ready(*transport);
        }
    });
}
}
