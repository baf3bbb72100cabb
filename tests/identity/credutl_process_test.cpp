// The identity of the process, changed for good and for a while, and what is refused.
#include "harness/misuse.h"

#include <korvaks/credutl.h>

#include <algorithm>
#include <cerrno>
#include <numeric>

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr uid_t user = 4711;
constexpr gid_t group = 4712, first_group = 5000;

credutl_credentials_t record(int ngroups)
{
    credutl_credentials_t made{user, group, ngroups, {}};
    std::iota(std::begin(made.groups), std::end(made.groups), first_group);
    return made;
}

bool may_change()
{
    const auto change = [] { return setgroups(0, nullptr) == 0 && setgid(1) == 0 && setuid(1) == 0 ? 0 : 1; };
    return test::run_child(change).exit_status == 0;
}

TEST(ProcessIdentity, IsThatOfTheRecord)
{
    if (!may_change())
        GTEST_SKIP() << "this machine does not allow changes of identity";
    for (const int count : {0, 1, 32, 33, 40, -1})
        for (const bool is_for_good : {false, true}) {
            const auto result = test::run_child([=] {
                credutl_credentials_t to = record(count), now{};
                const auto change = [&] {
                    return is_for_good ? credutl_set_credentials(&to) : credutl_set_effective_credentials(&to);
                };
                EXPECT_EQ(change(), 0);
                EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
                EXPECT_EQ(to.ngroups, is_for_good ? count : std::min(count, 32));
                uid_t u[3];
                gid_t g[3];
                EXPECT_EQ(getresuid(&u[0], &u[1], &u[2]) + getresgid(&g[0], &g[1], &g[2]), 0);
                EXPECT_TRUE(u[0] == (is_for_good ? user : 0) && u[1] == user && u[2] == u[0]);
                EXPECT_TRUE(g[0] == (is_for_good ? group : 0) && g[1] == group && g[2] == g[0]);
                EXPECT_EQ(credutl_running_setuid(), !is_for_good);
                EXPECT_EQ(credutl_is_root() + credutl_is_privileged() + credutl_get_credentials(&now), 0);
                EXPECT_TRUE(now.uid == user && now.gid == group && now.ngroups == std::clamp(count, 0, 32));
                EXPECT_TRUE(std::equal(now.groups, now.groups + now.ngroups, to.groups));
                EXPECT_TRUE(change() == 1 && errno == EPERM);
            });
            EXPECT_NE(result.err.find("setgroups failed: Operation not permitted\n"), std::string::npos) << result.err;
        }
    // In more groups than a record holds it has the first.
    test::in_child([] {
        gid_t many[40], listed[40];
        std::iota(std::begin(many), std::end(many), first_group);
        EXPECT_EQ(setgroups(40, many) + setegid(first_group), 0);
        EXPECT_EQ(getgroups(40, listed), 40);
        const auto has_primary = std::count(listed, listed + 32, first_group);
        credutl_credentials_t now{};
        EXPECT_TRUE(credutl_get_credentials(&now) == 0 && now.ngroups == 32 - has_primary);
        EXPECT_TRUE(credutl_has_group(listed[31], &now) && !credutl_has_group(listed[32], &now));
    });
}

TEST(ProcessIdentity, IsNotThatOfANumberCutTo32Bits)
{
    if (!may_change())
        GTEST_SKIP() << "this machine does not allow changes of identity";
    const auto result = test::run_child([] {
        credutl_credentials_t to = record(1);
        to.uid = to.gid = to.groups[0] = 1UL << 32; // root's and its group's
        for (credutl_gid_t *id : {&to.groups[0], &to.gid, &to.uid}) {
            EXPECT_TRUE(prctl(PR_SET_DUMPABLE, 0) == 0 && credutl_set_credentials(&to) == 1 && geteuid() == 0);
            EXPECT_EQ(prctl(PR_GET_DUMPABLE), id != &to.groups[0]); // the groups alone do not change it
            *id = group;
        }
    });
    for (const char *call : {"setgroups", "setgid 0", "setuid 0"})
        EXPECT_NE(result.err.find(call + std::string(" failed: Invalid argument\n")), std::string::npos) << result.err;
}

TEST(Credentials, AreNormalised)
{
    const credutl_gid_t groups[] = {5, 3, 5, 100, 3, ~0UL};
    credutl_credentials_t made{};
    const auto normalise = [&](int maxgroups, int ngroup) {
        return credutl_init_credentials_throttled(maxgroups, 7, 100, ngroup, groups, &made.uid, &made.gid,
                                                  &made.ngroups, made.groups);
    };
    EXPECT_EQ(normalise(5, 5) + normalise(-1, 6) + normalise(6, 6), 0);
    EXPECT_TRUE(made.uid == 7 && made.gid == 100 && made.ngroups == 3);
    EXPECT_TRUE(made.groups[0] == 3 && made.groups[1] == 5 && made.groups[2] == ~0UL);
    EXPECT_TRUE(credutl_has_group(100, &made) && credutl_has_group(5, &made) && !credutl_has_group(0, &made));
    test::expect_misuse({{[&] { normalise(5, 6); }, "(ngroup <= maxgroups) failed: 'lib/ks/credutl'"},
                         {[&] { normalise(5, -1); }, "(ngroup >= 0) failed: 'lib/ks/credutl'"}});
}

} // namespace
