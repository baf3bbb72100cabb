// The README's example is the program that is built and run here.
#include <cstdlib>

#include <gtest/gtest.h>

#include <unistd.h>

#include "meta/source_tree.h"
#include "harness/child.h"

namespace {

TEST(Readme, ShowsTheExampleAsItIs)
{
    const std::string block = "\n```c\n" + meta::read_source("examples/hello/hello.c").text + "```\n";
    EXPECT_NE(meta::read_source("README.md").text.find(block), std::string::npos) << block;
}

TEST(Readme, ShowsWhatTheExamplePrints)
{
    const auto result = test::run_child([] {
        for (const char *variable :
             {"PRINT_SUBSYS", "PRINT_SUBSYS_OK", "TRACE_SUBSYS", "LANG", "LC_ALL", "LC_MESSAGES"})
            unsetenv(variable);
        if (chdir(KORVAKS_SOURCE_DIR "/examples/hello") != 0)
            return 2;
        return execl(KORVAKS_HELLO, "hello", "hello.c", "nowhere", nullptr);
    });
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "hello: Error: nowhere: No such file or directory\n");
    const std::string shown = "    $ hello hello.c nowhere\n    " + result.out + "    " + result.err;
    EXPECT_NE(meta::read_source("README.md").text.find(shown), std::string::npos) << shown;
}

} // namespace
