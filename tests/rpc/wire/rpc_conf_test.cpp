// Transports: their classes, walks, sockets and sizes.
#include "harness/child.h"

#include <korvaks/rpc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *unknown = "unknown class";

// Netids with a blank behind each.
std::string walk(const char *nettype)
{
    errno = 0;
    void *own = __ks_rpc_setconf(nettype);
    if (own == nullptr)
        return errno == EINVAL ? unknown : std::strerror(errno);
    (void)setenv("NETPATH", "udp", 1); // too late
    std::string netids;
    while (const netconfig *transport = __ks_rpc_getconf(own))
        netids += std::string(transport->nc_netid) + " ";
    EXPECT_EQ(__ks_rpc_getconf(own), nullptr);
    __ks_rpc_endconf(own);
    return netids;
}

TEST(RpcConf, ClassesNameTransports)
{
    struct {
        const char *nettype, *netpath, *netids;
    } const rows[] = {
        {nullptr, nullptr, "udp6 tcp6 udp tcp "},
        {"", "tcp:udp6", "tcp udp6 "},
        {"NetPath", ":tcp:nosuch::udp:tcp:TCP:tcp6", "tcp udp tcp tcp6 "},
        {"netpath", "", ""},
        {"netpath", R"(t\cp:udp\6:tcp\:udp:\\tcp:\)", "tcp udp6 "},
        {"netpath", "a name that no transport has and that is longer than what a list usually has:udp", "udp "},
        {"circuit_n", nullptr, "tcp6 tcp "},
        {"CIRCUIT_N", "udp:tcp:tcp6", "tcp tcp6 "},
        {"datagram_n", "udp:tcp:udp6", "udp udp6 "},
        {"TCP", "udp", "tcp6 tcp "},
        {"udp", "tcp", "udp6 udp "},
        {"visible", "tcp", ""},
        {"circuit_v", nullptr, ""},
        {"datagram_v", nullptr, ""},
        {"tcp6", nullptr, unknown},
        {"tc", nullptr, unknown},
        {"circuit?n", nullptr, unknown}, // "?" and "_" differ as letters of two cases do
    };
    test::in_child([&rows] {
        for (const auto &row : rows) {
            (void)(row.netpath != nullptr ? setenv("NETPATH", row.netpath, 1) : unsetenv("NETPATH"));
            EXPECT_EQ(walk(row.nettype), row.netids) << row.nettype << ", " << row.netpath;
        }
    });
}

bool is_same(const __rpc_sockinfo &a, const __rpc_sockinfo &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

bool is_ipv6_only(int fd)
{
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &value, &size) == 0 && value == 1;
}

TEST(RpcSock, EachTransportHasItsSockets)
{
    const std::pair<const char *, __rpc_sockinfo> rows[] = {
        {"udp6 1 0 inet6 udp", {AF_INET6, IPPROTO_UDP, SOCK_DGRAM, 28}},
        {"tcp6 3 0 inet6 tcp", {AF_INET6, IPPROTO_TCP, SOCK_STREAM, 28}},
        {"udp 1 0 inet udp", {AF_INET, IPPROTO_UDP, SOCK_DGRAM, 16}},
        {"tcp 3 0 inet tcp", {AF_INET, IPPROTO_TCP, SOCK_STREAM, 16}},
    };
    test::in_child([&rows] {
        (void)unsetenv("NETPATH");
        (void)close(STDIN_FILENO); // whose number no socket takes
        void *own = __ks_rpc_setconf("netpath");
        for (const auto &[text, expected] : rows) {
            const netconfig *nconf = __ks_rpc_getconf(own);
            ASSERT_NE(nconf, nullptr);
            std::ostringstream row;
            row << nconf->nc_netid << ' ' << nconf->nc_semantics << ' ' << nconf->nc_flag << ' ' << nconf->nc_protofmly
                << ' ' << nconf->nc_proto;
            EXPECT_EQ(row.str(), text);
            const int semantics = static_cast<int>(nconf->nc_semantics);
            EXPECT_EQ(__ks_rpc_seman2socktype(semantics), expected.si_socktype);
            EXPECT_EQ(__ks_rpc_socktype2seman(expected.si_socktype), semantics);
            const int fd = __ks_rpc_nconf2fd(nconf);
            EXPECT_TRUE(fd > STDERR_FILENO && fcntl(fd, F_GETFD) == FD_CLOEXEC &&
                        (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0);
            EXPECT_EQ(is_ipv6_only(fd), expected.si_af == AF_INET6);
            __rpc_sockinfo kind{}, by_fd{};
            EXPECT_TRUE(__ks_rpc_nconf2sockinfo(nconf, &kind) == 1 && is_same(kind, expected));
            EXPECT_TRUE(__ks_rpc_fd2sockinfo(fd, &by_fd) == 1 && is_same(by_fd, expected));
            kind.si_alen = 0;
            const char *netid = nullptr;
            EXPECT_TRUE(__ks_rpc_sockinfo2netid(&kind, &netid) == 1 && std::strcmp(netid, nconf->nc_netid) == 0);
        }
    });
}

TEST(RpcSock, OthersAreRefused)
{
    const __rpc_sockinfo before{AF_INET, IPPROTO_TCP, SOCK_DGRAM, 16};
    __rpc_sockinfo kind = before;
    EXPECT_TRUE(__ks_rpc_fd2sockinfo(socket(AF_UNIX, SOCK_STREAM, 0), &kind) == 0 && errno == EPROTONOSUPPORT);
    EXPECT_TRUE(__ks_rpc_fd2sockinfo(-1, &kind) == 0 && errno == EBADF);
    char inet[] = "inet", loopback[] = "loopback", icmp[] = "icmp", tcp[] = "tcp";
    for (const auto &[family, protocol] : {std::pair<char *, char *>{inet, icmp}, {loopback, tcp}, {nullptr, tcp}}) {
        netconfig nconf{};
        nconf.nc_protofmly = family;
        nconf.nc_proto = protocol;
        errno = 0;
        EXPECT_TRUE(__ks_rpc_nconf2fd(&nconf) == -1 && errno == EPROTONOSUPPORT);
        EXPECT_EQ(__ks_rpc_nconf2sockinfo(&nconf, &kind), 0);
    }
    const char *netid = nullptr;
    EXPECT_TRUE(__ks_rpc_sockinfo2netid(&before, &netid) == 0 && netid == nullptr);
    EXPECT_TRUE(__ks_rpc_nconf2sockinfo(nullptr, &kind) == 0 && is_same(kind, before));
    EXPECT_TRUE(__ks_rpc_seman2socktype(NC_TPI_RAW) == -1 && __ks_rpc_socktype2seman(SOCK_RAW) == -1);
}

TEST(RpcSock, SizesHaveALimit)
{
    const unsigned rows[][3] = {{IPPROTO_TCP, 0, 8192}, {IPPROTO_UDP, 0, 8800},        {0, 1u << 31, 9000},
                                {IPPROTO_UDP, 1, 1},    {IPPROTO_TCP, 262144, 262144}, {0, 262145, 262144}};
    for (const auto &[protocol, size, settled] : rows)
        EXPECT_EQ(__ks_rpc_get_t_size(AF_INET, int(protocol), int(size)), settled) << size;
}

} // namespace
