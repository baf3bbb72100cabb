// Messages and credentials: decoded in place and field by field, and by the platform, they are admitted alike and are
// the same when they are encoded again.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

namespace {

using test::Stream;

int32_t *nothing_in_place(XDR *, u_int)
{
    return nullptr;
}

// The bytes that the object has after it was decoded; empty for a failure.
template <typename Object>
std::string passed(bool_t (*routine)(XDR *, Object *), Object object, std::string bytes, bool is_in_place)
{
    Stream in(bytes, XDR_DECODE);
    XDR::xdr_ops operations = *in.x_ops;
    operations.x_inline = is_in_place ? operations.x_inline : nothing_in_place;
    in.x_ops = &operations;
    Stream out(0, XDR_ENCODE);
    if (routine(&in, &object))
        FUZZ_REQUIRE(routine(&out, &object));
    xdr_free(reinterpret_cast<xdrproc_t>(routine), &object);
    return {out.x_base, XDR_GETPOS(&out)};
}

template <typename Object> void check(bool_t (*ours)(XDR *, Object *), bool_t (*platforms)(XDR *, Object *),
                                      const Object &empty, const std::string &bytes)
{
    const std::string in_place = passed(ours, empty, bytes, true);
    FUZZ_REQUIRE(passed(ours, empty, bytes, false) == in_place);
    FUZZ_REQUIRE(passed(platforms, empty, bytes, true) == in_place);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::string bytes = input.take_rest();
    uint64_t result = 0;
    rpc_msg reply{};
    reply.acpted_rply.ar_results = {reinterpret_cast<caddr_t>(&result), reinterpret_cast<xdrproc_t>(xdr_uint64_t)};
    check(xdr_ks_callmsg, xdr_callmsg, {}, bytes);
    check(xdr_ks_replymsg, xdr_replymsg, reply, bytes);
    check(xdr_ks_authunix_parms, xdr_authunix_parms, {}, bytes);
    check(xdr_ks_opaque_auth, xdr_opaque_auth, {}, bytes);
}
