// What does a null call cost, in time and in the caller's CPU, over a handle that is kept and over one that each call
// looks up, beside the same calls of the platform's library to the same server?
//
// The server is the barest there can be (rpc_server.cpp), in a process of its own on the other core, and answers as the
// host's binder too. So it all happens in a network namespace of its own, where port 111 is free; where the host
// refuses one, the calls that ask a binder are left out.
#include "rpc_server.h"

#include <korvaks/clnt.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <arpa/inet.h>
#include <rpc/rpc.h>
#include <sched.h>

namespace {

const bench::RpcServer &server()
{
    static const bench::RpcServer started = bench::start_rpc_server();
    return started;
}

netbuf address_of(sockaddr_in &address)
{
    address = {AF_INET, htons(server().port), {htonl(INADDR_LOOPBACK)}, {}};
    return {sizeof address, sizeof address, &address};
}

netconfig *transport(const char *nettype)
{
    void *walk = __ks_rpc_setconf(nettype);
    (void)__ks_rpc_getconf(walk); // IPv6 comes first
    netconfig *found = __ks_rpc_getconf(walk);
    __ks_rpc_endconf(walk);
    return found;
}

using Create = CLIENT *(*)(int, const netconfig *, const netbuf *, rpcprog_t, rpcvers_t, u_int, u_int);

// libtirpc's takes an address that it may change.
CLIENT *create_with_tirpc(int fd, const netconfig *nconf, const netbuf *address, rpcprog_t prog, rpcvers_t vers,
                          u_int sendsize, u_int recvsize)
{
    netbuf copy = *address;
    return clnt_tli_create(fd, nconf, &copy, prog, vers, sendsize, recvsize);
}

bool_t pass_nothing(XDR *, ...)
{
    return TRUE;
}

void call_over_kept_handle(benchmark::State &state, Create create, const char *nettype)
{
    sockaddr_in place{};
    const netbuf address = address_of(place);
    CLIENT *client = create(-1, transport(nettype), &address, bench::rpc_program, 1, 0, 0);
    for (auto _ : state)
        if (client == nullptr ||
            clnt_call(client, 0, pass_nothing, nullptr, pass_nothing, nullptr, (timeval{25, 0})) != 0) {
            state.SkipWithError("the call failed");
            break;
        }
    if (client != nullptr)
        clnt_destroy(client);
}

using Call = clnt_stat (*)(const char *, rpcprog_t, rpcvers_t, rpcproc_t, xdrproc_t, const char *, xdrproc_t, char *,
                           const char *);

clnt_stat call_with_tirpc(const char *host, rpcprog_t prog, rpcvers_t vers, rpcproc_t proc, xdrproc_t xdr_args,
                          const char *args, xdrproc_t xdr_results, char *results, const char *nettype)
{
    return rpc_call(host, prog, vers, proc, xdr_args, const_cast<char *>(args), xdr_results, results, nettype);
}

void call_by_name(benchmark::State &state, Call call, const char *nettype)
{
    for (auto _ : state)
        if (call("127.0.0.1", bench::rpc_program, 1, 0, pass_nothing, nullptr, pass_nothing, nullptr, nettype) != 0) {
            state.SkipWithError("the call failed");
            break;
        }
}

void pin_to_first_core()
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(0, &cores);
    (void)sched_setaffinity(0, sizeof cores, &cores); // a wish
}

struct Contender {
    const char *name;
    Create create;
    Call call;
};
constexpr Contender contenders[] = {{"korvaks", ks_clnt_tli_create, ks_rpc_call},
                                    {"libtirpc", create_with_tirpc, call_with_tirpc}};

template <typename Job> void add(const std::string &name, const Contender &contender, Job job)
{
    benchmark::RegisterBenchmark(("rpc/" + name + "_cpu/" + contender.name).c_str(), job);
    benchmark::RegisterBenchmark(("rpc/" + name + "_time/" + contender.name).c_str(), job)->UseRealTime();
}

// Before the main program starts threads, which a new namespace would leave behind.
[[maybe_unused]] const bool are_registered = [] {
    const bool has_binder = server().is_binder;
    pin_to_first_core();
    for (const Contender &contender : contenders)
        for (const char *nettype : {"tcp", "udp"}) {
            add(std::string("kept_") + nettype, contender,
                [&contender, nettype](auto &state) { call_over_kept_handle(state, contender.create, nettype); });
            if (has_binder)
                add(std::string("by_name_") + nettype, contender,
                    [&contender, nettype](auto &state) { call_by_name(state, contender.call, nettype); });
        }
    return true;
}();

} // namespace
