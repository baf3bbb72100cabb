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

bool may_change_identity()
{
    return test::run_child([] {
               return setgroups(0, nullptr) == 0 && setgid(1) == 0 && setuid(1) == 0 ? 0 : 1;
           }).exit_status == 0;
}

#define SKIP_UNLESS_PERMITTED()                                                                                        \
    if (!may_change_identity())                                                                                        \
    GTEST_SKIP() << "this machine does not allow changes of identity"

void expect_identity(uid_t real_user, gid_t real_group, int ngroups)
{
    uid_t users[3];
    gid_t groups[3];
    EXPECT_EQ(getresuid(&users[0], &users[1], &users[2]) + getresgid(&groups[0], &groups[1], &groups[2]), 0);
    EXPECT_TRUE(users[0] == real_user && users[1] == user && users[2] == real_user);
    EXPECT_TRUE(groups[0] == real_group && groups[1] == group && groups[2] == real_group);
    EXPECT_EQ(credutl_running_setuid(), real_user != user);
    EXPECT_EQ(credutl_is_root() + credutl_is_privileged(), 0);
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
    credutl_credentials_t now{};
    EXPECT_EQ(credutl_get_credentials(&now), 0);
    EXPECT_TRUE(now.uid == user && now.gid == group && now.ngroups == ngroups);
    EXPECT_TRUE(std::equal(now.groups, now.groups + ngroups, record(ngroups).groups));
}

TEST(ProcessIdentity, IsThatOfTheRecord)
{
    SKIP_UNLESS_PERMITTED();
    for (const int count : {0, 1, 32, 33, 40, -1}) {
        const int used = std::clamp(count, 0, 32);
        const auto in_effect = test::run_child([=] {
            credutl_credentials_t to = record(count);
            EXPECT_EQ(credutl_set_effective_credentials(&to), 0);
            EXPECT_EQ(to.ngroups, std::min(count, 32));
            expect_identity(0, 0, used);
            errno = 0;
            EXPECT_TRUE(credutl_set_effective_credentials(&to) == 1 && errno == EPERM);
        });
        const auto for_good = test::run_child([=] {
            credutl_credentials_t to = record(count);
            EXPECT_EQ(credutl_set_credentials(&to), 0);
            EXPECT_EQ(to.ngroups, count);
            expect_identity(user, group, used);
            EXPECT_EQ(credutl_set_credentials(&to), 1);
        });
        for (const auto &result : {in_effect, for_good})
            EXPECT_NE(result.err.find("setgroups failed: Operation not permitted\n"), std::string::npos) << result.err;
    }
}

TEST(ProcessIdentity, IsNotThatOfANumberCutTo32Bits)
{
    SKIP_UNLESS_PERMITTED();
    using Change = void (*)(credutl_credentials_t &);
    const std::pair<Change, const char *> rows[] = {
        {[](auto &to) { to.groups[1] += 1UL << 32; }, "setgroups failed: Invalid argument\n"},
        {[](auto &to) { to.gid = 1UL << 32; }, "setgid 0 failed: Invalid argument\n"},
        {[](auto &to) { to.uid = 1UL << 32; }, "setuid 0 failed: Invalid argument\n"},
        {[](auto &to) { to.uid = static_cast<unsigned long>(-1); }, "setuid -1 failed: Invalid argument\n"}};
    for (const auto &[change, text] : rows) {
        const auto result = test::run_child([change = change] {
            credutl_credentials_t to = record(2);
            change(to);
            EXPECT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);
            EXPECT_TRUE(credutl_set_credentials(&to) == 1 && errno == EINVAL);
            EXPECT_EQ(geteuid(), 0u);
            EXPECT_EQ(prctl(PR_GET_DUMPABLE), to.groups[1] < 1UL << 32);
            EXPECT_EQ(getegid(), to.uid == user ? 0 : group);
        });
        EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
    }
}

TEST(ProcessIdentity, HasTheFirst32Groups)
{
    SKIP_UNLESS_PERMITTED();
    test::in_child([] {
        gid_t many[40];
        std::iota(std::begin(many), std::end(many), first_group);
        std::reverse(many, many + 40);
        credutl_credentials_t now{};
        credutl_sid_credentials_t sids{};
        EXPECT_EQ(setgroups(40, many) + setegid(first_group + 5), 0);
        EXPECT_EQ(credutl_get_credentials(&now) + credutl_get_sid_credentials(&sids), 0);
        gid_t listed[40];
        EXPECT_EQ(getgroups(40, listed), 40);
        const bool has_primary = std::find(listed, listed + 32, first_group + 5) != listed + 32;
        EXPECT_TRUE(now.ngroups == 32 - has_primary && sids.ngroups == now.ngroups);
        EXPECT_TRUE(std::is_sorted(now.groups, now.groups + now.ngroups));
        credutl_sid_t other;
        credutl_gid_to_sid(first_group + 5, &other);
        EXPECT_TRUE(credutl_has_group(first_group + 5, &now) && credutl_has_group_sid(&other, &sids));
        credutl_gid_to_sid(1, &other);
        EXPECT_FALSE(credutl_has_group(1, &now) || credutl_has_group_sid(&other, &sids));
    });
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
    test::expect_misuse({{[&] { normalise(5, 6); }, "(ngroup <= maxgroups) failed: 'lib/ks/credutl'"},
                         {[&] { normalise(5, -1); }, "(ngroup >= 0) failed: 'lib/ks/credutl'"}});
}

} // namespace
