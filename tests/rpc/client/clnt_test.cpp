// Clients against a server of the platform's library, and against servers and networks that do what they should not.
#include "rpc/client/client_fixture.h"

#include "harness/child.h"

#include <gtest/gtest.h>

#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>

#include <numeric>

#include <sys/ioctl.h>

namespace {

using test::call;
using test::ClientOwner;
using test::control;
using test::echo;
using test::error_of;
using test::make_client;
using test::ms;
using test::ping;
using test::RawPeer;
using test::words;

constexpr const char *netids[] = {"tcp", "udp", "tcp6", "udp6"};

std::string sample(std::size_t size)
{
    std::string bytes(size, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    return bytes;
}

std::string text_of(const ClientOwner &client)
{
    return ks_clnt_sperror(client.get(), "p");
}

TEST(Clnt, EchoesEverySizeOverEveryTransport)
{
    const test::TirpcPeer peer;
    for (const std::string netid : netids) {
        if (netid.back() == '6' && !peer.has_ipv6())
            continue;
        // Send buffers of 100 bytes make records of many fragments.
        const u_int sendsize = netid.starts_with("tcp") ? 100 : 0;
        const ClientOwner client = make_client(netid, peer.port(), TIRPC_PEER_PROGRAM, TIRPC_PEER_LOWEST, sendsize);
        ASSERT_TRUE(client) << ks_clnt_spcreateerror("");
        EXPECT_EQ(netid, client->cl_netid);
        EXPECT_EQ(ping(client), RPC_SUCCESS) << text_of(client);
        for (const std::size_t size : {0UL, 1UL, 3UL, 4UL, 97UL, 100UL, 8000UL, 8193UL, 300000UL}) {
            if (netid.starts_with("udp") && size > 8000)
                continue;
            std::string received;
            EXPECT_EQ(echo(client, sample(size), received), RPC_SUCCESS) << netid << ' ' << size << text_of(client);
            EXPECT_EQ(received, sample(size));
        }
    }
}

bool_t xdr_words(XDR *xdrs, std::vector<uint32_t> *numbers)
{
    for (uint32_t &number : *numbers)
        if (xdr_u_int(xdrs, &number) == FALSE)
            return FALSE;
    return TRUE;
}

bool_t refuse(XDR *, void *)
{
    return FALSE;
}

TEST(Clnt, TellsWhatTheServerSays)
{
    const test::TirpcPeer peer;
    for (const std::string netid : {"tcp", "udp"}) {
        SCOPED_TRACE(netid);
        const ClientOwner client = make_client(netid, peer.port());
        const struct {
            u_int request;
            uint32_t value;
            rpcproc_t proc;
            const char *text;
        } cases[] = {
            {CLSET_PROG, TIRPC_PEER_PROGRAM + 1, 0, "p: RPC: Program unavailable"},
            {CLSET_VERS, 9, 0, "p: RPC: Program/version mismatch; low version = 2, high version = 3"},
            {CLSET_VERS, 2, 99, "p: RPC: Procedure unavailable"},
            {CLSET_VERS, 2, TIRPC_PEER_ECHO, "p: RPC: Server can't decode arguments"},
            {CLSET_VERS, 2, TIRPC_PEER_WEAK, "p: RPC: Authentication error; why = Client credential too weak"},
            {CLSET_VERS, 2, TIRPC_PEER_FAIL, "p: RPC: Remote system error"},
            {CLSET_VERS, 2, 0, "p: RPC: Success"},
        };
        for (const auto &row : cases) {
            if (row.proc == TIRPC_PEER_ECHO && netid == "udp")
                continue; // that server decodes what earlier datagrams have left
            EXPECT_TRUE(test::set(client, row.request, row.value));
            (void)ping(client, {20, 0}, row.proc);
            EXPECT_EQ(text_of(client), row.text);
            (void)test::set(client, CLSET_PROG, TIRPC_PEER_PROGRAM);
        }
        int nothing = 0;
        EXPECT_EQ(call(client, 0, refuse, static_cast<void *>(nullptr), refuse, static_cast<void *>(nullptr)),
                  RPC_CANTENCODEARGS);
        EXPECT_EQ(call(client, 0, xdr_int, &nothing, refuse, static_cast<void *>(nullptr)), RPC_CANTDECODERES);
        uint32_t sleep_ms = 250;
        EXPECT_EQ(call(client, TIRPC_PEER_SLEEP, xdr_u_int, &sleep_ms, xdr_u_int, &sleep_ms, ms(30)), RPC_TIMEDOUT);
        std::string received; // the late reply is passed over
        EXPECT_EQ(echo(client, "after", received), RPC_SUCCESS);
        EXPECT_EQ(received, "after");
    }
}

TEST(Clnt, SaysWhoCalls)
{
    const test::TirpcPeer peer;
    const gid_t groups[] = {7, 8};
    for (const std::string netid : {"tcp", "udp"}) {
        const ClientOwner client = make_client(netid, peer.port());
        client->cl_auth = ks_authunix_create("host", 11, 12, 2, groups);
        std::vector<uint32_t> who(8);
        EXPECT_EQ(call(client, TIRPC_PEER_WHO, xdr_words, &who, xdr_words, &who), RPC_SUCCESS);
        EXPECT_EQ(who, (std::vector<uint32_t>{1, 4, 0x686f7374, 11, 12, 2, 7, 8}));
        auth_destroy(client->cl_auth);
    }
}

// Calls that nobody answers stay behind until another one takes them along.
TEST(Clnt, BatchesCallsWithoutReply)
{
    const test::TirpcPeer peer;
    const ClientOwner client = make_client("tcp", peer.port());
    uint32_t one = 1;
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(call(client, TIRPC_PEER_BUMP, xdr_u_int, &one, static_cast<bool_t (*)(XDR *, int *)>(nullptr),
                       static_cast<int *>(nullptr), {0, 0}),
                  RPC_SUCCESS);
    uint32_t count = 0;
    EXPECT_EQ(call(client, TIRPC_PEER_COUNT, xdr_u_int, &one, xdr_u_int, &count), RPC_SUCCESS);
    EXPECT_EQ(count, 1000u);
    EXPECT_EQ(ping(client, {0, 0}), RPC_SUCCESS);
    EXPECT_EQ(ping(client, {-1, 0}), RPC_SUCCESS);
}

constexpr std::initializer_list<uint32_t> success{1, 0, 0, 0, 0};

TEST(Clnt, SendsTheStandardsBytes)
{
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        RawPeer peer(AF_INET, type, [](RawPeer::Link &link, const std::string &bytes) {
            link.reply(test::reply_to(bytes, success, words({77})));
        });
        const ClientOwner client = make_client(type == SOCK_STREAM ? "tcp" : "udp", peer.port(), 0x20000001, 5);
        EXPECT_TRUE(test::set(client, CLSET_XID, 0xff));
        EXPECT_TRUE(test::set(client, CLSET_VERS, 6));
        const gid_t group = 9;
        client->cl_auth = ks_authunix_create("abcde", 11, 12, 1, &group);
        uint32_t number = 42;
        EXPECT_EQ(call(client, 3, xdr_u_int, &number, xdr_u_int, &number), RPC_SUCCESS);
        EXPECT_EQ(number, 77u);
        EXPECT_EQ(control(client, CLGET_XID), 0xffu);
        EXPECT_EQ(ping(client), RPC_SUCCESS);
        auth_destroy(client->cl_auth);
        const auto calls = peer.calls(2);
        ASSERT_EQ(calls.size(), 2u);
        std::string first = calls[0];
        first.replace(32, 4, "time"); // of day
        EXPECT_EQ(first, words({0xff, 0, 2, 0x20000001, 6, 3, 1, 32}) + "time" + words({5}) +
                             std::string("abcde\0\0\0", 8) + words({11, 12, 1, 9, 0, 0, 42}));
        EXPECT_EQ(calls[1].substr(0, 4), type == SOCK_STREAM ? words({0xfe}) : words({0x010000ff}));
    }
}

// A server that answers calls in turn, each as one of the scripts says; the last one answers all others.
RawPeer::Script in_turn(std::vector<RawPeer::Script> scripts)
{
    return
        [scripts = std::move(scripts), next = std::size_t{0}](RawPeer::Link &link, const std::string &bytes) mutable {
            scripts[std::min(next++, scripts.size() - 1)](link, bytes);
        };
}

RawPeer::Script answer(std::initializer_list<uint32_t> after_xid)
{
    return [reply = std::vector(after_xid)](RawPeer::Link &link, const std::string &bytes) {
        std::string message = bytes.substr(0, 4);
        for (const uint32_t word : reply)
            message += words({word});
        link.reply(message);
    };
}

const RawPeer::Script nothing = [](RawPeer::Link &, const std::string &) {};

TEST(Clnt, MapsEveryReply)
{
    const struct {
        std::initializer_list<uint32_t> reply;
        const char *text;
    } cases[] = {
        {{1, 1, 0, 3, 4}, "p: RPC: Incompatible versions of RPC; low version = 3, high version = 4"},
        {{1, 1, 1, 2}, "p: RPC: Authentication error; why = Server ks_rejected credential"},
        {{1, 1, 1, 99}, "p: RPC: Authentication error; why = (unknown authentication error - 99)"},
        {{1, 0, 0, 0, 99}, "p: RPC: Failed (unspecified error)"},
        {{1, 1, 7}, "p: RPC: Can't decode result"},
        {{1, 0, 0, 401, 0}, "p: RPC: Can't decode result"},
        {{1, 0, 0, 0}, "p: RPC: Can't decode result"},
        {{1, 0, 0, 0, 0}, "p: RPC: Success"},
    };
    std::vector<RawPeer::Script> scripts;
    for (const auto &row : cases)
        scripts.push_back(answer(row.reply));
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        RawPeer peer(AF_INET, type, in_turn(scripts));
        const ClientOwner client = make_client(type == SOCK_STREAM ? "tcp" : "udp", peer.port());
        for (const auto &row : cases) {
            (void)ping(client);
            EXPECT_EQ(text_of(client), row.text);
        }
    }
}

// Whatever comes, a call ends at its time, and the next one is as good as any.
TEST(Clnt, EndsAtItsDeadlineOverAConnection)
{
    const RawPeer::Script drip = [](RawPeer::Link &link, const std::string &bytes) {
        const std::string reply = words({0x80000018}) + test::reply_to(bytes, success);
        for (const char byte : reply.substr(0, 9))
            if (!link.send({byte}) || !link.wait(40))
                return;
        (void)link.send(reply.substr(9)); // the rest of it, before the next reply
    };
    const RawPeer::Script half_a_header = [](RawPeer::Link &link, const std::string &) { link.send({'\x80', '\0'}); };
    const RawPeer::Script other_half = [](RawPeer::Link &link, const std::string &bytes) {
        link.send(std::string("\0\4late", 6));
        link.reply(test::reply_to(bytes, success));
    };
    const RawPeer::Script strangers = [](RawPeer::Link &link, const std::string &) {
        for (int i = 0; i < 1000; ++i)
            if (!link.reply(words({1, 1, 0, 0, 0, 0})) || !link.wait(1))
                return;
    };
    RawPeer peer(AF_INET, SOCK_STREAM,
                 in_turn({nothing, answer(success), drip, answer(success), half_a_header, other_half, strangers,
                          answer(success)}));
    const ClientOwner client = make_client("tcp", peer.port());
    for (int i = 0; i < 4; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ping(client, ms(100)), RPC_TIMEDOUT) << i;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(ping(client), RPC_SUCCESS) << i << text_of(client);
    }
}

TEST(Clnt, EndsWithItsConnection)
{
    RawPeer peer(AF_INET, SOCK_STREAM, [](RawPeer::Link &link, const std::string &) { link.close(); });
    const ClientOwner client = make_client("tcp", peer.port());
    EXPECT_EQ(ping(client), RPC_CANTRECV);
    EXPECT_EQ(error_of(client).re_errno, ECONNRESET);
    clnt_stat status = RPC_SUCCESS;
    for (int i = 0; i < 100 && status != RPC_CANTSEND; ++i) // until the system knows
        status = ping(client);
    EXPECT_EQ(text_of(client), "p: RPC: Unable to send; errno = Broken pipe");
}

// A server that does not read is waited for as long as the call may take, and its connection is lost.
TEST(Clnt, DoesNotWaitForAReaderLongerThanForAReply)
{
    const test::Descriptor listener = test::open_loopback(AF_INET, SOCK_STREAM);
    const ClientOwner client = make_client("tcp", port_of(listener));
    std::string large(64 << 20, 'x');
    EXPECT_EQ(call(client, 1, test::xdr_blob, &large, test::xdr_blob, &large, ms(100)), RPC_TIMEDOUT);
    EXPECT_EQ(ping(client), RPC_CANTSEND);
}

// Replies that no call waits for.
TEST(Clnt, PassesOverStrayDatagrams)
{
    RawPeer peer(AF_INET, SOCK_DGRAM, [](RawPeer::Link &link, const std::string &bytes) {
        for (const std::string &stray : {std::string(), std::string("abc"), words({1, 1, 0, 0, 0, 0}), words({1})})
            link.reply(stray);
        for (int i = 0; i < 2; ++i)
            link.reply(test::reply_to(bytes, success));
    });
    const ClientOwner client = make_client("udp", peer.port());
    EXPECT_EQ(ping(client), RPC_SUCCESS);
    EXPECT_EQ(ping(client), RPC_SUCCESS);
    ks_clnt_dg_strays strays{};
    ks_clnt_dg_get_strays(client.get(), &strays);
    EXPECT_EQ(strays.runt, 4u);
    EXPECT_EQ(strays.foreign, 5u);
}

TEST(Clnt, SendsDatagramsAgain)
{
    const test::TirpcPeer server;
    test::UdpProxy proxy(AF_INET, server.port(), {"xx", "x2d", 50});
    const ClientOwner client = make_client("udp", proxy.port());
    timeval interval = ms(20);
    EXPECT_TRUE(clnt_control(client.get(), CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&interval)));
    EXPECT_EQ(ping(client), RPC_SUCCESS);
    EXPECT_GE(proxy.count(test::UdpProxy::requests), 4);
    const uint32_t xid = control(client, CLGET_XID);
    EXPECT_EQ(ping(client), RPC_SUCCESS);
    EXPECT_EQ(__builtin_bswap32(control(client, CLGET_XID)), __builtin_bswap32(xid) + 1);
    RawPeer silent(AF_INET, SOCK_DGRAM, nothing);
    const ClientOwner patient = make_client("udp", silent.port());
    (void)clnt_control(patient.get(), CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&interval));
    EXPECT_EQ(ping(patient, ms(200)), RPC_TIMEDOUT); // sent at 0, 20, 60 and 140 ms
    const auto calls = silent.calls(3);
    EXPECT_LE(calls.size(), 4u);
    EXPECT_EQ(calls.front(), calls.back());
    interval = {0, 0};
    (void)clnt_control(patient.get(), CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&interval));
    EXPECT_EQ(ping(patient, ms(100)), RPC_TIMEDOUT); // no flood
    EXPECT_LE(silent.calls(0).size(), calls.size() + 11);
}

// Nobody is there; then somebody is, and what the network said before is not held against him.
TEST(Clnt, HearsOfAPortThatIsClosed)
{
    uint16_t port = port_of(test::open_loopback(AF_INET, SOCK_DGRAM));
    const ClientOwner client = make_client("udp", port);
    const ClientOwner client6 = make_client(test::has_ipv6() ? "udp6" : "udp", port);
    EXPECT_EQ(ping(client6), RPC_CANTRECV);
    EXPECT_EQ(ping(client), RPC_CANTRECV);
    EXPECT_EQ(error_of(client).re_errno, ECONNREFUSED);
    EXPECT_EQ(ping(client, {0, 0}), RPC_TIMEDOUT);
    const test::Descriptor server(socket(AF_INET, SOCK_DGRAM, 0));
    const test::SocketAddress address = test::loopback(AF_INET, port);
    ASSERT_EQ(bind(server.get(), address.get(), address.size), 0);
    EXPECT_EQ(ping(client, ms(50)), RPC_TIMEDOUT);
    port = port_of(test::open_loopback(AF_INET, SOCK_STREAM));
    EXPECT_FALSE(make_client("tcp", port));
    EXPECT_STREQ(ks_clnt_spcreateerror("p"), "p: RPC: Remote system error - Connection refused");
}

std::string credential_of(const std::string &bytes)
{
    return bytes.substr(24, 8);
}

// The short-hand credential is used until it is refused, and then the full one again.
TEST(Clnt, AdoptsAndRefreshesAShortCredential)
{
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        const auto shorthand = answer({1, 0, 2, 12, 2, 4, 0xabcd, 0});
        RawPeer peer(AF_INET, type, in_turn({shorthand, answer({1, 1, 1, 2}), answer(success), answer({1, 1, 1, 1})}));
        const ClientOwner client = make_client(type == SOCK_STREAM ? "tcp" : "udp", peer.port());
        client->cl_auth = ks_authunix_create("h", 1, 2, 0, nullptr);
        EXPECT_EQ(ping(client), RPC_SUCCESS);
        EXPECT_EQ(ping(client), RPC_SUCCESS);
        EXPECT_EQ(ping(client), RPC_AUTHERROR); // the full one has no other to be tried with
        auth_destroy(client->cl_auth);
        const auto calls = peer.calls(4);
        ASSERT_EQ(calls.size(), 4u);
        const std::string full = words({1, 24});
        const std::string used[] = {full, words({2, 4}), full, full};
        for (std::size_t i = 0; i < calls.size(); ++i)
            EXPECT_EQ(credential_of(calls[i]), used[i]) << i;
    }
}

TEST(Clnt, IsControlled)
{
    const test::TirpcPeer peer;
    for (const std::string netid : {"tcp", "udp"}) {
        const bool is_stream = netid == "tcp";
        ClientOwner client = make_client(netid, peer.port());
        for (u_int request = 0; request <= 20; ++request)
            EXPECT_EQ(clnt_control(client.get(), request, nullptr) != FALSE, request == 8 || request == 9) << request;
        timeval span{-1, -1};
        const auto asks = [&](u_int request) {
            return clnt_control(client.get(), request, reinterpret_cast<char *>(&span)) != FALSE;
        };
        EXPECT_TRUE(asks(CLGET_TIMEOUT));
        EXPECT_EQ(span.tv_usec, is_stream ? 0 : -1);
        span = {100000001, 0};
        EXPECT_FALSE(asks(CLSET_TIMEOUT) || asks(CLSET_RETRY_TIMEOUT));
        EXPECT_EQ(asks(CLGET_RETRY_TIMEOUT), !is_stream);
        EXPECT_EQ(span.tv_sec, is_stream ? 100000001 : 15);
        span = {0, -1}; // nothing at all, but set
        EXPECT_TRUE(asks(CLSET_TIMEOUT));
        EXPECT_EQ(ping(client), is_stream ? RPC_SUCCESS : RPC_TIMEDOUT);
        span = ms(40);
        EXPECT_TRUE(asks(CLSET_TIMEOUT));
        uint32_t sleep_ms = 200; // the time-out that was set, not that of the call
        EXPECT_EQ(call(client, TIRPC_PEER_SLEEP, xdr_u_int, &sleep_ms, xdr_u_int, &sleep_ms), RPC_TIMEDOUT);
        sockaddr_in address{};
        netbuf buffer{};
        EXPECT_TRUE(clnt_control(client.get(), CLGET_SERVER_ADDR, reinterpret_cast<char *>(&address)));
        EXPECT_TRUE(clnt_control(client.get(), CLGET_SVC_ADDR, reinterpret_cast<char *>(&buffer)));
        EXPECT_EQ(ntohs(address.sin_port), peer.port());
        EXPECT_EQ(std::memcmp(buffer.buf, &address, buffer.len), 0);
        const auto fd = static_cast<int>(control(client, CLGET_FD));
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_TRUE(clnt_control(client.get(), CLSET_FD_CLOSE, nullptr));
        client.reset();
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

// Sends this process a signal after a while.
std::thread send_soon(int signal)
{
    return std::thread([signal] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        kill(getpid(), signal);
    });
}

// A raise ends the wait of the attached thread, unless the caller holds it off, and is delivered afterwards.
TEST(Clnt, EndsForARaise)
{
    test::in_child([] {
        ks_system_init();
        RawPeer silent(AF_INET, SOCK_STREAM, nothing);
        const ClientOwner client = make_client("tcp", silent.port());
        pfm_cleanup_rec record{};
        record.status = sigsetjmp(record.jump, 1);
        if (pfm_cleanup_start(&record, 0) == 0) {
            pfm_inhibit();
            std::thread sender = send_soon(SIGTERM);
            EXPECT_EQ(ping(client, ms(200)), RPC_TIMEDOUT);
            sender.join();
            pfm_enable();
            ADD_FAILURE() << "no raise";
        }
        EXPECT_EQ(record.status, 4);
        pfm_enable();
        std::thread sender = send_soon(SIGHUP);
        EXPECT_EQ(ping(client), RPC_CANTRECV);
        EXPECT_EQ(error_of(client).re_errno, EINTR);
        sender.join();
        _exit(testing::Test::HasFailure());
    });
}

// A connect that nobody answers: the queue of the listener is full.
TEST(Clnt, EndsAConnectForARaise)
{
    test::in_child([] {
        ks_system_init();
        const test::Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
        test::SocketAddress address = test::loopback(AF_INET, 0);
        ASSERT_TRUE(bind(listener.get(), address.get(), address.size) == 0 && listen(listener.get(), 0) == 0);
        ClientOwner queued = make_client("tcp", port_of(listener));
        ASSERT_TRUE(queued);
        std::thread sender = send_soon(SIGTERM);
        EXPECT_FALSE(make_client("tcp", port_of(listener)));
        EXPECT_EQ(ks_rpc_get_createerr()->cf_error.re_errno, EINTR);
        sender.join();
        _exit(testing::Test::HasFailure());
    });
}

// In a child no handle is locked, whoever was calling in the parent.
TEST(Clnt, IsFreeInAChild)
{
    test::in_child([] {
        ks_system_init();
        RawPeer silent(AF_INET, SOCK_STREAM, nothing);
        const ClientOwner client = make_client("tcp", silent.port());
        std::thread caller([&] { EXPECT_EQ(ping(client, ms(300)), RPC_TIMEDOUT); });
        (void)silent.calls(1);
        const pid_t child = vlthread_fork(VLTHREAD_FORK_PLAIN);
        if (child == 0)
            _exit(control(client, CLGET_VERS) == TIRPC_PEER_HIGHEST ? 0 : 1);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        caller.join();
    });
}

} // namespace
