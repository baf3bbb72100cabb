#include <korvaks/sysutl.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

constexpr int refused = 77; // the machine does not let a child do what the test needs

// Runs a body, which returns 0 when all is right, in a child of its own.
void expect_right_in_child(const std::function<int()> &body)
{
    const auto result = test::run_child(body);
    if (result.exit_status == refused)
        GTEST_SKIP() << "not permitted here";
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(SysutlUmask, IsThatOfTheFirstCall)
{
    expect_right_in_child([] {
        umask(0127);
        sysutl_umask_init();
        if (umask(0) != 0127)
            return 1;
        sysutl_umask_init();
        return sysutl_get_umask() == 0127 ? 0 : 2;
    });
}

// The kernel tells it in /proc, which a changed root does not have.
TEST(SysutlUmask, WithoutProc)
{
    const test::TempDir root;
    expect_right_in_child([&root] {
        if (chroot(root.path().c_str()) != 0)
            return refused;
        umask(0135);
        return sysutl_get_umask() == 0135 && umask(0) == 0135 ? 0 : 1;
    });
}

TEST(SysutlMaxFds, IsTheSoftLimitReadOnceAndBounded)
{
    const std::pair<rlim_t, int> cases[] = {{64, 64}, {KS_FD_MAX, KS_FD_MAX}, {KS_FD_MAX + 1, KS_FD_MAX}};
    for (const auto &[limit, expected] : cases) {
        SCOPED_TRACE(limit);
        expect_right_in_child([limit = limit, expected = expected] {
            rlimit wanted{limit, 20000};
            if (setrlimit(RLIMIT_NOFILE, &wanted) != 0)
                return refused;
            if (sysutl_get_max_fds() != expected)
                return 1;
            wanted.rlim_cur = 32;
            setrlimit(RLIMIT_NOFILE, &wanted);
            return sysutl_get_max_fds() == expected ? 0 : 2;
        });
    }
}

TEST(SysutlFd, CloseOnExec)
{
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(sysutl_set_cloexec_file(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
    EXPECT_EQ(sysutl_set_cloexec_file(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

// A name of n bytes fits n + 1 and no less.
void expect_exact_fit(int (*name_into)(char *, size_t), const std::string &expected)
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

TEST(SysutlNames, AUserWithoutNameIsANumber)
{
    expect_right_in_child([] {
        if (setuid(3123456789) != 0)
            return refused;
        char name[11];
        return sysutl_user_name(name, sizeof name) == 0 && strcmp(name, "3123456789") == 0 ? 0 : 1;
    });
}

TEST(SysutlNames, DomainOfTheHost)
{
    const struct {
        const char *host;
        const char *nis_domain;
        const char *expected; // NULL: none
    } cases[] = {{"node.example.org", "(none)", "example.org"},
                 {"node.example.org", "", "example.org"},
                 {"node.example.org", "corp", "corp"},
                 {"node", "(none)", nullptr},
                 {"node.", "", nullptr}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.host);
        expect_right_in_child([&c] {
            if (unshare(CLONE_NEWUTS) != 0 || sethostname(c.host, strlen(c.host)) != 0 ||
                setdomainname(c.nis_domain, strlen(c.nis_domain)) != 0)
                return refused;
            char domain[65] = "unchanged";
            const int result = sysutl_get_host_domain_name(domain, sizeof domain);
            if (c.expected == nullptr)
                return result == -1 && errno == ENOENT && strcmp(domain, "unchanged") == 0 ? 0 : 1;
            return result == 0 && strcmp(domain, c.expected) == 0 ? 0 : 2;
        });
    }
}

} // namespace
