#include "harness/child.h"

#include <korvaks/sysutl.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <rpc/rpc.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;

struct Address {
    Address(int family, const char *host, in_port_t port, uint32_t scope = 0)
        : in6{static_cast<sa_family_t>(family), htons(port), 0, {}, scope}
    {
        inet_pton(family, host, family == AF_INET ? &in6.sin6_flowinfo : static_cast<void *>(&in6.sin6_addr));
    }
    operator sockaddr *() const { return reinterpret_cast<sockaddr *>(const_cast<sockaddr_in6 *>(&in6)); }
    sockaddr_in6 in6;
};

std::string text_of(const sockaddr *addr, std::size_t size = SYSUTL_ADDR_TEXT_SIZE)
{
    std::string buf(size + 1, '#');
    EXPECT_EQ(sysutl_sockaddr_to_str(addr, size, buf.data()) + size, &buf[size]);
    return buf[size] == '#' ? buf.c_str() : "written past the end";
}

const Address one(AF_INET, "192.0.2.1", 371), scoped(AF_INET6, "fe80::1", 371, 4294967295), local(AF_UNIX, "", 371);

TEST(SysutlAddr, IsWrittenWholeOrNotAtAllAndCopied)
{
    const std::string no_text = "<unresolvable address>", no_host = "<unresolvable numeric address>";
    for (const auto &[addr, number, text, host] : {std::tuple{one, 1, "[192.0.2.1]:371"s, "192.0.2.1"s},
                                                   {scoped, 2, "[fe80::1%4294967295]:371", "fe80::1%4294967295"},
                                                   {local, 0, no_text, no_host}}) {
        const int refused = number == 0 ? 1 : 0;
        EXPECT_EQ(text_of(addr, text.size() + 1), text);
        EXPECT_EQ(text_of(addr, text.size()), no_text.substr(0, text.size() - 1));
        const netbuf buffer{0, 0, refused != 0 ? nullptr : static_cast<sockaddr *>(addr)};
        char buf[32];
        EXPECT_EQ(sysutl_netbuf_to_str(&buffer, sizeof buf, buf), text);
        EXPECT_EQ(sysutl_host_numeric(addr, sizeof buf, buf, -1, nullptr), refused);
        EXPECT_EQ(buf, host);
        Address copy(0, "", 1);
        uint16_t port = htons(1);
        EXPECT_EQ(sysutl_copy_sockaddr(copy, addr) + sysutl_sockaddr_get_port(addr, &port), 2 * refused);
        EXPECT_EQ(sysutl_sockaddr_equal(copy, addr) + sysutl_sockaddr_host_equal(addr, addr), 2 - 2 * refused);
        EXPECT_EQ(copy.in6.sin6_port, port);
        EXPECT_EQ(sysutl_sockaddr_set_port(copy, 0), refused);
        EXPECT_EQ(copy.in6.sin6_port, refused * htons(1));
        EXPECT_EQ(sysutl_sa_family_to_ks_addrfamily(addr.in6.sin6_family), number);
        EXPECT_EQ(sysutl_ks_addrfamily_to_sa_family(number), refused != 0 ? 0 : addr.in6.sin6_family);
        EXPECT_EQ(sysutl_sockaddr_any_init(addr.in6.sin6_family, copy), refused);
        EXPECT_EQ(text_of(copy), refused != 0 ? no_text : number == 1 ? "[0.0.0.0]:0" : "[::]:0");
        EXPECT_EQ(sysutl_sockaddr_loopback_init(addr.in6.sin6_family, copy), refused);
        EXPECT_EQ(text_of(copy), refused != 0 ? no_text : number == 1 ? "[127.0.0.1]:0" : "[::1]:0");
    }
}

TEST(SysutlAddr, IsComparedAndMapped)
{
    const Address other_port(AF_INET, "192.0.2.1", 372), other_host(AF_INET, "192.0.2.2", 371);
    Address in6(AF_INET6, "fe80::1", 371, 2);
    EXPECT_EQ(sysutl_sockaddr_equal(one, other_port) + sysutl_sockaddr_equal(scoped, in6), 0);
    EXPECT_EQ(sysutl_sockaddr_host_equal(one, other_port) + sysutl_sockaddr_host_equal(scoped, in6), 2);
    EXPECT_EQ(sysutl_sockaddr_host_equal(one, other_host), 0);
    EXPECT_EQ(sysutl_set_ipv4_as_ipv6mapped(local, in6) + sysutl_is_addr_v4mapped(in6), 1);
    EXPECT_EQ(sysutl_set_ipv4_as_ipv6mapped(one, in6), 0);
    EXPECT_EQ(text_of(in6), "[::ffff:192.0.2.1%2]:371"); // the destination's own port and scope
    uint8_t host[4] = {};
    EXPECT_EQ(sysutl_get_v4mapped_addr(one, host) + sysutl_is_addr_v4mapped(one), 1);
    EXPECT_EQ(sysutl_get_v4mapped_addr(in6, host) + sysutl_is_addr_v4mapped(in6), 1);
    EXPECT_EQ(std::memcmp(host, &one.in6.sin6_flowinfo, 4), 0);
}

TEST(SysutlAddr, IsResolvedUnderTheChosenVersion)
{
    const std::string excluded = gai_strerror(EAI_ADDRFAMILY), no_name = gai_strerror(EAI_NONAME);
    const std::tuple<const char *, const char *, const char *, std::string> rows[] = {
        {"4", "127.0.0.1", "371", "[127.0.0.1]:371"},
        {"4", "::1", "371", excluded},
        {"6", "127.0.0.1", "371", excluded},
        {"6.5", "::1", nullptr, "[::1]:0"},
        {"", "::1", "domain", "[::1]:53"},
        {"46", "127.0.0.1", nullptr, "[127.0.0.1]:0"},
        {"4", "localhost", "1", "[127.0.0.1]:1"},
        {"4", "localhost", nullptr, no_name}};
    for (const auto &[version, node, service, expected] : rows) {
        setenv("VELM_IP_VERSION", version, 1);
        addrinfo *list = nullptr;
        const int code = service == nullptr ? sysutl_host_addr_numeric(node, &list)
                                            : sysutl_host_addr(node, service, SOCK_DGRAM, &list);
        EXPECT_EQ(code == 0 ? text_of(list->ai_addr) : gai_strerror(code), expected) << version;
        EXPECT_TRUE(list == nullptr || service == nullptr || list->ai_socktype == SOCK_DGRAM);
        if (list != nullptr)
            freeaddrinfo(list);
    }
}

TEST(SysutlSocket, IsAcceptedSwitchedAndInterrupts)
{
    test::in_child([] {
        static volatile sig_atomic_t signals;
        (void)std::signal(SIGIO, [](int) { signals = signals + 1; });
        int ends[2] = {socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0), socket(AF_UNIX, SOCK_STREAM, 0)};
        const Address addr(AF_UNIX, "", 0);
        socklen_t size = sizeof(sa_family_t); // the system chooses a name
        EXPECT_TRUE(bind(ends[0], addr, size) == 0 && listen(ends[0], 1) == 0);
        EXPECT_EQ(getsockname(ends[0], addr, &(size = sizeof addr)) + sysutl_accept(ends[0], nullptr, nullptr), -1);
        EXPECT_EQ(sysutl_set_socket_nonblocking(ends[0], 0) + connect(ends[1], addr, size), 0);
        const int fd = sysutl_accept(ends[0], nullptr, nullptr);
        EXPECT_TRUE(fcntl(fd, F_GETFD) == FD_CLOEXEC && (fcntl(ends[0], F_GETFL) & O_NONBLOCK) == 0);
        EXPECT_TRUE(connect(socket(AF_UNIX, SOCK_STREAM, 0), addr, size) == 0 && close(0) == 0);
        EXPECT_TRUE(sysutl_accept(ends[0], addr, &size) > 2 && size == sizeof(sa_family_t)); // a peer without a name
        EXPECT_EQ(sysutl_set_socket_nonblocking(fd, 1) + sysutl_set_socket_interrupting(fd), 0);
        EXPECT_TRUE(write(ends[1], "x", 1) == 1 && signals == 1);
        EXPECT_TRUE(sysutl_clear_socket_interrupting(fd) == 0 && fcntl(fd, F_GETOWN) == 0);
        EXPECT_TRUE(write(ends[1], "x", 1) == 1 && signals == 1);
        int count = 7;
        EXPECT_TRUE(sysutl_socket_bytes_ready(0, &count) == 1 && count == 7 &&
                    sysutl_set_socket_nonblocking(0, 1) == 1);
        EXPECT_TRUE(sysutl_socket_bytes_ready(fd, &count) == 0 && count == 2 && (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
        const int mute = open("/dev/zero", O_RDONLY); // which has nothing to signal
        EXPECT_TRUE(fcntl(mute, F_SETOWN, getppid()) == 0 && sysutl_set_socket_interrupting(mute) == 1);
        EXPECT_EQ(fcntl(mute, F_GETOWN), getppid());
    });
}

} // namespace
