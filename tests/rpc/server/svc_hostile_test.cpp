// Peers that mean no good, beside one that does: it is served, and nothing is left of them.
#include "rpc/server/server_fixture.h"

#include <chrono>
#include <cmath>

#include <sys/resource.h>

namespace {

using test::Caller;
using test::Mode;
using test::Server;
using test::words;
using Callers = std::vector<Caller>;

constexpr uint32_t limit = test::record_limit;
constexpr Mode bounded[] = {{0, limit}, {4, limit}};

void add(Callers &peers, const Server &server, int count)
{
    for (int i = 0; i < count; ++i)
        peers.emplace_back(server.port());
}

double worst_ms(const Caller &good, int calls)
{
    using Clock = std::chrono::steady_clock;
    std::chrono::duration<double, std::milli> worst{};
    for (int i = 0; i < calls; ++i) {
        const auto begin = Clock::now();
        if (!good.is_served())
            return HUGE_VAL;
        worst = std::max<decltype(worst)>(worst, Clock::now() - begin);
    }
    return worst.count();
}

// An echo whose record is of so many bytes.
std::string call_of_size(uint32_t size)
{
    const auto payload = static_cast<uint32_t>(size - test::call_message(PROBE_ECHO).size() - 4);
    return test::call_message(PROBE_ECHO, words({payload}) + std::string(payload, 'p'));
}

struct Attack {
    const char *what;
    double worst_ms_max; // of the good client's calls
    std::function<void(const Server &, const Caller &good, Callers &peers)> begin;
};

const Attack attacks[] = {
    {"bytes that drip", 500,
     [](const Server &server, const Caller &good, Callers &peers) {
         const std::string bytes = test::record(test::call_message(0));
         add(peers, server, 300);
         for (std::size_t i = 0; i < bytes.size(); ++i) {
             for (const Caller &peer : peers)
                 EXPECT_TRUE(peer.send(bytes.substr(i, 1)));
             EXPECT_TRUE(good.is_served());
         }
         for (const Caller &peer : peers)
             EXPECT_EQ(peer.receive(), test::success());
     }},
    {"peers that never read", 2500,
     [](const Server &server, const Caller &, Callers &peers) {
         add(peers, server, 16);
         for (const Caller &peer : peers)
             while (peer.send(test::record(call_of_size(limit - 100)), MSG_DONTWAIT)) {
             }
     }},
    {"fragments of one byte", 500,
     [](const Server &server, const Caller &, Callers &peers) {
         const std::string message = call_of_size(2000);
         std::string bytes;
         for (std::size_t i = 0; i < message.size(); ++i)
             bytes += words({i + 1 < message.size() ? 1u : 0x80000001u}) + message[i];
         add(peers, server, 1);
         EXPECT_TRUE(peers[0].send(bytes));
         EXPECT_EQ(peers[0].receive(), test::success(1, message.substr(test::call_message(0).size())));
     }},
    {"fragments without end", 500,
     [](const Server &server, const Caller &good, Callers &peers) {
         add(peers, server, 8);
         for (const Caller &peer : peers)
             while (peer.send(words({1000}) + std::string(1000, 'f'), MSG_DONTWAIT)) {
                 EXPECT_TRUE(good.is_served());
             }
     }},
    {"lengths of records", 500,
     [](const Server &server, const Caller &, Callers &peers) {
         for (const uint32_t size : {0u, 1u, limit, limit + 4, 0x7fffffffu}) {
             const Caller peer(server.port());
             EXPECT_TRUE(peer.send(words({size | 0x80000000u})));
             if (size > 1 && size <= limit + 4)
                 (void)peer.send(call_of_size(size));
             (void)peer.send(size == 1 ? "1" : "");
             EXPECT_TRUE(size == limit ? peer.receive().size() > limit - 100 : peer.is_ended()) << size;
         }
         add(peers, server, 2);
         EXPECT_TRUE(peers[0].send(words({0x7fffffff})) && peers[0].is_ended());
         EXPECT_TRUE(peers[1].send(words({0})) && peers[1].is_ended()); // no last fragment
     }},
    {"comers and goers", 500,
     [](const Server &server, const Caller &good, Callers &) {
         for (int i = 0; i < 2000; ++i) {
             const Caller peer(server.port());
             EXPECT_TRUE(i % 4 != 0 || peer.send(test::record(test::call_message(0))));
             EXPECT_TRUE(i % 100 != 0 || good.is_served());
         }
     }},
};

TEST(SvcHostile, AGoodClientIsServedAndNothingIsLeft)
{
    for (const Mode mode : bounded) {
        const Server server(mode);
        const Caller good(server.port());
        EXPECT_TRUE(Caller(server.port("udp"), SOCK_DGRAM).is_served());
        const test::State before = good.state();
        for (const Attack &attack : attacks) {
            SCOPED_TRACE(attack.what + (", " + to_string(mode)));
            {
                Callers peers;
                attack.begin(server, good, peers);
                EXPECT_LT(worst_ms(good, 200), attack.worst_ms_max);
                EXPECT_LT(worst_ms(Caller(server.port()), 10), attack.worst_ms_max);
            }
            const auto is_alone = [](const test::State &state) { return state.connections == 1; };
            const test::State after = good.await_state(is_alone);
            EXPECT_TRUE(is_alone(after)) << after.connections;
            EXPECT_LE(after.descriptors, before.descriptors + 2); // a pipe is made when it is needed
            EXPECT_LT(after.heap_kib, before.heap_kib + 256);
        }
    }
}

TEST(SvcHostile, AReaderThatBeginsLateGetsALongReplyInItsOrder)
{
    for (const Mode mode : bounded) {
        SCOPED_TRACE(to_string(mode));
        const Server server(mode);
        const Caller peer(server.port());
        constexpr u_int last = 4'000'000; // more than the sockets and the server keep
        std::string numbers;
        for (u_int i = 0; i <= last; ++i)
            numbers += words({i});
        EXPECT_TRUE(peer.send_call(test::call_message(test::STREAM, words({last}))));
        (void)usleep(300000);
        EXPECT_TRUE(peer.receive() == test::success(1, numbers)); // too long to be shown
        EXPECT_TRUE(peer.is_served());
    }
}

double cpu_seconds(pid_t process)
{
    clockid_t clock{};
    timespec used{};
    EXPECT_EQ(clock_getcpuclockid(process, &clock), 0);
    (void)clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST(SvcHostile, WithoutDescriptorsItRestsAndServesTheOthers)
{
    for (const Mode mode : test::modes) {
        SCOPED_TRACE(to_string(mode));
        const Server server(mode, [] {
            const auto room = static_cast<rlim_t>(test::open_descriptor_count() + 20);
            const rlimit few{room, room};
            EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
            ks_svc_run();
        });
        const Caller good(server.port());
        EXPECT_TRUE(good.is_served());
        Callers peers;
        add(peers, server, 40);
        for (const Caller &peer : peers)
            EXPECT_TRUE(peer.send_call(test::call_message(0)));
        std::size_t served = 0;
        while (served < peers.size() && peers[served].receive(500) == test::success())
            ++served;
        EXPECT_TRUE(served > 4 && served < 30) << served;
        const double before = cpu_seconds(server.pid());
        (void)usleep(1000000);
        EXPECT_LT(cpu_seconds(server.pid()) - before, 0.05);
        EXPECT_TRUE(good.is_served());
        const Caller waiting = std::move(peers[served]);
        peers.erase(peers.begin());
        EXPECT_EQ(waiting.receive(1200), test::success());
    }
}

} // namespace
