#include "harness/child.h"

#include <korvaks/sysutl.h>

#include <cerrno>
#include <cstring>

#include <pwd.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Runs a body in a child; it is false where the machine does not permit what it needs.
void in_permitted_child(const std::function<bool()> &body)
{
    constexpr int refused = 77;
    const auto result = test::run_child([&] { return body() ? 0 : refused; });
    if (result.exit_status == refused)
        GTEST_SKIP() << "not permitted here";
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

// The kernel tells it in /proc, which a changed root does not have.
TEST(SysutlUmask, IsThatOfTheFirstCall)
{
    const test::TempDir root;
    for (const bool has_proc : {true, false}) {
        in_permitted_child([&] {
            const bool permitted = has_proc || chroot(root.path().c_str()) == 0;
            umask(0127);
            sysutl_umask_init();
            EXPECT_EQ(umask(0), 0127u);
            EXPECT_EQ(sysutl_get_umask(), 0127u);
            return permitted;
        });
    }
}

TEST(SysutlMaxFds, IsTheSoftLimitReadOnceAndBounded)
{
    for (const auto &[limit, expected] : {std::pair<rlim_t, int>{64, 64}, {KS_FD_MAX, KS_FD_MAX}, {20000, KS_FD_MAX}}) {
        in_permitted_child([limit = limit, expected = expected] {
            rlimit wanted{limit, 20000};
            if (setrlimit(RLIMIT_NOFILE, &wanted) != 0)
                return false;
            EXPECT_EQ(sysutl_get_max_fds(), expected);
            wanted.rlim_cur = 32;
            setrlimit(RLIMIT_NOFILE, &wanted);
            EXPECT_EQ(sysutl_get_max_fds(), expected);
            return true;
        });
    }
}

// A name of n bytes fits n + 1 and no less.
void expect_exact_fit(int (*name_into)(char *, std::size_t), const std::string &expected)
{
    std::string buffer(expected.size() + 1, '#');
    EXPECT_EQ(name_into(buffer.data(), expected.size()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(buffer, std::string(expected.size() + 1, '#'));
    EXPECT_EQ(name_into(buffer.data(), expected.size() + 1), 0);
    EXPECT_STREQ(buffer.c_str(), expected.c_str());
}

TEST(SysutlNames, HostAndUser)
{
    char host[256];
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    expect_exact_fit(sysutl_myhostname, host);
    const passwd *user = getpwuid(getuid());
    expect_exact_fit(sysutl_user_name, user != nullptr ? user->pw_name : std::to_string(getuid()));
}

TEST(SysutlNames, HomeOfAUser)
{
    expect_exact_fit([](char *buf, std::size_t size) { return sysutl_home_dir("root", buf, size); },
                     getpwnam("root")->pw_dir);
    char home[8] = "same";
    EXPECT_EQ(sysutl_home_dir("no such user", home, sizeof home), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(home, "same");
}

TEST(SysutlNames, AUserWithoutNameIsANumber)
{
    in_permitted_child([] {
        if (setuid(3123456789) != 0)
            return false;
        char name[11];
        EXPECT_EQ(sysutl_user_name(name, sizeof name), 0);
        EXPECT_STREQ(name, "3123456789");
        return true;
    });
}

TEST(SysutlNames, DomainOfTheHost)
{
    const struct {
        const char *host;
        const char *nis_domain;
        const char *expected; // NULL: none
    } cases[] = {{"node.example.org", "(none)", "example.org"},
                 {"node.example.org", "corp", "corp"},
                 {"node", "(none)", nullptr},
                 {"node.", "", nullptr}};
    in_permitted_child([&cases] {
        if (unshare(CLONE_NEWUTS) != 0)
            return false;
        for (const auto &c : cases) {
            SCOPED_TRACE(c.host);
            EXPECT_EQ(sethostname(c.host, std::strlen(c.host)), 0);
            EXPECT_EQ(setdomainname(c.nis_domain, std::strlen(c.nis_domain)), 0);
            char domain[65] = "unchanged";
            EXPECT_EQ(sysutl_get_host_domain_name(domain, sizeof domain), c.expected == nullptr ? -1 : 0);
            EXPECT_STREQ(domain, c.expected == nullptr ? "unchanged" : c.expected);
        }
        return true;
    });
}

} // namespace
