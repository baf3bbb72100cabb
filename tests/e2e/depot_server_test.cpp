// A depot over the wire: what the daemon answers to calls as they should and should not be, what the tool makes of
// answers as they should not be, and how a stop of the daemon in the middle ends.

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <regex>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "depot_program.h"
#include "e2e/depot_fixture.h"
#include "rpc/peer/raw_peer.h"
#include "rpc/peer/udp_proxy.h"

namespace {

using namespace depot;
using test::big_endian;
using test::ChildResult;
using test::first_part;
using test::RawPeer;
using test::words;
using test::Words;

// Failures as they are on the wire.
enum : uint32_t {
    no_entry = 9,
    bad_name = 16,
    bad_transfer,
    put_unknown,
    out_of_order,
    too_many_puts,
    needs_connection,
    not_owner = 24
};

std::string text(const std::string &bytes)
{
    return big_endian(bytes.size(), 4) + bytes + std::string((4 - bytes.size() % 4) % 4, '\0');
}

std::string piece(uint64_t handle, uint64_t offset, const std::string &bytes, const std::string &sum = "")
{
    return big_endian(handle, 8) + big_endian(offset, 8) + words({static_cast<uint32_t>(bytes.size())}) +
           (sum.empty() ? test::checksum(bytes) : sum) + text(bytes).substr(4);
}

std::string begin_put(uint64_t handle, const std::string &name, const std::string &owner = "o")
{
    const std::string entry = std::string(4 + 8 + 8, '\0') + std::string(2 * 12, '\0') + words({0644, 0});
    return big_endian(handle, 8) + text(name) + words({1}) + entry + text(owner) + text("");
}

const std::string at_start(8 + 8 + 8 + 4 + 4, '\0');

// The number of a call that runs once, unless it has the same again.
std::string once()
{
    static uint64_t number = 0;
    return big_endian(1, 8) + big_endian(++number, 8);
}

std::string finish_put(uint64_t handle, uint64_t length, const std::string &sum)
{
    return once() + big_endian(handle, 8) + big_endian(length, 8) + sum;
}

uint64_t number(const std::string &bytes, std::size_t size)
{
    uint64_t value = 0;
    for (const char byte : bytes.substr(0, size))
        value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

constexpr int usual_user = 31000; // whom no host knows

// What the daemon answers to calls that no client would make.
class Caller {
  public:
    explicit Caller(const Words &where, int type = SOCK_STREAM)
        : type_(type), fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        const std::string &at = where.at(1);
        const auto port = static_cast<uint16_t>(std::stoi(at.substr(at.find(':') + 1)));
        const test::SocketAddress address = test::loopback(AF_INET, port);
        EXPECT_EQ(connect(fd_.get(), address.get(), address.size), 0);
    }

    // The reply behind its transaction id; "" when the connection has ended.
    std::string call(Procedure procedure, const std::string &arguments, int uid = usual_user)
    {
        const auto user = static_cast<uint32_t>(uid);
        const std::string unix_body = words({0, 0, user, 100, 0});
        const std::string credential = uid < 0 ? words({0, 0}) : words({1, 20}) + unix_body;
        const std::string message =
            words({7, 0, 2, program_number, program_version, procedure}) + credential + words({0, 0}) + arguments;
        const auto mark = words({static_cast<uint32_t>(message.size()) | 0x80000000u});
        const std::string record = type_ == SOCK_STREAM ? mark + message : message;
        if (send(fd_.get(), record.data(), record.size(), MSG_NOSIGNAL) < 0)
            return "";
        std::string reply(1 << 16, '\0');
        const ssize_t size = recv(fd_.get(), reply.data(), reply.size(), 0);
        const std::size_t head = type_ == SOCK_STREAM ? 8 : 4;
        return size < 0 ? ""
                        : reply.substr(0, static_cast<std::size_t>(size))
                              .substr(std::min(head, static_cast<std::size_t>(size)));
    }

    // The results of a call that was accepted and has succeeded.
    std::string results(Procedure procedure, const std::string &arguments, int uid = usual_user)
    {
        const std::string reply = call(procedure, arguments, uid);
        const std::string success = words({1, 0, 0, 0, 0});
        EXPECT_TRUE(reply.starts_with(success)) << testing::PrintToString(reply);
        return reply.substr(std::min(success.size(), reply.size()));
    }

    // The failure that they begin with.
    uint32_t failure(Procedure procedure, const std::string &arguments, int uid = usual_user)
    {
        return static_cast<uint32_t>(number(results(procedure, arguments, uid), 4));
    }

    // For calls that may get none.
    void wait_at_most(int ms) const
    {
        const timeval patience = {0, ms * 1000};
        EXPECT_EQ(setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
    }

  private:
    int type_;
    test::Descriptor fd_;
};

class DepotServer : public test::DepotTest {
  protected:
    static void stop(test::Child &daemon, int signal = SIGTERM)
    {
        kill(daemon.pid(), signal);
        EXPECT_EQ(daemon.finish().exit_status, signal == SIGTERM ? 0 : -1) << log();
    }
};

TEST_F(DepotServer, RefusesWhatIsNoGoodCall)
{
    const auto daemon = start_server();
    const std::string garbage = words({1, 0, 0, 0, 4});
    const std::string too_weak = words({1, 1, 1, 5});
    EXPECT_EQ(Caller(where_).call(procedure_null, "", -1), words({1, 0, 0, 0, 0}));
    for (uint32_t i = procedure_list; i < procedure_count; ++i)
        EXPECT_EQ(Caller(where_).call(static_cast<Procedure>(i), "", -1), too_weak) << i;
    EXPECT_EQ(Caller(where_).call(procedure_count, ""), words({1, 0, 0, 0, 3}));
    const std::pair<Procedure, std::string> bad_arguments[] = {
        {procedure_get, ""},
        {procedure_get, words({0xffffffff})},
        {procedure_get, words({0x7fffffff}) + "name"},
        {procedure_get, text(std::string(252, 'n'))},
        {procedure_remove, once() + text(std::string("a\0b", 3))},
        {procedure_begin_put, begin_put(1, "name", std::string(256, 'o'))},
        {procedure_begin_put, begin_put(1, "name").substr(0, 40)},
        {procedure_begin_put, begin_put(0, "name")},
        {procedure_put_piece, piece(1, 0, std::string(65537, 'x'))},
        {procedure_put_piece, piece(1, 0, "")},
        {procedure_finish_put, words({1, 2})},
    };
    for (const auto &[procedure, arguments] : bad_arguments)
        EXPECT_EQ(Caller(where_).call(procedure, arguments), garbage) << procedure << arguments;
    Caller caller(where_);
    for (const std::string name : {"", ".", "..", "/", "../depot.log", "a/b"})
        for (const auto &[procedure, arguments] : {std::pair{procedure_get, text(name) + at_start},
                                                   {procedure_verify, once() + text(name)},
                                                   {procedure_remove, once() + text(name)},
                                                   {procedure_begin_put, begin_put(1, name)}})
            EXPECT_EQ(caller.failure(procedure, arguments), bad_name) << name << procedure;
    EXPECT_EQ(caller.failure(procedure_verify, once() + text("none")), no_entry);
    Caller datagrams(where_, SOCK_DGRAM);
    EXPECT_EQ(datagrams.failure(procedure_verify, once() + text("none")), no_entry);
    EXPECT_EQ(datagrams.failure(procedure_get, text("none") + at_start), needs_connection);
    EXPECT_EQ(datagrams.failure(procedure_list, text("") + words({1, 0, 0})), needs_connection);
    stop(*daemon);
}

TEST_F(DepotServer, TakesPiecesInOrderAndOnceMore)
{
    const auto daemon = start_server();
    Caller caller(where_);
    constexpr uint64_t handle = 0xfedcba9876543210;
    const auto begin = [&](uint64_t by, int uid = usual_user) {
        return caller.failure(procedure_begin_put, begin_put(by, "file"), uid);
    };
    EXPECT_EQ(begin(handle), 0u);
    const auto add = [&](uint64_t to, uint64_t offset, const std::string &bytes, int uid = usual_user) {
        return caller.results(procedure_put_piece, piece(to, offset, bytes), uid);
    };
    const auto received = [](uint64_t count) { return words({0}) + big_endian(count, 8); };
    EXPECT_EQ(add(handle, 0, "to be "), received(6));
    EXPECT_EQ(add(handle, 0, "to be "), received(6));
    EXPECT_EQ(begin(handle), 0u) << "once more";
    EXPECT_EQ(caller.failure(procedure_begin_put, begin_put(handle, "other")), out_of_order);
    EXPECT_EQ(add(handle, 6, "or not"), received(12));
    EXPECT_EQ(add(handle, 6, "or not"), received(12));
    EXPECT_EQ(add(handle, 0, "to be "), received(6)) << "a late copy";
    EXPECT_EQ(caller.failure(procedure_put_piece, piece(handle, 12, " to be", words({1}))), bad_transfer);
    for (const uint64_t offset : {uint64_t{7}, uint64_t{11}, uint64_t{13}, UINT64_MAX})
        EXPECT_EQ(caller.failure(procedure_put_piece, piece(handle, offset, " to be")), out_of_order) << offset;
    for (const uint64_t other : {uint64_t{0}, handle + 1})
        EXPECT_EQ(caller.failure(procedure_put_piece, piece(other, 12, " to be")), put_unknown);
    EXPECT_EQ(caller.failure(procedure_finish_put, finish_put(handle, 0, words({0})), 31001), put_unknown) << "not his";
    EXPECT_EQ(caller.failure(procedure_cancel_put, big_endian(handle, 8), 31001), put_unknown) << "not his";
    EXPECT_EQ(add(handle, 12, " to be"), received(18));
    const std::string sum = test::checksum("to be or not to be");
    const std::string finish = finish_put(handle, 18, sum);
    const std::string answer = caller.results(procedure_finish_put, finish);
    EXPECT_EQ(answer.substr(0, 4), words({0}));
    EXPECT_EQ(caller.results(procedure_finish_put, finish), answer) << "once more";
    EXPECT_EQ(caller.failure(procedure_finish_put, finish_put(handle, 18, sum)), put_unknown);
    EXPECT_EQ(content_of("file"), "to be or not to be");
    for (const auto &[length, end_sum] : {std::pair{uint64_t{17}, sum}, {uint64_t{18}, words({1})}}) {
        EXPECT_EQ(begin(handle), 0u);
        EXPECT_EQ(add(handle, 0, "to be or not to be"), received(18));
        EXPECT_EQ(caller.failure(procedure_finish_put, finish_put(handle, length, end_sum)), bad_transfer);
    }
    EXPECT_EQ(asides(), Words{});
    for (uint64_t i = 1; i <= 16; ++i)
        EXPECT_EQ(begin(i), 0u);
    EXPECT_EQ(begin(17), too_many_puts);
    EXPECT_EQ(caller.failure(procedure_begin_put, begin_put(17, "other"), 31001), 0u);
    EXPECT_EQ(asides().size(), 17u);
    EXPECT_EQ(caller.failure(procedure_cancel_put, big_endian(17, 8), 31001), 0u);
    EXPECT_EQ(asides().size(), 16u);
    stop(*daemon);
    EXPECT_EQ(asides(), Words{});
    EXPECT_EQ(test::read_file("depot/file.vde").size(), 74u + std::strlen("UNIX:UID-31000") + 8 + 18) << "as it was";
}

// However the daemon ends, the depot is whole, and the next put finds it as it should be.
TEST_F(DepotServer, AStopInTheMiddleOfAPutLeavesTheOldEntry)
{
    ASSERT_EQ(mkfifo("pipe", 0666), 0);
    for (const int signal : {SIGKILL, SIGTERM}) {
        SCOPED_TRACE(signal);
        const auto daemon = start_server();
        test::write_file("file", "old");
        good({"put", "-name", "pipe", "file"});
        const auto child = start({"put", "pipe"});
        ASSERT_TRUE(wait_for_aside());
        const int writer = open("pipe", O_WRONLY | O_CLOEXEC);
        const std::string half(100000, 'h');
        ASSERT_EQ(write(writer, half.data(), half.size()), 100000);
        stop(*daemon, signal);
        EXPECT_EQ(asides().size(), signal == SIGKILL ? 1u : 0u);
        close(writer);
        const ChildResult result = child->finish();
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_NE(result.err.find(" server \"" + where_[1] + "\": Connection re"), std::string::npos) << result.err;
        const auto again = start_server();
        EXPECT_EQ(content_of("pipe"), "old");
        good({"put", "file"});
        EXPECT_EQ(asides(), Words{});
        EXPECT_EQ(good({"verify"}), "2 of 2 entries are sound.\n");
        stop(*again);
    }
}

// Long answers do not need a thread each, nor who reads them at once.
TEST_F(DepotServer, GivesLongAnswersToMoreClientsThanItHasThreads)
{
    const std::string content = test::random_bytes(3000000, 7);
    test::write_file("big", content);
    put_entry_file("0", first_part(1, {0, 0}) + test::abc_block);
    const std::string names = std::string(200, 'n');
    for (int i = 0; i < 3000; ++i)
        std::filesystem::create_hard_link("depot/0.vde",
                                          "depot/" + names + std::to_string(10000 + i) + (i % 2 == 0 ? ".vde" : ""));
    for (const std::string threads : {"0", "1", "3"}) {
        SCOPED_TRACE(threads);
        const auto daemon = start_server({"-t", threads, "-i", "1000"});
        good({"put", "-r", "big"});
        std::vector<std::unique_ptr<test::Child>> clients;
        for (const std::string name : {"a", "b", "c", "d", "e"})
            clients.push_back(start({"get", "-f", "big", "-o", name}));
        const ChildResult listed = run({"list", "-s"});
        EXPECT_EQ(std::ranges::count(listed.out, '\n'), 1502);
        EXPECT_EQ(std::ranges::count(listed.err, '\n'), 1500);
        for (const auto &client : clients)
            EXPECT_EQ(client->finish().err, "");
        for (const std::string name : {"a", "b", "c", "d", "e"})
            EXPECT_EQ(test::read_file(name), content);
        stop(*daemon);
    }
}

TEST_F(DepotServer, TellsWhomItTakesItsCallersFor)
{
    const auto daemon = start_server();
    const std::string seen = good({"whoami"});
    EXPECT_TRUE(seen.starts_with("user    " + test::user_name() + "\n")) << seen;
    EXPECT_TRUE(seen.ends_with("\nclaim   " + test::user_name() + ", believed\n")) << seen;
    EXPECT_EQ(good({"whoami", "-udp"}), seen);
    EXPECT_EQ(Caller(where_).results(procedure_whoami, "", 0), // of another host, as it says
              words({0}) + text("NOBODY") + text("NOBODY") + words({0, 0, 0}) + text("UNIX:UID-0") + words({0}));
    where_ = {"-d", "depot"};
    EXPECT_EQ(good({"whoami"}) + "claim   " + test::user_name() + ", believed\n", seen);
    stop(*daemon);
}

TEST_F(DepotServer, ChangesEntriesForTheirOwnerAlone)
{
    const auto daemon = start_server();
    Caller caller(where_);
    const auto begin = [&](uint64_t handle, const std::string &name, int uid) {
        return caller.failure(procedure_begin_put, begin_put(handle, name, "root"), uid);
    };
    const auto finish = [&](uint64_t handle, int uid) {
        return caller.failure(procedure_finish_put, finish_put(handle, 0, test::checksum("")), uid);
    };
    const auto remove = [&](const std::string &name, int uid) {
        return caller.failure(procedure_remove, once() + text(name), uid);
    };
    EXPECT_EQ(begin(9, "mine", 31001), 0u) << "there is none";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(begin(7, "mine", 31000), 0u);
        EXPECT_EQ(finish(7, 31000), 0u);
    }
    EXPECT_EQ(finish(9, 31001), not_owner) << "there is one by now";
    EXPECT_EQ(good({"list", "-fmt", "%u", "mine"}), "UNIX:UID-31000");
    for (const int uid : {31001, 0}) { // who says to be root, on another host
        EXPECT_EQ(begin(8, "mine", uid), not_owner);
        EXPECT_EQ(remove("mine", uid), not_owner);
    }
    EXPECT_EQ(asides(), Words{});
    EXPECT_EQ(remove("mine", 31000), 0u);
    put_entry_file("older", first_part(1, {0, 0}) + test::abc_block);
    EXPECT_EQ(remove("older", 31001), 0u);
    put_entry_file("damaged", std::string(100, 'x'));
    EXPECT_EQ(remove("damaged", 31001), 10u) << "it is none";
    if (getuid() == 0) {
        EXPECT_EQ(good({"remove", "damaged"}), "Removed \"damaged\".\n");
    }
    stop(*daemon);
    const std::string another = "not (stored|removed) by UNIX:UID-31001 \\(claims to be UNIX:UID-31001 of /, at "
                                "\\[127.0.0.1\\]:\\d+\\): Entry \"mine\" is another's";
    const std::string lines = log();
    EXPECT_TRUE(std::regex_search(lines, std::regex(another))) << lines;
    EXPECT_NE(lines.find("Entry \"mine\" not removed by NOBODY (claims to be UNIX:UID-0 of "), std::string::npos);
    EXPECT_NE(lines.find("Entry \"mine\" removed by UNIX:UID-31000 ("), std::string::npos);
}

TEST_F(DepotServer, RunsACallOnceThatComesAgain)
{
    const auto daemon = start_server();
    Caller datagrams(where_, SOCK_DGRAM);
    datagrams.wait_at_most(500);
    for (const std::string name : {"a", "b"})
        put_entry_file(name, first_part(1, {0, 0}) + test::abc_block);
    const std::string done = words({1, 0, 0, 0, 0, 0});
    const std::string gone = words({1, 0, 0, 0, 0, no_entry, 0}) + text("a");
    const struct {
        uint64_t client;
        uint64_t number;
        std::string name;
        std::string answer;
    } cases[] = {
        {1, 5, "a", done}, {1, 5, "a", done}, {1, 6, "a", gone}, {2, 1, "b", done},
        {2, 1, "b", done}, {1, 6, "a", gone}, {1, 4, "a", ""},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.number);
        const std::string arguments = big_endian(one.client, 8) + big_endian(one.number, 8) + text(one.name);
        std::string answer;
        for (int tries = one.answer.empty() ? 1 : 20; answer.empty() && tries > 0; --tries) // it may run still
            answer = datagrams.call(procedure_remove, arguments);
        EXPECT_EQ(answer, one.answer);
    }
    Words command{"remove", "-udp"};
    for (int i = 100; i < 300; ++i) {
        command.push_back(std::to_string(i));
        put_entry_file(command.back(), first_part(1, {0, 0}) + test::abc_block);
    }
    std::string fates = test::random_bytes(1000, 13); // of replies; each request comes twice at least
    std::ranges::transform(fates, fates.begin(), [](char byte) { return "x2.2............"[byte & 15]; });
    test::UdpProxy proxy(AF_INET, static_cast<uint16_t>(std::stoi(where_[1].substr(where_[1].find(':') + 1))),
                         {std::string(1000, '2'), fates});
    const std::string server = std::exchange(where_[1], "127.0.0.1:" + std::to_string(proxy.port()));
    EXPECT_EQ(std::ranges::count(good(command), '\n'), 200);
    where_[1] = server;
    const std::string status = good({"status"});
    const std::regex repeated("(\\d+)  calls that came again and were (answered|dropped)");
    int repeats = 0;
    for (std::sregex_iterator one(status.begin(), status.end(), repeated), end; one != end; ++one)
        repeats += std::stoi((*one)[1]);
    EXPECT_GT(repeats, 200);
    stop(*daemon);
    const std::string lines = log();
    const std::regex removal("Entry \"\\d+\" (not )?removed by");
    EXPECT_EQ(std::distance(std::sregex_iterator(lines.begin(), lines.end(), removal), {}), 200);
}

TEST_F(DepotServer, CountsWhatItDoes)
{
    const auto daemon = start_server({"-t", "3"});
    (void)Caller(where_).call(procedure_status, "", -1);
    const std::string status = good({"status"});
    EXPECT_EQ(std::ranges::count(status, '\n'), 24);
    for (const std::string line :
         {"2  connections accepted\n", " 2  calls\n", " 1  calls denied for their credential\n", " 3  workers\n",
          " 0  files being stored now\n"})
        EXPECT_NE(status.find(line), std::string::npos) << status;
    stop(*daemon);
    EXPECT_NE(log().find("2 calls, 1 of them denied, over 2 connections\n"), std::string::npos) << log();
}

// What comes from a server is not believed.
TEST_F(DepotServer, SaysWhatIsWrongWithAServer)
{
    const std::string ok = words({0});
    const std::string head = ok + words({0}) + big_endian(3, 8) + big_endian(8, 8) + std::string(24, '\0') +
                             words({0644, 0644}) + text("o") + text("");
    const std::string item = words({1}) + text("file") + words({0});
    const auto abc = [](const std::string &sum) { return words({3}) + sum + "abc" + std::string(1, '\0'); };
    const std::string end = words({0, 0}) + at_start;
    const std::string not_understood = "Unable to get an answer from server \"SERVER\": RPC: Can't decode result\n";
    const struct {
        uint32_t procedure;
        std::string results;
        std::string error;
    } cases[] = {
        {procedure_list, words({99, 5}) + text("a\033b"),
         "The server failed with \"a\\033b\" in a way that this program does not know.\n"},
        {procedure_list, words({2, ENOSPC}) + text("x"), "Unable to read \"x\": No space left on device\n"},
        {procedure_list, ok + words({1}) + text("../file") + words({0}), "\"../file\" cannot name an entry: "},
        {procedure_list, ok + words({1, 0xffffffff}), not_understood},
        {procedure_list, ok + item, not_understood},
        {procedure_list, ok + words({5}), not_understood},
        {procedure_get, head + abc(words({1})) + end, "\"file\" was damaged or cut on its way, and was not taken.\n"},
        {procedure_get, head + abc(test::checksum("abc")) + end, "\"file\" was damaged or cut on its way"},
        {procedure_get, head + end, "\"file\" was damaged or cut on its way"},
        {procedure_get, head + abc(test::checksum("abc")) + abc(test::checksum("abc")) + end, "\"file\" was damaged"},
        {procedure_get, head + abc(test::checksum("abc")), not_understood},
        {procedure_get, head + words({65537}), not_understood},
        {procedure_get, ok + words({0, 0}), not_understood},
        {procedure_get, head + words({0, 15, 0}) + text("file") + at_start,
         "Entry \"file\" is damaged: its content does not"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.error);
        RawPeer peer(AF_INET, SOCK_STREAM, [&](auto &link, const std::string &call) {
            const std::string list = ok + item.substr(0, item.size() - 4) + words({0});
            const bool is_asked = call.substr(20, 4) == words({one.procedure});
            link.reply(test::reply_to(call, {1, 0, 0, 0, 0}, is_asked ? one.results : list));
        });
        where_ = {"-server", "127.0.0.1:" + std::to_string(peer.port())};
        const ChildResult result = run({"get", "file"});
        EXPECT_EQ(result.exit_status, 1);
        const std::string error = std::regex_replace(one.error, std::regex("SERVER"), where_[1]);
        EXPECT_TRUE(result.err.starts_with("veldepot: Error: " + error)) << result.err;
        EXPECT_TRUE(std::filesystem::is_empty(".")) << "a file is left";
    }
    RawPeer denies(AF_INET, SOCK_STREAM, [](auto &link, const auto &call) {
        link.reply(test::reply_to(call, {1, 1, 1, 5}));
    });
    where_[1] = "127.0.0.1:" + std::to_string(denies.port());
    EXPECT_EQ(run({"list"}).err, "veldepot: Error: Unable to get an answer from server \"" + where_[1] +
                                     "\": denied, credential too weak\n");
    where_[1] = "127.0.0.1:" + std::to_string(port_of(test::open_loopback(AF_INET, SOCK_STREAM)));
    EXPECT_EQ(run({"remove", "a", "b"}).err,
              "veldepot: Error: Unable to reach server \"" + where_[1] + "\": Connection refused\n");
}

} // namespace
