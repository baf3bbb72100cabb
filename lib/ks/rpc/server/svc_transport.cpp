// What all kinds of transport have, and how long it lives.
#include "rpc/server/svc_impl.h"

#include <korvaks/strutl.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <malloc.h>
#include <netinet/in.h>
#include <unistd.h>

static_assert(std::is_standard_layout_v<ks_svcxprt> && std::is_trivially_copyable_v<ks_svcxprt>);
static_assert(offsetof(ks_svcxprt, platform) == 0 && offsetof(ks_svcxprt, ops) == sizeof(SVCXPRT));
static_assert(std::is_standard_layout_v<ks::svc::Transport> && offsetof(ks::svc::Transport, handle) == 0);

namespace ks::svc {

namespace {

// Blocks of thousands of connections that are gone are worth giving back to the system.
constexpr uint64_t crowd_min = 1024;
constinit std::atomic<uint64_t> crowd{0}; // most connections since memory was given back

void note_opened()
{
    const uint64_t open = counters.connections_open.fetch_add(1, std::memory_order_relaxed) + 1;
    if (open > crowd.load(std::memory_order_relaxed))
        crowd.store(open, std::memory_order_relaxed);
}

void note_closed()
{
    const uint64_t open = counters.connections_open.fetch_sub(1, std::memory_order_relaxed) - 1;
    uint64_t most = crowd.load(std::memory_order_relaxed);
    if (most < crowd_min || open > most / 4)
        return;
    if (crowd.compare_exchange_strong(most, open))
        (void)malloc_trim(0); // nothing to give back is no fault
}

uint16_t port_of(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6 &>(address).sin6_port);
    return address.ss_family == AF_INET ? ntohs(reinterpret_cast<const sockaddr_in &>(address).sin_port) : 0;
}

} // namespace

void begin_transport(Transport &transport, int fd, const Kind &kind, int socket_type)
{
    SVCXPRT &handle = transport.handle.platform;
    handle.xp_fd = fd;
    handle.xp_ops = &kind.platform;
    handle.xp_ops2 = &kind.control;
    handle.xp_netid = transport.netid;
    handle.xp_tp = transport.device;
    handle.xp_ltaddr = {sizeof transport.local, 0, &transport.local};
    handle.xp_rtaddr = {sizeof transport.remote, 0, &transport.remote};
    handle.xp_verf.oa_base = transport.verifier;
    transport.handle.ops = &kind.ops;
    transport.handle.semantics = __ks_rpc_socktype2seman(socket_type);
    transport.kind = &kind;
    transport.holds = 1;
    if (kind.is_connection)
        note_opened();
}

bool read_local_address(Transport &transport)
{
    SVCXPRT &handle = transport.handle.platform;
    socklen_t size = sizeof transport.local;
    if (getsockname(handle.xp_fd, reinterpret_cast<sockaddr *>(&transport.local), &size) != 0)
        return false;
    handle.xp_ltaddr.len = size;
    handle.xp_port = port_of(transport.local);
    return true;
}

void note_remote(Transport &transport, socklen_t size)
{
    SVCXPRT &handle = transport.handle.platform;
    handle.xp_rtaddr.len = std::min<u_int>(size, sizeof transport.remote);
    handle.xp_addrlen = static_cast<int>(handle.xp_rtaddr.len);
    if (transport.remote.ss_family == AF_INET) {
        std::memcpy(&handle.xp_raddr, &transport.remote, sizeof(sockaddr_in));
        handle.xp_addrlen = sizeof(sockaddr_in);
    }
}

void close_socket(const Transport &transport)
{
    (void)close(fd_of(transport)); // given up either way
}

void set_netid(Transport &transport, const char *netid)
{
    (void)strutl_cpy_buf(transport.netid, netid, sizeof transport.netid); // one that is too long is no transport's
}

void release(Transport &transport)
{
    if (__atomic_sub_fetch(&transport.holds, 1, __ATOMIC_ACQ_REL) != 0)
        return;
    const bool is_connection = transport.kind->is_connection;
    transport.kind->dispose(transport);
    if (is_connection)
        note_closed();
    resume_listeners(); // there is a descriptor again
}

void end_transport(Transport &transport)
{
    if (__atomic_exchange_n(&transport.is_ended, true, __ATOMIC_ACQ_REL))
        return;
    ks_xprt_unregister(handle_of(transport));
    // Whoever serves it now is not kept waiting by its peer.
    if (transport.kind->is_connection && __atomic_load_n(&transport.holds, __ATOMIC_ACQUIRE) > 1)
        (void)shutdown(fd_of(transport), SHUT_RDWR); // a peer that is gone already is none to tell
    release(transport);
}

void end_served(Transport &transport)
{
    if (__atomic_exchange_n(&transport.is_ended, true, __ATOMIC_ACQ_REL))
        return;
    if (!is_clone(transport))
        ks_xprt_unregister(handle_of(transport));
    release(transport);
}

void dispose_plain(Transport &transport)
{
    close_socket(transport);
    std::free(&transport);
}

extern "C" {

void ks_svc_vc_destroy(SVCXPRT *xprt)
{
    end_transport(transport_of(xprt));
}

xprt_stat no_call_stat(SVCXPRT *)
{
    return XPRT_IDLE;
}

bool_t no_call_getargs(SVCXPRT *, xdrproc_t, void *)
{
    return FALSE;
}

bool_t no_call_reply(SVCXPRT *, rpc_msg *)
{
    return FALSE;
}

XDR *no_call_get_xdrs(SVCXPRT *)
{
    return nullptr;
}

bool_t no_call_reply_finish(SVCXPRT *)
{
    return FALSE;
}
}

bool end_transport_unlocked(Transport &transport)
{
    if (__atomic_exchange_n(&transport.is_ended, true, __ATOMIC_ACQ_REL))
        return false;
    __ks_xprt_unregister_unlocked(handle_of(transport));
    return true;
}

} // namespace ks::svc
