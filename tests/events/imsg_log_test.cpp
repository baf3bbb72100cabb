// Log files: who gets one, what stands in it, and a file that takes nothing for a while.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_log.h>

#include <csignal>
#include <regex>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

int print(int kind, const char *text)
{
    return imsg_print_shared(kind, nullptr, text, IMSG_RAW);
}

TEST(ImsgLog, TakesEveryMessageBehindItsHeader)
{
    const test::TempDir dir;
    const std::string path = dir.file("log");
    test::write_file(path, "cut before");
    const auto result = test::run_child([&] {
        FILE *log = imsg_start_log_file(path.c_str());
        EXPECT_EQ(imsg_start_log("/nowhere/else", nullptr, 0), log); // reused, and not counted
        EXPECT_NE(fcntl(fileno(log), F_GETFD) & FD_CLOEXEC, 0);
        imsg_redirect_output(IMSG_PROC_SUPPRESS, nullptr, IMSG_PROC_SUPPRESS, nullptr);
        std::fputs("the program's own, ", log);
        EXPECT_EQ(imsg_print(IMSG_ERROR, &_ks_ks_msg_table, 15), 0);
        imsg_redirect_output(nullptr, nullptr, nullptr, nullptr);
        EXPECT_EQ(imsg_fputs("a|b\n" IMSG_STYLE_BOLD "c\n" IMSG_STYLE_BOLD_END, log), 0);
        EXPECT_EQ(imsg_print_shared(IMSG_OUTPUT, nullptr, "%0700000d\n", IMSG_RAW, 7), 0);
        imsg_end_log_file();
        imsg_end_log();
        print(IMSG_OUTPUT, "not any more\n");
    });
    EXPECT_EQ(result.out, "not any more\n");
    EXPECT_EQ(result.err, "");
    const std::string text = test::read_file(path);
    const std::regex start(
        "cut before\n\n\\*{67}\n[^\n]*\\. host \"[^\"\n]+\", pid [0-9]+, user \"[^\"\n]+\"\nthe program's "
        "own, noname/ks: Error: Unable to allocate storage.\na\\|b\nc\n0");
    EXPECT_TRUE(std::regex_search(text.substr(0, 400), start, std::regex_constants::match_continuous))
        << text.substr(0, 400);
    EXPECT_EQ(text.find("7\n") - text.find("c\n0"), 700001U);
}

TEST(ImsgLog, WithoutAHeaderMessagesHaveATimeStamp)
{
    const test::TempDir dir;
    test::in_child([&] {
        imsg_start_log(dir.file("log").c_str(), nullptr, 0);
        print(IMSG_WARNING, "one, ");
        print(IMSG_WARNING_MORE, "two\n");
    });
    const std::regex line("[0-9T:.-]{26}(Z|[+-][0-9:]{5}) noname: Warning: one, two\n");
    EXPECT_TRUE(std::regex_match(test::read_file(dir.file("log")), line)) << test::read_file(dir.file("log"));
}

TEST(ImsgLog, DegradesToStandardError)
{
    const test::TempDir dir;
    const auto make = [&](const char *name) { return dir.file(name); };
    test::write_file(make("file"), "");
    ASSERT_EQ(symlink(make("target").c_str(), make("link").c_str()), 0);
    ASSERT_EQ(link(make("file").c_str(), make("hard").c_str()), 0);
    ASSERT_EQ(mkfifo(make("fifo").c_str(), 0600), 0);
    const std::string refusal =
        "Unable to open log file \"" + make("link") + "\": pathname must not be a symbolic link.\n";
    for (const std::string &path :
         {std::string(), dir.path(), make("link"), make("hard"), make("fifo"), make("no/log")}) {
        SCOPED_TRACE(path);
        const auto result = test::run_child([&] {
            print(IMSG_SYSTEM, ""); // opens what the library itself needs
            const int before = test::open_descriptor_count();
            EXPECT_EQ(imsg_start_log(path.empty() ? nullptr : path.c_str(), nullptr, 1), stderr);
            print(IMSG_OUTPUT, "x\n");
            imsg_end_log_file();
            EXPECT_EQ(test::open_descriptor_count(), before);
        });
        EXPECT_TRUE(result.exited && result.out.empty());
        EXPECT_EQ(result.err.rfind(path == make("link") ? refusal : "\n***", 0), 0U) << result.err;
        EXPECT_TRUE(result.err.ends_with("\"\nx\n")) << result.err;
    }
    EXPECT_EQ(access(make("target").c_str(), F_OK), -1);
}

TEST(ImsgLog, IsLockedUntilItsProcessIsGone)
{
    const test::TempDir dir;
    const auto get = [&](bool is_taken) {
        test::in_child([&] { EXPECT_EQ(imsg_start_log(dir.file("log").c_str(), nullptr, 0) == stderr, is_taken); });
    };
    test::Child holder([&] {
        imsg_start_log(dir.file("log").c_str(), nullptr, 0);
        return write(1, "held", 4) == 4 ? pause() : 1;
    });
    ASSERT_TRUE(holder.wait_for_output("held"));
    get(true);
    kill(holder.pid(), SIGKILL);
    (void)holder.finish();
    get(false);
}

TEST(ImsgLog, AFullDiskLosesWhatItRefusesAndNothingElse)
{
    const test::TempDir dir;
    const std::string path = dir.file("log");
    const auto result = test::run_child([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        imsg_start_log(path.c_str(), nullptr, 1);
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        const auto limit = [&](rlim_t size) {
            const rlimit to{size, RLIM_INFINITY};
            ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &to), 0);
        };
        limit(static_cast<rlim_t>(st.st_size) + 4);
        EXPECT_EQ(print(IMSG_OUTPUT, "cut here\n"), -1);
        EXPECT_EQ(print(IMSG_OUTPUT, "lost\n"), -1);
        limit(RLIM_INFINITY);
        EXPECT_EQ(print(IMSG_OUTPUT, "whole\n"), 0);
        imsg_log_counters counters{};
        imsg_get_log_counters(&counters);
        EXPECT_TRUE(counters.written == 2 && counters.lost == 2 && counters.suppressed == 0);
    });
    EXPECT_EQ(result.err, "noname/ks/imsg: Error: Unable to write to the log file: File too large\n");
    const std::string text = test::read_file(path);
    EXPECT_TRUE(
        text.ends_with("\"\ncut \nnoname/ks/imsg: Error: 2 records could not be written: File too large\nwhole\n"))
        << text;
}

} // namespace
