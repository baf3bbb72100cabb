// Transports: their classes, walks, sockets and sizes.
#include "harness/child.h"

#include <korvaks/rpc.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include <fcntl.h>

namespace {

// Netids with a blank behind each; "?" for an unknown class.
std::string walk(const char *nettype)
{
    void *own = __ks_rpc_setconf(nettype);
    if (own == nullptr)
        return errno == EINVAL ? "?" : "exhausted";
    (void)setenv("NETPATH", "udp", 1); // too late
    std::string netids;
    while (const netconfig *transport = __ks_rpc_getconf(own))
        netids += std::string(transport->nc_netid) + " ";
    __ks_rpc_endconf(own);
    return netids;
}

TEST(RpcConf, ClassesNameTransports)
{
    const char *rows[][3] = {
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
        {"tcp6", nullptr, "?"},
        {"tc", nullptr, "?"},
        {"circuit?n", nullptr, "?"}, // "?" and "_" differ as letters of two cases do
    };
    test::in_child([&rows] {
        for (const auto &[nettype, netpath, netids] : rows) {
            (void)(netpath != nullptr ? setenv("NETPATH", netpath, 1) : unsetenv("NETPATH"));
            EXPECT_EQ(walk(nettype), netids) << nettype << ", " << netpath;
        }
    });
}

std::string text_of(const __rpc_sockinfo &kind)
{
    std::ostringstream text;
    text << kind.si_af << ' ' << kind.si_proto << ' ' << kind.si_socktype << ' ' << kind.si_alen;
    return text.str();
}

TEST(RpcSock, EachTransportHasItsSockets)
{
    test::in_child([] {
        const char *rows[][2] = {{"udp6 inet6 udp 1 0", "10 17 2 28"},
                                 {"tcp6 inet6 tcp 3 0", "10 6 1 28"},
                                 {"udp inet udp 1 0", "2 17 2 16"},
                                 {"tcp inet tcp 3 0", "2 6 1 16"}};
        (void)close(STDIN_FILENO); // whose number no socket takes
        void *own = __ks_rpc_setconf("netpath");
        for (const auto &[row, expected] : rows) {
            const netconfig &nconf = *__ks_rpc_getconf(own);
            std::ostringstream text;
            text << nconf.nc_netid << ' ' << nconf.nc_protofmly << ' ' << nconf.nc_proto << ' ' << nconf.nc_semantics
                 << ' ' << nconf.nc_flag;
            EXPECT_EQ(text.str(), row);
            __rpc_sockinfo kind{}, by_fd{};
            EXPECT_TRUE(__ks_rpc_nconf2sockinfo(&nconf, &kind) == 1 && text_of(kind) == expected);
            EXPECT_EQ(__ks_rpc_seman2socktype(int(nconf.nc_semantics)), kind.si_socktype);
            EXPECT_EQ(__ks_rpc_socktype2seman(kind.si_socktype), int(nconf.nc_semantics));
            const int fd = __ks_rpc_nconf2fd(&nconf);
            EXPECT_TRUE(fd > STDERR_FILENO && fcntl(fd, F_GETFD) == FD_CLOEXEC && fcntl(fd, F_GETFL) == O_RDWR);
            EXPECT_TRUE(__ks_rpc_fd2sockinfo(fd, &by_fd) == 1 && text_of(by_fd) == expected);
            int is_ipv6_only = 1;
            socklen_t size = sizeof is_ipv6_only;
            (void)getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &is_ipv6_only, &size); // refused by IPv4
            EXPECT_EQ(is_ipv6_only, 1);
            kind.si_alen = 0;
            const char *netid = "";
            EXPECT_TRUE(__ks_rpc_sockinfo2netid(&kind, &netid) == 1 && std::strcmp(netid, nconf.nc_netid) == 0);
        }
    });
}

TEST(RpcSock, OthersAreRefused)
{
    __rpc_sockinfo kind{AF_INET, IPPROTO_TCP, SOCK_DGRAM, 16};
    const std::string before = text_of(kind);
    EXPECT_TRUE(__ks_rpc_fd2sockinfo(socket(AF_UNIX, SOCK_STREAM, 0), &kind) == 0 && errno == EPROTONOSUPPORT);
    EXPECT_TRUE(__ks_rpc_fd2sockinfo(-1, &kind) == 0 && errno == EBADF);
    char inet[] = "inet", icmp[] = "icmp", loopback[] = "loopback", tcp[] = "tcp";
    for (const auto &[family, protocol] : {std::pair<char *, char *>{inet, icmp}, {loopback, tcp}, {nullptr, tcp}}) {
        const netconfig nconf{tcp, NC_TPI_COTS_ORD, 0, family, protocol, nullptr, 0, nullptr, {}};
        EXPECT_TRUE(__ks_rpc_nconf2sockinfo(&nconf, &kind) == 0 && text_of(kind) == before);
        EXPECT_TRUE(__ks_rpc_nconf2fd(&nconf) == -1 && errno == EPROTONOSUPPORT);
    }
    const char *netid = nullptr;
    EXPECT_TRUE(__ks_rpc_sockinfo2netid(&kind, &netid) == 0 && netid == nullptr);
    EXPECT_TRUE(__ks_rpc_seman2socktype(NC_TPI_RAW) == -1 && __ks_rpc_socktype2seman(SOCK_RAW) == -1);
}

TEST(RpcSock, SizesHaveALimit)
{
    const int rows[][3] = {{IPPROTO_TCP, 0, 8192}, {IPPROTO_UDP, 0, 8800}, {0, -1, 9000}, {0, 262145, 262144}};
    for (const auto &[protocol, size, settled] : rows)
        EXPECT_EQ(__ks_rpc_get_t_size(AF_INET, protocol, size), u_int(settled));
}

} // namespace
