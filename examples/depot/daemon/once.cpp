#include "daemon/once.h"

#include "depot_report.h"

#include <korvaks/nirpc.h>
#include <korvaks/xdr.h>

#include <algorithm>

namespace depot {

namespace {

// The longest answers are failures: three words, a text, and a double word.
struct Reply {
    std::uint64_t size;
    char bytes[sizeof(Failure::name) + 64];
};

bool_t xdr_reply(XDR *xdrs, Reply *reply)
{
    return XDR_PUTBYTES(xdrs, reply->bytes, static_cast<u_int>(reply->size));
}

bool encode(xdrproc_t routine, void *answer, Reply &out_reply)
{
    XDR xdrs;
    if (xdrstg_create(&xdrs, sizeof out_reply.bytes, XDR_ENCODE) != 0)
        return false;
    const bool is_done = routine(&xdrs, answer) != FALSE && XDR_GETPOS(&xdrs) <= sizeof out_reply.bytes;
    if (is_done) {
        out_reply.size = XDR_GETPOS(&xdrs);
        std::copy_n(static_cast<const char *>(xdrs.x_base), out_reply.size, out_reply.bytes);
    }
    xdrstg_destroy(&xdrs);
    return is_done;
}

void send(SVCXPRT *transport, Reply &reply)
{
    (void)ks_svc_sendreply(transport, as_xdrproc(xdr_reply), &reply); // a client that is gone asks again, or never
}

} // namespace

bool begin_once(SVCXPRT *transport, const CallNumber &call)
{
    Reply reply;
    const int state = nirpc_fetch(transport, call.client, call.number, reply.bytes, sizeof reply.bytes, &reply.size);
    if (state == NIRPC_DUPLICATE)
        send(transport, reply);
    return state == NIRPC_NEW;
}

// It is kept before it is sent: who has no answer yet may ask at any moment.
void end_once(SVCXPRT *transport, const CallNumber &call, xdrproc_t routine, void *answer)
{
    Reply reply;
    if (encode(routine, answer, reply)) {
        nirpc_save(transport, call.client, call.number, reply.bytes, reply.size, nullptr);
        send(transport, reply);
    } else {
        ks_svcerr_systemerr(transport);
    }
    nirpc_set_finish(transport, call.client, call.number);
}

} // namespace depot
