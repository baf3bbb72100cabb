// Making transports of sockets, whatever state those are in.
#include "rpc/server/svc_impl.h"

#include <korvaks/ks_warn.h>
#include <korvaks/strutl.h>

#include <cerrno>
#include <cstring>

#include <netinet/in.h>

namespace {

using ks::svc::Transport;

constexpr int usual_queue = 128;
constexpr uint16_t reserved_port_low = 512;
constexpr uint16_t reserved_port_high = 1023;

socklen_t size_of(const sockaddr_storage &address)
{
    return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

in_port_t *port_in(sockaddr *address)
{
    if (address->sa_family == AF_INET6)
        return &reinterpret_cast<sockaddr_in6 *>(address)->sin6_port;
    return address->sa_family == AF_INET ? &reinterpret_cast<sockaddr_in *>(address)->sin_port : nullptr;
}

bool read_own_address(int fd, sockaddr_storage &out_address)
{
    socklen_t size = sizeof out_address;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&out_address), &size) == 0;
}

bool bind_anonymous(int fd, int family)
{
    sockaddr_storage any{};
    any.ss_family = static_cast<sa_family_t>(family);
    return bind(fd, reinterpret_cast<const sockaddr *>(&any), size_of(any)) == 0;
}

bool bind_as_asked(int fd, const __rpc_sockinfo &info, const t_bind *bindaddr)
{
    const bool is_listener = info.si_socktype == SOCK_STREAM;
    if (bindaddr != nullptr) {
        if (bind(fd, static_cast<const sockaddr *>(bindaddr->addr.buf), bindaddr->addr.len) == 0 &&
            (!is_listener || listen(fd, static_cast<int>(bindaddr->qlen)) == 0))
            return true;
        (void)ks_warnx("ks_svc_tli_create: could not bind to requested address");
        return false;
    }
    if ((ks_bindresvport(fd, nullptr) == 0 || bind_anonymous(fd, info.si_af)) &&
        (!is_listener || listen(fd, usual_queue) == 0))
        return true;
    (void)ks_warnx("ks_svc_tli_create: could not bind to anonymous port");
    return false;
}

bool has_peer(int fd)
{
    sockaddr_storage peer;
    socklen_t size = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0;
}

SVCXPRT *create_for(int fd, const __rpc_sockinfo &info, u_int sendsize, u_int recvsize)
{
    if (info.si_socktype == SOCK_DGRAM)
        return ks_svc_dg_create(fd, sendsize, recvsize);
    if (info.si_socktype == SOCK_STREAM)
        return has_peer(fd) ? ks_svc_fd_create(fd, sendsize, recvsize) : ks_svc_vc_create(fd, sendsize, recvsize);
    (void)ks_warnx("ks_svc_tli_create: bad service type");
    return nullptr;
}

void note_names(Transport &transport, const netconfig &nconf)
{
    ks::svc::set_netid(transport, nconf.nc_netid);
    if (nconf.nc_device != nullptr)
        (void)strutl_cpy_buf(transport.device, nconf.nc_device, sizeof transport.device); // cut where it is too long
}

// The socket and what it is; false when that is said.
bool open_or_ask(int fd, const netconfig *nconf, ks::UniqueFd &out_opened, __rpc_sockinfo &out_info)
{
    if (fd >= 0) {
        if (__ks_rpc_fd2sockinfo(fd, &out_info) != 0)
            return true;
        (void)ks_warnx("ks_svc_tli_create: could not get transport information");
        return false;
    }
    if (nconf == nullptr) {
        (void)ks_warnx("ks_svc_tli_create: invalid netconfig");
        return false;
    }
    out_opened.reset(__ks_rpc_nconf2fd(nconf));
    if (!out_opened) {
        (void)ks_warnx("ks_svc_tli_create: could not open connection for %s", nconf->nc_netid);
        return false;
    }
    return __ks_rpc_nconf2sockinfo(nconf, &out_info) != 0; // as it was just opened
}

} // namespace

extern "C" {

SVCXPRT *ks_svc_tli_create(int fd, const netconfig *nconf, const t_bind *bindaddr, u_int sendsize, u_int recvsize)
{
    ks::UniqueFd opened;
    __rpc_sockinfo info{};
    if (!open_or_ask(fd, nconf, opened, info))
        return nullptr;
    if (opened)
        fd = opened.get();
    if ((opened || __ks_rpc_sockisbound(fd) == 0) && !bind_as_asked(fd, info, bindaddr))
        return nullptr;
    SVCXPRT *xprt = create_for(fd, info, sendsize, recvsize);
    if (xprt == nullptr)
        return nullptr;
    (void)opened.release(); // the transport's now
    if (nconf != nullptr)
        note_names(ks::svc::transport_of(xprt), *nconf);
    return xprt;
}

SVCXPRT *ks_svc_fd_create(int fd, u_int sendsize, u_int recvsize)
{
    SVCXPRT *xprt = ks_makefd_xprt(fd, sendsize, recvsize);
    if (xprt == nullptr)
        return nullptr;
    Transport &transport = ks::svc::transport_of(xprt);
    socklen_t size = sizeof transport.remote;
    (void)ks::svc::read_local_address(transport); // one that has none, such as a socket pair's, is served all the same
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&transport.remote), &size) == 0)
        ks::svc::note_remote(transport, size);
    if (ks_xprt_register(xprt) != FALSE)
        return xprt;
    xprt->xp_fd = -1; // stays the caller's
    ks::svc::end_transport(transport);
    return nullptr;
}

SVCXPRT *ks_makefd_xprt(int fd, u_int sendsize, u_int recvsize)
{
    __rpc_sockinfo info{};
    const char *netid = "";
    if (__ks_rpc_fd2sockinfo(fd, &info) != 0)
        (void)__ks_rpc_sockinfo2netid(&info, &netid); // a kind that was just found
    Transport *made =
        ks::svc::make_connection(fd, __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(sendsize)),
                                 __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(recvsize)));
    if (made == nullptr)
        return nullptr;
    ks::svc::set_netid(*made, netid);
    return ks::svc::handle_of(*made);
}

int ks_bindresvport(int fd, sockaddr *address)
{
    sockaddr_storage own{};
    if (!read_own_address(fd, own))
        return -1;
    sockaddr_storage wanted{};
    wanted.ss_family = own.ss_family;
    if (address != nullptr)
        std::memcpy(&wanted, address, size_of(own));
    in_port_t *port = port_in(reinterpret_cast<sockaddr *>(&wanted));
    if (port == nullptr || wanted.ss_family != own.ss_family) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    for (uint16_t number = reserved_port_high; number >= reserved_port_low; --number) {
        *port = htons(number);
        if (bind(fd, reinterpret_cast<const sockaddr *>(&wanted), size_of(own)) == 0) {
            if (address != nullptr)
                std::memcpy(address, &wanted, size_of(own));
            return 0;
        }
        if (errno != EADDRINUSE)
            return -1;
    }
    return -1;
}

int __ks_rpc_sockisbound(int fd)
{
    sockaddr_storage address{};
    if (!read_own_address(fd, address))
        return 0;
    const in_port_t *port = port_in(reinterpret_cast<sockaddr *>(&address));
    return port != nullptr && *port != 0 ? 1 : 0;
}
}
