#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

TEST(KsWarn, TextOfErrnoBehindAColonWithoutBlank)
{
    const auto result = test::run_child([] {
        errno = ENOENT;
        bool right = ks_warn("open %s", "f") == '\n' && errno == ENOENT;
        right = ks_warnx("%d of %d", 1, 2) == '\n' && errno == ENOENT && right;
        errno = 0;
        right = ks_warn("plain") == '\n' && errno == 0 && right;
        return right ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "open f:No such file or directory\n1 of 2\nplain:Success\n");
    EXPECT_EQ(result.out, "");
}

TEST(KsWarn, ReportsAFailingStream)
{
    const auto result = test::run_child([] {
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDERR_FILENO);
        errno = EPERM;
        return ks_warn("lost") == EOF && errno == EPERM ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(KsWarn, LinesOfThreadsStayWhole)
{
    constexpr int lines_each = 200;
    const auto result = test::run_child([] {
        std::vector<std::thread> threads;
        for (const int number : {ENOENT, EPERM, EIO, EACCES})
            threads.emplace_back([number] {
                for (int i = 0; i < lines_each; ++i) {
                    errno = number;
                    ks_warn("number %d", number);
                }
            });
        for (auto &thread : threads)
            thread.join();
        return 0;
    });
    std::vector<std::string> lines;
    std::istringstream text(result.err);
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    for (const char *line : {"number 2:No such file or directory", "number 1:Operation not permitted",
                             "number 5:Input/output error", "number 13:Permission denied"})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), lines_each) << line;
    EXPECT_EQ(lines.size(), 4u * lines_each);
}

} // namespace
