#include "harness/child.h"

#include <korvaks/ks_warn.h>

#include <cerrno>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

TEST(KsWarn, TextOfErrnoBehindAColonWithoutBlank)
{
    const auto result = test::run_child([] {
        errno = ENOENT;
        EXPECT_EQ(ks_warn("open %s", "f"), '\n');
        EXPECT_EQ(ks_warnx("%d of %d", 1, 2), '\n');
        EXPECT_EQ(errno, ENOENT);
        errno = 0;
        (void)ks_warn("plain");
        EXPECT_EQ(errno, 0);
    });
    EXPECT_EQ(result.err, "open f:No such file or directory\n1 of 2\nplain:Success\n");
}

TEST(KsWarn, ReportsAFailingStream)
{
    test::in_child([] {
        dup2(open("/dev/full", O_WRONLY), STDERR_FILENO);
        errno = EPERM;
        EXPECT_EQ(ks_warn("lost"), EOF);
        EXPECT_EQ(errno, EPERM);
    });
}

TEST(KsWarn, LinesOfThreadsStayWhole)
{
    const auto result = test::run_child([] {
        const auto warn = [] {
            for (int i = 0; i < 400; ++i) {
                errno = ENOENT;
                ks_warn("%d", 1);
            }
        };
        std::thread other(warn);
        warn();
        other.join();
    });
    std::string expected;
    for (int i = 0; i < 2 * 400; ++i)
        expected += "1:No such file or directory\n";
    EXPECT_EQ(result.err, expected);
}

} // namespace
