// Callers in the product's flavour and in AUTH_UNIX: a credential is admitted where its record can be decoded by
// fields, nobody is privileged from afar, and what is told of a caller can be printed.
#include "fuzz/fuzz_support.h"
#include "identity/caller.h"

FUZZ_TARGET(input)
{
    (void)credutl_svc_auth_register();
    std::string body = input.take_bytes(KS_MAX_AUTH_BYTES);
    credutl_client_t client{};
    test::Stream in(body, XDR_DECODE);
    const bool is_decoded = xdr_credutl_client_t(&in, &client) && XDR_GETPOS(&in) == body.size();
    const std::string again = is_decoded ? test::encode(xdr_credutl_client_t, client) : "";
    credutl_string_credentials_t names{};
    if (is_decoded)
        FUZZ_REQUIRE(credutl_crack_client_vellum(&client, nullptr, 0, nullptr, 0, &names) == 0 &&
                     names.ngroups == client.record->credentials.ngroups);
    credutl_free_string_credentials(&names);
    test::release(xdr_credutl_client_t, client);
    for (const int flavour : {CREDUTL_AUTH_FLAVOUR, int(AUTH_UNIX)}) {
        const test::Answer answer = test::call(flavour, body, "192.0.2.1");
        // Of what is decoded, padding that is not 0 is admitted, and a NUL in a name is not.
        FUZZ_REQUIRE(flavour == AUTH_UNIX || (answer.checked == AUTH_OK) == is_decoded ||
                     (is_decoded && again != body));
        FUZZ_REQUIRE(answer.status >= 0 && answer.user.find("UID-0 ") == answer.user.npos);
        for (const char c : answer.claim)
            FUZZ_REQUIRE((c < 0 || c >= ' ') && c != 127);
    }
}
