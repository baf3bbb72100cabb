// Socket addresses of both families: found, written as text, compared, copied and made.
//
// The two system records are read through copies made by std::memcpy: a caller's address may lie anywhere, and may
// be shorter than what its type promises.
#include <korvaks/sysutl.h>

#include "base/ks_base.h"

#include <korvaks/evutl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <netdb.h>
#include <netinet/in.h>

namespace {

static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);
static_assert(EAI_FAIL == -4);

// The longest text: an IPv6 address, "%" and the name of an interface, between "[" and "]:", a port.
static_assert(SYSUTL_ADDR_TEXT_SIZE >= INET6_ADDRSTRLEN + 16 + 3 + 5);

// --- Records ---

sa_family_t family_of(const sockaddr *addr)
{
    return addr->sa_family;
}

// Both records have the port at the same place.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

char *port_place(sockaddr *addr)
{
    return reinterpret_cast<char *>(addr) + offsetof(sockaddr_in, sin_port);
}

template <typename Record> Record record_of(const sockaddr *addr)
{
    Record record;
    std::memcpy(&record, addr, sizeof record);
    return record;
}

// The bytes that tell the host from others.
struct HostBytes {
    std::size_t offset;
    std::size_t count;
};

HostBytes host_bytes(sa_family_t family)
{
    if (family == AF_INET)
        return {offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    return {offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
}

bool are_same_bytes(const sockaddr *a, const sockaddr *b, HostBytes part)
{
    const auto *left = reinterpret_cast<const char *>(a) + part.offset;
    return std::memcmp(left, reinterpret_cast<const char *>(b) + part.offset, part.count) == 0;
}

bool are_of_one_known_family(const sockaddr *a, const sockaddr *b)
{
    return family_of(a) == family_of(b) && sysutl_sockaddr_size(a) != 0;
}

// All other fields are 0.
int make_address(int family, sockaddr *addr, in_addr_t host4, const in6_addr &host6)
{
    if (family == AF_INET) {
        sockaddr_in made{};
        made.sin_family = AF_INET;
        made.sin_addr.s_addr = htonl(host4);
        std::memcpy(addr, &made, sizeof made);
        return 0;
    }
    if (family == AF_INET6) {
        sockaddr_in6 made{};
        made.sin6_family = AF_INET6;
        made.sin6_addr = host6;
        std::memcpy(addr, &made, sizeof made);
        return 0;
    }
    return 1;
}

// --- Lookups ---

int wanted_family()
{
    char version[256];
    if (getenv_safe("VELM_IP_VERSION", version, sizeof version, 0) == nullptr)
        return AF_UNSPEC;
    const long number = std::strtol(version, nullptr, 10);
    if (number == 4)
        return AF_INET;
    return number == 6 ? AF_INET6 : AF_UNSPEC;
}

int look_up(const char *node, const char *service, addrinfo hints, int flags, addrinfo **out_list)
{
    hints.ai_flags = flags;
    addrinfo *list = nullptr;
    h_errno = 0;
    const int code = getaddrinfo(node, service, &hints, &list);
    if (code == 0 && list != nullptr && list->ai_addr != nullptr) {
        *out_list = list;
        return 0;
    }
    if (list != nullptr)
        freeaddrinfo(list);
    return code == 0 ? EAI_FAIL : code;
}

addrinfo hints_for(int socktype)
{
    addrinfo hints{};
    hints.ai_family = wanted_family();
    hints.ai_socktype = socktype;
    return hints;
}

constexpr int numeric_flags = AI_NUMERICHOST | AI_ADDRCONFIG | AI_NUMERICSERV;

// --- Text ---

// As much of a text as there is room for.
void write_cut(const char *text, std::size_t size, char *buf)
{
    if (size == 0 || buf == nullptr)
        return;
    const std::size_t length = std::min(std::strlen(text), size - 1);
    std::memcpy(buf, text, length);
    buf[length] = '\0';
}

int write_names(const sockaddr *addr, int hostlen, char *host, int servlen, char *serv, int flags)
{
    const auto host_size = static_cast<socklen_t>(std::max(hostlen, 0));
    const auto serv_size = static_cast<socklen_t>(std::max(servlen, 0));
    const auto size = static_cast<socklen_t>(sysutl_sockaddr_size(addr));
    if (size != 0 && getnameinfo(addr, size, host, host_size, serv, serv_size, flags) == 0)
        return 0;
    write_cut("<unresolvable numeric address>", host_size, host);
    write_cut("", serv_size, serv);
    return 1;
}

bool write_address(const sockaddr *addr, std::size_t size, char *buf)
{
    char host[SYSUTL_ADDR_TEXT_SIZE];
    char port[8];
    if (sysutl_host_numeric(addr, sizeof host, host, sizeof port, port) != 0)
        return false;
    const int length = std::snprintf(buf, size, "[%s]:%s", host, port);
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

} // namespace

extern "C" {

int sysutl_sa_family_to_ks_addrfamily(int sa_family)
{
    if (sa_family == AF_INET)
        return SYSUTL_ADDRFAMILY_IPV4;
    return sa_family == AF_INET6 ? SYSUTL_ADDRFAMILY_IPV6 : SYSUTL_ADDRFAMILY_NONE;
}

int sysutl_ks_addrfamily_to_sa_family(int ks_addrfamily)
{
    if (ks_addrfamily == SYSUTL_ADDRFAMILY_IPV4)
        return AF_INET;
    return ks_addrfamily == SYSUTL_ADDRFAMILY_IPV6 ? AF_INET6 : 0;
}

std::size_t sysutl_sockaddr_size(const sockaddr *addr)
{
    if (family_of(addr) == AF_INET)
        return sizeof(sockaddr_in);
    return family_of(addr) == AF_INET6 ? sizeof(sockaddr_in6) : 0;
}

int sysutl_host_addr(const char *node, const char *service, int socktype, addrinfo **out_list)
{
    const addrinfo hints = hints_for(socktype);
    if (look_up(node, service, hints, numeric_flags, out_list) == 0)
        return 0;
    return look_up(node, service, hints, AI_ADDRCONFIG, out_list);
}

int sysutl_host_addr_numeric(const char *node, addrinfo **out_list)
{
    return look_up(node, nullptr, hints_for(0), numeric_flags, out_list);
}

int sysutl_host_name(const sockaddr *addr, int hostlen, char *host, int servlen, char *serv)
{
    return write_names(addr, hostlen, host, servlen, serv, 0);
}

int sysutl_host_numeric(const sockaddr *addr, int hostlen, char *host, int servlen, char *serv)
{
    return write_names(addr, hostlen, host, servlen, serv, NI_NUMERICHOST | NI_NUMERICSERV);
}

char *sysutl_sockaddr_to_str(const sockaddr *addr, std::size_t size, char *buf)
{
    if (!write_address(addr, size, buf))
        write_cut("<unresolvable address>", size, buf);
    return buf;
}

int sysutl_sockaddr_equal(const sockaddr *a, const sockaddr *b)
{
    return are_of_one_known_family(a, b) && are_same_bytes(a, b, {0, sysutl_sockaddr_size(a)}) ? 1 : 0;
}

int sysutl_sockaddr_host_equal(const sockaddr *a, const sockaddr *b)
{
    return are_of_one_known_family(a, b) && are_same_bytes(a, b, host_bytes(family_of(a))) ? 1 : 0;
}

int sysutl_copy_sockaddr(sockaddr *dst, const sockaddr *src)
{
    const std::size_t size = sysutl_sockaddr_size(src);
    std::memmove(dst, src, size);
    return size != 0 ? 0 : 1;
}

int sysutl_sockaddr_set_port(sockaddr *addr, uint16_t port)
{
    if (sysutl_sockaddr_size(addr) == 0)
        return 1;
    std::memcpy(port_place(addr), &port, sizeof port);
    return 0;
}

int sysutl_sockaddr_get_port(const sockaddr *addr, uint16_t *out_port)
{
    if (sysutl_sockaddr_size(addr) == 0)
        return 1;
    std::memcpy(out_port, port_place(const_cast<sockaddr *>(addr)), sizeof *out_port);
    return 0;
}

int sysutl_sockaddr_any_init(int family, sockaddr *addr)
{
    return make_address(family, addr, INADDR_ANY, in6addr_any);
}

int sysutl_sockaddr_loopback_init(int family, sockaddr *addr)
{
    return make_address(family, addr, INADDR_LOOPBACK, in6addr_loopback);
}

int sysutl_is_addr_v4mapped(const sockaddr *addr)
{
    if (family_of(addr) != AF_INET6)
        return 0;
    const auto host = record_of<sockaddr_in6>(addr).sin6_addr;
    return IN6_IS_ADDR_V4MAPPED(&host) ? 1 : 0;
}

int sysutl_get_v4mapped_addr(const sockaddr *addr, uint8_t out[4])
{
    if (family_of(addr) != AF_INET6)
        return 1;
    std::memcpy(out, record_of<sockaddr_in6>(addr).sin6_addr.s6_addr + 12, 4);
    return 0;
}

int sysutl_set_ipv4_as_ipv6mapped(const sockaddr *in4, sockaddr *in6)
{
    if (family_of(in4) != AF_INET)
        return 1;
    const in_addr host = record_of<sockaddr_in>(in4).sin_addr;
    auto mapped = record_of<sockaddr_in6>(in6);
    mapped.sin6_family = AF_INET6;
    mapped.sin6_addr = IN6ADDR_ANY_INIT;
    std::memset(mapped.sin6_addr.s6_addr + 10, 0xFF, 2);
    std::memcpy(mapped.sin6_addr.s6_addr + 12, &host, sizeof host);
    // Kept exactly: port, flow label and scope are the destination's own.
    std::memcpy(in6, &mapped, sizeof mapped);
    return 0;
}

int32_t sysutl_sock_port_uniquifier(void)
{
    const timeval now = ks::wall_clock();
    return static_cast<int32_t>(static_cast<uint32_t>(now.tv_sec) * 1000000U + static_cast<uint32_t>(now.tv_usec));
}
}
