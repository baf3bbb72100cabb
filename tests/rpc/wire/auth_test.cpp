// What handles send, against the platform's own, and what servers make of it.
#include "harness/forked.h"
#include "harness/misuse.h"

#include <korvaks/auth.h>

#include <algorithm>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

// Credential and verifier; a stamp of the last seconds is replaced.
std::string sent_by(AUTH *auth)
{
    char bytes[416];
    XDR xdrs;
    xdrmem_create(&xdrs, bytes, sizeof bytes, XDR_ENCODE);
    EXPECT_EQ(auth_marshall(auth, &xdrs), TRUE);
    const time_t age = std::time(nullptr) - ntohl(*reinterpret_cast<uint32_t *>(bytes + 8));
    const std::string sent(bytes, xdr_getpos(&xdrs));
    return age >= 0 && age <= 2 ? std::string(sent).replace(8, 4, "time") : sent;
}

TEST(Auth, SendsWhatThePlatformSends)
{
    EXPECT_EQ(sent_by(ks_authnone_create()), sent_by(authnone_create()));
    gid_t groups[17] = {0xFFFFFFFE, 1, 2};
    for (const auto &[length, count] : {std::pair{0UL, 0}, {1, 1}, {4, 16}, {255, 17}}) {
        AUTH *own = ks_authunix_create(std::string(length, 'n').c_str(), 0x80000001, 2, count, groups);
        AUTH *peer = authunix_create(std::string(length, 'n').data(), 0x80000001, 2, std::min(count, 16), groups);
        EXPECT_EQ(sent_by(own), sent_by(peer));
        auth_destroy(own);
        auth_destroy(peer);
    }
    test::expect_misuse({{[] { ks_authunix_create(std::string(256, 'n').c_str(), 1, 1, 0, nullptr); }, "xdr_ks_auth"},
                         {[] { ks_authunix_create("n", 1, 1, 1, nullptr); }, "gids != NULL"},
                         {[] { ks_authunix_destroy(ks_authnone_create()); }, "auth->ah_ops"}});
}

TEST(Auth, AdoptsAShortHandCredentialUntilItIsRefreshed)
{
    AUTH *auth = ks_authunix_create("host", 1, 2, 0, nullptr);
    const std::string full = sent_by(auth), none(8, '\0');
    const auto validate = [auth](int flavour, std::string body) {
        opaque_auth verifier{flavour, body.data(), static_cast<u_int>(body.size())};
        EXPECT_EQ(auth_validate(auth, &verifier), TRUE);
        return sent_by(auth);
    };
    const std::string head = "\0\0\0\7\0\0"s, none_long = head + "\0\0"s,
                      most = head + "\1\x80" + std::string(384, 's');
    EXPECT_EQ(validate(AUTH_NONE, most), full);
    for (const auto &refused :
         {head + "\1\x84" + std::string(388, 's'), head + "\1\x94" + std::string(404, 's'), head}) {
        EXPECT_EQ(auth_refresh(auth, nullptr), FALSE);
        EXPECT_EQ(validate(AUTH_SHORT, none_long), none_long + none);
        EXPECT_EQ(validate(AUTH_SHORT, most), most + none);
        EXPECT_EQ(validate(AUTH_SHORT, refused), full);
    }
    EXPECT_EQ(validate(AUTH_SHORT, none_long), none_long + none);
    EXPECT_EQ(auth_refresh(auth, nullptr), TRUE);
    EXPECT_EQ(sent_by(auth), full);
    auth_destroy(auth);
}

auth_stat check(int flavour, std::string body = "")
{
    alignas(8) char cooked[KS_SVC_CREDENTIAL_SIZE];
    SVCXPRT transport{};
    transport.xp_verf = {9, nullptr, 9};
    svc_req request{0, 0, 0, {}, cooked, &transport, nullptr, nullptr};
    rpc_msg message{};
    message.rm_call.cb_cred = {flavour, body.data(), static_cast<u_int>(body.size())};
    const auth_stat status = _ks_authenticate(&request, &message);
    EXPECT_EQ(transport.xp_verf.oa_flavor + static_cast<int>(transport.xp_verf.oa_length), 0);
    return status;
}

TEST(SvcAuth, WritesSomeLinesAboutFalseLengths)
{
    const auto result = test::run_child([] {
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(check(AUTH_UNIX, "time\0\0\0\5names\0\0\0uid.gid.\0\0\0\3gid1"s), AUTH_BADCRED);
    });
    const std::string line = "bad auth_len gid 3 str 8 auth 32\n";
    EXPECT_EQ(result.out.substr(0, line.size()), line);
    EXPECT_EQ(result.out.size(), 32 * line.size());
}

TEST(SvcAuth, ACheckerThatWaitsHoldsNoForkUp)
{
    test::in_child([] {
        static int ends[2];
        const auto waits = [](svc_req *, rpc_msg *) {
            char c = 'x';
            return write(ends[0], &c, 1) == 1 && read(ends[0], &c, 1) == 1 ? AUTH_TOOWEAK : AUTH_FAILED;
        };
        EXPECT_EQ(check(AUTH_SHORT) + check(77), 2 * AUTH_REJECTEDCRED);
        EXPECT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 && ks_svc_auth_reg(77, waits) == 0);
        EXPECT_EQ(ks_svc_auth_reg(AUTH_UNIX, waits) + ks_svc_auth_reg(77, waits), 2);
        std::thread waiting([] { EXPECT_EQ(check(77), AUTH_TOOWEAK); });
        char c;
        EXPECT_EQ(read(ends[1], &c, 1), 1);
        const pid_t child = vlthread_fork(VLTHREAD_FORK_CONTINUE);
        if (child == 0)
            _exit(check(78) == AUTH_REJECTEDCRED ? 0 : 1);
        EXPECT_TRUE(test::exit_status_of(child) == 0 && write(ends[1], &c, 1) == 1);
        waiting.join();
    });
}

} // namespace
