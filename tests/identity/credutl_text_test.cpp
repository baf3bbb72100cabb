// Names in two parts, and credentials as text in buffers of every size.
#include "harness/child.h"

#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

namespace {

using Parts = std::pair<std::string, std::string>;

Parts cracked(const char *name, std::size_t size = 64)
{
    char domain[64], user[64];
    credutl_crack_fq_name(name, domain, size, user, size);
    return {domain, user};
}

Parts cracked_machine(const char *name)
{
    char domain[64], host[64];
    credutl_crack_authunix_machname(name, domain, sizeof domain, host, sizeof host);
    return {domain, host};
}

TEST(Names, HaveTwoParts)
{
    EXPECT_EQ(cracked("DOM\\alice"), Parts("DOM", "alice"));
    EXPECT_EQ(cracked("DOM/al\\ice"), Parts("DOM", "al\\ice"));
    EXPECT_EQ(cracked("alice"), Parts("<unknown>", "alice"));
    EXPECT_EQ(cracked("DOM/"), Parts("DOM", ""));
    EXPECT_EQ(cracked("DOMAIN/alice", 4), Parts("DOM", "ali"));
    EXPECT_EQ(cracked_machine("d/h/i"), Parts("d", "h/i"));
    EXPECT_EQ(cracked_machine("host"), Parts("", "host"));
    EXPECT_EQ(cracked_machine(nullptr), Parts("", ""));
    char host[65];
    EXPECT_EQ(sysutl_myhostname(host, sizeof host), 0);
    const std::string whole = credutl_get_domain() + std::string("/") + host;
    for (const std::size_t size : {whole.size() + 1, whole.size()}) {
        const auto result = test::run_child([=] {
            char buf[256];
            credutl_mk_authunix_machname(buf, size);
            puts(buf);
        });
        const bool fits = size > whole.size();
        EXPECT_EQ(result.out,
                  (fits ? whole : std::string("<credutl authunix machname too long>").substr(0, size - 1)) + "\n");
        EXPECT_EQ(result.err.find(" bytes.  Using bogus string ") == std::string::npos, fits) << result.err;
    }
}

// What comes of it in a buffer: whole groups, and the mark where something is left out.
std::string model(const std::vector<std::string> &words, std::size_t size)
{
    if (size == 1)
        return "";
    std::string text;
    for (std::size_t i = 0; i < 2; ++i) {
        text += words[i];
        if (text.size() + 1 >= size)
            return text.substr(0, size - 2) + "+";
    }
    for (std::size_t i = 2; i < words.size(); ++i) {
        if (text.size() + words[i].size() >= size)
            return text.size() + 1 < size ? (text + "+ ").substr(0, size - 1) : text.substr(0, size - 2) + "+";
        text = (text + words[i] + " ").substr(0, size - 1);
    }
    return text;
}

TEST(Names, OfCredentialsAreMarkedWhereTheyAreCut)
{
    credutl_sid_t sids[4];
    for (credutl_gid_t i = 0; i < 4; ++i)
        credutl_gid_to_sid(i * 99, &sids[i]);
    credutl_uid_to_sid(7, &sids[0]);
    const std::vector<std::string> words = {"UID: UNIX:UID-7 GID: UNIX:GID-99 ", "Groups: ", "UNIX:GID-198",
                                            "UNIX:GID-297"};
    std::string filled(100, '#');
    for (std::size_t size = 1; size < filled.size(); ++size) {
        std::string buf(size + 1, '#');
        EXPECT_EQ(credutl_creds_to_str(&sids[0], &sids[1], 2, &sids[2], size, buf.data()), buf.data());
        EXPECT_EQ(buf.c_str(), model(words, size)) << size;
        EXPECT_EQ(buf.back(), '#');
    }
    EXPECT_STREQ(credutl_creds_to_str(&sids[0], &sids[1], 0, nullptr, 100, filled.data()), words[0].c_str());
}

} // namespace
