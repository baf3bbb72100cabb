// Style markers on a real terminal and elsewhere. The terminal's capabilities are spelled out by an
// entry of our own, so that what is emitted can be read.
#include "harness/child.h"

#include <korvaks/imsg.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

#define BOLD_ON                                                                                                        \
    "\1\1"                                                                                                             \
    "1B"
#define BOLD_OFF                                                                                                       \
    "\1\1"                                                                                                             \
    "0B"
#define STANDOUT_ON                                                                                                    \
    "\1\1"                                                                                                             \
    "1I"
#define STANDOUT_OFF                                                                                                   \
    "\1\1"                                                                                                             \
    "0I"
#define UNDERLINE_ON                                                                                                   \
    "\1\1"                                                                                                             \
    "1U"
#define UNDERLINE_OFF                                                                                                  \
    "\1\1"                                                                                                             \
    "0U"

const char *const entries = "ks_all|all styles, sgr0=<0>, bold=<B>, rmso=<i>, smso=<I>, rmul=<u>, smul=<U>,\n"
                            "ks_no_ends|starts without ends, bold=<B>, smso=<I>, rmul=<u>, smul=<U>,\n";

// A terminal whose other end the test reads.
class Terminal {
  public:
    Terminal()
    {
        if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0)
            abort();
        termios modes{};
        tcgetattr(slave_, &modes);
        modes.c_oflag &= ~static_cast<tcflag_t>(OPOST); // line feeds as they are written
        tcsetattr(slave_, TCSANOW, &modes);
    }
    ~Terminal()
    {
        close(master_);
        close(slave_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    int slave() const { return slave_; }

    bool echoes() const
    {
        termios modes{};
        tcgetattr(slave_, &modes);
        return (modes.c_lflag & ECHO) != 0;
    }

    std::string output() const
    {
        std::string text;
        for (pollfd ready{master_, POLLIN, 0}; poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;) {
            char bytes[4096];
            const ssize_t got = read(master_, bytes, sizeof bytes);
            if (got <= 0)
                break;
            text.append(bytes, static_cast<size_t>(got));
        }
        return text;
    }

  private:
    int master_ = -1;
    int slave_ = -1;
};

class ImsgStyle : public testing::Test {
  protected:
    void SetUp() override
    {
        test::write_file(dir_.file("entries"), entries);
        ASSERT_EQ(system(("tic -x -o " + dir_.path() + " " + dir_.file("entries") + " 2>/dev/null").c_str()), 0);
    }

    // Runs `body` with its standard output on a fresh terminal of the given type.
    test::ChildResult run_on_terminal(const char *type, const std::function<int()> &body)
    {
        auto result = test::run_child([&] {
            dup2(terminal_.slave(), 1);
            setenv("TERMINFO", dir_.path().c_str(), 1);
            type == nullptr ? unsetenv("TERM") : setenv("TERM", type, 1);
            return body();
        });
        result.out = terminal_.output();
        return result;
    }

    test::TempDir dir_;
    Terminal terminal_;
};

int put(const char *text)
{
    return imsg_print_shared(0, nullptr, "%s", static_cast<unsigned>(-1), text);
}

TEST_F(ImsgStyle, ChangesAreEmittedInOrder)
{
    const std::pair<const char *, const char *> cases[] = {
        {"plain\n", "plain\n"},
        {"a" BOLD_ON "b" BOLD_OFF "c\n", "a<i><u><B>b<0><i><u>c\n"},
        {BOLD_ON "b" BOLD_ON "b" BOLD_OFF BOLD_OFF "\n", "<i><u><B>bb<0><i><u>\n"}, // no change, nothing emitted
        {STANDOUT_ON "s" UNDERLINE_ON "u" BOLD_ON "b" STANDOUT_OFF "x" BOLD_OFF "y" UNDERLINE_OFF "z\n",
         "<0><u><I>s<0><I><U>u<B><I><U>b<i><B><U>x<0><i><U>y<0><i><u>z\n"},
        // What is no whole marker is text.
        {"\1" BOLD_ON "x\1y\1\1"
         "2B\1\1"
         "1Q\1\1" BOLD_OFF "\1\1"
         "1",
         "\1<i><u><B>x\1y\1\1"
         "2B\1\1"
         "1Q\1\1<0><i><u>\1\1"
         "1"},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(expected);
        const auto result = run_on_terminal("ks_all", [text = text] { return put(text); });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out, expected);
    }
}

TEST_F(ImsgStyle, AStyleReachesAcrossMessages)
{
    const auto result = run_on_terminal("ks_all", [] { return put("a" BOLD_ON "b\n") + put("c" BOLD_OFF "d\n"); });
    EXPECT_EQ(result.out, "a<i><u><B>b\nc<0><i><u>d\n");
}

TEST_F(ImsgStyle, AStartWithoutItsEndIsNotUsed)
{
    const auto result = run_on_terminal("ks_no_ends", [] {
        return put(BOLD_ON "b" BOLD_OFF STANDOUT_ON "s" STANDOUT_OFF UNDERLINE_ON "u" UNDERLINE_OFF "\n");
    });
    EXPECT_EQ(result.out, "<u>b<u><u>s<u><U>u<u>\n");
}

TEST_F(ImsgStyle, OffWithoutATypeOrOnRequest)
{
    const std::string text = BOLD_ON "b" BOLD_OFF "\n";
    EXPECT_EQ(run_on_terminal(nullptr, [&] { return put(text.c_str()); }).out, "b\n");
    EXPECT_EQ(run_on_terminal("no_such_terminal", [&] { return put(text.c_str()); }).out, "b\n");
    EXPECT_EQ(run_on_terminal("ks_all",
                              [&] {
                                  setenv("VELM_NO_BOLD", "1", 1);
                                  return put(text.c_str());
                              })
                  .out,
              "b\n");
}

// Only a stream that is a terminal shows styles, even where standard output is one.
TEST_F(ImsgStyle, OtherStreamsGetNoStyles)
{
    const auto result = run_on_terminal("ks_all", [] {
        imsg_print_shared(7, nullptr, "%s", static_cast<unsigned>(-1), BOLD_ON "b" BOLD_OFF "\n");
        char *text = nullptr;
        size_t size = 0;
        FILE *memory = open_memstream(&text, &size);
        const int status = imsg_fputs("x" UNDERLINE_ON "y" UNDERLINE_OFF, memory);
        fclose(memory);
        const bool is_right = status == 0 && std::string(text) == "xy";
        free(text);
        return is_right ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "b\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(ImsgStyle, ManyThreadsShareTheTerminal)
{
    const auto result = run_on_terminal("ks_all", [] { return put(""); });
    EXPECT_EQ(result.exit_status, 0);
    // Terminal output is small, so that it all fits while nobody reads.
    const auto busy = run_on_terminal("ks_all", [] {
        pthread_t threads[4];
        for (pthread_t &thread : threads) {
            pthread_create(
                &thread, nullptr,
                [](void *) -> void * {
                    for (int i = 0; i < 15; ++i)
                        put(BOLD_ON "b" BOLD_OFF "\n");
                    return nullptr;
                },
                nullptr);
        }
        for (const pthread_t thread : threads)
            pthread_join(thread, nullptr);
        return 0;
    });
    std::string expected;
    for (int i = 0; i < 60; ++i)
        expected += "<i><u><B>b<0><i><u>\n";
    EXPECT_EQ(busy.out, expected);
}

void switch_echo_off()
{
    termios modes{};
    tcgetattr(1, &modes);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(1, TCSANOW, &modes);
}

TEST_F(ImsgStyle, ExitRestoresTheModesOfTheStart)
{
    const auto result = run_on_terminal("ks_all", [] {
        put("x");
        switch_echo_off();
        exit(3);
        return 0;
    });
    EXPECT_EQ(result.exit_status, 3);
    EXPECT_TRUE(terminal_.echoes());
}

TEST_F(ImsgStyle, AForkedChildLeavesTheTerminalAlone)
{
    const auto result = run_on_terminal("ks_all", [] {
        put("x");
        switch_echo_off();
        const pid_t child = fork();
        if (child == 0)
            exit(0);
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_FALSE(terminal_.echoes());
}

// A process in the background neither stops over its first message nor touches the modes at exit.
TEST_F(ImsgStyle, ABackgroundProcessLeavesTheTerminalAlone)
{
    const auto result = run_on_terminal("ks_all", [this] {
        const pid_t leader = fork();
        if (leader == 0) {
            setsid();
            if (ioctl(terminal_.slave(), TIOCSCTTY, 0) != 0)
                _exit(9);
            const pid_t background = fork();
            if (background == 0) {
                setpgid(0, 0);
                put("from behind\n");
                exit(5);
            }
            int status = 0;
            waitpid(background, &status, WUNTRACED);
            if (!WIFEXITED(status))
                kill(background, SIGKILL);
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 8);
        }
        int status = 0;
        waitpid(leader, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 7;
    });
    EXPECT_EQ(result.exit_status, 5);
    EXPECT_EQ(result.out, "from behind\n");
}

TEST(ImsgStripStyles, RemovesWholeMarkersOnly)
{
    const std::pair<const char *, const char *> cases[] = {{"", ""},
                                                           {"plain", "plain"},
                                                           {BOLD_ON "a" UNDERLINE_OFF STANDOUT_ON "b", "ab"},
                                                           {"\1\1"
                                                            "1",
                                                            "\1\1"
                                                            "1"},
                                                           {"\1" BOLD_OFF "\1", "\1\1"},
                                                           {"\1\1"
                                                            "3B",
                                                            "\1\1"
                                                            "3B"}};
    for (const auto &[text, expected] : cases) {
        std::string out(std::strlen(text) + 1, '#');
        imsg_strip_style_chars(out.data(), text);
        EXPECT_STREQ(out.c_str(), expected);
        std::string in_place = text;
        imsg_strip_style_chars(in_place.data(), in_place.data());
        EXPECT_STREQ(in_place.c_str(), expected);
    }
}

TEST(ImsgFputs, TellsWhenNothingWasWritten)
{
    const auto result = test::run_child([] {
        FILE *full = fopen("/dev/full", "w");
        if (full == nullptr || imsg_fputs("text", full) != -1 || imsg_fputs("a" BOLD_ON "b", full) != -1)
            return 1;
        fclose(full);
        return imsg_fputs(nullptr, stdout) == -1 && imsg_fputs("x", nullptr) == -1 && imsg_fputs("", stdout) == 0 ? 0
                                                                                                                  : 2;
    });
    EXPECT_EQ(result.exit_status, 0);
}

} // namespace
