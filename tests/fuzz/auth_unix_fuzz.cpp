// Credentials of AUTH_UNIX from strangers, read in place, and by fields where the body lies askew: both as the
// platform's.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

#include <korvaks/auth.h>

FUZZ_TARGET(input)
{
    const std::string body = input.take_rest();
    for (const std::size_t shift : {0UL, 1UL}) {
        const auto block = fuzz::exact_copy((std::string(shift, 'x') + body).data(), shift + body.size());
        XDR xdrs;
        xdrmem_create(&xdrs, block.get() + shift, static_cast<u_int>(body.size()), XDR_DECODE);
        authunix_parms expected{};
        const bool is_good = xdr_authunix_parms(&xdrs, &expected) != FALSE;
        const auto cooked = fuzz::exact_room<std::uint64_t>(KS_SVC_CREDENTIAL_SIZE / 8, 0);
        SVCXPRT transport{};
        svc_req request{0, 0, 0, {}, cooked.get(), &transport, nullptr, nullptr};
        rpc_msg message{};
        message.rm_call.cb_cred = {AUTH_UNIX, block.get() + shift, static_cast<u_int>(body.size())};
        const std::uint64_t refused = ks_svc_auth_refused();
        FUZZ_REQUIRE(_ks_authenticate(&request, &message) == (is_good ? AUTH_OK : AUTH_BADCRED));
        FUZZ_REQUIRE(ks_svc_auth_refused() - refused == (is_good ? 0 : 1));
        auto &parms = *reinterpret_cast<authunix_parms *>(cooked.get());
        FUZZ_REQUIRE(!is_good || test::encode(xdr_authunix_parms, parms) == test::encode(xdr_authunix_parms, expected));
        test::release(xdr_authunix_parms, expected);
    }
}
