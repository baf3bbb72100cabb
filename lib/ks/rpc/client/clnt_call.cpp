// One call, with a client that its thread keeps for the next one.
#include "rpc/client/clnt_impl.h"

#include <korvaks/sysutl.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace ks::clnt {

struct CachedClient {
    bool is_valid;
    CLIENT *client; // NULL when there is none
    pid_t process;
    rpcprog_t program;
    rpcvers_t version;
    char host[64];
    char nettype[32];
};

} // namespace ks::clnt

namespace {

using ks::clnt::CachedClient;

struct Server {
    std::string_view host;
    rpcprog_t program;
    rpcvers_t version;
    std::string_view nettype;
};

bool is_for(const CachedClient &cached, const Server &server)
{
    return cached.is_valid && cached.process == getpid() && cached.program == server.program &&
           cached.version == server.version && cached.host == server.host && cached.nettype == server.nettype;
}

template <std::size_t size> bool keep(char (&place)[size], std::string_view text)
{
    if (text.size() >= size)
        return false;
    text.copy(place, size);
    place[text.size()] = '\0';
    return true;
}

void destroy_client(CachedClient &cached)
{
    cached.is_valid = false;
    CLIENT *client = std::exchange(cached.client, nullptr);
    if (client != nullptr)
        clnt_destroy(client);
}

void prepare(CLIENT *client)
{
    timeval interval{5, 0};
    (void)clnt_control(client, CLSET_RETRY_TIMEOUT, &interval); // refused over a connection, which has none
    int fd = -1;
    if (clnt_control(client, CLGET_FD, &fd) != FALSE)
        (void)sysutl_set_cloexec_file(fd); // best effort, and it was opened so
}

bool renew(CachedClient &cached, const Server &server)
{
    destroy_client(cached);
    cached.client = ks_clnt_create(server.host.data(), server.program, server.version, server.nettype.data());
    if (cached.client == nullptr)
        return false;
    prepare(cached.client);
    cached.process = getpid();
    cached.program = server.program;
    cached.version = server.version;
    cached.is_valid = keep(cached.host, server.host) && keep(cached.nettype, server.nettype);
    return true;
}

// NULL with the creation error.
CachedClient *cache_of_thread()
{
    CachedClient *&cached = ks::clnt::thread_section().cached;
    if (cached == nullptr)
        cached = static_cast<CachedClient *>(std::calloc(1, sizeof(CachedClient)));
    if (cached == nullptr)
        ks::clnt::set_createerr(RPC_SYSTEMERROR, ENOMEM);
    return cached;
}

// Of a host that is NULL the binder's client says what is wrong.
std::string_view text_of(const char *text, const char *otherwise)
{
    return text != nullptr && *text != '\0' ? text : otherwise;
}

} // namespace

void ks::clnt::release_cached(CachedClient *cached)
{
    if (cached == nullptr)
        return;
    destroy_client(*cached);
    std::free(cached);
}

enum clnt_stat ks_rpc_call(const char *host, rpcprog_t prog, rpcvers_t vers, rpcproc_t proc, xdrproc_t xdr_args,
                           const char *args, xdrproc_t xdr_results, char *results, const char *nettype)
{
    CachedClient *cached = cache_of_thread();
    const Server server{text_of(host, ""), prog, vers, text_of(nettype, "netpath")};
    if (cached == nullptr || (!is_for(*cached, server) && !renew(*cached, server)))
        return ks_rpc_get_createerr()->cf_stat;
    const timeval total{25, 0};
    const clnt_stat status =
        clnt_call(cached->client, proc, xdr_args, const_cast<char *>(args), xdr_results, results, total);
    if (status != RPC_SUCCESS)
        cached->is_valid = false;
    return status;
}

int ks_callrpc(const char *host, int prog, int vers, int proc, xdrproc_t xdr_args, void *args, xdrproc_t xdr_results,
               void *results)
{
    return ks_rpc_call(host, static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers), static_cast<rpcproc_t>(proc),
                       xdr_args, static_cast<const char *>(args), xdr_results, static_cast<char *>(results), "udp");
}
