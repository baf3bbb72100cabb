// Raises, cleanup records, inhibits and the end of the process.
#include "harness/child.h"
#include "harness/misuse.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <unistd.h>

namespace {

pfm_cleanup_rec outer_rec{};
pfm_cleanup_rec inner_rec{};

TEST(PfmCleanup, RestoresCountsAndCanBeArmedAgain)
{
    test::in_child([] {
        static pfm_cleanup_rec rec{};
        static int round = 0;
        pfm_inhibit();
        rec.status = sigsetjmp(rec.jump, 1);
        const int32_t status = pfm_cleanup_start(&rec, 0);
        if (++round == 1) {
            pfm_inhibit();
            pfm_inhibit_suspend();
            EXPECT_EQ(pfm_inhibit_count(), 2);
            EXPECT_EQ(pfm_inhibit_suspend_count(), 1);
            pfm_raise(6);
        }
        EXPECT_EQ(status, 4 + round); // 6, then 7
        EXPECT_EQ(pfm_inhibit_count(), 2);
        EXPECT_EQ(pfm_inhibit_suspend_count(), 0);
        if (round == 2) {
            pfm_cleanup_reset(&rec);
            EXPECT_EQ(pfm_inhibit_count(), 1);
            pfm_raise(7);
        }
        EXPECT_EQ(round, 3);
    });
}

TEST(PfmCleanup, InhibitArgumentAndNegativeStatus)
{
    test::in_child([] {
        pfm_cleanup_rec rec{};
        (void)pfm_cleanup_start(&rec, 1);
        EXPECT_EQ(pfm_inhibit_count(), 1);
        pfm_cleanup_rec other{};
        other.status = -3;
        EXPECT_EQ(pfm_cleanup_start(&other, 1), -3);
        EXPECT_EQ(pfm_inhibit_count(), 1);
        pfm_cleanup_rls(&rec);
    });
}

TEST(PfmMisuse, EndsTheProcess)
{
    test::expect_misuse({
        {[] { pfm_cleanup_start(&outer_rec, 0), pfm_cleanup_start(&inner_rec, 0), pfm_cleanup_rls(&outer_rec); },
         "PFM_ASSERT:(cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET) failed: 'lib/ks/pfm':1136\n"},
        {[] { pfm_cleanup_start(&outer_rec, 0), pfm_cleanup_start(&outer_rec, 0); },
         "PFM_ASSERT:(cl_tmp != cl_rec) failed: 'lib/ks/pfm':1073\n"},
        {[] { pfm_cleanup_start(&outer_rec, 0), pfm_cleanup_reset(&outer_rec); },
         "PFM_ASSERT:(cl_rec->magic == MAGIC_TRIPPED) failed: 'lib/ks/pfm':1151\n"},
        {[] { pfm_cleanup_start(&outer_rec, 0), outer_rec.thr_id = 1, pfm_raise(3); },
         "PFM_ASSERT:(vlthread_equal(vlthread_self(), cl_rec_root->thr_id)) failed: 'lib/ks/pfm':1018\n"},
        {pfm_enable, "PFM_ASSERT:(inh_count >=0) failed: 'lib/ks/pfm':1218\n"},
        {[] { (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr); },
         "PFM_ASSERT:(pfm_inh_count == 1) failed: 'lib/ks/pfm':1314\n"},
        {[] { pfm_proc_init(PFM_PROCESS_INVALID); },
         "PFM_ASSERT:(proc_type != PFM_PROCESS_INVALID) failed: 'lib/ks/pfm':1572\n"},
        {[] { pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGINT); },
         "PFM_ASSERT:(sig == SIGCHLD) failed: 'lib/ks/pfm':1502\n"},
        {[] { pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD); },
         "PFM_ASSERT:(block_total >= 0) failed: 'lib/ks/pfm':1529\n"},
        {[] { pfm_proc_asignals(SIG_SETMASK); },
         "PFM_ASSERT:(how == SIG_BLOCK || how == SIG_UNBLOCK) failed: 'lib/ks/pfm':524\n"},
        {[] { (void)pfm_external_proc_init(), pfm_signal(SIGINT, [](int) {}); },
         "PFM_ASSERT:(!pfm_in_safe_mode() || pfm_is_safemode_signal(sig)) failed: 'lib/ks/pfm':953\n"},
        {[] { pfm_panic("lib/x", 12); }, "***ABORT***  'lib/x':12\n"},
    });
}

// Few entries and more than are copied on the stack; inhibited twice, which no select may be.
TEST(PfmPoll, IsPollUntilANotificationArrives)
{
    test::in_child([] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        EXPECT_EQ(ks::protect([&] {
                      pfm_inhibit();
                      pfm_inhibit();
                      for (const nfds_t count : {nfds_t{2}, nfds_t{300}}) {
                          std::vector<pollfd> fds(count, pollfd{ends[0], POLLIN, 7});
                          EXPECT_EQ(pfm_poll_inhibited(fds.data(), count, 1), 0);
                          EXPECT_EQ(fds[1].revents, 0);
                          fds[1] = {ends[1], POLLOUT, 0};
                          EXPECT_EQ(pfm_poll_inhibited(fds.data(), count, -1), 1);
                          EXPECT_EQ(fds[1].revents, POLLOUT);
                          fds[1].events = 0;
                          std::thread notifier(pfm_notify_vl_thread, 4);
                          EXPECT_EQ(pfm_poll_inhibited(fds.data(), count, -1), -1);
                          EXPECT_EQ(errno, EINTR);
                          notifier.join();
                      }
                      pfm_enable();
                      pfm_enable();
                      ADD_FAILURE() << "not taken by the last enable";
                  }),
                  4);
    });
}

// Exit ---------------------------------------------------------------------------------------------

// Threads of this process before the library starts one; a sanitizer may start one of its own
// beside the first.
int threads_at_first()
{
    std::thread([] {}).join();
    int count = 0;
    do {
        count = test::thread_count();
        usleep(1000);
    } while (count != test::thread_count());
    return count;
}

int expected_threads = 0;

void print_status(int status, void *name)
{
    std::printf("%s%d ", static_cast<const char *>(name), status);
    std::fflush(stdout);
}

void print_alone()
{
    std::printf("alone%d ", test::threads_settle_at(expected_threads));
    std::fflush(stdout);
}

char first[] = "first";
char second[] = "second";

TEST(PfmExit, RunsHandlersNewestFirstAndEndsTheThread)
{
    struct Way {
        void (*act)();
        const char *out;
        int status;
    };
    const Way ways[] = {
        {[] {
             pfm_set_exit([](int status) { print_alone(), exit(status); });
             pfm_exit(3);
         },
         "second3 first3 alone1 ", 3},
        {[] { exit(5); }, "second0 first0 ", 5},
        {[] { vlthread_notify_raise(4), pfm_test_raise(nullptr); }, "second4 first4 ", 4}, // no record to go to
        {[] {
             atexit([] { // whatever is pending, the process is ending already
                 vlthread_notify_raise(4);
                 pfm_inhibit();
                 pfm_enable();
                 pfm_test_raise(nullptr);
                 print_alone();
             });
             pfm_exit(6);
         },
         "second6 first6 alone1 ", 6},
    };
    for (const Way &way : ways) {
        const auto result = test::run_child([&way] {
            expected_threads = threads_at_first();
            pfm_on_exit(print_status, first);
            pfm_on_exit(print_status, second);
            way.act();
            return 99;
        });
        EXPECT_EQ(result.out, way.out);
        EXPECT_EQ(result.exit_status, way.status);
    }
}

TEST(PfmExit, OtherThreadsEndAlone)
{
    test::in_child([] {
        pfm_init();
        vlthread_t thread;
        const auto start = [](void *argument) -> void * {
            vlthread_notify_raise(6); // the delivery to a thread without a record is its end
            pfm_test_raise(nullptr);
            return argument;
        };
        ASSERT_EQ(vlthread_create(&thread, nullptr, start, nullptr), 0);
        void *value = nullptr;
        vlthread_join(thread, &value);
        EXPECT_EQ(value, reinterpret_cast<void *>(6));
        vlthread_reset_raise(nullptr);
        pfm_exit(0);
        ADD_FAILURE() << "the process goes on";
    });
}

TEST(PfmExit, RoutineThatReturnsLeavesAManagerThatStartsAgain)
{
    const auto result = test::run_child([] {
        const int descriptors = test::open_descriptor_count();
        const int threads = threads_at_first();
        for (int round = 0; round < 3; ++round) {
            pfm_on_exit(print_status, first);
            pfm_set_exit([](int) {});
            pfm_exit(round);
            EXPECT_EQ(test::open_descriptor_count(), descriptors);
            EXPECT_TRUE(test::threads_settle_at(threads));
            EXPECT_EQ(pfm_proc(), PFM_PROCESS_INVALID);
        }
        EXPECT_EQ(ks::protect([] { pfm_raise(8); }), 8);
    });
    EXPECT_EQ(result.out, "first0 first1 first2 ");
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

// Process types ------------------------------------------------------------------------------------

TEST(PfmProcessType, IsChosenOnce)
{
    for (const pfm_proc_type chosen : {PFM_PROCESS_ORDINARY, PFM_PROCESS_CHAINING, PFM_PROCESS_SAFE}) {
        SCOPED_TRACE(chosen);
        test::in_child([chosen] {
            if (chosen == PFM_PROCESS_SAFE) {
                EXPECT_EQ(pfm_external_proc_init(), PFM_PROCESS_INVALID);
                EXPECT_EQ(pfm_external_proc_init(), PFM_PROCESS_SAFE);
            } else {
                pfm_proc_init(chosen);
            }
            pfm_proc_init(PFM_PROCESS_ORDINARY); // a type is set: nothing
            EXPECT_EQ(pfm_proc(), chosen);
            struct sigaction action = {};
            sigaction(SIGINT, nullptr, &action);
            EXPECT_EQ(action.sa_handler == SIG_DFL, chosen == PFM_PROCESS_SAFE);
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            EXPECT_EQ(sigismember(&blocked, SIGTERM), chosen == PFM_PROCESS_ORDINARY ? 1 : 0);
        });
    }
}

TEST(PfmProcessType, ChainingDeliversAtRelease)
{
    test::in_child([] {
        pfm_proc_init(PFM_PROCESS_CHAINING);
        EXPECT_EQ(ks::protect([] {
                      const int32_t released = ks::protect([] { vlthread_notify_raise(4); });
                      pfm_raise(released + 10);
                  }),
                  14);
        pfm_enable();
        pfm_exit(2); // returns while the exit routine is exit()
    });
}

} // namespace
