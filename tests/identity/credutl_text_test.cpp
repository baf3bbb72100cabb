// Names in two parts, and credentials as text in buffers of every size.
#include "harness/child.h"

#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

namespace {

TEST(Names, HaveTwoParts)
{
    char first[64], second[64];
    const auto parts = [&] { return std::string(first) + "|" + second; };
    const auto cracked = [&](const char *name, std::size_t size = 64) {
        return credutl_crack_fq_name(name, first, size, second, size), parts();
    };
    const auto machine = [&](const char *name) {
        return credutl_crack_authunix_machname(name, first, 64, second, 64), parts();
    };
    EXPECT_EQ(cracked("DOM\\alice") + cracked("DOM/al\\ice") + cracked("DOM/"), "DOM|aliceDOM|al\\iceDOM|");
    EXPECT_EQ(cracked("alice") + cracked("DOMAIN/alice", 4), "<unknown>|aliceDOM|ali");
    EXPECT_EQ(machine("d/h/i") + machine("host") + machine(nullptr), "d|h/i|host|");
    char host[65], buf[256];
    EXPECT_EQ(sysutl_myhostname(host, sizeof host), 0);
    const std::string whole = credutl_get_domain() + std::string("/") + host;
    credutl_mk_authunix_machname(buf, whole.size() + 1);
    EXPECT_EQ(buf, whole);
    const auto result = test::run_child([&] { credutl_mk_authunix_machname(buf, whole.size()), puts(buf); });
    EXPECT_EQ(result.out, std::string("<credutl authunix machname too long>").substr(0, whole.size() - 1) + "\n");
    EXPECT_NE(result.err.find(" bytes.  Using bogus string \"<credutl authunix "), std::string::npos) << result.err;
}

TEST(Names, OfCredentialsAreMarkedWhereTheyAreCut)
{
    credutl_sid_t sids[4];
    for (credutl_gid_t i = 0; i < 4; ++i)
        credutl_gid_to_sid(i + 7, &sids[i]);
    const std::string whole = "UID: UNIX:GID-7 GID: UNIX:GID-8 Groups: UNIX:GID-9 UNIX:GID-10 ";
    for (std::size_t size = 1; size <= whole.size() + 1; ++size) {
        const std::size_t room = size - 1; // the head takes 40, the groups 10 and 11, and a blank each
        std::string expected = whole.substr(0, room);
        if (room >= 1 && (room <= 40 || room == 50 || room == 51))
            expected.back() = '+';
        else if (room > 40 && room < 62)
            expected = (whole.substr(0, room < 50 ? 40 : 51) + "+ ").substr(0, room);
        std::string buf(size + 1, '#');
        EXPECT_EQ(credutl_creds_to_str(&sids[0], &sids[1], 2, &sids[2], size, buf.data()), expected) << size;
        EXPECT_EQ(buf.back(), '#');
    }
}

} // namespace
