// veldepotd as its host runs it: what it finds and logs, what it is told by signals, and how it ends.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "e2e/depot_fixture.h"

namespace {

using test::ChildResult;
using test::Words;

const Words often{"-i", "1"};

class DaemonTest : public test::DepotTest {
  protected:
    void SetUp() override
    {
        DepotTest::SetUp();
        std::filesystem::create_directory("depot");
    }

    // Tells it to end; every record of its log has a time and a head, and the last one the reason.
    static void end(test::Child &daemon, int signal = SIGTERM)
    {
        EXPECT_EQ(kill(daemon.pid(), signal), 0);
        const ChildResult result = daemon.finish();
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out + result.err, "");
        const std::string text = log();
        const std::regex records(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\S* veldepotd?: (Ok|Error): [^\n]+\n)+)");
        EXPECT_TRUE(std::regex_match(text, records)) << text;
        const std::string last = "veldepotd 1.0.0 stopped, pid " + std::to_string(daemon.pid()) + ": ";
        EXPECT_TRUE(text.ends_with(last + strsignal(signal) + "\n")) << text;
    }
};

TEST_F(DaemonTest, VerifiesWhatIsNewAndWhatHasChanged)
{
    put("one", "first content");
    put("-two words\n", "second content");
    const auto daemon = start_daemon(often);
    EXPECT_TRUE(is_logged("Verified: all of 2 entries are sound"));
    put("three", "third content");
    EXPECT_TRUE(is_logged("Verified: all of 1 entries are sound"));
    std::string entry = test::read_file("depot/one.vde");
    entry.back() ^= 1;
    test::write_file("depot/one.vde", entry);
    EXPECT_TRUE(is_logged("\"one\" is damaged"));
    EXPECT_TRUE(is_logged("Error: Verified: not all of 1 entries are sound"));
    std::filesystem::remove("depot/three.vde");
    EXPECT_TRUE(is_logged("Entry \"three\" is gone"));
    end(*daemon);
}

TEST_F(DaemonTest, EndsInOrderBySignalsAlsoAfterAStop)
{
    sockaddr_un address{AF_UNIX, "manager"};
    const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(setenv("NOTIFY_SOCKET", home_.file("manager").c_str(), 1), 0);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        std::filesystem::remove("depot.log");
        const auto daemon = start_daemon(often);
        EXPECT_EQ(kill(daemon->pid(), SIGSTOP), 0);
        EXPECT_TRUE(daemon->wait_for_stop(SIGSTOP));
        EXPECT_EQ(kill(daemon->pid(), SIGCONT), 0);
        end(*daemon, signal);
        for (const std::string state : {"READY=1", "STOPPING=1"}) {
            char bytes[256];
            const ssize_t size = recv(manager, bytes, sizeof bytes, MSG_DONTWAIT);
            EXPECT_TRUE(size > 0 && std::string(bytes, static_cast<std::size_t>(size)).starts_with(state)) << size;
        }
    }
    close(manager);
    unsetenv("NOTIFY_SOCKET");
}

TEST_F(DaemonTest, OpensItsLogAnewWhenToldTo)
{
    const auto daemon = start_daemon(often);
    std::filesystem::rename("depot.log", "old.log");
    put("one", "content");
    for (int tries = 0; tries < 2000 && test::read_file("old.log").find("all of 1") == std::string::npos; ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(std::filesystem::exists("depot.log"));
    EXPECT_EQ(kill(daemon->pid(), SIGUSR1), 0);
    EXPECT_TRUE(is_logged("Log \"depot.log\" opened anew"));
    end(*daemon);
    EXPECT_EQ(test::read_file("old.log").find("stopped"), std::string::npos);
}

// Beside the daemon lies what it verifies with.
TEST_F(DaemonTest, TakesItsChildWithIt)
{
    std::filesystem::copy_file(VELDEPOTD_PROGRAM, "veldepotd");
    test::write_file("veldepot", "#!/bin/sh\nprintf 'no end' >&2\necho \"$@\"\nexec sleep 1000\n");
    ASSERT_EQ(chmod("veldepot", 0755), 0);
    test::write_file("depot/one.vde", "");
    const auto daemon = start_daemon(often, home_.file("veldepotd"));
    EXPECT_TRUE(is_logged("Ok: verify -depot depot -- one"));
    end(*daemon);
    EXPECT_NE(log().find("Stopping: Terminated"), std::string::npos);
    EXPECT_NE(log().find("Error: The verifying process was ended by a signal: Terminated"), std::string::npos) << log();
    EXPECT_NE(log().find("Error: no end"), std::string::npos) << log();
}

TEST_F(DaemonTest, SaysWhatIsWrongWithItsCommandLine)
{
    const struct {
        Words words;
        int status;
        const char *text;
    } rows[] = {
        {{}, 2, "No depot: give its directory"},
        {{"-d"}, 2, "needs"},
        {{"-d", "depot", "-x"}, 2, "\"-x\"; see -h"},
        {{"-d", "depot", "--wrong"}, 2, "\"wrong\"; see -h"},
        {{"-d", "depot", "more"}, 2, "\"more\" is too much"},
        {{"--interval", "0"}, 2, "\"0\" is no number of seconds from 1 to 86400"},
        {{"-t", "1001"}, 2, "\"1001\" is no number of threads from 0 to 1000"},
        {{"-s", "host"}, 2, "\"host\" is no [HOST]:PORT"},
        {{"-s", ":65536"}, 2, "\":65536\" is no [HOST]:PORT"},
        {{"-d", "depot", "-s", "192.0.2.1:0"}, 1, ""},
        {{"-d", "nothing"}, 1, "\"nothing\""},
        {{"-d", "depot", "-l", "depot/no/log"}, 1, "depot/no/log"},
        {{"--version"}, 0, "veldepotd 1.0.0"},
        {{"-h"}, 0, "veldepotd -d DIR"},
    };
    for (const auto &row : rows) {
        Words words{VELDEPOTD_PROGRAM};
        words.insert(words.end(), row.words.begin(), row.words.end());
        const ChildResult result = test::run_program(words);
        EXPECT_EQ(result.exit_status, row.status) << row.text;
        EXPECT_NE((result.out + result.err).find(row.text), std::string::npos) << result.out << result.err;
    }
}

} // namespace
