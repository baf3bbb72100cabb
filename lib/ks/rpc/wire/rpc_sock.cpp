// The sockets that belong to transports, and the sizes of their buffers.
#include <korvaks/rpc.h>

#include "base/ks_base.h"
#include "rpc/wire/rpc_impl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr ks::AssertPath here{"lib/ks/rpc/rpc_sock"};

struct Family {
    const char *name;
    int number;
    int address_size;
};

struct Protocol {
    const char *name;
    int number;
    int socket_type;
    int usual_size;
};

constexpr std::array families{
    Family{NC_INET, AF_INET, sizeof(sockaddr_in)},
    Family{NC_INET6, AF_INET6, sizeof(sockaddr_in6)},
};

constexpr std::array protocols{
    Protocol{NC_TCP, IPPROTO_TCP, SOCK_STREAM, 8192},
    Protocol{NC_UDP, IPPROTO_UDP, SOCK_DGRAM, 8800},
};

constexpr int usual_size_of_others = 9000;
constexpr int size_max = 262144;

template <typename Rows> auto find_row(const Rows &rows, const char *name) -> decltype(rows.data())
{
    for (const auto &row : rows)
        if (name != nullptr && std::strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

bool is_same_kind(const __rpc_sockinfo &a, const __rpc_sockinfo &b)
{
    return a.si_af == b.si_af && a.si_proto == b.si_proto && a.si_socktype == b.si_socktype;
}

// The transport with such sockets, and all that is known of them; NULL when there is none.
const netconfig *find_transport(const __rpc_sockinfo &info, __rpc_sockinfo &out_known)
{
    for (const netconfig &transport : ks::rpc::transports)
        if (__ks_rpc_nconf2sockinfo(&transport, &out_known) != 0 && is_same_kind(out_known, info))
            return &transport;
    return nullptr;
}

bool read_option(int fd, int option, int &out_value)
{
    socklen_t size = sizeof out_value;
    return getsockopt(fd, SOL_SOCKET, option, &out_value, &size) == 0;
}

} // namespace

extern "C" {

int __ks_rpc_nconf2sockinfo(const netconfig *nconf, __rpc_sockinfo *out)
{
    here.require(out != nullptr, "out != NULL");
    if (nconf == nullptr)
        return 0;
    const Family *family = find_row(families, nconf->nc_protofmly);
    const Protocol *protocol = find_row(protocols, nconf->nc_proto);
    if (family == nullptr || protocol == nullptr)
        return 0;
    *out = {family->number, protocol->number, protocol->socket_type, family->address_size};
    return 1;
}

int __ks_rpc_fd2sockinfo(int fd, __rpc_sockinfo *out)
{
    here.require(out != nullptr, "out != NULL");
    __rpc_sockinfo info{};
    if (!read_option(fd, SO_DOMAIN, info.si_af) || !read_option(fd, SO_PROTOCOL, info.si_proto) ||
        !read_option(fd, SO_TYPE, info.si_socktype))
        return 0;
    __rpc_sockinfo known{};
    if (find_transport(info, known) == nullptr) {
        errno = EPROTONOSUPPORT;
        return 0;
    }
    *out = known;
    return 1;
}

int __ks_rpc_sockinfo2netid(const __rpc_sockinfo *info, const char **netid)
{
    here.require(info != nullptr, "info != NULL");
    here.require(netid != nullptr, "netid != NULL");
    __rpc_sockinfo known{};
    const netconfig *transport = find_transport(*info, known);
    if (transport == nullptr)
        return 0;
    *netid = transport->nc_netid;
    return 1;
}

int __ks_rpc_nconf2fd(const netconfig *nconf)
{
    __rpc_sockinfo info{};
    if (__ks_rpc_nconf2sockinfo(nconf, &info) == 0) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    ks::UniqueFd fd(ks::above_stdio(socket(info.si_af, info.si_socktype | SOCK_CLOEXEC, info.si_proto)));
    constexpr int on = 1;
    if (fd && info.si_af == AF_INET6 && setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0)
        return -1;
    return fd.release();
}

int __ks_rpc_seman2socktype(int semantics)
{
    if (semantics == NC_TPI_CLTS)
        return SOCK_DGRAM;
    return semantics == NC_TPI_COTS || semantics == NC_TPI_COTS_ORD ? SOCK_STREAM : -1;
}

int __ks_rpc_socktype2seman(int socket_type)
{
    if (socket_type == SOCK_DGRAM)
        return NC_TPI_CLTS;
    return socket_type == SOCK_STREAM ? NC_TPI_COTS_ORD : -1;
}

u_int __ks_rpc_get_t_size(int family, int protocol, int size)
{
    (void)family; // a size is no matter of the family
    if (size > 0)
        return static_cast<u_int>(std::min(size, size_max));
    for (const Protocol &known : protocols)
        if (known.number == protocol)
            return static_cast<u_int>(known.usual_size);
    return usual_size_of_others;
}
}
