// Clients from the name of a host and a kind of transport.
#include "rpc/client/clnt_impl.h"

#include <algorithm>
#include <cstdlib>

#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

// Tries the transports of a walk, and leaves the creation error that tells most.
CLIENT *try_transports(void *walk, const char *host, rpcprog_t prog, rpcvers_t vers)
{
    ks_rpc_createerr remembered{};
    ks::clnt::set_createerr(RPC_UNKNOWNPROTO);
    while (const netconfig *transport = __ks_rpc_getconf(walk)) {
        CLIENT *client = ks_clnt_tp_create(host, prog, vers, transport);
        if (client != nullptr)
            return client;
        if (ks_rpc_get_createerr()->cf_stat != RPC_N2AXLATEFAILURE)
            remembered = *ks_rpc_get_createerr();
    }
    const bool is_last_nameless = ks_rpc_get_createerr()->cf_stat == RPC_N2AXLATEFAILURE;
    if (is_last_nameless && remembered.cf_stat != RPC_SUCCESS)
        *ks_rpc_get_createerr() = remembered;
    return nullptr;
}

clnt_stat call_null_procedure(CLIENT *client)
{
    return clnt_call(client, 0, nullptr, nullptr, nullptr, nullptr, (timeval{10, 0}));
}

// Calls with the highest version first, then with the highest that the server has. The version that was answered, or
// 0 with what came instead.
struct Settled {
    clnt_stat status;
    rpcvers_t version;
};

Settled settle_version(CLIENT *client, rpcvers_t low, rpcvers_t high, rpc_err &out_error)
{
    Settled settled{call_null_procedure(client), high};
    clnt_geterr(client, &out_error);
    if (settled.status != RPC_PROGVERSMISMATCH)
        return settled;
    const rpcvers_t lowest = std::max(low, out_error.re_vers.low);
    rpcvers_t version = std::min(high, out_error.re_vers.high);
    if (version < lowest)
        return settled;
    (void)clnt_control(client, CLSET_VERS, &version); // the request and its argument are known
    settled = {call_null_procedure(client), version};
    clnt_geterr(client, &out_error);
    return settled;
}

// A small record goes out at once, also behind batched ones.
void send_without_delay(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

struct Buffers {
    u_int sendsize;
    u_int recvsize;
};

CLIENT *create_on(int fd, const __rpc_sockinfo &info, const netbuf *address, rpcprog_t prog, rpcvers_t vers,
                  const Buffers &sizes)
{
    if (info.si_socktype == SOCK_DGRAM)
        return ks_clnt_dg_create(fd, address, prog, vers, sizes.sendsize, sizes.recvsize);
    return ks_clnt_vc_create(fd, address, prog, vers, sizes.sendsize, sizes.recvsize);
}

} // namespace

CLIENT *ks_clnt_create(const char *host, rpcprog_t prog, rpcvers_t vers, const char *nettype)
{
    void *walk = __ks_rpc_setconf(nettype);
    if (walk == nullptr) {
        if (errno == ENOMEM)
            ks::clnt::set_createerr(RPC_SYSTEMERROR, ENOMEM);
        else
            ks::clnt::set_createerr(RPC_UNKNOWNPROTO);
        return nullptr;
    }
    CLIENT *client = try_transports(walk, host, prog, vers);
    __ks_rpc_endconf(walk);
    return client;
}

CLIENT *ks_clnt_create_vers(const char *host, rpcprog_t prog, rpcvers_t *vers_out, rpcvers_t vers_low,
                            rpcvers_t vers_high, const char *nettype)
{
    CLIENT *client = ks_clnt_create(host, prog, vers_high, nettype);
    if (client == nullptr)
        return nullptr;
    rpc_err error{};
    const Settled settled = settle_version(client, vers_low, vers_high, error);
    if (settled.status == RPC_SUCCESS) {
        *vers_out = settled.version;
        return client;
    }
    ks_rpc_get_createerr()->cf_stat = settled.status;
    ks_rpc_get_createerr()->cf_error = error;
    clnt_destroy(client);
    return nullptr;
}

CLIENT *ks_clnt_tp_create(const char *host, rpcprog_t prog, rpcvers_t vers, const struct netconfig *nconf)
{
    netbuf *address = __ks_rpcb_findaddr(prog, vers, nconf, host);
    if (address == nullptr)
        return nullptr;
    CLIENT *client = ks_clnt_tli_create(-1, nconf, address, prog, vers, 0, 0);
    std::free(address);
    return client;
}

CLIENT *ks_clnt_tli_create(int fd, const struct netconfig *nconf, const struct netbuf *svcaddr, rpcprog_t prog,
                           rpcvers_t vers, u_int sendsize, u_int recvsize)
{
    const ks::CancelHold hold;
    __rpc_sockinfo info{};
    if (nconf != nullptr ? __ks_rpc_nconf2sockinfo(nconf, &info) == 0 : fd < 0) {
        ks::clnt::set_createerr(RPC_UNKNOWNPROTO);
        return nullptr;
    }
    if (fd >= 0) {
        if (nconf == nullptr && __ks_rpc_fd2sockinfo(fd, &info) == 0) {
            ks::clnt::set_createerr(RPC_TLIERROR, errno);
            return nullptr;
        }
        return create_on(fd, info, svcaddr, prog, vers, {sendsize, recvsize});
    }
    ks::UniqueFd own(__ks_rpc_nconf2fd(nconf));
    if (!own) {
        ks::clnt::set_createerr(RPC_TLIERROR, errno);
        return nullptr;
    }
    if (info.si_proto == IPPROTO_TCP)
        send_without_delay(own.get());
    CLIENT *client = create_on(own.get(), info, svcaddr, prog, vers, {sendsize, recvsize});
    if (client != nullptr) {
        (void)clnt_control(client, CLSET_FD_CLOSE, nullptr); // the request is known
        (void)own.release();                                 // the client's
    }
    return client;
}
