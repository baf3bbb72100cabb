// Connections that come, call and go at random, while connections are ended from other threads, raises arrive and the
// process forks.
#include "harness/forked.h"
#include "rpc/server/server_fixture.h"

#include <random>

namespace {

using test::Caller;

struct Storm {
    const test::Descriptor listener = test::open_loopback(AF_INET, SOCK_STREAM);
    std::atomic<bool> is_over{false};
    std::atomic<int> echoes{0};
};

// A call may come to nothing here, but never to another's reply.
void call_at_random(Storm &storm, unsigned seed)
{
    for (std::minstd_rand random(seed); !storm.is_over;) {
        const Caller caller(test::port_of(storm.listener));
        for (bool goes_on = true; goes_on;) {
            const auto choice = static_cast<uint32_t>(random());
            const uint32_t size = choice / 64 % 750 * 4;
            const std::string echo = test::words({size}) + std::string(size, static_cast<char>(choice));
            const std::string message = test::call_message(PROBE_ECHO, echo, choice);
            goes_on = false;
            if (choice % 8 == 0)
                (void)caller.send(test::record(message).substr(0, choice / 64 % message.size()));
            else if (choice % 8 == 1)
                (void)caller.send_call(test::call_message(PROBE_SLEEP, test::words({choice / 64 % 4})));
            else if (choice % 8 == 2)
                (void)caller.send_call(test::call_message(test::DESTROY + choice / 64 % 2));
            else if (const std::string reply = caller.send_call(message) ? caller.receive(2000) : ""; !reply.empty()) {
                goes_on = reply == test::success(choice, echo);
                EXPECT_TRUE(goes_on);
                ++storm.echoes;
            }
        }
    }
}

void end_connections(Storm &storm)
{
    static ks_fd_set all;
    for (uint64_t &word : all.words)
        word = ~uint64_t{0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
        (void)__ks_svc_clean_idle(&all, i % 2, TRUE);
        if (i % 50 == 49)
            (void)kill(getpid(), SIGHUP);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    storm.is_over = true;
}

void serve(Storm &storm)
{
    static int rounds = 0;
    pfm_cleanup_rec record{};
    record.status = sigsetjmp(record.jump, 1);
    if (pfm_cleanup_start(&record, 0) != 0) {
        ++test::raises;
        pfm_cleanup_reset(&record);
    }
    for (; !storm.is_over; ++rounds) {
        test::serve_some(10);
        if (rounds % 200 == 0) {
            const pid_t child = vlthread_fork(rounds / 200 % 4);
            if (child == 0)
                _exit(0);
            EXPECT_EQ(test::exit_status_of(child), 0);
        }
        pfm_test_raise(nullptr);
    }
    pfm_cleanup_rls(&record);
}

TEST(SvcStorm, WorkersLastThroughRacesRaisesAndForks)
{
    test::in_child([] {
        Storm storm;
        test::set_up({4, test::record_limit});
        EXPECT_NE(ks_svc_tli_create(dup(storm.listener.get()), nullptr, nullptr, 0, 0), nullptr);
        EXPECT_TRUE(ks_svc_setup_threads());
        std::vector<std::thread> threads;
        for (unsigned seed = 1; seed <= 6; ++seed)
            threads.emplace_back(call_at_random, std::ref(storm), seed);
        threads.emplace_back(end_connections, std::ref(storm));
        serve(storm);
        EXPECT_EQ(test::state_now().workers, 4u);
        EXPECT_EQ(ks_svc_end_threads(-1), 0);
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_GT(storm.echoes, 100);
        EXPECT_GT(test::raises, 5u);
        EXPECT_EQ(test::state_now().abandoned, 0u);
        _exit(testing::Test::HasFailure());
    });
}

} // namespace
