// What connection and datagram clients have in common: the handle, the encoded head of calls, control requests.
#include "rpc/client/clnt_impl.h"

#include "rpc/wire/xdr_fields.h"
#include "rpc/wire/xdr_memory.h"

#include <korvaks/ks_warn.h>
#include <korvaks/tls_impl.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

namespace {

bool_t set_word(ks::clnt::Client &client, std::size_t at, const void *info)
{
    if (info == nullptr)
        return FALSE;
    ks::clnt::set_header_word(client, at, *static_cast<const uint32_t *>(info));
    return TRUE;
}

bool_t give_address(const ks::clnt::Client &client, void *info)
{
    if (info == nullptr)
        return FALSE;
    std::memcpy(info, &client.address, client.address_size);
    return TRUE;
}

bool_t give_netbuf(ks::clnt::Client &client, void *info)
{
    return ks::clnt::give(info, netbuf{client.address_size, client.address_size, &client.address});
}

bool_t choose_closing(ks::clnt::Client &client, bool closes)
{
    client.closes_fd = closes;
    return TRUE;
}

// The peer's, where none is given.
bool settle_address(ks::clnt::Client &client, const netbuf *address)
{
    client.address_size = sizeof client.address;
    if (address == nullptr)
        return getpeername(client.fd, reinterpret_cast<sockaddr *>(&client.address), &client.address_size) == 0;
    if (address->len > sizeof client.address) {
        errno = EAFNOSUPPORT;
        return false;
    }
    std::memcpy(&client.address, address->buf, address->len);
    client.address_size = address->len;
    return true;
}

void name_transport(CLIENT &handle, int fd)
{
    const ks::ErrnoSaver saver;
    __rpc_sockinfo info{};
    const char *netid = nullptr;
    if (__ks_rpc_fd2sockinfo(fd, &info) != 0 && __ks_rpc_sockinfo2netid(&info, &netid) != 0)
        handle.cl_netid = const_cast<char *>(netid);
    static char no_device[] = "-";
    handle.cl_tp = no_device;
}

void release_section(void *section)
{
    auto *own = static_cast<rpc_tls *>(section);
    ks::clnt::release_cached(own->thread->cached);
    own->thread->cached = nullptr;
}

} // namespace

namespace ks::clnt {

bool is_valid(const timeval &span)
{
    return span.tv_sec >= -1 && span.tv_sec <= 100'000'000 && span.tv_usec >= -1 && span.tv_usec <= 1'000'000;
}

bool is_zero(const timeval &span)
{
    return after(0, span) == 0;
}

uint32_t header_word(const Client &client, std::size_t at)
{
    static_assert(std::endian::native == std::endian::little);
    uint32_t word;
    std::memcpy(&word, client.header + at, sizeof word);
    return __builtin_bswap32(word);
}

void set_header_word(Client &client, std::size_t at, uint32_t value)
{
    value = __builtin_bswap32(value);
    std::memcpy(client.header + at, &value, sizeof value);
}

rpc_msg call_template(uint32_t xid, rpcprog_t prog, rpcvers_t vers)
{
    rpc_msg call{};
    call.rm_xid = xid;
    call.rm_call.cb_prog = prog;
    call.rm_call.cb_vers = vers;
    return call;
}

bool begin_client(Client &client, CLIENT::clnt_ops &operations, const netbuf *address, char *header,
                  const rpc_msg &call)
{
    if (!settle_address(client, address))
        return false;
    XDR xdrs;
    make_memory_stream(xdrs, header, header_max, XDR_ENCODE);
    rpc_msg message = call;
    here.require(xdr_ks_callhdr(&xdrs, &message) != FALSE, "xdr_ks_callhdr(&xdrs, &message)");
    client.header = header;
    client.header_size = XDR_GETPOS(&xdrs);
    client.handle.cl_auth = ks_authnone_create();
    client.handle.cl_ops = &operations;
    client.handle.cl_private = &client;
    name_transport(client.handle, client.fd);
    errno = make(client.lock, lock_level_client_handle);
    return errno == 0;
}

void end_client(Client &client)
{
    {
        const ks::RenewedGuard lock(client.lock); // a call that is under way ends first
        here.require(client.lock.mutex.recursion_count == 1, "client.lock.mutex.recursion_count == 1");
    }
    (void)vlthread_mutex_destroy(&client.lock.mutex); // nobody uses it any more
    if (client.closes_fd)
        (void)close(client.fd); // nothing is written back
}

u_int buffer_size(const __rpc_sockinfo &info, u_int wanted)
{
    return __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(std::min(wanted, u_int{INT_MAX})));
}

void fail_creation(const char *function, int error_number)
{
    if (error_number == ENOMEM)
        (void)ks_warnx("%s: out of memory", function);
    set_createerr(RPC_SYSTEMERROR, error_number);
}

void give_error(Client &client, rpc_err *error)
{
    const ks::RenewedGuard lock(client.lock);
    *error = client.error;
}

bool_t free_results(Client &client, XDR &xdrs, xdrproc_t xdr_results, void *results)
{
    const ks::RenewedGuard lock(client.lock);
    xdrs.x_op = XDR_FREE;
    return xdr_results != nullptr ? xdr_results(&xdrs, results) : TRUE;
}

int common_control(Client &client, u_int request, void *info)
{
    switch (request) {
    case CLSET_FD_CLOSE:
        return choose_closing(client, true);
    case CLSET_FD_NCLOSE:
        return choose_closing(client, false);
    case CLGET_SERVER_ADDR:
        return give_address(client, info);
    case CLGET_SVC_ADDR:
        return give_netbuf(client, info);
    case CLGET_FD:
        return give(info, client.fd);
    case CLGET_XID:
        return give(info, header_word(client, xid_at));
    case CLGET_VERS:
        return give(info, header_word(client, version_at));
    case CLSET_VERS:
        return set_word(client, version_at, info);
    case CLGET_PROG:
        return give(info, header_word(client, program_at));
    case CLSET_PROG:
        return set_word(client, program_at, info);
    default:
        return -1;
    }
}

bool_t take_span(const void *info, timeval &out_span)
{
    if (info == nullptr || !is_valid(*static_cast<const timeval *>(info)))
        return FALSE;
    out_span = *static_cast<const timeval *>(info);
    return TRUE;
}

clnt_stat fail(Client &client, clnt_stat status, int error_number)
{
    client.error = rpc_err{};
    client.error.re_status = status;
    client.error.re_errno = error_number;
    return status;
}

rpc_thread &thread_section()
{
    ks_tls *block = ks_tls_get();
    if (block->rpc.thread == nullptr) {
        auto *thread = static_cast<rpc_thread *>(stg_alloc(block->area, sizeof(rpc_thread)));
        here.require(thread != nullptr, "thread != nullptr");
        *thread = {};
        block->rpc.thread = thread;
        block->rpc.release.fn = release_section;
    }
    return *block->rpc.thread;
}

void set_createerr(clnt_stat status, int error_number)
{
    ks_rpc_createerr &creation = thread_section().creation;
    creation = {};
    creation.cf_stat = status;
    creation.cf_error.re_status = status;
    creation.cf_error.re_errno = error_number;
}

} // namespace ks::clnt

ks_rpc_createerr *ks_rpc_get_createerr(void)
{
    return &ks::clnt::thread_section().creation;
}
