// Private to the clients: what both transports share.
#pragma once

#include "base/ks_base.h"
#include "kernel/vlthread_renew.h"
#include "rpc/wire/rpc_platform.h"
#include "rpc/wire/rpc_wait.h"

#include <korvaks/clnt.h>

#include <cstdint>
#include <ctime>

namespace ks::clnt {

inline constexpr ks::AssertPath here{"lib/ks/rpc/clnt"};

constexpr time_t connect_max_s = 25;

// Words of the encoded head of every call.
constexpr std::size_t header_max = 24;
constexpr std::size_t xid_at = 0;
constexpr std::size_t program_at = 12;
constexpr std::size_t version_at = 16;

using rpc::after;
using rpc::Moment;
using rpc::now;
using rpc::seconds_after;
using rpc::wait_for;
using rpc::Waited;

// Kept exactly: seconds from -1 to 100000000, microseconds from -1 to 1000000.
bool is_valid(const timeval &span);
bool is_zero(const timeval &span);

// What both kinds of client have. The handle is first, so that one block holds all.
struct Client {
    CLIENT handle;
    ks::RenewedMutex lock; // guards all below, and is held for a whole call
    int fd;
    bool closes_fd;
    rpc_err error;
    sockaddr_storage address; // of the server
    socklen_t address_size;
    char *header; // the encoded head of a call: xid, direction, RPC version, program, version
    u_int header_size;
};

// The numbers in the head, in the order of the host.
uint32_t header_word(const Client &client, std::size_t at);
void set_header_word(Client &client, std::size_t at, uint32_t value);

// Sets up what both kinds have, with no call made yet: false with errno. `header` has room for the head.
[[nodiscard]] bool begin_client(Client &client, CLIENT::clnt_ops &operations, const netbuf *address, char *header,
                                const rpc_msg &call);
// What begin_client() has made, and the socket if it is to be closed. Waits for a call that is under way; not for one
// from within which it is called, which is misuse. The caller holds cancellation off.
void end_client(Client &client);

// Bytes of a buffer on a socket of a kind, all 0 for one that is not known.
u_int buffer_size(const __rpc_sockinfo &info, u_int wanted);

// The creation error of a create function that the system has refused something; exhaustion is also said.
void fail_creation(const char *function, int error_number);

// Calls of the program and their first transaction id.
rpc_msg call_template(uint32_t xid, rpcprog_t prog, rpcvers_t vers);

// geterr and freeres of both kinds.
void give_error(Client &client, rpc_err *error);
bool_t free_results(Client &client, XDR &xdrs, xdrproc_t xdr_results, void *results);

// Control requests that both kinds have in common: 0 or 1, or -1 for another request.
int common_control(Client &client, u_int request, void *info);
// Stores or gives what `info` points to; false where it is NULL.
template <typename Value> bool_t give(void *info, const Value &value)
{
    if (info == nullptr)
        return FALSE;
    *static_cast<Value *>(info) = value;
    return TRUE;
}
bool_t take_span(const void *info, timeval &out_span);

// Ends what the handle waits for with a status; gives the status.
clnt_stat fail(Client &client, clnt_stat status, int error_number = 0);

// Encodes what follows the head: procedure, credential and arguments.
[[nodiscard]] bool put_call(Client &client, XDR &xdrs, rpcproc_t proc, xdrproc_t xdr_args, void *args);

// A reply, with room for the body of its verifier; results are decoded when it has been looked at.
struct Reply {
    Reply();
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    rpc_msg message;
    char verifier[KS_MAX_AUTH_BYTES];
};

// What a call asks for, and how many times a refused credential may be replaced.
struct Results {
    xdrproc_t xdr_results;
    void *results;
    int refreshes_left = 2;
};

// Deals with a decoded reply to the call: its results follow in the stream. True when the call is over, false to try
// it again with the credential that the authentication has put in the place of a refused one.
[[nodiscard]] bool settle(Client &client, XDR &xdrs, Reply &reply, Results &wanted);

// The calling thread's creation error.
void set_createerr(clnt_stat status, int error_number = 0);

// What a thread has of this layer.
struct CachedClient;

} // namespace ks::clnt

struct rpc_thread {
    ks_rpc_createerr creation;
    char text[256];
    ks::clnt::CachedClient *cached; // of ks_rpc_call(), NULL before the first
};

namespace ks::clnt {

rpc_thread &thread_section();
// At the thread's end.
void release_cached(CachedClient *cached);

} // namespace ks::clnt
