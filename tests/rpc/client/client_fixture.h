// Clients for the tests' servers on loopback.
#pragma once

#include "rpc/peer/raw_peer.h"
#include "rpc/peer/tirpc_process.h"
#include "rpc/peer/udp_proxy.h"

#include <korvaks/clnt.h>

#include <memory>
#include <string>

namespace test {

struct ClientEnd {
    void operator()(CLIENT *client) const { clnt_destroy(client); }
};
using ClientOwner = std::unique_ptr<CLIENT, ClientEnd>;

inline netconfig *transport(const char *netid)
{
    static std::vector<netconfig *> rows = [] {
        std::vector<netconfig *> found;
        void *walk = __ks_rpc_setconf("netpath");
        while (netconfig *row = __ks_rpc_getconf(walk))
            found.push_back(row);
        __ks_rpc_endconf(walk);
        return found;
    }();
    for (netconfig *row : rows)
        if (std::string(row->nc_netid) == netid)
            return row;
    return nullptr;
}

// NULL with the creation error.
inline ClientOwner make_client(const std::string &netid, uint16_t port, rpcprog_t prog = TIRPC_PEER_PROGRAM,
                               rpcvers_t vers = TIRPC_PEER_HIGHEST, u_int sendsize = 0)
{
    SocketAddress address = loopback(netid.back() == '6' ? AF_INET6 : AF_INET, port);
    const netbuf buffer{address.size, address.size, address.get()};
    return ClientOwner(ks_clnt_tli_create(-1, transport(netid.c_str()), &buffer, prog, vers, sendsize, 0));
}

inline timeval ms(int count)
{
    return {count / 1000, count % 1000 * 1000};
}

inline bool_t xdr_blob(XDR *xdrs, std::string *blob)
{
    char *bytes = xdrs->x_op == XDR_ENCODE ? blob->data() : nullptr;
    auto size = static_cast<u_int>(blob->size());
    const bool_t is_done = xdr_bytes(xdrs, &bytes, &size, ~0u);
    if (xdrs->x_op == XDR_DECODE && is_done != FALSE)
        blob->assign(bytes, size);
    if (xdrs->x_op == XDR_DECODE)
        free(bytes);
    return is_done;
}

template <typename Argument, typename Result>
clnt_stat call(const ClientOwner &client, rpcproc_t proc, bool_t (*encode)(XDR *, Argument *), Argument *argument,
               bool_t (*decode)(XDR *, Result *), Result *result, timeval timeout = {20, 0})
{
    return clnt_call(client.get(), proc, reinterpret_cast<xdrproc_t>(encode), argument,
                     reinterpret_cast<xdrproc_t>(decode), result, timeout);
}

inline clnt_stat ping(const ClientOwner &client, timeval timeout = {20, 0}, rpcproc_t proc = 0)
{
    return clnt_call(client.get(), proc, nullptr, nullptr, nullptr, nullptr, timeout);
}

inline clnt_stat echo(const ClientOwner &client, std::string sent, std::string &received)
{
    return call(client, TIRPC_PEER_ECHO, xdr_blob, &sent, xdr_blob, &received);
}

inline rpc_err error_of(const ClientOwner &client)
{
    rpc_err error{};
    clnt_geterr(client.get(), &error);
    return error;
}

inline uint32_t control(const ClientOwner &client, u_int request)
{
    uint32_t value = 0;
    return clnt_control(client.get(), request, reinterpret_cast<char *>(&value)) != FALSE ? value : ~0u;
}

inline bool set(const ClientOwner &client, u_int request, uint32_t value)
{
    return clnt_control(client.get(), request, reinterpret_cast<char *>(&value)) != FALSE;
}

} // namespace test
