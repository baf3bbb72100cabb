#include "harness/child.h"

#include <korvaks/fileutl.h>

#include <cerrno>
#include <cstdint>

#include <unistd.h>

namespace {

TEST(FileutlStat, TellsWhatIsThere)
{
    const test::TempDir dir;
    test::write_file(dir.file("file"), "12345");
    ASSERT_EQ(symlink("file", dir.file("link").c_str()), 0);
    ASSERT_EQ(symlink("absent", dir.file("dangling").c_str()), 0);
    for (const auto &[name, exists] :
         {std::pair{"", 1}, {"file", 1}, {"link", 1}, {"dangling", 0}, {"file/below", 0}}) {
        errno = E2BIG;
        EXPECT_EQ(fileutl_exists(dir.file(name).c_str()), exists) << name;
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
    for (const auto &[size, overflow] : {std::pair{0L, 0}, {INT64_MAX - 2, 0}, {INT64_MAX - 1, 1}, {-1L, 1}}) {
        SCOPED_TRACE(size);
        struct stat st {};
        st.st_size = size;
        errno = 0;
        EXPECT_EQ(fileutl_chk_large_file_overflow(&st), overflow);
        EXPECT_EQ(errno, overflow != 0 ? EFBIG : 0);
    }
}

} // namespace
