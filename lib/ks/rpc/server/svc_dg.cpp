// Datagrams: one transport for a socket. Where workers serve, each call is read by the main thread into a clone; else
// several are read at once, and served in their order in the same turn.
//
// A call is decoded no further than its datagram goes: behind it the buffer holds what others have sent before. A reply
// leaves from the address that its call came to.
#include "rpc/server/svc_impl.h"

#include "rpc/wire/xdr_fields.h"
#include "rpc/wire/xdr_memory.h"

#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <netinet/in.h>
#include <sys/uio.h>

namespace ks::svc {

namespace {

constexpr ssize_t shortest_call = 16;

// The one call that a clone holds.
struct HeldCall {
    rpc_msg msg;
    char credential[KS_MAX_AUTH_BYTES];
    char verifier[KS_MAX_AUTH_BYTES];
};

// The address that a call came to, as the system has put it.
struct Destination {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(in6_pktinfo))];
};

// What was read at once, each with a buffer of its own behind the record.
struct Arrivals {
    static constexpr unsigned count_max = 8;
    mmsghdr messages[count_max];
    iovec rooms[count_max];
    sockaddr_storage remotes[count_max];
    Destination destinations[count_max];
    unsigned count;
    unsigned next; // to be served
};

struct Datagram : Transport {
    uint32_t size; // of the buffer
    uint32_t xid;
    XDR stream;
    HeldCall *held;      // NULL: no clone
    Transport *original; // of a clone, which holds it
    Arrivals *arrivals;  // of one that is no clone
    Destination destination;
    std::size_t destination_size; // 0: not known
    char *buffer;                 // of the call that is served, and of its reply
};

Datagram &datagram_of(SVCXPRT *xprt)
{
    return reinterpret_cast<Datagram &>(transport_of(xprt));
}

// Has the system say where each datagram was sent to; one that is bound to a single address need not be asked.
void ask_for_destinations(const Datagram &datagram)
{
    constexpr int on = 1;
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&datagram.local);
    const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&datagram.local);
    if (datagram.local.ss_family == AF_INET && v4->sin_addr.s_addr == INADDR_ANY)
        (void)setsockopt(fd_of(datagram), IPPROTO_IP, IP_PKTINFO, &on, sizeof on); // else the system chooses
    if (datagram.local.ss_family == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr))
        (void)setsockopt(fd_of(datagram), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
}

// What the system has said about the destination, made into where a reply is to come from.
void note_destination(Datagram &datagram, const msghdr &message)
{
    datagram.destination_size = 0;
    const cmsghdr *at = CMSG_FIRSTHDR(&message);
    if (at == nullptr)
        return;
    const bool is_v4 = at->cmsg_level == IPPROTO_IP && at->cmsg_type == IP_PKTINFO;
    const bool is_v6 = at->cmsg_level == IPPROTO_IPV6 && at->cmsg_type == IPV6_PKTINFO;
    if (!is_v4 && !is_v6)
        return;
    datagram.destination_size = message.msg_controllen;
    if (is_v4) {
        auto &info =
            *reinterpret_cast<in_pktinfo *>(CMSG_DATA(reinterpret_cast<cmsghdr *>(datagram.destination.bytes)));
        info.ipi_spec_dst = info.ipi_addr;
        info.ipi_ifindex = 0; // by the route back
        return;
    }
    auto &info = *reinterpret_cast<in6_pktinfo *>(CMSG_DATA(reinterpret_cast<cmsghdr *>(datagram.destination.bytes)));
    if (!IN6_IS_ADDR_LINKLOCAL(&info.ipi6_addr))
        info.ipi6_ifindex = 0;
}

// Readies a header for one datagram, and keeps what the system has made of it.
void prepare(msghdr &message, sockaddr_storage &remote, iovec &room, Destination &destination)
{
    message = {&remote, sizeof remote, &room, 1, &destination, sizeof destination, 0};
}

void note_arrival(Datagram &datagram, const msghdr &message)
{
    note_destination(datagram, message);
    note_remote(datagram, message.msg_namelen);
}

// The bytes of the datagram; -1 when there is none.
ssize_t receive_one(Datagram &datagram)
{
    iovec room{datagram.buffer, datagram.size};
    msghdr message{};
    ssize_t count = 0;
    do {
        prepare(message, datagram.remote, room, datagram.destination);
        count = recvmsg(fd_of(datagram), &message, MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count >= 0)
        note_arrival(datagram, message);
    return count;
}

void receive_several(const Datagram &datagram)
{
    Arrivals &arrivals = *datagram.arrivals;
    int count = 0;
    do {
        for (unsigned i = 0; i < Arrivals::count_max; ++i)
            prepare(arrivals.messages[i].msg_hdr, arrivals.remotes[i], arrivals.rooms[i], arrivals.destinations[i]);
        count = recvmmsg(fd_of(datagram), arrivals.messages, Arrivals::count_max, MSG_DONTWAIT, nullptr);
    } while (count < 0 && errno == EINTR);
    arrivals.next = 0;
    arrivals.count = count > 0 ? static_cast<unsigned>(count) : 0;
}

ssize_t take_arrival(Datagram &datagram)
{
    Arrivals &arrivals = *datagram.arrivals;
    if (arrivals.next == arrivals.count)
        receive_several(datagram);
    if (arrivals.next == arrivals.count)
        return -1;
    const unsigned i = arrivals.next++;
    const mmsghdr &arrival = arrivals.messages[i];
    datagram.buffer = static_cast<char *>(arrivals.rooms[i].iov_base);
    std::memcpy(&datagram.remote, &arrivals.remotes[i], arrival.msg_hdr.msg_namelen);
    std::memcpy(&datagram.destination, &arrivals.destinations[i], arrival.msg_hdr.msg_controllen);
    note_arrival(datagram, arrival.msg_hdr);
    return arrival.msg_len;
}

extern "C" bool_t ks_svc_dg_recv(SVCXPRT *xprt, rpc_msg *msg)
{
    Datagram &datagram = datagram_of(xprt);
    const ssize_t size = datagram.arrivals != nullptr ? take_arrival(datagram) : receive_one(datagram);
    if (size < shortest_call)
        return FALSE;
    ks::make_memory_stream(datagram.stream, datagram.buffer, static_cast<u_int>(size), XDR_DECODE);
    if (xdr_ks_callmsg(&datagram.stream, msg) == FALSE) {
        count(counters.bad_records);
        return FALSE;
    }
    datagram.xid = msg->rm_xid;
    return TRUE;
}

extern "C" xprt_stat ks_svc_dg_stat(SVCXPRT *)
{
    return XPRT_IDLE;
}

extern "C" bool_t ks_svc_dg_getargs(SVCXPRT *xprt, xdrproc_t xdr_args, void *args)
{
    XDR &stream = datagram_of(xprt).stream;
    return stream.x_op == XDR_DECODE && xdr_args(&stream, args) != 0 ? TRUE : FALSE;
}

extern "C" bool_t ks_svc_dg_freeargs(SVCXPRT *, xdrproc_t xdr_args, void *args)
{
    XDR stream{};
    stream.x_op = XDR_FREE;
    return xdr_args(&stream, args) != 0 ? TRUE : FALSE;
}

// --- Replies ---

bool send_reply(Datagram &datagram)
{
    const auto size = static_cast<std::size_t>(XDR_GETPOS(&datagram.stream));
    iovec bytes{datagram.buffer, size};
    msghdr message{};
    message.msg_name = &datagram.remote;
    message.msg_namelen = datagram.handle.platform.xp_rtaddr.len;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = datagram.destination_size > 0 ? &datagram.destination : nullptr;
    message.msg_controllen = datagram.destination_size;
    ssize_t count = 0;
    do
        count = sendmsg(fd_of(datagram), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (count < 0 && errno == EINTR);
    return count == static_cast<ssize_t>(size);
}

// The arguments are overwritten by it.
extern "C" bool_t ks_svc_dg_reply(SVCXPRT *xprt, rpc_msg *msg)
{
    Datagram &datagram = datagram_of(xprt);
    ks::make_memory_stream(datagram.stream, datagram.buffer, datagram.size, XDR_ENCODE);
    msg->rm_xid = datagram.xid;
    if (xdr_ks_replymsg(&datagram.stream, msg) == FALSE)
        return FALSE;
    return datagram.handle.reply_in_progress != 0 || send_reply(datagram) ? TRUE : FALSE;
}

extern "C" XDR *ks_svc_dg_reply_get_xdrs(SVCXPRT *xprt)
{
    return &datagram_of(xprt).stream;
}

extern "C" bool_t ks_svc_dg_reply_finish(SVCXPRT *xprt)
{
    Datagram &datagram = datagram_of(xprt);
    if (datagram.handle.reply_in_progress == 0)
        return FALSE;
    datagram.handle.reply_in_progress = 0;
    return send_reply(datagram) ? TRUE : FALSE;
}

// --- Life and clones ---

extern "C" void ks_svc_dg_destroy(SVCXPRT *xprt)
{
    end_transport(transport_of(xprt));
}

void free_datagram(Datagram *datagram);

void dispose_datagram(Transport &transport)
{
    auto &datagram = static_cast<Datagram &>(transport);
    // The socket of a clone is that of the transport it was made of.
    if (datagram.original != nullptr)
        release(*datagram.original);
    else
        close_socket(datagram);
    free_datagram(&datagram);
}

extern "C" bool_t ks_svc_dg_control(SVCXPRT *xprt, u_int request, void *info);

constexpr Kind datagram_kind =
    kind_of({ks_svc_dg_recv, ks_svc_dg_stat, ks_svc_dg_getargs, ks_svc_dg_reply, ks_svc_dg_reply_get_xdrs,
             ks_svc_dg_reply_finish, ks_svc_dg_freeargs, ks_svc_dg_destroy, ks_svc_dg_control},
            Serving::as_clone, false, dispose_datagram);

// With a buffer of so many bytes behind it in the same block. NULL on exhaustion.
Datagram *make_datagram(uint32_t size, std::size_t buffer_size)
{
    auto *made = static_cast<Datagram *>(std::malloc(sizeof(Datagram) + buffer_size));
    if (made == nullptr)
        return nullptr;
    std::memset(static_cast<void *>(made), 0, sizeof *made);
    made->size = size;
    made->buffer = reinterpret_cast<char *>(made + 1);
    return made;
}
static_assert(sizeof(Datagram) % BYTES_PER_XDR_UNIT == 0);

Arrivals *make_arrivals(uint32_t size)
{
    auto *made = static_cast<Arrivals *>(std::calloc(1, sizeof(Arrivals) + Arrivals::count_max * std::size_t{size}));
    if (made == nullptr)
        return nullptr;
    auto *buffer = reinterpret_cast<char *>(made + 1);
    for (iovec &room : made->rooms) {
        room = {buffer, size};
        buffer += size;
    }
    return made;
}
static_assert(sizeof(Arrivals) % BYTES_PER_XDR_UNIT == 0);

void free_datagram(Datagram *datagram)
{
    if (datagram == nullptr)
        return;
    std::free(datagram->arrivals);
    std::free(datagram->held);
    std::free(datagram);
}

} // namespace

Transport *make_clone(Transport &transport)
{
    const auto &original = static_cast<const Datagram &>(transport);
    auto *held = static_cast<HeldCall *>(std::calloc(1, sizeof(HeldCall)));
    Datagram *clone = held != nullptr ? make_datagram(original.size, original.size) : nullptr;
    if (clone == nullptr) {
        std::free(held);
        return nullptr;
    }
    held->msg.rm_call.cb_cred.oa_base = held->credential;
    held->msg.rm_call.cb_verf.oa_base = held->verifier;
    begin_transport(*clone, fd_of(original), datagram_kind, SOCK_DGRAM);
    clone->held = held;
    clone->original = &transport;
    hold(transport); // whose socket it uses
    clone->local = original.local;
    clone->handle.platform.xp_ltaddr.len = original.handle.platform.xp_ltaddr.len;
    clone->handle.platform.xp_port = original.handle.platform.xp_port;
    std::memcpy(clone->netid, original.netid, sizeof clone->netid);
    std::memcpy(clone->device, original.device, sizeof clone->device);
    return clone;
}

bool is_clone(Transport &transport)
{
    return transport.kind == &datagram_kind && static_cast<Datagram &>(transport).held != nullptr;
}

bool has_arrivals(const Transport &transport)
{
    if (transport.kind != &datagram_kind)
        return false;
    const Arrivals *arrivals = static_cast<const Datagram &>(transport).arrivals;
    return arrivals != nullptr && arrivals->next != arrivals->count;
}

void drop_arrivals(Transport &transport)
{
    if (has_arrivals(transport))
        static_cast<Datagram &>(transport).arrivals->next = static_cast<Datagram &>(transport).arrivals->count;
}

rpc_msg *held_call(Transport &clone)
{
    return &static_cast<Datagram &>(clone).held->msg;
}

namespace {

extern "C" bool_t ks_svc_dg_control(SVCXPRT *xprt, u_int request, void *info)
{
    constexpr u_int make = 5;
    constexpr u_int ask = 6;
    constexpr u_int get_call = 7;
    Transport &transport = transport_of(xprt);
    switch (request) {
    case make: {
        Transport *clone = is_clone(transport) ? nullptr : make_clone(transport);
        if (clone == nullptr)
            return FALSE;
        *static_cast<SVCXPRT **>(info) = handle_of(*clone);
        return TRUE;
    }
    case ask:
        return is_clone(transport) ? TRUE : FALSE;
    case get_call:
        if (!is_clone(transport))
            return FALSE;
        *static_cast<rpc_msg **>(info) = held_call(transport);
        return TRUE;
    default:
        return FALSE;
    }
}

Transport *fail(Datagram *datagram, const char *why)
{
    (void)ks_warnx("ks_svc_dg_create: %s", why);
    free_datagram(datagram);
    return nullptr;
}

Transport *create(int fd, u_int sendsize, u_int recvsize)
{
    __rpc_sockinfo info{};
    if (__ks_rpc_fd2sockinfo(fd, &info) == 0)
        return fail(nullptr, "could not get transport information");
    const u_int send = __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(sendsize));
    const u_int receive = __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(recvsize));
    if (send == 0 || receive == 0 || info.si_socktype != SOCK_DGRAM)
        return fail(nullptr, " transport does not support data transfer");
    const uint32_t size = RNDUP(std::max(send, receive));
    Datagram *datagram = make_datagram(size, 0);
    if (datagram == nullptr)
        return fail(nullptr, "out of memory");
    datagram->arrivals = make_arrivals(size);
    if (datagram->arrivals == nullptr)
        return fail(datagram, "out of memory");
    begin_transport(*datagram, fd, datagram_kind, info.si_socktype);
    if (!read_local_address(*datagram))
        return fail(datagram, "could not get transport information");
    const char *netid = "";
    (void)__ks_rpc_sockinfo2netid(&info, &netid); // a kind that was just found
    set_netid(*datagram, netid);
    ask_for_destinations(*datagram);
    if (ks_xprt_register(handle_of(*datagram)) != FALSE)
        return datagram;
    free_datagram(datagram);
    return nullptr;
}

} // namespace

} // namespace ks::svc

extern "C" SVCXPRT *ks_svc_dg_create(int fd, u_int sendsize, u_int recvsize)
{
    ks::svc::Transport *made = ks::svc::create(fd, sendsize, recvsize);
    return made != nullptr ? ks::svc::handle_of(*made) : nullptr;
}
