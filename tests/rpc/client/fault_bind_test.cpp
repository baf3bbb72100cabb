// Where a server is: what binders of every age answer, what strangers say, and what fails underneath.
#include "harness/child.h"
#include "harness/fault_sweep.h"
#include "rpc/client/rpc_bind_impl.h"
#include "rpc/peer/raw_peer.h"

#include <korvaks/clnt.h>
#include <korvaks/ks_product.h>
#include <korvaks/sysutl.h>

#include <csignal>

namespace {

using test::words;
using test::fault::Operation;

std::string string_of(std::string text)
{
    const std::string size = words({static_cast<uint32_t>(text.size())});
    text.resize((text.size() + 3) / 4 * 4);
    return size + text;
}

// The versions of the binder that are there, and what they answer. A row's number is the program that is asked for.
const struct Row {
    uint32_t lowest, highest;
    std::string answer;
    std::string over_ipv4, over_ipv6; // a port, or "status/detail"
} rows[] = {
    {2, 4, string_of("192.0.2.1.3.9"), "777", "777"},
    {2, 3, string_of("2001:db8::1.003.9"), "777", "777"},
    {2, 2, words({777}), "777", "14/9"},
    {5, 6, "", "14/9", "14/9"},
    {2, 4, string_of(""), "15/15", "15/15"},
    {2, 2, words({0}), "15/15", "14/9"},
    {2, 2, words({65536}), "14/2", "14/9"},
    {2, 4, string_of("192.0.2.1.256.9"), "14/2", "14/2"},
    {2, 4, string_of("192.0.2.1.3.-9"), "14/2", "14/2"},
    {2, 4, string_of("192.0.2.1.3.9x"), "14/2", "14/2"},
    {2, 4, string_of("192.0.2.1.3."), "14/2", "14/2"},
    {2, 4, string_of(".3.9"), "14/2", "14/2"},
    {2, 4, string_of("9"), "14/2", "14/2"},
    {2, 4, string_of(std::string(251, '1') + ".3.9"), "777", "777"},
    {2, 4, string_of(std::string(252, '1') + ".3.9"), "14/2", "14/2"},
    {1, 0, "", "14/5", "14/5"}, // says nothing
};

struct Transport {
    const netconfig *nconf;
    __rpc_sockinfo kind;
    const char *host; // loopback
};

Transport transport(int protocol, bool is_ipv6)
{
    Transport found{};
    void *walk = __ks_rpc_setconf(protocol == IPPROTO_TCP ? "tcp" : "udp"); // IPv6 comes first
    for (int i = is_ipv6 ? 1 : 2; i > 0; --i)
        found.nconf = __ks_rpc_getconf(walk);
    __ks_rpc_endconf(walk);
    (void)__ks_rpc_nconf2sockinfo(found.nconf, &found.kind);
    found.host = is_ipv6 ? "::1" : "127.0.0.1";
    return found;
}

// A binder that has not understood what is not asked as it should be, byte for byte.
struct Binder : test::RawPeer {
    explicit Binder(const Transport &over)
        : RawPeer(over.kind.si_af, over.kind.si_socktype, [over](Link &link, const std::string &call) {
              const auto version = uint32_t(call[19]), program = uint32_t(call[43]);
              const Row &row = rows[program];
              std::string asked = words({0, 2, 100000, version, 3, 0, 0, 0, 0, program, 7});
              asked += version == 2 ? words({uint32_t(over.kind.si_proto), 0})
                                    : string_of(over.nconf->nc_netid) + words({0, 0});
              if (row.highest != 0 && (version < row.lowest || version > row.highest))
                  link.reply(test::reply_to(call, {1, 0, 0, 0, 2, row.lowest, row.highest}));
              else if (row.highest != 0)
                  link.reply(test::reply_to(call, {1, 0, 0, 0, call.substr(4) == asked ? 0u : 4u}, row.answer));
          })
    {
    }
};

// "port", or "status/detail".
std::string find(rpcprog_t program, const Transport &over, uint16_t port, time_t limit_s = 20)
{
    netbuf *address = ks::rpc::find_address(program, 7, over.nconf, over.host, {port, {limit_s, 100'000}, {0, 30'000}});
    const auto &why = *ks_rpc_get_createerr();
    if (address == nullptr)
        return std::to_string(why.cf_stat) + "/" + std::to_string(why.cf_error.re_status);
    char text[SYSUTL_ADDR_TEXT_SIZE];
    const std::string found = sysutl_netbuf_to_str(address, sizeof text, text);
    std::free(address);
    const std::string host = "[" + std::string(over.host) + "]:";
    return found.starts_with(host) ? found.substr(host.size()) : found;
}

TEST(RpcBind, BindersOfEveryAgeAndStrangersAreUnderstood)
{
    for (const int protocol : {IPPROTO_UDP, IPPROTO_TCP})
        for (int is_ipv6 = 0; is_ipv6 <= int(test::has_ipv6()); ++is_ipv6) {
            const auto over = transport(protocol, is_ipv6 != 0);
            Binder binder(over);
            for (const Row &row : rows) {
                const auto program = rpcprog_t(&row - rows);
                EXPECT_EQ(find(program, over, binder.port(), row.highest == 0 ? 0 : 20),
                          is_ipv6 != 0 ? row.over_ipv6 : row.over_ipv4)
                    << over.nconf->nc_netid << ", row " << program;
            }
            // One for each version that may be served; what is not answered is sent again over datagrams.
            const std::size_t calls = (is_ipv6 != 0 ? 20u : 24u) + (protocol == IPPROTO_UDP ? 2 : 1);
            EXPECT_GE(binder.calls(calls).size(), calls);
        }
}

TEST(RpcBind, WhatCannotBeAskedIsTold)
{
    const test::Descriptor nobody(socket(AF_INET, SOCK_STREAM, 0));
    const auto here = test::loopback(AF_INET, 0);
    ASSERT_EQ(bind(nobody.get(), here.get(), here.size), 0);
    const auto tcp = transport(IPPROTO_TCP, false);
    EXPECT_EQ(find(1, tcp, test::port_of(nobody)), "14/12");
    EXPECT_EQ(ks_rpc_get_createerr()->cf_error.re_errno, ECONNREFUSED);
    EXPECT_EQ(find(1, {transport(IPPROTO_TCP, true).nconf, {}, "127.0.0.1"}, 1), "22/22");
    for (const char *host : {"", "no..host", static_cast<const char *>(nullptr)})
        EXPECT_EQ(find(1, {tcp.nconf, {}, host}, 1), "13/13");
    EXPECT_EQ(find(1, {nullptr, {}, "127.0.0.1"}, 1), "17/17");
}

TEST(RpcBind, ARaiseEndsTheSearch)
{
    const auto udp = transport(IPPROTO_UDP, false);
    const test::PeerProcess binder([&] { return std::make_unique<Binder>(udp); });
    test::in_child([&] {
        (void)ks_system_init();
        (void)kill(getpid(), SIGINT);
        EXPECT_EQ(find(std::size(rows) - 1, udp, binder.port()), "14/4");
        EXPECT_EQ(ks_rpc_get_createerr()->cf_error.re_errno, EINTR);
        EXPECT_NE(test::fault::take_raise(), 0);
    });
}

TEST(FaultBind, FindsOrTellsWhatFailed)
{
    static std::string found;
    for (const int protocol : {IPPROTO_UDP, IPPROTO_TCP}) {
        const auto over = transport(protocol, false);
        const test::PeerProcess binder([&] { return std::make_unique<Binder>(over); });
        Operation("__ks_rpcb_findaddr")
            .act([&] { return (found = find(1, over, binder.port(), 1)) == "777"; })
            .keeps([](const test::fault::Trial &trial) {
                if (found == "20/20") // no socket, or none of a known kind
                    return trial.failed(test::fault::Call::socket) || trial.failed(test::fault::Call::sockopt);
                const bool is_exhausted = found == "12/12" && ks_rpc_get_createerr()->cf_error.re_errno == ENOMEM;
                return is_exhausted ? trial.plan.answer == ENOMEM
                                    : !trial.failed(test::fault::Call::allocation) && found.starts_with("14/");
            })
            .sweep();
    }
    static void *walk;
    Operation("__ks_rpc_setconf")
        .setup([] { (void)setenv("NETPATH", std::string(100, ':').append("udp").c_str(), 1); })
        .act([] { return (walk = __ks_rpc_setconf("netpath")) != nullptr; })
        .gives([] { return std::strcmp(__ks_rpc_getconf(walk)->nc_netid, "udp") == 0; })
        .sets_errno()
        .notices()
        .cleanup([] { __ks_rpc_endconf(std::exchange(walk, nullptr)); })
        .sweep();
}

} // namespace
