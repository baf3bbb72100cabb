// Replies: results, results in parts, and errors.
#include "rpc/server/svc_impl.h"

#include <cstring>

namespace {

using ks::svc::Transport;

rpc_msg begin_accepted(const SVCXPRT *xprt, accept_stat status)
{
    rpc_msg reply{};
    reply.rm_direction = REPLY;
    reply.rm_reply.rp_stat = MSG_ACCEPTED;
    reply.acpted_rply.ar_verf = xprt->xp_verf;
    reply.acpted_rply.ar_stat = status;
    return reply;
}

extern "C" bool_t encode_nothing(XDR *, ...)
{
    return TRUE;
}

rpc_msg success_reply(const SVCXPRT *xprt, xdrproc_t xdr_results, void *results)
{
    rpc_msg reply = begin_accepted(xprt, SUCCESS);
    reply.acpted_rply.ar_results.where = static_cast<caddr_t>(results);
    reply.acpted_rply.ar_results.proc = xdr_results != nullptr ? xdr_results : encode_nothing;
    return reply;
}

bool send(SVCXPRT *xprt, rpc_msg &reply)
{
    return ks::svc::transport_of(xprt).handle.ops->reply(xprt, &reply) != FALSE;
}

void send_error(SVCXPRT *xprt, accept_stat status, std::atomic<uint64_t> &counter)
{
    rpc_msg reply = begin_accepted(xprt, status);
    ks::svc::count(counter);
    (void)send(xprt, reply); // a peer that cannot be told is gone
}

} // namespace

extern "C" {

bool_t ks_svc_sendreply(SVCXPRT *xprt, xdrproc_t xdr_results, void *results)
{
    rpc_msg reply = success_reply(xprt, xdr_results, results);
    if (!send(xprt, reply))
        return FALSE;
    ks::svc::count(ks::svc::counters.succeeded);
    return TRUE;
}

bool_t ks_svc_sendreply_start(SVCXPRT *xprt, xdrproc_t xdr_results, void *results)
{
    Transport &transport = ks::svc::transport_of(xprt);
    ks::svc::here.require(transport.handle.reply_in_progress == 0, "!xprt->reply_in_progress");
    transport.pending = success_reply(xprt, xdr_results, results);
    transport.handle.pending_reply = &transport.pending;
    transport.handle.reply_in_progress = 1;
    if (send(xprt, transport.pending))
        return TRUE;
    transport.handle.reply_in_progress = 0;
    transport.handle.pending_reply = nullptr;
    return FALSE;
}

XDR *ks_svc_sendreply_get_xdrs(SVCXPRT *xprt)
{
    return ks::svc::transport_of(xprt).handle.ops->reply_get_xdrs(xprt);
}

bool_t ks_svc_sendreply_finish(SVCXPRT *xprt, xdrproc_t xdr_results, void *results)
{
    Transport &transport = ks::svc::transport_of(xprt);
    transport.handle.pending_reply = nullptr;
    if (transport.handle.reply_in_progress != 0 && results != nullptr &&
        xdr_results(ks_svc_sendreply_get_xdrs(xprt), results) == 0) {
        ks::svc::drop_reply_in_progress(transport);
        return FALSE;
    }
    if (transport.handle.ops->reply_finish(xprt) == FALSE)
        return FALSE;
    ks::svc::count(ks::svc::counters.succeeded);
    return TRUE;
}

void ks_svcerr_noprog(SVCXPRT *xprt)
{
    send_error(xprt, PROG_UNAVAIL, ks::svc::counters.no_program);
}

void ks_svcerr_progvers(SVCXPRT *xprt, rpcvers_t low, rpcvers_t high)
{
    rpc_msg reply = begin_accepted(xprt, PROG_MISMATCH);
    reply.acpted_rply.ar_vers.low = low;
    reply.acpted_rply.ar_vers.high = high;
    ks::svc::count(ks::svc::counters.bad_version);
    (void)send(xprt, reply); // a peer that cannot be told is gone
}

void ks_svcerr_noproc(SVCXPRT *xprt)
{
    send_error(xprt, PROC_UNAVAIL, ks::svc::counters.no_procedure);
}

void ks_svcerr_decode(SVCXPRT *xprt)
{
    send_error(xprt, GARBAGE_ARGS, ks::svc::counters.bad_arguments);
}

void ks_svcerr_systemerr(SVCXPRT *xprt)
{
    send_error(xprt, SYSTEM_ERR, ks::svc::counters.failed);
}

void ks_svcerr_auth(SVCXPRT *xprt, auth_stat why)
{
    rpc_msg reply{};
    reply.rm_direction = REPLY;
    reply.rm_reply.rp_stat = MSG_DENIED;
    reply.rjcted_rply.rj_stat = AUTH_ERROR;
    reply.rjcted_rply.rj_why = why;
    ks::svc::count(ks::svc::counters.denied);
    (void)send(xprt, reply); // a peer that cannot be told is gone
}

void ks_svcerr_weakauth(SVCXPRT *xprt)
{
    ks_svcerr_auth(xprt, AUTH_TOOWEAK);
}
}
