// Identities under exhaustion and when the system does not answer: what is refused is released whole.
#include "harness/fault_sweep.h"
#include "rpc/wire/connection.h"

#include <korvaks/credutl.h>

TEST(FaultCredutl, Decoders)
{
    static credutl_client_t client;
    static credutl_whole_string_credentials_t whole;
    static std::string bytes;
    for (int i = 0; i < 98; ++i) // all names are of one byte, and the second record has 40 groups
        bytes += test::wire_word(i == 17 ? 40 : 1);
    test::fault::Operation("decoders of identities")
        .act([] {
            test::Stream stream(bytes, XDR_DECODE);
            const bool is_done =
                xdr_credutl_client_t(&stream, &client) && xdr_credutl_whole_string_credentials_t(&stream, &whole);
            test::release(xdr_credutl_client_t, client);
            test::release(xdr_credutl_whole_string_credentials_t, whole);
            return is_done;
        })
        .notices()
        .sweep();
}

TEST(FaultCredutl, HandlesOfTheProductsFlavour)
{
    static AUTH *auth;
    test::fault::Operation("credutl_auth_create")
        .act([] { return (auth = credutl_auth_create()) != nullptr; })
        .cleanup([] {
            if (auth != nullptr)
                auth_destroy(auth);
        })
        .notices()
        .spares({test::fault::Call::user, test::fault::Call::name}) // which may say that there is none
        .sweep();
}

TEST(FaultCredutl, NamesOfCallers)
{
    static char names[][7] = {"root", "daemon"};
    static credutl_string_credentials_t strings{names[0], names[0], 1, {names[1]}};
    static credutl_sid_credentials_t sids;
    test::fault::Operation("credutl_string_credentials_to_sid_credentials")
        .setup([] { sids.ngroups = 99; })
        .act([] { return credutl_string_credentials_to_sid_credentials(&strings, &sids) == 0; })
        .keeps([] { return sids.ngroups == 99; })
        .sweep();
}
