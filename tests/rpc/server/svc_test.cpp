// Transports, the tables of the server and its settings, and routines that leave as none should.
#include "rpc/client/client_fixture.h"
#include "rpc/server/server_fixture.h"

#include <fcntl.h>
#include <sys/resource.h>

namespace {

using test::Caller;
using test::Mode;
using test::Server;

int get(int request)
{
    int value = -1;
    EXPECT_TRUE(ks_rpc_control(request, &value));
    return value;
}

TEST(Svc, HasTheSettingsThatWereMade)
{
    test::in_child([] {
        const int refused[][2] = {{KS_SVC_SET_RECORD_LIMIT, 0},
                                  {KS_SVC_SET_RECORD_LIMIT, -1},
                                  {KS_SVC_SET_MT_MODE, 2},
                                  {KS_SVC_SET_MT_MODE, -1},
                                  {KS_SVC_SET_THREADS, 0},
                                  {6, 1},
                                  {-1, 1}};
        for (const auto &row : refused) {
            int value = row[1];
            EXPECT_FALSE(ks_rpc_control(row[0], &value)) << row[0];
        }
        EXPECT_FALSE(ks_rpc_control(KS_SVC_GET_THREADS, nullptr));
        EXPECT_TRUE(get(KS_SVC_GET_RECORD_LIMIT) == 0 && get(KS_SVC_GET_MT_MODE) == 0 && get(KS_SVC_GET_THREADS) == 16);
        test::set_up({3, 1});
        EXPECT_TRUE(ks_svc_setup_threads());
        EXPECT_FALSE(ks_svc_setup_threads());
        int value = 1;
        EXPECT_FALSE(ks_rpc_control(KS_SVC_SET_MT_MODE, &value));
        EXPECT_FALSE(ks_rpc_control(KS_SVC_SET_THREADS, &value));
        EXPECT_TRUE(get(KS_SVC_GET_RECORD_LIMIT) == 1 && get(KS_SVC_GET_MT_MODE) == 1 && get(KS_SVC_GET_THREADS) == 3);
        const auto other = [](svc_req *, SVCXPRT *) {};
        EXPECT_TRUE(ks_svc_register(nullptr, PROBE_PROGRAM, PROBE_LOWEST, test::serve, 0));
        EXPECT_FALSE(ks_svc_register(nullptr, PROBE_PROGRAM, PROBE_LOWEST, other, 0));
        EXPECT_FALSE(ks_svc_register(nullptr, PROBE_PROGRAM, 7, test::serve, IPPROTO_TCP));
        ks_svc_unregister(PROBE_PROGRAM, PROBE_LOWEST);
        EXPECT_TRUE(ks_svc_register(nullptr, PROBE_PROGRAM, PROBE_LOWEST, other, 0));
    });
}

TEST(Svc, HoldsDescriptorsUpTo16383)
{
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max <= KS_FD_MAX)
        GTEST_SKIP() << "the hard limit is " << limit.rlim_max << " descriptors";
    test::in_child([limit = rlimit{limit.rlim_max, limit.rlim_max}] {
        (void)setrlimit(RLIMIT_NOFILE, &limit);
        const test::Descriptor socket = test::open_loopback(AF_INET, SOCK_STREAM);
        const auto make_at = [&socket](int fd) { return ks_svc_vc_create(dup2(socket.get(), fd), 0, 0); };
        EXPECT_EQ(make_at(KS_FD_MAX), nullptr);
        EXPECT_GE(fcntl(KS_FD_MAX, F_GETFD), 0); // the caller's still
        EXPECT_EQ(ks_svc_maxfd, -1);
        SVCXPRT *const all[] = {make_at(100), make_at(7000), make_at(KS_FD_MAX - 1)};
        for (int i = 2, expected = KS_FD_MAX - 1; i >= 0; --i) {
            EXPECT_EQ(ks_svc_maxfd, expected);
            EXPECT_TRUE(ks_fd_has(&ks_svc_fdset, expected));
            EXPECT_EQ(fcntl(expected, F_GETFD), FD_CLOEXEC);
            ks_xprt_unregister(all[i]);
            EXPECT_FALSE(ks_fd_has(&ks_svc_fdset, expected));
            expected = i == 0 ? -1 : all[i - 1]->xp_fd;
        }
        EXPECT_EQ(ks_svc_maxfd, -1);
        EXPECT_TRUE(ks_xprt_register(all[0]));
        EXPECT_EQ(ks_svc_maxfd, 100);
    });
}

// Serves until there is a reply.
std::string exchange(const Caller &caller)
{
    for (int i = 0; i < 100; ++i) {
        pollfd reply{caller.fd(), POLLIN, 0};
        if (poll(&reply, 1, 0) == 1)
            return caller.receive();
        test::serve_some(20);
    }
    return "";
}

TEST(Svc, MakesTransportsOfSocketsOfAnyState)
{
    test::in_child([] {
        test::set_up({});
        test::SocketAddress address = test::loopback(AF_INET, 0);
        const t_bind here{{address.size, address.size, address.get()}, 5};
        for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
            netconfig *const kind = test::transport(type == SOCK_STREAM ? "tcp" : "udp");
            SVCXPRT *const made[] = {
                ks_svc_tli_create(-1, kind, &here, 0, 0), ks_svc_tli_create(-1, kind, nullptr, 0, 0),
                ks_svc_tli_create(socket(AF_INET, type, 0), nullptr, &here, 0, 0),
                ks_svc_tli_create(dup(test::open_loopback(AF_INET, type).get()), kind, nullptr, 0, 0)};
            for (SVCXPRT *transport : made) {
                ASSERT_NE(transport, nullptr);
                const test::Descriptor copy(dup(transport->xp_fd));
                const Caller caller(test::port_of(copy), type);
                EXPECT_TRUE(caller.send_call(test::call_message(0)));
                EXPECT_EQ(exchange(caller), test::success());
                svc_destroy(transport);
            }
        }
        const test::Descriptor listener = test::open_loopback(AF_INET, SOCK_STREAM);
        const Caller caller(test::port_of(listener));
        EXPECT_NE(ks_svc_tli_create(accept(listener.get(), nullptr, nullptr), nullptr, nullptr, 0, 0), nullptr);
        EXPECT_TRUE(caller.send_call(test::call_message(0)));
        EXPECT_EQ(exchange(caller), test::success());
    });
}

// Not all that it can say: the system has no sockets of which a kind is known and that cannot be bound, or served.
TEST(Svc, SaysWhyATransportCannotBeMade)
{
    netconfig *const tcp = test::transport("tcp");
    sockaddr_in nowhere{AF_INET, 0, {htonl(0x01020304)}, {}};
    const t_bind there{{sizeof nowhere, sizeof nowhere, &nowhere}, 5};
    struct Row {
        const char *message;
        std::function<int()> open;
        netconfig *kind;
        const t_bind *bind_to;
    };
    const auto open_none = [] {
        const rlimit none{0, 0};
        return setrlimit(RLIMIT_NOFILE, &none) - 1;
    };
    const Row rows[] = {
        {"invalid netconfig", [] { return -1; }, nullptr, nullptr},
        {"could not open connection for tcp", open_none, tcp, nullptr},
        {"could not get transport information", [] { return dup(STDIN_FILENO); }, tcp, nullptr},
        {"could not bind to requested address", [] { return -1; }, tcp, &there},
        {"could not bind to requested address", [] { return socket(AF_INET, SOCK_STREAM, 0); }, nullptr, &there},
    };
    for (const Row &row : rows) {
        const test::ChildResult result = test::run_child([&row] {
            const int fd = row.open();
            EXPECT_EQ(ks_svc_tli_create(fd, row.kind, row.bind_to, 0, 0), nullptr);
            EXPECT_TRUE(fd == -1 || fcntl(fd, F_GETFD) >= 0); // the caller's still
        });
        EXPECT_EQ(result.err, "ks_svc_tli_create: " + std::string(row.message) + "\n");
    }
}

TEST(Svc, ServesWhatSetsAndPollHaveFound)
{
    test::in_child([] {
        test::set_up({});
        const test::Descriptor socket = test::open_loopback(AF_INET, SOCK_DGRAM);
        const int fd = dup(socket.get());
        ASSERT_NE(ks_svc_dg_create(fd, 0, 0), nullptr);
        const Caller caller(test::port_of(socket), SOCK_DGRAM);
        const std::function<void()> ways[] = {
            [fd] { ks_svc_getreq(1 << fd); },
            [] { ks_svc_getreqset(&ks_svc_fdset); },
            [fd] {
                pollfd fds[] = {{fd + 1, 0, 0}, {fd, POLLIN, POLLIN}};
                ks_svc_getreq_poll(fds, 1);
            },
        };
        for (const auto &way : ways) {
            EXPECT_TRUE(caller.send_call(test::call_message(0)));
            way();
            EXPECT_EQ(caller.receive(0), test::success());
        }
        pollfd closed{fd, POLLIN, POLLNVAL};
        ks_svc_getreq_poll(&closed, 1);
        EXPECT_FALSE(ks_fd_has(&ks_svc_fdset, fd));
        EXPECT_EQ(ks_svc_maxfd, fd);
    });
}

// What stands in the buffer behind a datagram is an earlier one's, and nobody else's.
TEST(Svc, ReadsADatagramNoFurtherThanItsEnd)
{
    for (const Mode mode : test::modes) {
        const Server server(mode);
        const Caller caller(server.port("udp"), SOCK_DGRAM);
        const std::string secret(400, 's');
        EXPECT_EQ(caller.call(PROBE_ECHO, test::words({400}) + secret), test::success(1, test::words({400}) + secret));
        const std::string bare = test::call_message(PROBE_ECHO);
        for (const std::size_t size : {std::size_t{0}, std::size_t{15}, std::size_t{16}, bare.size() - 1})
            EXPECT_TRUE(caller.send(bare.substr(0, size)));
        EXPECT_EQ(caller.call(PROBE_ECHO), test::words({1, 1, 0, 0, 0, 4}));
        EXPECT_EQ(caller.call(PROBE_ECHO, test::words({400})), test::words({1, 1, 0, 0, 0, 4}));
    }
}

TEST(Svc, AnswersFromTheAddressThatWasCalled)
{
    const test::Descriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in any{AF_INET, 0, {}, {}};
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    const Server server({4, 0}, [&socket] {
        EXPECT_NE(ks_svc_dg_create(dup(socket.get()), 0, 0), nullptr);
        ks_svc_run();
    });
    for (const char *host : {"127.0.0.2", "127.0.0.1", "127.0.0.3"})
        EXPECT_TRUE(Caller(test::port_of(socket), SOCK_DGRAM, host).is_served()) << host;
}

// --- Routines and the main thread ---

// Forks by the last command, a kind of fork and 1. The child has a listener and workers of its own.
void fork_as_told(int listener)
{
    const u_int told = test::command.exchange(0);
    if (told == 0)
        return;
    const auto kind = static_cast<int>(told) - 1;
    if (vlthread_fork(kind) != 0)
        return;
    if (kind < VLTHREAD_FORK_CONTINUE)
        _exit(0);
    for (uint64_t &word : ks_svc_fdset.words) // the parent's connections are the parent's
        word = 0;
    int workers = 2;
    EXPECT_TRUE(ks_rpc_control(KS_SVC_SET_THREADS, &workers));
    EXPECT_NE(ks_svc_tli_create(listener, nullptr, nullptr, 0, 0), nullptr);
    ks_svc_run();
}

// A main thread that lasts through raises.
void serve_for_good(int listener)
{
    pfm_cleanup_rec record{};
    EXPECT_TRUE(ks_svc_setup_threads());
    record.status = sigsetjmp(record.jump, 1);
    if (pfm_cleanup_start(&record, 0) != 0) {
        ++test::raises;
        pfm_cleanup_reset(&record);
    }
    for (;;) {
        test::serve_some(10);
        fork_as_told(listener);
        pfm_test_raise(nullptr);
    }
}

TEST(SvcRoutine, CostsItsConnectionWhenItLeaves)
{
    for (const Mode mode : test::modes) {
        SCOPED_TRACE(to_string(mode));
        const auto workers = static_cast<u_int>(mode.workers);
        const Server server(mode, [] { serve_for_good(-1); });
        const Caller other(server.port());
        const test::State before = other.state();
        u_int left = 0;
        for (const uint32_t procedure :
             {test::RAISE, test::EXIT, test::END_THREAD, test::DESTROY, test::DESTROY_ELSEWHERE})
            for (int i = 0; i < 6; ++i) { // more often than there are workers
                if (workers == 0 && (procedure == test::EXIT || procedure == test::END_THREAD))
                    continue; // which end the program
                const Caller caller(server.port());
                EXPECT_TRUE(caller.is_served() && caller.send_call(test::call_message(procedure)));
                EXPECT_TRUE(caller.is_ended()) << procedure;
                EXPECT_TRUE(other.is_served()) << procedure;
                left += procedure < test::DESTROY ? 1 : 0;
            }
        const test::State after = other.await_state([&](const test::State &state) {
            return state.descriptors == before.descriptors && state.workers == workers && state.abandoned == left;
        });
        EXPECT_EQ(after.descriptors, before.descriptors);
        EXPECT_EQ(after.workers, workers);
        EXPECT_EQ(after.abandoned, left);
        EXPECT_EQ(after.raises, workers == 0 ? 6 : 0);
    }
}

TEST(SvcFork, AChildServesWithWorkersOfItsOwn)
{
    const test::Descriptor listener = test::open_loopback(AF_INET, SOCK_STREAM);
    const Server server({4, test::record_limit}, [&listener] { serve_for_good(listener.get()); });
    std::atomic<bool> is_over{false};
    std::thread busy([&server, &is_over] {
        for (const Caller caller(server.port("udp"), SOCK_DGRAM); !is_over;)
            EXPECT_TRUE(caller.is_served());
    });
    const Caller parent(server.port());
    for (const int kind : {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC, VLTHREAD_FORK_CONTINUE, VLTHREAD_FORK_CONTINUE_3})
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(kind);
            EXPECT_TRUE(
                parent.send_call(test::call_message(test::COMMAND, test::words({static_cast<u_int>(kind) + 1}))));
            EXPECT_EQ(parent.state().workers, 4u);
            if (kind < VLTHREAD_FORK_CONTINUE)
                continue;
            const Caller child(test::port_of(listener));
            EXPECT_TRUE(child.is_served());
            EXPECT_EQ(child.state().workers, 2u);
        }
    is_over = true;
    busy.join();
}

TEST(SvcWorkers, EndWhenTheirCallsHaveEnded)
{
    for (const bool is_patient : {false, true})
        test::in_child([is_patient] {
            test::set_up({4, 0});
            const test::Descriptor socket = test::open_loopback(AF_INET, SOCK_STREAM);
            EXPECT_NE(ks_svc_tli_create(dup(socket.get()), nullptr, nullptr, 0, 0), nullptr);
            EXPECT_TRUE(ks_svc_setup_threads());
            const Caller caller(test::port_of(socket));
            EXPECT_TRUE(caller.send_call(test::call_message(PROBE_SLEEP, test::words({400}))));
            ks_svc_counters counters{};
            for (; counters.calls == 0; ks_svc_get_counters(&counters))
                test::serve_some(10);
            ks_fd_set all;
            std::memset(&all, 0xff, sizeof all);
            EXPECT_FALSE(__ks_svc_clean_idle(&all, 0, TRUE)); // the only connection is being served
            EXPECT_EQ(ks_svc_end_threads(is_patient ? -1 : 20), is_patient ? 0 : 1);
            EXPECT_EQ(caller.receive(is_patient ? 0 : 10000), test::success());
            EXPECT_TRUE(caller.send_call(test::call_message(0)));
            test::serve_some(10);
            EXPECT_EQ(caller.receive(50), "");
        });
}

// A loop that hands in, again, what it found a moment ago.
TEST(SvcWorkers, ServeAConnectionOneAfterTheOther)
{
    const test::Server server({2, test::record_limit}, [] {
        EXPECT_TRUE(ks_svc_setup_threads());
        for (ks_fd_set found{};;) {
            (void)usleep(5000);
            for (std::size_t i = 0; i < KS_FD_SET_WORDS; ++i)
                found.words[i] |= __atomic_load_n(&ks_svc_fdset.words[i], __ATOMIC_RELAXED);
            ks_svc_getreqset(&found);
        }
    });
    const test::Caller caller(server.port());
    EXPECT_TRUE(caller.send_call(test::call_message(PROBE_SLEEP, test::words({100}))));
    (void)usleep(50000);
    EXPECT_TRUE(caller.send_call(test::call_message(PROBE_NULL, "", 2)));
    EXPECT_EQ(caller.receive(), test::success(1));
    EXPECT_EQ(caller.receive(), test::success(2));
}

} // namespace
