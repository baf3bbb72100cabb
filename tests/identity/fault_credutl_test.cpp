// Identities under exhaustion and when the system does not answer: what is refused is released whole.
#include "harness/fault_sweep.h"
#include "rpc/wire/connection.h"

#include <korvaks/credutl.h>
#include <korvaks/imsg.h>

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

TEST(FaultCredutl, ClientsAndCallers)
{
    static AUTH *auth;
    test::fault::Operation("handle of the product's flavour")
        .act([] {
            auth = credutl_auth_create();
            if (auth == nullptr)
                return false;
            auth_destroy(auth);
            return true;
        })
        .notices()
        .spares({test::fault::Call::user, test::fault::Call::name}) // which may say that there is none
        .sweep();
    static credutl_string_credentials_t strings{const_cast<char *>("root"), const_cast<char *>("root"), 1, {}};
    strings.group_names[0] = const_cast<char *>("daemon");
    static credutl_sid_credentials_t sids;
    static credutl_whole_credentials_t whole;
    test::fault::Operation("names of a caller")
        .setup([] { sids.ngroups = 99; })
        .act([] {
            if (credutl_string_credentials_to_sid_credentials(&strings, &sids) != 0 ||
                credutl_sid_credentials_to_whole_credentials(&sids, STG_AREA_HEAP, &whole) != 0)
                return false;
            stg_free(whole.group_sids);
            return true;
        })
        .gives([](const test::fault::Trial &trial) {
            const bool is_known = credutl_is_privileged_sid(&sids.user_sid) && sids.ngroups == 1;
            return trial.failed(test::fault::Call::user) || is_known; // or that was the answer
        })
        .keeps([](const test::fault::Trial &trial) {
            return sids.ngroups == 99 || trial.failed(test::fault::Call::allocation);
        })
        .sweep();
}

TEST(FaultCredutl, RaisesLoseNothing)
{
    static credutl_auth_vellum_t record;
    static credutl_client_t client;
    static char name[64];
    memset(name, 'g', sizeof name - 1);
    test::fault::Operation("handle whose groups are cut")
        .setup([] {
            record = {CREDUTL_AUTH_VELLUM_CREDENTIALS, "", "", {name, name, 32, {}}};
            for (char *&group : record.credentials.group_names)
                group = name;
            client = {CREDUTL_AUTH_FAMILY_VELLUM, &record};
            imsg_set_trace_verbosity(1);
            imsg_set_trace_subsys("credutl");
        })
        .act([] {
            AUTH *auth = credutl_auth_create_for(&client);
            auth_destroy(auth);
        })
        .cleanup([] { imsg_set_trace_subsys(nullptr); })
        .sweep_raises();
}
