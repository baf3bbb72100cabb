// The programs of docs/stopping.md stop as the page says.
#include <csignal>

#include <unistd.h>

#include <korvaks/pfm.h>

#include "harness/child.h"

namespace {

TEST(StoppingPage, ProgramsEndAsItSays)
{
    const struct {
        std::string program;
        std::vector<int> signals; // sent when it is ready
        int ignored;              // when it starts
        int ended_by;             // 0: exit
        int exit_status;
        std::string out;
    } rows[] = {
        {"workers", {SIGINT}, 0, SIGINT, -1, "ready\nstopped after some rounds\n"},
        {"workers", {SIGTERM}, 0, SIGTERM, -1, "ready\nstopped after some rounds\n"},
        {"workers", {SIGINT, SIGTERM}, SIGINT, SIGTERM, -1, "ready\nstopped after some rounds\n"},
        {"workers", {SIGHUP}, 0, 0, PFM_RAISE_INTERRUPT, "ready\nstopped after some rounds\n"},
        {"child", {SIGINT}, 0, 0, PFM_RAISE_INTERRUPT, "ready\nchild ended\n"},
        {"clean", {}, 0, 0, 0, "child exits with 4\nchild ended with 4\nparent exits with 0\n"},
        {"handover", {}, 0, 0, 0, "told to stop (4), with the result\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.program);
        int input[2]; // stays open: the reader waits
        ASSERT_EQ(pipe(input), 0);
        test::Child child([&] {
            dup2(input[0], STDIN_FILENO);
            close(input[1]);
            for (const int sig : {SIGINT, SIGTERM, SIGHUP})
                signal(sig, sig == row.ignored ? SIG_IGN : SIG_DFL);
            return execl((KORVAKS_PAGE_PROGRAM + row.program).c_str(), row.program.c_str(), nullptr);
        });
        EXPECT_TRUE(row.signals.empty() || child.wait_for_output("ready\n"));
        for (const int sig : row.signals)
            kill(child.pid(), sig);
        const test::ChildResult result = child.finish(20000);
        EXPECT_EQ(result.signal, row.ended_by);
        EXPECT_EQ(result.exit_status, row.exit_status);
        EXPECT_EQ(result.out, row.out);
        EXPECT_FALSE(result.timed_out);
        close(input[0]);
        close(input[1]);
    }
}

} // namespace
