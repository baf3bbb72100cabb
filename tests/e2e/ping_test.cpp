// veldepot ping: what it tells of servers that answer, that refuse and that are silent.

#include <regex>

#include <netdb.h>

#include "e2e/depot_fixture.h"
#include "rpc/peer/raw_peer.h"
#include "rpc/peer/tirpc_process.h"

namespace {

using test::ChildResult;
using test::RawPeer;
using test::Words;

const std::string peer_program = std::to_string(TIRPC_PEER_PROGRAM);

class Ping : public test::DepotTest {
  protected:
    static std::string at(uint16_t port, const std::string &host = "127.0.0.1")
    {
        return host + ":" + std::to_string(port);
    }

    static ChildResult ping(Words words)
    {
        words.insert(words.begin(), "ping");
        ChildResult result = run(words);
        result.out = std::regex_replace(result.out, std::regex("answered in [0-9]+\\.[0-9] ms"), "answered");
        return result;
    }
};

TEST_F(Ping, TellsOfServersByTheirAnswers)
{
    const test::TirpcPeer peer;
    const std::string v4 = at(peer.port());
    const std::string v6 = at(peer.port(), "[::1]");
    const std::string closed = at(port_of(test::open_loopback(AF_INET, SOCK_STREAM)));
    struct Case {
        Words words;
        std::string outcome;
        std::string target;
    };
    std::vector<Case> cases = {
        {{"-version", "2", "-program", peer_program, v4}, "answered", v4},
        {{v4, "-v", "9", "-p", peer_program}, "version 9 is not served, but 2 to 3", v4},
        {{v4}, "program 536927856 is not served", v4},
        {{closed}, "refused", closed},
    };
    addrinfo *found = nullptr;
    const addrinfo hints = {AI_NUMERICHOST | AI_ADDRCONFIG, AF_UNSPEC, 0, 0, 0, nullptr, nullptr, nullptr};
    if (peer.has_ipv6() && getaddrinfo("::1", nullptr, &hints, &found) == 0) {
        freeaddrinfo(found);
        cases.push_back({{v6, "-v", "3", "-p", "0x2000aa01"}, "answered", v6});
        cases.push_back({{v6, "-v", "1", "-p", peer_program}, "version 1 is not served, but 2 to 3", v6});
    }
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        const bool is_good = one.outcome == "answered";
        const ChildResult result = ping(one.words);
        EXPECT_EQ(result.exit_status, is_good ? 0 : 1);
        const std::string line = " " + one.target + ": " + one.outcome + "\n";
        const std::string error = "veldepot: Error: Unable to call \"" + one.target + "\" over ";
        EXPECT_EQ(result.out, "tcp" + line + "udp" + line);
        EXPECT_EQ(result.err, is_good ? "" : error + "tcp.\n" + error + "udp.\n");
    }
}

TEST_F(Ping, TellsWhyACallIsDeniedOrFails)
{
    const std::pair<std::vector<uint32_t>, std::string> cases[] = {
        {{1, 1, 1, 5}, "denied, credential too weak"},
        {{1, 1, 1, 99}, "denied, reason 99"},
        {{1, 1, 0, 3, 4}, "RPC: Incompatible versions of RPC"},
        {{1, 0, 0, 0, 5}, "RPC: Remote system error"},
    };
    for (const auto &[reply, outcome] : cases) {
        SCOPED_TRACE(outcome);
        const auto answer = [&words = reply](auto &link, const auto &call) { link.reply(test::reply_to(call, words)); };
        for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
            RawPeer peer(AF_INET, type, answer);
            const std::string name = type == SOCK_STREAM ? "tcp" : "udp";
            EXPECT_EQ(ping({at(peer.port()), "-" + name}).out, name + " " + at(peer.port()) + ": " + outcome + "\n");
            const std::string call = peer.calls(1).at(0);
            EXPECT_EQ(call.substr(4, 24), test::words({0, 2, 0x2000de70, 1, 0, 1})) << "with AUTH_UNIX";
            EXPECT_NE(call.find(test::words({geteuid(), getegid()})), std::string::npos);
        }
    }
    RawPeer closes(AF_INET, SOCK_STREAM, [](auto &link, const auto &) { link.close(); });
    EXPECT_EQ(ping({at(closes.port()), "-tc"}).out, "tcp " + at(closes.port()) + ": Connection reset by peer\n");
}

TEST_F(Ping, WaitsAsLongAsItIsTold)
{
    const test::Descriptor silent = test::open_loopback(AF_INET, SOCK_STREAM);
    EXPECT_EQ(ping({at(port_of(silent)), "-tc", "-ti", "1"}).out, "tcp " + at(port_of(silent)) + ": timed out\n");
    RawPeer mute(AF_INET, SOCK_DGRAM, [](auto &, const auto &) {});
    EXPECT_EQ(ping({at(mute.port()), "-u", "-ti", "2"}).out, "udp " + at(mute.port()) + ": timed out\n");
    const auto calls = mute.calls(2);
    ASSERT_EQ(calls.size(), 2u) << "sent again";
    EXPECT_EQ(calls[0], calls[1]);
}

TEST_F(Ping, EndsAtOnceWhenItIsInterrupted)
{
    RawPeer mute(AF_INET, SOCK_DGRAM, [](auto &, const auto &) {});
    const auto heed = [] { (void)signal(SIGINT, SIG_DFL); }; // where it is ignored, it stays so
    const auto child = start({"ping", at(mute.port()), "-u", "-ti", "3600"}, heed);
    ASSERT_EQ(mute.calls(1).size(), 1u);
    kill(child->pid(), SIGINT);
    EXPECT_EQ(child->finish().signal, SIGINT);
}

TEST_F(Ping, NamesTheHostThatIsNotFound)
{
    const ChildResult unknown = ping({"nowhere.invalid:1"});
    EXPECT_EQ(unknown.exit_status, 1);
    EXPECT_TRUE(unknown.err.starts_with("veldepot: Error: Unable to find host \"nowhere.invalid\": ")) << unknown.err;
    setenv("VELM_IP_VERSION", "6", 1);
    EXPECT_TRUE(ping({"127.0.0.1:1"}).err.starts_with("veldepot: Error: Unable to find host \"127.0.0.1\": "));
    unsetenv("VELM_IP_VERSION");
}

} // namespace
