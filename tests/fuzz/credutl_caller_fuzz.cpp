// Callers in the product's flavour and in AUTH_UNIX: a credential is admitted exactly where its record can be decoded
// by fields, and what is told of the caller is what the record says.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

namespace {

struct Checked {
    auth_stat status;
    credutl_caller_t caller{};
};

Checked check(int flavour, const std::string &body)
{
    const auto block = fuzz::exact_copy(body.data(), body.size());
    const auto cooked = fuzz::exact_room<std::uint64_t>(KS_SVC_CREDENTIAL_SIZE / 8, 0);
    sockaddr_in remote{AF_INET, 0, {htonl(0xC0000201)}, {}};
    SVCXPRT transport{};
    transport.xp_rtaddr = {sizeof remote, sizeof remote, &remote};
    svc_req request{0, 0, 0, {}, cooked.get(), &transport, nullptr, nullptr};
    rpc_msg message{};
    message.rm_call.cb_cred = {flavour, block.get(), u_int(body.size())};
    Checked result{_ks_authenticate(&request, &message)};
    if (result.status == AUTH_OK)
        FUZZ_REQUIRE(credutl_identify_caller(&request, &result.caller) >= 0);
    FUZZ_REQUIRE(credutl_is_privileged_sid(&result.caller.credentials.user_sid) == 0); // from there
    return result;
}

std::string printable(std::string text)
{
    for (char &c : text)
        c = (c >= 0 && c < ' ') || c == '\x7F' ? '?' : c;
    return text;
}

} // namespace

FUZZ_TARGET(input)
{
    (void)credutl_svc_auth_register();
    std::string body = input.take_bytes(KS_MAX_AUTH_BYTES);
    credutl_client_t client{};
    test::Stream in(body, XDR_DECODE);
    const bool is_decoded = xdr_credutl_client_t(&in, &client) && XDR_GETPOS(&in) == body.size();
    const std::string again = is_decoded ? test::encode(xdr_credutl_client_t, client) : "";
    const Checked own = check(CREDUTL_AUTH_FLAVOUR, body);
    FUZZ_REQUIRE(own.status == (again == body && is_decoded ? AUTH_OK : AUTH_BADCRED) ||
                 (is_decoded && again.size() == body.size())); // padding that is not 0, or a NUL in a name
    if (own.status == AUTH_OK) {
        FUZZ_REQUIRE(is_decoded && own.caller.host_name == printable(client.record->host_name));
        FUZZ_REQUIRE(own.caller.domain_name == printable(client.record->domain_name));
    }
    test::release(xdr_credutl_client_t, client);
    (void)check(AUTH_UNIX, body);
    // As text, too.
    const fuzz::ExactText name(body);
    const auto first = fuzz::exact_room(1 + body.size() % 9, '#'), second = fuzz::exact_room(body.size() + 1, '#');
    credutl_crack_authunix_machname(name, first.get(), 1 + body.size() % 9, second.get(), body.size() + 1);
    FUZZ_REQUIRE(std::string(name).ends_with(second.get()));
    credutl_crack_fq_name(name, first.get(), 1 + body.size() % 9, second.get(), body.size() + 1);
    FUZZ_REQUIRE(std::string(name).ends_with(second.get()));
}
