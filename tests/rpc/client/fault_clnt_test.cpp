// Clients while everything underneath them fails, from the socket to the reply.
#include "harness/fault_sweep.h"
#include "harness/misuse.h"
#include "rpc/client/client_fixture.h"

#include <fcntl.h>
#include <sys/resource.h>

namespace {

using test::RawPeer;
using test::fault::Operation;
using test::fault::Trial;

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

// A failure says what the system has said, unless it came to silence or to a datagram that was cut. An interruption is
// none, but for a raise and for a call that the system never interrupts.
bool has_cause(const Trial &trial)
{
    using test::fault::Call;
    if (trial.plan.answer == EINTR && !trial.failed(Call::fcntl) && !trial.failed(Call::raise))
        return false;
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
        const RawPeer::Script answer = [](RawPeer::Link &link, const std::string &bytes) {
            const bool is_short_hand = bytes.size() > 28 && bytes[27] == AUTH_SHORT;
            const std::size_t at = is_short_hand ? head_size - 20 : head_size;
            if (bytes.size() >= at)
                link.reply(test::reply_to(bytes, {1, 0, 2, 12, 2, 4, 0xabcd, 0}, bytes.substr(at)));
        };
        const test::PeerProcess peer(
            [&] { return std::make_unique<RawPeer>(AF_INET, is_stream ? SOCK_STREAM : SOCK_DGRAM, answer); });
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
            .keeps([is_stream](const Trial &trial) {
                return has_cause(trial) && (call() || (is_stream && status == RPC_CANTSEND && error.re_errno == EPIPE));
            })
            .cleanup([&] {
                destroy();
                end();
            })
            .sweep();
    }
}

// Whatever comes in, a call ends at its time and needs no memory; and the next one finds its reply.
TEST(FaultClnt, AFloodEndsAtTheDeadline)
{
    bool is_first = true; // the peer's
    const RawPeer::Script flood = [&is_first](RawPeer::Link &link, const std::string &bytes) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(is_first ? 600 : 0);
        while (std::chrono::steady_clock::now() < end && link.reply("ab") && link.reply("abcdefgh")) {
        }
        is_first = false;
        link.reply(test::reply_to(bytes, {1, 0, 0, 0, 0}));
    };
    const test::PeerProcess peer([&] { return std::make_unique<RawPeer>(AF_INET, SOCK_DGRAM, flood); });
    test::in_child([port = peer.port()] {
        const test::ClientOwner owner = test::make_client("udp", port);
        const auto fd = static_cast<int>(test::control(owner, CLGET_FD));
        const auto nobody = test::loopback(AF_INET, port_of(test::open_loopback(AF_INET, SOCK_DGRAM)));
        std::atomic<bool> is_over{false};
        std::thread errors([&] {
            while (!is_over)
                (void)sendto(fd, "foreign", 7, 0, nobody.get(), nobody.size);
        });
        EXPECT_EQ(test::ping(owner, test::ms(1)), RPC_TIMEDOUT); // the flood begins
        test::fault::begin({});
        EXPECT_EQ(test::ping(owner, test::ms(200)), RPC_TIMEDOUT);
        EXPECT_LT(test::fault::end().of(test::fault::Call::allocation), 10); // the library's own start
        ks_clnt_dg_strays strays{};
        ks_clnt_dg_get_strays(owner.get(), &strays);
        EXPECT_TRUE(strays.foreign > 0 && strays.runt > 0 && strays.error > 0);
        is_over = true;
        errors.join();
        EXPECT_EQ(test::ping(owner), RPC_SUCCESS);
    });
}

// What is made and ended by a thread that is to end is made and ended whole.
TEST(FaultClnt, ACancelledThreadLosesNothing)
{
    test::in_child([] {
        static uint16_t nobody = port_of(test::open_loopback(AF_INET, SOCK_STREAM));
        const auto run = [](bool is_cancelled) {
            std::thread([is_cancelled] {
                (void)create("udp", nobody);
                if (is_cancelled)
                    (void)pthread_cancel(pthread_self());
                destroy();
                EXPECT_FALSE(create("tcp", nobody));
            }).join();
        };
        run(false);
        const int fds = test::open_descriptor_count();
        const long blocks = test::fault::blocks_outstanding();
        run(true);
        EXPECT_EQ(test::open_descriptor_count(), fds);
        EXPECT_EQ(test::fault::blocks_outstanding(), blocks);
    });
}

bool ends; // which misuse

bool_t misuse(XDR *, void *)
{
    ends ? destroy() : static_cast<void>(call());
    return TRUE;
}

TEST(FaultClnt, NoCallIsMadeOrEndedWithinItself)
{
    std::vector<test::Misuse> rows;
    const test::Descriptor listener = test::open_loopback(AF_INET, SOCK_STREAM);
    for (const char *netid : {"tcp", "udp"})
        for (const bool is_end : {false, true})
            rows.push_back({[=, port = port_of(listener)] {
                                ends = is_end;
                                auth = ks_authnone_create();
                                (void)create(netid, port);
                                (void)clnt_call(client, 0, reinterpret_cast<xdrproc_t>(misuse), nullptr, nullptr,
                                                nullptr, test::ms(50));
                            },
                            "recursion_count == 1"});
    test::expect_misuse(rows);
}

TEST(FaultClnt, AnyDescriptorWillDo)
{
    const test::TirpcPeer peer;
    test::in_child([&peer] {
        rlimit limit{};
        (void)getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
        (void)close(STDIN_FILENO);
        for (const int lowest : {3, 1024}) {
            for (int fd = 3; fd < lowest;)
                fd = dup(STDERR_FILENO);
            for (const char *netid : {"tcp", "udp"}) {
                const test::ClientOwner owner = test::make_client(netid, peer.port());
                ASSERT_TRUE(owner);
                const auto fd = static_cast<int>(test::control(owner, CLGET_FD));
                EXPECT_GE(fd, lowest);
                EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, std::string_view(netid) == "udp");
                EXPECT_EQ(test::ping(owner), RPC_SUCCESS);
            }
        }
    });
}

} // namespace
