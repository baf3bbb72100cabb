#include "harness/child.h"
#include "harness/forked.h"
#include "harness/misuse.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_proc.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

bool refuses_groups = false;

std::string read_all(int fd)
{
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<std::size_t>(got));
    close(fd);
    return text;
}

struct Settings {
    char *const *env = nullptr;
    int detach = 0;
    int new_pgrp = 0;
    const char *dir = nullptr;
    int status = 0; // expected
};

// What a command line writes to standard output.
std::string output_of(const char *command, const Settings &with = {})
{
    ks_proc_result result{-7, -7, -7, -7};
    EXPECT_EQ(ks_proc_create_process_str_cd(command, with.env, KS_PROC_PIPE_OUT, with.detach, with.new_pgrp, with.dir,
                                            &result),
              1);
    EXPECT_TRUE(result.in_fd == -7 && result.err_fd == -7);
    std::string text = read_all(result.out_fd);
    EXPECT_EQ(test::exit_status_of(result.pid), with.status);
    return text;
}

} // namespace

extern "C" int setpgid(pid_t pid, pid_t group) noexcept
{
    if (!refuses_groups)
        return static_cast<int>(syscall(SYS_setpgid, pid, group));
    errno = EPERM;
    return -1;
}

namespace {

TEST(KsProc, ConnectsStreamsAndNothingElse)
{
    test::in_child([] {
        ASSERT_EQ(fcntl(0, F_DUPFD, 100), 100); // the program's own, not close-on-exec
        const std::string inherited = read_all(fileno(popen("ls /proc/$$/fd", "r")));
        ASSERT_EQ(close(0), 0); // so that a pipe would get the number of a standard stream
        char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                              const_cast<char *>("cat; exec >&2; ls /proc/$$/fd"), nullptr};
        ks_proc_result result{};
        ASSERT_EQ(ks_proc_create_process(argv, nullptr, 7, 0, 0, &result), 1);
        for (const int fd : {result.in_fd, result.out_fd, result.err_fd})
            EXPECT_TRUE(fd > 2 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
        ASSERT_EQ(write(result.in_fd, "in and out\n", 11), 11);
        close(result.in_fd);
        EXPECT_EQ(read_all(result.out_fd), "in and out\n");
        EXPECT_EQ(read_all(result.err_fd), inherited);
        EXPECT_EQ(test::exit_status_of(result.pid), 0);
    });
}

TEST(KsProc, SettingsOfTheChild)
{
    test::in_child([] {
        char *env[] = {const_cast<char *>("A=b"), nullptr};
        EXPECT_EQ(output_of("exec env; exit 4", {.env = env}).substr(0, 4), "A=b\n");
        EXPECT_EQ(output_of("pwd; exit 3", {.dir = "/usr", .status = 3}), "/usr\n");
        EXPECT_EQ(output_of("cut -d' ' -f5 /proc/$$/stat | grep -c \"^$$\\$\"", {.new_pgrp = 1}), "1\n");
        EXPECT_EQ(output_of("sleep 0.2; echo late; exit 9", {.detach = 1}), "late\n");
        char *with_gap[] = {const_cast<char *>("X=1"), const_cast<char *>(""), const_cast<char *>("Y=2"), nullptr};
        environ = with_gap;
        EXPECT_EQ(output_of("exec /usr/bin/env | grep -c '^[XY]='"), "2\n");
        EXPECT_STREQ(environ[1], "") << "the parent's own stays";
    });
}

TEST(KsProc, TheChildSaysWhatFailedAndEndsWithTheNumber)
{
    const auto result = test::run_child([] {
        imsg_set_app_name("tool");
        std::printf("once"); // waits in the stream
        char *argv[] = {const_cast<char *>("/no/such/program"), nullptr};
        ks_proc_result none{};
        EXPECT_EQ(ks_proc_create_process_cd(argv, nullptr, 0, 0, 0, nullptr, &none), 1);
        EXPECT_EQ(test::exit_status_of(none.pid), ENOENT);
        EXPECT_EQ(output_of("true", {.dir = "/no", .status = ENOENT}), "");
        refuses_groups = true;
        EXPECT_EQ(output_of("echo on", {.new_pgrp = 1}), "on\n");
        std::printf(" only");
    });
    EXPECT_EQ(result.out, "once only");
    for (const char *line : {"tool: Error: Unable to exec \"/no/such/program\": errno 2\n",
                             "tool: Error: Unable to change directory to \"/no\": errno 2\n",
                             "tool: Warning: Unable to set process group id in child [0]: errno 1\n"})
        EXPECT_NE(result.err.find(line), std::string::npos) << result.err;
    test::expect_misuse({{[] { ks_proc_create_process_int(nullptr, nullptr, nullptr, 0, 0, 0, nullptr, nullptr); },
                          "(argv != NULL || command != NULL)"}});
}

// The capturing daemon's pipe: it does not block, and a full one loses nothing of a child's.
TEST(KsProc, OutputWaitsForRoomInAPipeThatDoesNotBlock)
{
    test::in_child([] {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
        ASSERT_EQ(dup2(ends[1], 1), 1);
        ks_proc_result result{};
        ASSERT_EQ(ks_proc_create_process_str("head -c 1000000 /dev/zero", nullptr, 0, 0, 0, &result), 1);
        EXPECT_NE(fcntl(1, F_GETFL) & O_NONBLOCK, 0);
        close(1);
        close(ends[1]);
        usleep(50000); // it fills
        fcntl(ends[0], F_SETFL, 0);
        EXPECT_EQ(read_all(ends[0]).size(), 1000000U);
        EXPECT_EQ(test::exit_status_of(result.pid), 0);
    });
}

} // namespace
