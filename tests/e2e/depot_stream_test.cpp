// veldepot among pipes and terminals: streams of any size, Ctrl-C, what a terminal is shown, lost output.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "e2e/depot_fixture.h"
#include "harness/terminal.h"

namespace {

using test::ChildResult;
using test::Words;
using Clock = std::chrono::steady_clock;

// A shell with a terminal of its own.
struct Session : test::Terminal {
    explicit Session(const std::string &command)
        : Terminal([&] {
              return test::exec({"/bin/bash", "--norc", "-c", command});
          })
    {
    }
};

class DepotStream : public test::DepotTest {
  protected:
    static std::string loop_of(const std::string &command)
    {
        return "for i in 1 2 3; do " VELDEPOT_PROGRAM " -d depot " + command + "; done; echo at the end";
    }

    // The shell must end by the signal as well, and show nothing more than the key.
    static void interrupt(Session &session)
    {
        const auto pressed = Clock::now();
        session.type("\003");
        const std::string shown = session.shown_until("");
        EXPECT_EQ(shown.find("at the end"), std::string::npos) << shown;
        const int status = session.wait_status();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
        EXPECT_LT(Clock::now() - pressed, std::chrono::seconds(1)); // some 0.05 s on an idle machine
    }
};

TEST_F(DepotStream, AnInterruptEndsALongPutAndTheShellsLoop)
{
    test::write_file("big", "");
    std::filesystem::resize_file("big", std::uintmax_t{8} << 30);
    Session session(loop_of("put big"));
    EXPECT_NE(session.shown_until(" MiB").find("\rbig "), std::string::npos);
    interrupt(session);
    EXPECT_FALSE(std::filesystem::exists("depot")) << "made, and left with nothing in it";
}

TEST_F(DepotStream, AnInterruptEndsAGetWhosePipeIsFull)
{
    put("noise", test::random_bytes(1 << 20, 1));
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    Session session(loop_of("get -out - noise >pipe"));
    const int reader = open("pipe", O_RDONLY);
    pollfd ready{reader, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 20000), 1);
    interrupt(session);
    close(reader);
}

TEST_F(DepotStream, AsksAtATerminalBeforeItReplacesOrRemoves)
{
    put("a", "1");
    struct Case {
        std::string command, question, keys;
        bool is_done;
    };
    const std::vector<Case> cases = {
        {"put a", "Replace entry \"a\"? [no] ", "\n", false},
        {"put a", "Replace entry \"a\"? [no] ", "y\n", true},
        {"put -replace a", "Stored", "", true},
        {"get a", "Replace file \"a\"? [no] ", "n\n", false},
        {"get a", "Replace file \"a\"? [no] ", "y\n", true},
        {"get -f a", "Fetched", "", true},
        {"remove a", "Remove entry \"a\"? [no] ", "\004", false},
        {"remove -yes a", "Removed", "", true},
        {"put a", "Stored", "", true},
        {"remove a", "Remove entry \"a\"? [no] ", "ye\n", true},
    };
    // Once more with the prompting tool, which has no look of its own on such a terminal.
    std::filesystem::create_directories("product/bin");
    std::filesystem::create_symlink(VELPROMPT_PROGRAM, "product/bin/velprompt");
    test::write_file("a", "2");
    for (const std::string setting : {"", "TERM=dumb VELLUMHOME=product VELM_FORCE_GUI=1 "}) {
        put("a", "1");
        for (const Case &each : cases) {
            SCOPED_TRACE(setting + each.command + each.keys);
            Session session(setting + "exec " VELDEPOT_PROGRAM " -d depot " + each.command);
            session.shown_until(each.question);
            session.type(each.keys);
            const std::string shown = each.question + session.shown_at_end();
            EXPECT_EQ(shown.find("ed \"a\"") != std::string::npos || each.keys.empty(), each.is_done) << shown;
        }
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which map terabytes
TEST_F(DepotStream, GoesThroughInLittleMemory)
{
    test::write_file("big", "");
    std::filesystem::resize_file("big", 300 << 20);
    const auto limit = [] {
        const rlimit memory = {64 << 20, 64 << 20};
        setrlimit(RLIMIT_AS, &memory);
    };
    EXPECT_EQ(run({"put", "-name", "x", "-"}, [&] { limit(), dup2(open("big", O_RDONLY), 0); }).err, "");
    EXPECT_EQ(run({"get", "x"}, limit).err, "");
    EXPECT_EQ(test::run_program({"/usr/bin/cmp", "big", "x"}).exit_status, 0);
}

#endif

TEST_F(DepotStream, ATerminalIsShownNoNameThatPlaysTricks)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    const std::string name = "a\u202eb\tc\u00e4";
    put(name, "1");
    EXPECT_EQ(good({"list", "-s"}), name + "\n");
    for (const std::string form : {"-s", "-fmt '%n\\n'"}) {
        Session session(VELDEPOT_PROGRAM " -d depot list " + form);
        EXPECT_EQ(session.shown_until(""), "a\\342\\200\\256b\\011c\u00e4\r\n");
    }
}

TEST_F(DepotStream, OutputThatIsLostIsAFailure)
{
    put("file", "1");
    const std::string lost = "veldepot: Error: Unable to write to standard output: something is missing there.\n";
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    for (const Words &words : {Words{"list"}, Words{"put", "file"}, Words{"help"}}) {
        SCOPED_TRACE(words[0]);
        for (const bool is_full : {true, false}) {
            const ChildResult result = run(words, [&] { is_full ? dup2(open("/dev/full", O_WRONLY), 1) : close(1); });
            EXPECT_EQ(result.exit_status, 1);
            EXPECT_EQ(result.err, lost);
        }
        const ChildResult result = run(words, [&] { dup2(ends[1], 1); });
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.err, "") << "whoever read it has seen enough";
    }
    EXPECT_EQ(run({"get", "file", "-o", "-"}, [&] { dup2(ends[1], 1); }).err, "");
    EXPECT_EQ(content_of("file"), "1");
    close(ends[1]);
}

} // namespace
