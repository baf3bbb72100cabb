// What a call carries, and what its reply says.
#include "rpc/client/clnt_impl.h"

#include "rpc/wire/xdr_fields.h"

namespace {

extern "C" bool_t ks_clnt_no_value(XDR *, ...)
{
    return TRUE;
}

xdrproc_t routine_of(xdrproc_t wanted)
{
    return wanted != nullptr ? wanted : ks_clnt_no_value;
}

void set_numbers(rpc_err &error, clnt_stat status, uint32_t s1, uint32_t s2)
{
    error.re_status = status;
    error.re_lb.s1 = static_cast<int32_t>(s1);
    error.re_lb.s2 = static_cast<int32_t>(s2);
}

void set_versions(rpc_err &error, clnt_stat status, rpcvers_t low, rpcvers_t high)
{
    error.re_status = status;
    error.re_vers.low = low;
    error.re_vers.high = high;
}

// Numbers from outside need not be ones that have a name.
void map_accepted(const accepted_reply &reply, rpc_err &error)
{
    const uint32_t status = ks::xdr::word_of(reply.ar_stat);
    switch (status) {
    case SUCCESS:
        error.re_status = RPC_SUCCESS;
        return;
    case PROG_UNAVAIL:
        error.re_status = RPC_PROGUNAVAIL;
        return;
    case PROG_MISMATCH:
        set_versions(error, RPC_PROGVERSMISMATCH, reply.ar_vers.low, reply.ar_vers.high);
        return;
    case PROC_UNAVAIL:
        error.re_status = RPC_PROCUNAVAIL;
        return;
    case GARBAGE_ARGS:
        error.re_status = RPC_CANTDECODEARGS;
        return;
    case SYSTEM_ERR:
        error.re_status = RPC_SYSTEMERROR;
        return;
    default:
        set_numbers(error, RPC_FAILED, MSG_ACCEPTED, status);
    }
}

void map_denied(const rejected_reply &reply, rpc_err &error)
{
    const uint32_t status = ks::xdr::word_of(reply.rj_stat);
    if (status == RPC_MISMATCH) {
        set_versions(error, RPC_VERSMISMATCH, reply.rj_vers.low, reply.rj_vers.high);
    } else if (status == AUTH_ERROR) {
        error.re_status = RPC_AUTHERROR;
        std::memcpy(&error.re_why, &reply.rj_why, sizeof error.re_why);
    } else {
        set_numbers(error, RPC_FAILED, MSG_DENIED, status);
    }
}

// A failure of the connection while results arrive has its own status.
void decode_results(ks::clnt::Client &client, XDR &xdrs, ks::clnt::Reply &reply, const ks::clnt::Results &wanted)
{
    AUTH *auth = client.handle.cl_auth;
    if (AUTH_VALIDATE(auth, &reply.message.acpted_rply.ar_verf) == FALSE) {
        (void)ks::clnt::fail(client, RPC_AUTHERROR);
        client.error.re_why = AUTH_INVALIDRESP;
        return;
    }
    const bool is_decoded =
        AUTH_UNWRAP(auth, &xdrs, routine_of(wanted.xdr_results), static_cast<caddr_t>(wanted.results)) != FALSE;
    if (!is_decoded && client.error.re_status == RPC_SUCCESS)
        (void)ks::clnt::fail(client, RPC_CANTDECODERES);
}

} // namespace

void _ks_seterr_reply(struct rpc_msg *reply, struct rpc_err *error)
{
    *error = {};
    const uint32_t status = ks::xdr::word_of(reply->rm_reply.rp_stat);
    if (status == MSG_ACCEPTED)
        map_accepted(reply->acpted_rply, *error);
    else if (status == MSG_DENIED)
        map_denied(reply->rjcted_rply, *error);
    else
        set_numbers(*error, RPC_FAILED, status, 0);
}

namespace ks::clnt {

bool put_call(Client &client, XDR &xdrs, rpcproc_t proc, xdrproc_t xdr_args, void *args)
{
    AUTH *auth = client.handle.cl_auth;
    return ks::xdr::put_word(&xdrs, static_cast<uint32_t>(proc)) && AUTH_MARSHALL(auth, &xdrs) != FALSE &&
           AUTH_WRAP(auth, &xdrs, routine_of(xdr_args), static_cast<caddr_t>(args)) != FALSE;
}

Reply::Reply()
{
    message.acpted_rply.ar_verf = {};
    message.acpted_rply.ar_verf.oa_base = verifier;
    message.acpted_rply.ar_results.where = nullptr;
    message.acpted_rply.ar_results.proc = ks_clnt_no_value;
}

bool settle(Client &client, XDR &xdrs, Reply &reply, Results &wanted)
{
    _ks_seterr_reply(&reply.message, &client.error);
    if (client.error.re_status == RPC_SUCCESS) {
        decode_results(client, xdrs, reply, wanted);
        return true;
    }
    const bool may_refresh = client.error.re_status == RPC_AUTHERROR && wanted.refreshes_left-- > 0;
    return !may_refresh || AUTH_REFRESH(client.handle.cl_auth, &reply.message) == FALSE;
}

} // namespace ks::clnt
