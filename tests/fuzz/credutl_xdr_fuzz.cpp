// Identities from strangers, in each shape: refused and released whole, or the same once they are encoded and decoded
// again, in no more bytes than they came in.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

#include <korvaks/credutl.h>

namespace {

// The bytes of an object that was decoded; none for one that is refused.
template <typename Object> std::string check(bool_t (*routine)(XDR *, Object *), std::string bytes)
{
    Object object{};
    test::Stream in(bytes, XDR_DECODE);
    const std::string again = routine(&in, &object) ? test::encode(routine, object) : "";
    FUZZ_REQUIRE(again.size() <= XDR_GETPOS(&in));
    test::release(routine, object);
    FUZZ_REQUIRE(again.empty() || again == bytes || check(routine, again) == again);
    return again;
}

} // namespace

FUZZ_TARGET(input)
{
    const auto check_each = [bytes = input.take_rest()](auto... routines) { (check(routines, bytes), ...); };
    check_each(xdr_credutl_credentials_t, xdr_credutl_sid_credentials_t, xdr_credutl_whole_credentials_t,
               xdr_credutl_string_credentials_t, xdr_credutl_whole_string_credentials_t, xdr_credutl_passwd_sid_t,
               xdr_credutl_auth_vellum_p_t, xdr_credutl_client_t);
}
