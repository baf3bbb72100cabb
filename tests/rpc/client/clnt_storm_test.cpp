// Threads that make, share, control and end clients at random, while signals and raises arrive.
#include "harness/child.h"
#include "rpc/client/client_fixture.h"

#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>

#include <array>
#include <atomic>
#include <csignal>
#include <random>

namespace {

using test::ClientOwner;

ClientOwner make(unsigned kind, uint16_t port)
{
    ClientOwner client = test::make_client(kind == 0 ? "tcp" : "udp", port);
    timeval interval = test::ms(20);
    if (client)
        (void)clnt_control(client.get(), CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&interval));
    return client;
}

struct Storm {
    const uint16_t port;
    const std::array<ClientOwner, 2> shared{make(0, port), make(1, port)};
    std::atomic<bool> is_over{false};
    std::array<std::atomic<int>, 2> echoes{};
    std::atomic<int> rounds{0}; // of the attached thread: one, and one for each raise
};

struct Worker {
    Storm &storm;
    std::minstd_rand random;
    std::array<ClientOwner, 2> own{};

    // A call may come to anything here but another's reply.
    void step()
    {
        const auto choice = static_cast<unsigned>(random());
        const unsigned kind = choice / 2 % 2;
        if (choice / 4 % 4 == 0)
            own[kind] = make(kind, storm.port);
        const ClientOwner &client = choice % 2 == 0 ? storm.shared[kind] : own[kind];
        if (!client) // a raise may have kept it from being made
            return;
        // Whole words: the platform's padding is the same place for all threads.
        const std::string sent(choice / 16 % 750 * 4, static_cast<char>(choice));
        std::string received;
        uint32_t sleep_ms = choice / 16 % 7;
        EXPECT_TRUE(test::set(client, CLSET_VERS, TIRPC_PEER_LOWEST + choice / 8 % 2));
        if (sleep_ms == 0)
            (void)test::call(client, TIRPC_PEER_SLEEP, xdr_u_int, &sleep_ms, xdr_u_int, &sleep_ms, test::ms(1));
        if (test::echo(client, sent, received) == RPC_SUCCESS) {
            EXPECT_EQ(received, sent);
            ++storm.echoes[kind];
        }
    }
};

// Raises are met between the steps only, where nothing is owned.
void work_attached(Storm &storm, Worker &worker)
{
    pfm_cleanup_rec record{};
    record.status = sigsetjmp(record.jump, 1);
    if (pfm_cleanup_start(&record, 0) != 0)
        pfm_cleanup_reset(&record);
    ++storm.rounds;
    while (!storm.is_over) {
        worker.step();
        pfm_test_raise(nullptr);
    }
    pfm_cleanup_rls(&record);
}

void send_signals(Storm &storm)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (storm.rounds == 0) // without a record a raise ends the process
        std::this_thread::yield();
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
        (void)kill(getpid(), i % 4 == 0 ? SIGTERM : SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
    }
    storm.is_over = true;
}

TEST(ClntStorm, ClientsLastThroughSignalsAndRaises)
{
    const test::TirpcPeer peer;
    test::in_child([&peer] {
        (void)ks_system_init();
        (void)pfm_signal(SIGUSR1, [](int) {});
        const int fds = test::open_descriptor_count();
        {
            Storm storm{peer.port()};
            std::vector<std::thread> threads;
            threads.emplace_back(send_signals, std::ref(storm));
            for (unsigned seed = 1; seed <= 3; ++seed)
                threads.emplace_back([&storm, seed] {
                    for (Worker worker{storm, std::minstd_rand(seed)}; !storm.is_over;)
                        worker.step();
                });
            Worker attached{storm, std::minstd_rand(0)};
            work_attached(storm, attached);
            for (std::thread &thread : threads)
                thread.join();
            EXPECT_TRUE(storm.echoes[0] > 100 && storm.echoes[1] > 100 && storm.rounds > 10);
        }
        EXPECT_EQ(test::open_descriptor_count(), fds);
        _exit(testing::Test::HasFailure());
    });
}

} // namespace
