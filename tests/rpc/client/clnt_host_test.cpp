// Clients from the name of a host, in a network of their own, where the binder's port is free.
#include "harness/child.h"
#include "rpc/client/client_fixture.h"

#include <korvaks/ks_product.h>

#include <csignal>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

namespace {

using test::RawPeer;
using test::words;

constexpr int is_refused = 77;
constexpr rpcprog_t served = 1, faulty = 2, unregistered = 3, silent = 4; // the faulty one has no version that works

bool enter_own_network()
{
    // A user of one's own makes it possible for everybody, but not where a sanitizer has a thread already.
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    const test::Descriptor any(socket(AF_INET, SOCK_DGRAM, 0));
    return ioctl(any.get(), SIOCSIFFLAGS, &loopback) == 0;
}

// Runs `body` there; a host that refuses it has the test skipped.
void in_own_network(void (*body)())
{
    const auto result = test::run_child([body] { return enter_own_network() ? (body(), 0) : is_refused; });
    if (result.exit_status == is_refused)
        GTEST_SKIP() << "this host gives no network of one's own";
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

// Versions 2 and 3, and procedure 0 of them.
void serve(RawPeer::Link &link, const std::string &call)
{
    const int version = call[19];
    if (version < 2 || version > 3)
        link.reply(test::reply_to(call, {1, 0, 0, 0, 2, 2, 3}));
    else
        link.reply(test::reply_to(call, {1, 0, 0, 0, call[23] != 0 ? 3u : call[15] == faulty ? 1u : 0u}));
}

struct Host {
    RawPeer tcp{AF_INET, SOCK_STREAM, serve};
    RawPeer udp{AF_INET, SOCK_DGRAM, serve};
    RawPeer tcp_binder{AF_INET, SOCK_STREAM, bind(tcp), 111};
    RawPeer udp_binder{AF_INET, SOCK_DGRAM, bind(udp), 111};

    static RawPeer::Script bind(const RawPeer &server)
    {
        return [port = server.port()](RawPeer::Link &link, const std::string &call) {
            std::string address = "0.0.0.0." + std::to_string(port >> 8) + "." + std::to_string(port & 255);
            if (call[43] == unregistered)
                address.clear();
            const std::string size = words({static_cast<uint32_t>(address.size())});
            address.resize((address.size() + 3) / 4 * 4);
            if (call[43] != silent)
                link.reply(test::reply_to(call, {1, 0, 0, 0, 0}, size + address));
        };
    }

    // How often it was asked where a program is.
    std::size_t asked() { return tcp_binder.calls(0).size() + udp_binder.calls(0).size(); }
};

clnt_stat call(const std::string &host, rpcvers_t version, const char *nettype = "tcp", rpcproc_t proc = 0)
{
    return ks_rpc_call(host.c_str(), served, version, proc, nullptr, nullptr, nullptr, nullptr, nettype);
}

TEST(ClntHost, OneCallKeepsItsClient)
{
    in_own_network([] {
        const std::string host = "127.0.0.1";
        std::string octal(63 - 10, '0'); // of the same address
        octal.append("0177.0.0.1");
        const struct {
            std::string host;
            rpcvers_t version;
            const char *nettype;
            rpcproc_t proc;
            clnt_stat status;
            unsigned asked;
        } cases[] = {{host, 2, "tcp", 0, RPC_SUCCESS, 1},        {host, 2, "tcp", 0, RPC_SUCCESS, 0},
                     {host, 3, "tcp", 0, RPC_SUCCESS, 1},        {host, 3, "udp", 0, RPC_SUCCESS, 1},
                     {octal, 3, "udp", 0, RPC_SUCCESS, 1},       {octal, 3, "udp", 0, RPC_SUCCESS, 0},
                     {'0' + octal, 3, "udp", 0, RPC_SUCCESS, 1}, {'0' + octal, 3, "udp", 0, RPC_SUCCESS, 1},
                     {host, 2, "netpath", 0, RPC_SUCCESS, 1},    {host, 2, nullptr, 0, RPC_SUCCESS, 0},
                     {host, 2, nullptr, 1, RPC_PROCUNAVAIL, 0},  {host, 2, nullptr, 0, RPC_SUCCESS, 1},
                     {host, 2, "other", 0, RPC_UNKNOWNPROTO, 0}, {host, 9, "udp", 0, RPC_PROGVERSMISMATCH, 1}};
        Host server;
        for (const auto &row : cases) {
            const std::size_t before = server.asked();
            EXPECT_EQ(call(row.host, row.version, row.nettype, row.proc), row.status) << &row - cases;
            EXPECT_EQ(server.asked() - before, row.asked) << &row - cases;
        }
        EXPECT_EQ(ks_callrpc(host.c_str(), served, 2, 0, nullptr, nullptr, nullptr, nullptr), RPC_SUCCESS);
        const std::size_t before = server.asked();
        const int fds = test::open_descriptor_count();
        std::thread([&] { EXPECT_EQ(call(host, 2, "udp"), RPC_SUCCESS); }).join();
        EXPECT_EQ(server.asked() - before, 1u);
        EXPECT_EQ(test::open_descriptor_count(), fds);
        const auto child = test::run_child([&] { return call(host, 2, "udp") * 100 + test::open_descriptor_count(); });
        EXPECT_EQ(server.asked() - before, 2u); // one of its own, in the place of its parent's
        EXPECT_LT(child.exit_status, fds + 3);  // the pipes to its parent
        EXPECT_EQ(call(host, 2, "udp"), RPC_SUCCESS);
        EXPECT_EQ(server.asked() - before, 2u);
    });
}

TEST(ClntHost, SettlesOnAVersion)
{
    in_own_network([] {
        const struct {
            rpcprog_t program;
            rpcvers_t low, high, settled;
            int status;
        } cases[] = {{served, 1, 3, 3, 0}, {served, 1, 9, 3, 0}, {served, 3, 9, 3, 0},
                     {served, 2, 2, 2, 0}, {served, 4, 9, 0, 9}, {served, 0, 1, 0, 9},
                     {faulty, 1, 3, 0, 8}, {faulty, 1, 9, 0, 8}, {unregistered, 1, 9, 0, 15}};
        const Host server;
        EXPECT_EQ(ks_clnt_create("127.0.0.1", unregistered, 2, "udp"), nullptr); // the library has what it keeps
        const int fds = test::open_descriptor_count();
        for (const auto &row : cases) {
            rpcvers_t version = 0;
            const test::ClientOwner client(
                ks_clnt_create_vers("127.0.0.1", row.program, &version, row.low, row.high, "udp"));
            EXPECT_EQ(version, row.settled) << row.low << row.high;
            EXPECT_EQ(client ? test::control(client, CLGET_VERS) : 0, row.settled);
            const auto &why = *ks_rpc_get_createerr();
            EXPECT_EQ(client ? 0 : int{why.cf_stat}, row.status) << row.low << row.high;
            EXPECT_TRUE(row.status != 9 || (why.cf_error.re_vers.low == 2 && why.cf_error.re_vers.high == 3));
        }
        EXPECT_EQ(test::open_descriptor_count(), fds);
    });
}

TEST(ClntHost, TellsOfTheTransportThatSaysMost)
{
    in_own_network([] {
        const struct {
            const char *host, *netpath;
            rpcprog_t program;
            int status;
        } cases[] = {{"127.0.0.1", "udp6:tcp6", served, 22},      {"127.0.0.1", "tcp:udp6", unregistered, 15},
                     {"127.0.0.1", "udp6:udp", unregistered, 15}, {"127.0.0.1", "none:", served, 17},
                     {"no..host", "udp:tcp", served, 13},         {"127.0.0.2", "udp:tcp", served, 14},
                     {"127.0.0.1", "udp6:none:tcp", served, 0}};
        const Host server;
        for (const auto &row : cases) {
            ASSERT_EQ(setenv("NETPATH", row.netpath, 1), 0);
            const test::ClientOwner client(ks_clnt_create(row.host, row.program, 2, nullptr));
            EXPECT_EQ(client ? 0 : int{ks_rpc_get_createerr()->cf_stat}, row.status) << row.netpath;
        }
    });
}

// The first wait takes the notice of a raise; those behind it end for it all the same.
TEST(ClntHost, ARaiseEndsTheSearchOverEveryTransport)
{
    in_own_network([] {
        ASSERT_EQ(setenv("NETPATH", "udp:tcp:udp", 1), 0);
        const Host server;
        (void)ks_system_init();
        (void)kill(getpid(), SIGTERM);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ks_clnt_create("127.0.0.1", silent, 2, nullptr), nullptr);
        EXPECT_EQ(ks_rpc_get_createerr()->cf_error.re_errno, EINTR);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
        _exit(testing::Test::HasFailure());
    });
}

} // namespace
