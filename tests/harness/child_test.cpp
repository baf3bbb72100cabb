// Checks in children: what fails there fails here.
#include "harness/child.h"

#include <csignal>

#include <unistd.h>

#include <gtest/gtest-spi.h>

namespace {

TEST(Child, ReportsWhatFailsInItHoweverItEnds)
{
    test::Child exits([] {
        EXPECT_EQ(1, 2) << "first";
        return 4;
    });
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(exits.finish().exit_status, 4), "first");
    test::Child is_killed([] {
        EXPECT_EQ(1, 2) << "by a signal";
        return raise(SIGKILL);
    });
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(is_killed.finish().signal, SIGKILL), "by a signal");
    test::Child has_a_child([] {
        test::in_child([] { ASSERT_TRUE(false) << "deep"; });
        return 0;
    });
    EXPECT_NONFATAL_FAILURE(has_a_child.finish(), "deep");
    EXPECT_NONFATAL_FAILURE(test::in_child([] { _exit(3); }), "status 3");
}

} // namespace
