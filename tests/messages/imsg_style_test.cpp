// Style markers on a real terminal and elsewhere. The terminal's capabilities are spelled out by an
// entry of our own, so that what is emitted can be read.
#include "harness/child.h"

#include <korvaks/imsg.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

const char *const entries = "ks_all|all styles, sgr0=<0>, bold=<B>, rmso=<i>, smso=<I>, rmul=<u>, smul=<U>,\n"
                            "ks_no_ends|starts without ends, bold=<B>, smso=<I>, rmul=<u>, smul=<U>,\n";

// A terminal whose other end the test reads; it lasts as long as the test program.
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
    return imsg_print_shared(0, nullptr, "%s", IMSG_RAW, text);
}

TEST_F(ImsgStyle, ChangesAreEmittedInOrder)
{
    const std::pair<const char *, const char *> cases[] = {
        {"plain\n", "plain\n"},
        {"a" IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END "c\n", "a<i><u><B>b<0><i><u>c\n"},
        {IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END IMSG_STYLE_BOLD_END "\n",
         "<i><u><B>bb<0><i><u>\n"}, // no change, nothing emitted
        {IMSG_STYLE_STANDOUT "s" IMSG_STYLE_UNDERLINE "u" IMSG_STYLE_BOLD "b" IMSG_STYLE_STANDOUT_END
                             "x" IMSG_STYLE_BOLD_END "y" IMSG_STYLE_UNDERLINE_END "z\n",
         "<0><u><I>s<0><I><U>u<B><I><U>b<i><B><U>x<0><i><U>y<0><i><u>z\n"},
        // What is no whole marker is text.
        {"\1" IMSG_STYLE_BOLD "x\1y\1\0012B\1\0011Q\1\1" IMSG_STYLE_BOLD_END "\1\0011",
         "\1<i><u><B>x\1y\1\0012B\1\0011Q\1\1<0><i><u>\1\0011"},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(expected);
        const auto result = run_on_terminal("ks_all", [text = text] { return put(text); });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out, expected);
    }
    // A style reaches into the next message.
    const auto result =
        run_on_terminal("ks_all", [] { return put("a" IMSG_STYLE_BOLD "b\n") + put("c" IMSG_STYLE_BOLD_END "d\n"); });
    EXPECT_EQ(result.out, "a<i><u><B>b\nc<0><i><u>d\n");
}

TEST_F(ImsgStyle, AStartWithoutItsEndIsNotUsed)
{
    const auto result = run_on_terminal("ks_no_ends", [] {
        return put(IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END IMSG_STYLE_STANDOUT
                                   "s" IMSG_STYLE_STANDOUT_END IMSG_STYLE_UNDERLINE "u" IMSG_STYLE_UNDERLINE_END "\n");
    });
    EXPECT_EQ(result.out, "<u>b<u><u>s<u><U>u<u>\n");
}

TEST_F(ImsgStyle, OffWithoutATypeOrOnRequest)
{
    const auto put_bold = [] { return put(IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END "\n"); };
    EXPECT_EQ(run_on_terminal(nullptr, put_bold).out, "b\n");
    EXPECT_EQ(run_on_terminal("no_such_terminal", put_bold).out, "b\n");
    setenv("VELM_NO_BOLD", "1", 1);
    EXPECT_EQ(run_on_terminal("ks_all", put_bold).out, "b\n");
    unsetenv("VELM_NO_BOLD");
}

// Only a stream that is a terminal shows styles, even where standard output is one.
TEST_F(ImsgStyle, OtherStreamsGetNoStyles)
{
    const auto result = run_on_terminal("ks_all", [] {
        imsg_print_shared(7, nullptr, "%s", IMSG_RAW, IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END "\n");
        char *text = nullptr;
        size_t size = 0;
        FILE *memory = open_memstream(&text, &size);
        errno = EDOM;
        const int status = imsg_fputs("x" IMSG_STYLE_UNDERLINE "y" IMSG_STYLE_UNDERLINE_END, memory);
        EXPECT_EQ(errno, EDOM);
        fclose(memory);
        EXPECT_STREQ(text, "xy");
        free(text);
        return status;
    });
    EXPECT_EQ(result.err, "b\n");
    EXPECT_EQ(result.out, "");
}

void switch_echo_off()
{
    termios modes{};
    tcgetattr(1, &modes);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(1, TCSANOW, &modes);
}

// A forked child leaves the terminal alone.
TEST_F(ImsgStyle, ExitRestoresTheModesOfTheStart)
{
    const auto result = run_on_terminal("ks_all", [this] {
        put("x");
        switch_echo_off();
        const pid_t child = fork();
        if (child == 0)
            exit(0);
        waitpid(child, nullptr, 0);
        exit(terminal_.echoes() ? 1 : 3);
        return 0;
    });
    EXPECT_EQ(result.exit_status, 3);
    EXPECT_TRUE(terminal_.echoes());
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
        return WEXITSTATUS(status);
    });
    EXPECT_EQ(result.exit_status, 5);
    EXPECT_EQ(result.out, "from behind\n");
}

TEST(ImsgStripStyles, RemovesWholeMarkersOnly)
{
    const std::pair<const char *, const char *> cases[] = {
        {"", ""},
        {"plain", "plain"},
        {IMSG_STYLE_BOLD "a" IMSG_STYLE_UNDERLINE_END IMSG_STYLE_STANDOUT "b", "ab"},
        {"\1\0011", "\1\0011"},
        {"\1" IMSG_STYLE_BOLD_END "\1", "\1\1"},
        {"\1\0013B", "\1\0013B"}};
    for (const auto &[text, expected] : cases) {
        std::string in_place = text;
        imsg_strip_style_chars(in_place.data(), in_place.data());
        EXPECT_STREQ(in_place.c_str(), expected);
    }
}

TEST(ImsgFputs, TellsWhenNothingWasWritten)
{
    FILE *full = fopen("/dev/full", "w");
    EXPECT_EQ(imsg_fputs("text", full) + imsg_fputs("a" IMSG_STYLE_BOLD "b", full), -2);
    EXPECT_EQ(imsg_fputs(nullptr, stdout) + imsg_fputs("x", nullptr) + imsg_fputs("", stdout), -2);
    fclose(full);
}

} // namespace
