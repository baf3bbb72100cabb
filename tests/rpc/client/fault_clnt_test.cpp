// Clients while everything underneath them fails, from the socket to the reply.
#include "harness/fault_sweep.h"
#include "rpc/client/client_fixture.h"

namespace {

using test::RawPeer;
using test::fault::Operation;

CLIENT *client;
AUTH *auth;
clnt_stat status;
rpc_err error;
std::string sent, received;

bool create(const std::string &netid, uint16_t port)
{
    client = test::make_client(netid, port).release();
    status = ks_rpc_get_createerr()->cf_stat;
    error = ks_rpc_get_createerr()->cf_error;
    return client != nullptr;
}

bool call()
{
    client->cl_auth = auth;
    received.clear();
    status = clnt_call(client, TIRPC_PEER_ECHO, reinterpret_cast<xdrproc_t>(test::xdr_blob), &sent,
                       reinterpret_cast<xdrproc_t>(test::xdr_blob), &received, (timeval{1, 0}));
    clnt_geterr(client, &error);
    return status == RPC_SUCCESS && received == sent;
}

void destroy()
{
    clnt_destroy(client);
}

// A failure says what the system has said, unless it came to silence or to a datagram that was cut.
bool has_cause()
{
    if (status == RPC_SYSTEMERROR || status == RPC_TLIERROR || status == RPC_CANTSEND || status == RPC_CANTRECV ||
        status == RPC_UDERROR)
        return error.re_status == status && error.re_errno != 0;
    return status == RPC_TIMEDOUT || status == RPC_CANTDECODERES;
}

TEST(FaultClnt, CreatesCallsAndEnds)
{
    for (const std::string netid : {"tcp", "udp"}) {
        const bool is_stream = netid == "tcp";
        constexpr std::size_t head_size = 24 + 8 + 24 + 8; // with an AUTH_UNIX of a name of 1 byte
        RawPeer peer(AF_INET, is_stream ? SOCK_STREAM : SOCK_DGRAM, [](RawPeer::Link &link, const std::string &bytes) {
            const bool is_short_hand = bytes.size() > 28 && bytes[27] == AUTH_SHORT;
            const std::size_t at = is_short_hand ? head_size - 20 : head_size;
            if (bytes.size() >= at)
                link.reply(test::reply_to(bytes, {1, 0, 2, 12, 2, 4, 0xabcd, 0}, bytes.substr(at)));
        });
        sent.assign(is_stream ? 9000 : 100, 'x'); // of two fragments
        const auto begin = [] { auth = ks_authunix_create("h", 1, 2, 0, nullptr); };
        const auto end = [] { auth_destroy(auth); };
        Operation("a client")
            .setup(begin)
            .act([&] {
                if (!create(netid, peer.port()))
                    return false;
                const bool is_done = call();
                destroy();
                return is_done;
            })
            .keeps(has_cause)
            .says("out of memory")
            .cleanup(end)
            .sweep()
            .sweep_raises()
            .sweep_noise(10);
        // Behind a call that failed the handle is as good as before, or says that it is not.
        Operation("a call")
            .setup([&] {
                begin();
                (void)create(netid, peer.port());
            })
            .act(call)
            .keeps([is_stream] {
                return has_cause() && (call() || (is_stream && status == RPC_CANTSEND && error.re_errno == EPIPE));
            })
            .cleanup([&] {
                destroy();
                end();
            })
            .sweep();
    }
}

} // namespace
