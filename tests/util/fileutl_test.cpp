#include <korvaks/fileutl.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

TEST(FileutlStat, TellsWhatIsThere)
{
    const test::TempDir dir;
    test::write_file(dir.file("file"), "12345");
    ASSERT_EQ(symlink("file", dir.file("link").c_str()), 0);
    ASSERT_EQ(symlink("absent", dir.file("dangling").c_str()), 0);
    const struct {
        std::string path;
        int exists;
    } cases[] = {{dir.path(), 1},
                 {dir.file("file"), 1},
                 {dir.file("link"), 1},
                 {dir.file("dangling"), 0},
                 {dir.file("absent"), 0},
                 {dir.file("file/below"), 0},
                 {"", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        errno = E2BIG;
        EXPECT_EQ(fileutl_exists(c.path.c_str()), c.exists);
        EXPECT_EQ(errno, E2BIG);
    }

    struct stat st;
    EXPECT_EQ(fileutl_stat(dir.file("link").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(fileutl_stat(dir.file("file/below").c_str(), &st), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(st.st_size, 5) << "changed by a failure";
}

TEST(FileutlStat, SizesThatNoStringHolds)
{
    const std::pair<off_t, int> cases[] = {{0, 0},  {INT64_MAX - 2, 0}, {INT64_MAX - 1, 1}, {INT64_MAX, 1},
                                           {-1, 1}, {INT64_MIN, 1}};
    for (const auto &[size, overflow] : cases) {
        SCOPED_TRACE(size);
        struct stat st {};
        st.st_size = size;
        errno = 0;
        EXPECT_EQ(fileutl_chk_large_file_overflow(&st), overflow);
        EXPECT_EQ(errno, overflow != 0 ? EFBIG : 0);
    }
}

} // namespace
