// The duplicate-request cache: what is answered to which call, expiry, and what goes on at once.
#include "harness/child.h"
#include "harness/fake_clock.h"
#include "harness/forked.h"
#include "harness/match.h"
#include "harness/misuse.h"

#include <korvaks/nirpc.h>
#include <korvaks/pfm.h>
#include <korvaks/rt.h>
#include <korvaks/vlthread.h>

#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <thread>

#include <netinet/in.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::set_clock;

// A transport whose peer has this address. Callers 100 apart have the same port.
class Transport {
  public:
    explicit Transport(unsigned caller, sa_family_t family = AF_INET)
    {
        address_.sin6_family = family;
        address_.sin6_port = htons(static_cast<uint16_t>(2000 + caller % 100));
        address_.sin6_flowinfo = htonl(0x0A000000 + caller); // or the IPv4 host
        handle_.xp_rtaddr = {sizeof address_, sizeof address_, &address_};
    }
    SVCXPRT *operator&() { return &handle_; }

  private:
    sockaddr_in6 address_{};
    SVCXPRT handle_{};
};

constexpr uint64_t boot = 0x1a;

int fetch(unsigned caller, uint64_t xid)
{
    Transport transport(caller);
    return nirpc_fetch(&transport, boot, xid, nullptr, 0, nullptr);
}

void save(unsigned caller, uint64_t xid, nirpc_free_fn free_routine = nullptr)
{
    Transport transport(caller);
    nirpc_save(&transport, boot, xid, "reply", 5, free_routine);
}

void finish(unsigned caller, uint64_t xid)
{
    Transport transport(caller);
    nirpc_set_finish(&transport, boot, xid);
}

// A call from its fetch to its end; the answer to the fetch.
int call(unsigned caller, uint64_t xid)
{
    const int answer = fetch(caller, xid);
    save(caller, xid);
    finish(caller, xid);
    return answer;
}

nirpc_counters counters()
{
    nirpc_counters now;
    nirpc_get_counters(&now);
    return now;
}

// Fires what is due when the clock is set.
void run_after(time_t change)
{
    set_clock(change);
    const timeval soon{0, 1000};
    rt_sched_rel([](void *) { rt_shutdown(); }, nullptr, &soon);
    rt_run();
}

struct Step {
    char what; // f: fetch, s: save, e: end
    unsigned caller;
    uint64_t boot_time;
    uint64_t xid;
    int answer = 0;
    const char *reply = "";
    sa_family_t family = AF_INET;
};

TEST(Nirpc, AnswersByTheCallersLatestCall)
{
    constexpr uint64_t last = UINT64_MAX;
    const Step steps[] = {
        {'f', 1, 1, 5, NIRPC_NEW},
        {'f', 1, 1, 5, NIRPC_IN_PROGRESS},
        {'s', 1, 1, 5, 0, "five"},
        {'f', 1, 1, 5, NIRPC_IN_PROGRESS},
        {'e', 1, 1, 5},
        {'f', 1, 1, 5, NIRPC_DUPLICATE, "five"},
        {'s', 1, 1, 5, 0, "again"}, // keeps the first
        {'f', 1, 1, 4, NIRPC_STALE},
        {'s', 1, 1, 4, 0, "late"}, // is ignored
        {'f', 1, 1, 5, NIRPC_DUPLICATE, "five"},
        {'f', 101, 1, 5, NIRPC_NEW}, // the same port of another host, another life, another family
        {'f', 1, 2, 5, NIRPC_NEW},
        {'f', 1, 1, 5, NIRPC_NEW, "", AF_INET6},
        {'f', 1, 1, 5, NIRPC_IN_PROGRESS, "", AF_INET6},
        {'f', 1, 1, 6, NIRPC_NEW},
        {'e', 1, 1, 5}, // is not the latest any more
        {'f', 1, 1, 6, NIRPC_IN_PROGRESS},
        {'f', 1, 1, 7, NIRPC_NEW}, // two calls of one caller, saved late
        {'s', 1, 1, 7, 0, "seven"},
        {'s', 1, 1, 6, 0, "six"},
        {'e', 1, 1, 7},
        {'f', 1, 1, 7, NIRPC_DUPLICATE, "seven"},
        {'f', 1, 1, 8, NIRPC_NEW}, // ends without a reply
        {'e', 1, 1, 8},
        {'f', 1, 1, 8, NIRPC_NEW},
        {'f', 1, 1, 8, NIRPC_NEW},
        {'f', 1, 1, 0, NIRPC_NEW}, // starts over
        {'f', 1, 1, 0, NIRPC_IN_PROGRESS},
        {'s', 1, 1, 0},
        {'e', 1, 1, 0},
        {'f', 1, 1, 0, NIRPC_DUPLICATE}, // a reply without bytes
        {'f', 2, 1, last, NIRPC_NEW},
        {'f', 2, 1, 1, NIRPC_NEW},
        {'s', 2, 1, last, 0, "late"},
        {'f', 2, 1, 1, NIRPC_IN_PROGRESS},
        {'s', 3, 1, 9, 0, "not fetched"},
        {'f', 3, 1, 9, NIRPC_DUPLICATE, "not fetched"},
        {'f', 4, 1, 1, NIRPC_NEW, "", AF_UNIX}, // cannot be told from others
        {'s', 4, 1, 1, 0, "", AF_UNIX},
        {'e', 4, 1, 1, 0, "", AF_UNIX},
        {'f', 4, 1, 1, NIRPC_NEW, "", AF_UNIX},
    };
    test::in_child([&steps] {
        for (const Step &step : steps) {
            SCOPED_TRACE(testing::Message() << "step " << &step - steps);
            Transport transport(step.caller, step.family);
            char reply[5]{};
            uint64_t length = 77;
            if (step.what == 's')
                nirpc_save(&transport, step.boot_time, step.xid, step.reply, std::strlen(step.reply), nullptr);
            else if (step.what == 'e')
                nirpc_set_finish(&transport, step.boot_time, step.xid);
            else
                EXPECT_EQ(nirpc_fetch(&transport, step.boot_time, step.xid, reply, 4, &length), step.answer);
            const std::string expected = step.reply;
            if (step.what == 'f') {
                EXPECT_EQ(length, step.answer == NIRPC_DUPLICATE ? expected.size() : 77);
                EXPECT_EQ(reply, expected.substr(0, 4));
            }
        }
        const nirpc_counters now = counters();
        EXPECT_TRUE(now.fetched_stale == 1 && now.fetched_duplicate == 5 && now.entries == 6 && now.replies == 2)
            << now.fetched_duplicate << ' ' << now.entries << ' ' << now.replies;
    });
}

TEST(NirpcExpiry, IsThreeHundredSecondsAfterTheSaveOfTheLatestCall)
{
    test::in_child([] {
        static int discarded = 0;
        for (unsigned caller = 10; caller < 3010; ++caller) // the index grows and shrinks with them
            EXPECT_EQ(call(caller, 1), NIRPC_NEW);
        save(1, 1, [](void *reply, int is_last) {
            discarded += std::memcmp(reply, "reply", 5) == 0 && is_last == 1 && fetch(2, 1) == NIRPC_NEW ? 1 : 100;
        });
        EXPECT_EQ(call(3, 1), NIRPC_NEW);
        run_after(200);
        EXPECT_TRUE(call(3, 2) == NIRPC_NEW && call(4, 1) == NIRPC_NEW && fetch(4, 2) == NIRPC_NEW);
        run_after(99);
        EXPECT_TRUE(discarded == 0 && fetch(1, 1) == NIRPC_DUPLICATE && counters().entries == 3003);
        run_after(2);
        EXPECT_TRUE(discarded == 1 && counters().entries == 3 && counters().expired == 3001);
        EXPECT_TRUE(fetch(1, 1) == NIRPC_NEW && fetch(3, 2) == NIRPC_DUPLICATE);
        run_after(197);
        EXPECT_TRUE(fetch(3, 2) == NIRPC_DUPLICATE);
        run_after(4);
        EXPECT_TRUE(fetch(4, 2) == NIRPC_IN_PROGRESS && fetch(3, 2) == NIRPC_NEW && counters().replies == 0);
        save(4, 2); // its expiry begins anew
        run_after(301);
        EXPECT_TRUE(fetch(4, 2) == NIRPC_NEW && counters().expired == 3003);
    });
}

// The loop expires what another thread fetches and saves; no call is mistaken for another, and nothing is left.
TEST(NirpcExpiry, RacesWithFetchesAndSaves)
{
    test::in_child([] {
        std::thread other([] {
            for (uint64_t xid = 1; xid <= 3000; ++xid) {
                for (const unsigned caller : {1U, 2U, 3U}) {
                    EXPECT_TRUE(fetch(caller, xid) == NIRPC_NEW && fetch(caller, xid) == NIRPC_IN_PROGRESS);
                    save(caller, xid);
                    finish(caller, xid);
                }
                set_clock(301);
            }
            rt_shutdown();
        });
        run_after(0);
        rt_run();
        other.join();
        run_after(301);
        const nirpc_counters now = counters();
        EXPECT_TRUE(now.entries == 0 && now.replies == 0 && now.bytes == 0 && now.expired > 10) << now.expired;
    });
}

TEST(Nirpc, AForkedChildFindsTheCacheWholeAndFree)
{
    for (const int kind : {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC, VLTHREAD_FORK_CONTINUE, VLTHREAD_FORK_CONTINUE_3}) {
        test::in_child([kind] {
            constexpr unsigned callers = 300;
            std::atomic<bool> stops{false};
            std::vector<std::thread> threads;
            for (unsigned first : {0U, 1U})
                threads.emplace_back([&stops, first] {
                    for (uint64_t xid = 2; !stops; ++xid)
                        for (unsigned caller = first; caller < callers; caller += 2)
                            EXPECT_EQ(call(caller, xid), NIRPC_NEW);
                });
            while (counters().entries < callers)
                usleep(100);
            for (int i = 0; i < 20; ++i) {
                const pid_t pid = vlthread_fork(kind);
                if (pid == 0) {
                    for (unsigned caller = 0; caller < callers; ++caller)
                        EXPECT_TRUE(call(caller, 1) == NIRPC_STALE && call(caller, 1u << 30) == NIRPC_NEW);
                    _exit(counters().entries == callers && counters().replies == callers ? 0 : 2);
                }
                EXPECT_EQ(test::exit_status_of(pid), 0);
            }
            stops = true;
            for (std::thread &thread : threads)
                thread.join();
        });
    }
}

TEST(Nirpc, MisuseAndExhaustionEndTheProcess)
{
    test::expect_misuse({{[] {
                              save(1, 1);
                              save(1, 2);
                          },
                          "(entry->reply == NULL) failed: 'lib/ks/nirpc'"},
                         {[] {
                              Transport transport(1);
                              nirpc_save(&transport, 1, 1, "", UINT64_MAX / 4, nullptr);
                          },
                          "Unable to allocate storage.\nnoname: Error: ***ABORT***  'lib/ks/nirpc'"}});
}

TEST(Nirpc, TellsStaleCallsAtLevelTwoAndAllAtThree)
{
    const std::string stale =
        "Hnirpc: stale RPC packet received: \nH\t\t\t\\(caller, boot_time, xid\\)\n"
        "H\tStale RPC req:\\[10.0.0.1\\]:2001 1a 6\nH\tLast cached RPC:\\[10.0.0.1\\]:2001 1a 8\n";
    const std::string all = "HT fetch 1a.7 new\nHT found E 1a.7\nHT fetch E 1a.7 new incr 8\nHT found E 1a.8\n" +
                            stale +
                            "HT fetch 1a.8 stale 6\nHT found E 1a.8\nHT save E 1a.8 replace 8\nHT found E 1a.8\n"
                            "HT fetch E 1a.8 inprog 8\nHT found E 1a.8\nHT finish E 1a.8 from 8\nHT found E 1a.8\n"
                            "HT fetch E 1a.8 duplicate 8\nHT save 1a.1 brand new\nHT finish 1a.1 not found\n"
                            "HT fetch 1a.1 new\nHT found E 1a.1\nHT finish E 1a.1 from 1\nHT found E 1a.1\n"
                            "HT fetch E 1a.1 new noreply 1\n";
    const std::vector<std::string> expected = {"", stale, all};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto result = test::run_child([level = std::to_string(i + 1)] {
            setenv("TRACE_SUBSYS", "ks", 1);
            setenv("TRACE_VERBOSITY", level.c_str(), 1);
            for (const uint64_t xid : {7UL, 8UL, 6UL})
                (void)fetch(1, xid);
            save(1, 8);
            (void)fetch(1, 8);
            finish(1, 8);
            (void)fetch(1, 8);
            save(2, 1);
            finish(3, 1);
            (void)fetch(4, 1);
            finish(4, 1);
            (void)fetch(4, 1);
        });
        std::string expression;
        for (const char each : expected[i])
            expression += each == 'H'   ? ">>> [0-9:.]+ \\(noname\\): "
                          : each == 'T' ? "[0-9a-f]+"
                          : each == 'E' ? "0x[0-9a-f]+"
                                        : std::string(1, each);
        EXPECT_TRUE(test::matches(result.err, expression)) << result.err << expression;
    }
}

} // namespace
