// The prompting tool as programs run it: in plain text, with whiptail at a terminal, with zenity on a display.
#include "e2e/depot_fixture.h"
#include "harness/terminal.h"

#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using test::Terminal;
using test::Words;

class Velprompt : public testing::Test {
  protected:
    Words command(Words arguments, const std::string &outfile = "answer") const
    {
        arguments.insert(arguments.begin(), VELPROMPT_PROGRAM);
        if (!outfile.empty())
            arguments.insert(arguments.end(), {"-outfile", dir_.file(outfile)});
        return arguments;
    }

    // With `input` on standard input, and neither a terminal nor a display.
    test::ChildResult run_plain(const std::string &input, const Words &words)
    {
        test::write_file(dir_.file("input"), input);
        return test::run_child([&] {
            for (const char *name : {"TERM", "DISPLAY", "WAYLAND_DISPLAY"})
                unsetenv(name);
            setenv("VELM_FORCE_GUI", "1", 1); // as its caller has it; it does not start itself
            dup2(open(dir_.file("input").c_str(), O_RDONLY), STDIN_FILENO);
            return test::exec(words);
        });
    }

    std::string answer() const { return test::read_file(dir_.file("answer")); }

    // The exit status when the question that shows `text` has got `keys` at a terminal.
    int typed(const Words &words, const std::string &text, const std::string &keys)
    {
        Terminal terminal([&] {
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            setenv("TERM", "xterm", 1);
            setenv("LANG", "C.UTF-8", 1);
            return test::exec(words);
        });
        terminal.shown_until(text);
        terminal.shown_until("\u2518"); // the last corner of the box
        terminal.type(keys);
        terminal.shown_until("");
        EXPECT_TRUE(terminal.echoes());
        return WEXITSTATUS(terminal.wait_status());
    }

    test::TempDir dir_;
};

TEST_F(Velprompt, AsksInPlainText)
{
    const Words yes_no = {"yes_no", "-prompt", "Sure?", "-type", "error", "-default", "no", "-mask", "yes,no"};
    const std::pair<std::string, int> choices[] = {{"y\n", 0}, {"\n", 1}, {"a\nn\n", 1}};
    for (const auto &[input, status] : choices) {
        const auto result = run_plain(input, command(yes_no, ""));
        EXPECT_EQ(result.exit_status, status) << input;
        EXPECT_TRUE(result.err.starts_with("Sure? [no] "));
    }
    EXPECT_EQ(run_plain("abort\n", command({"yes_no", "-prompt", "?", "-mask", ""}, "")).exit_status, 2);
    struct Case {
        Words words;
        std::string input, answer;
    };
    const std::vector<Case> cases = {
        {{"text", "-prompt", "?", "-default", "-d"}, "\n", "-d"},
        {{"text", "-prompt", "?", "-multi_line"}, "a\nb\n.\n", "a\nb"},
        {{"password", "-prompt", "?"}, "x\n", "x"},
        {{"file", "-prompt", "?", "-pattern", "*", "-directory", "/"}, "f\n", "f"},
        {{"list", "-prompt", "?", "-items", "-a\nb", "-prefer_gui"}, "2\n", "2"},
        {{"list", "-prompt", "?", "-dfile", dir_.file("items"), "-choices"}, "2 1\n", "2,1"},
    };
    test::write_file(dir_.file("items"), "-a\nb\n");
    for (const Case &each : cases) {
        SCOPED_TRACE(each.words[0] + each.input);
        test::write_file(dir_.file("answer"), "of before");
        EXPECT_EQ(run_plain(each.input, command(each.words)).exit_status, 0);
        EXPECT_EQ(answer(), each.answer);
        EXPECT_EQ(run_plain("", command(each.words)).exit_status, 1);
    }
    for (const char *outfile : {"", "."}) { // none, and a directory
        const auto result = run_plain("x\n", command({"text", "-prompt", "?"}, outfile));
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_NE(result.err.find("velprompt: Error: "), std::string::npos);
    }
}

TEST_F(Velprompt, AsksWithWhiptail)
{
    ASSERT_EQ(system("command -v whiptail >/dev/null"), 0) << "scripts/setup installs it";
    const std::string down = "\033[B";
    const Words yes_no = {"yes_no", "-prompt", "-<b>Sure", "-default", "no", "-mask", "abort,yes,no"};
    EXPECT_EQ(typed(command(yes_no, ""), "-<b>Sure", "\r"), 1);
    EXPECT_EQ(typed(command(yes_no, ""), "-<b>Sure", "\033[A\r"), 0);
    EXPECT_EQ(typed(command(yes_no, ""), "-<b>Sure", "\033\033"), 2);
    EXPECT_EQ(typed(command({"text", "-prompt", "-a\\nb", "-default", "-d"}), "-a\\", "\r"), 0);
    EXPECT_EQ(answer(), "-d");
    EXPECT_EQ(typed(command({"password", "-prompt", "Secret"}), "Secret", "open\r"), 0);
    EXPECT_EQ(answer(), "open");
    struct stat info;
    EXPECT_TRUE(stat(dir_.file("answer").c_str(), &info) == 0 && (info.st_mode & 0777) == 0600);
    EXPECT_EQ(typed(command({"list", "-prompt", "Which", "-items", "-a\n--b\nc"}), "Which", down + "\r"), 0);
    EXPECT_EQ(answer(), "2");
    const Words several = {"list", "-prompt", "Which", "-items", "-a\n--b\nc", "-choices"};
    EXPECT_EQ(typed(command(several), "Which", " " + down + down + " \r"), 0);
    EXPECT_EQ(answer(), "1,3");
    Terminal ended([&] {
        setenv("TERM", "xterm", 1);
        setenv("LANG", "C.UTF-8", 1);
        unsetenv("DISPLAY");
        return test::exec(command({"password", "-prompt", "Secret"}));
    });
    ended.shown_until("Secret");
    ended.shown_until("\u2518");
    kill(ended.pid(), SIGTERM);
    ended.shown_until("");
    EXPECT_TRUE(ended.echoes());
    const int status = ended.wait_status();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

TEST_F(Velprompt, AsksWithZenity)
{
    if (system("command -v zenity >/dev/null && command -v Xvfb >/dev/null && command -v xdotool >/dev/null") != 0)
        GTEST_SKIP() << "zenity, Xvfb and xdotool are not installed (scripts/setup --gui)";
    // Keys are pressed when the window of the question is there.
    const std::string script = "display=$(mktemp -u); mkfifo $display; Xvfb -displayfd 3 3>$display >/dev/null 2>&1 & "
                               "server=$!; read number <$display; rm $display; export DISPLAY=:$number; "
                               "\"$0\" \"$@\" & tool=$!; "
                               "xdotool search --sync --onlyvisible --class zenity >/dev/null; sleep 1; "
                               "xdotool key --delay 100 $keys; wait $tool; status=$?; kill $server; exit $status";
    const auto pressed = [&](const std::string &keys, Words words) {
        words.insert(words.begin(), {"/bin/bash", "-c", "keys='" + keys + "'; " + script});
        return test::run_program(words).exit_status;
    };
    const Words yes_no = {"yes_no", "-prompt", "-<b>&_\\n", "-default", "no", "-mask", "abort,yes,no"};
    EXPECT_EQ(pressed("Return", command(yes_no, "")), 1);
    EXPECT_EQ(pressed("Escape", command(yes_no, "")), 2);
    EXPECT_EQ(pressed("Return", command({"text", "-prompt", "-<b>&_\\n", "-default", "-<i>&"})), 0);
    EXPECT_EQ(answer(), "-<i>&");
    EXPECT_EQ(pressed("Down Return", command({"list", "-prompt", "-<b>&_\\n", "-items", "-a\n--b\nc"})), 0);
    EXPECT_EQ(answer(), "2");
}

} // namespace
