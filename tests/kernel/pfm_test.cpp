// Raises, cleanup records, inhibits and the end of the process.
#include "harness/child.h"
#include "harness/msg_recorder.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <unistd.h>

namespace {

// Everything here starts the fault manager, so it runs in children; `steps` collects what happened.
std::string steps;

void note(const char *step)
{
    steps += step;
    steps += ' ';
}

void expect_steps(const char *expected, const std::function<void()> &body)
{
    const auto result = test::run_child([&] {
        pfm_init();
        body();
        (void)!write(STDOUT_FILENO, steps.data(), steps.size());
        return 0;
    });
    EXPECT_EQ(result.out, expected) << result.err;
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

void note_count(const char *what, int32_t count)
{
    note((what + std::to_string(count)).c_str());
}

TEST(PfmRaise, GoesToTheInnermostRecordAndOutward)
{
    expect_steps("inner5 in1 outer6 in1 after0 ", [] {
        const int32_t status = ks::protect([] {
            const int32_t inner = ks::protect([] {
                note_count("inner", 5);
                pfm_raise(5);
                note("unreachable");
            });
            note_count("in", pfm_inhibit_count());
            pfm_raise(inner + 1);
        });
        note_count("outer", status);
        note_count("in", pfm_inhibit_count());
        pfm_enable();
        note_count("after", pfm_inhibit_count());
    });
}

TEST(PfmRaise, WaitsForTheLastInhibitAndTheLastCountedLock)
{
    expect_steps("held4 still4 caught4 relocked4 unlocked4 caught4 ", [] {
        int32_t status = ks::protect([] {
            pfm_inhibit();
            pfm_inhibit();
            vlthread_notify_raise(4);
            pfm_test_raise(nullptr);
            note_count("held", vlthread_pending_raise(nullptr));
            pfm_enable();
            note_count("still", vlthread_pending_raise(nullptr));
            pfm_enable();
            note("unreachable");
        });
        note_count("caught", status);
        pfm_enable();
        static vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
        status = ks::protect([] {
            vlthread_mutex_lock(&mutex);
            vlthread_notify_raise(4);
            pfm_inhibit(); // not taken here: the lock holds it off
            pfm_enable();
            note_count("relocked", vlthread_pending_raise(nullptr));
            vlthread_mutex_unlock(&mutex); // releasing delivers nothing
            note_count("unlocked", vlthread_pending_raise(nullptr));
            pfm_test_raise(nullptr);
            note("unreachable");
        });
        note_count("caught", status);
    });
}

TEST(PfmRaise, EachDeliveryCheckDelivers)
{
    struct Check {
        const char *name;
        void (*act)();
    };
    static const Check checks[] = {
        {"inhibit", [] { pfm_inhibit(); }},
        {"inhibit_suspend", [] { pfm_inhibit_suspend(); }},
        {"count", [] { (void)pfm_inhibit_count(); }},
        {"suspend_count", [] { (void)pfm_inhibit_suspend_count(); }},
        {"test", [] { pfm_test_raise(nullptr); }},
        {"test_block", [] { pfm_test_raise(pfm_tls_get()); }},
        {"start",
         [] {
             pfm_cleanup_rec rec{};
             (void)pfm_cleanup_start(&rec, 0);
         }},
    };
    for (const Check &check : checks) {
        SCOPED_TRACE(check.name);
        expect_steps("caught4 pending0 in1 ", [&check] {
            const int32_t status = ks::protect([&check] {
                vlthread_notify_raise(4);
                check.act();
                note("unreachable");
            });
            note_count("caught", status);
            note_count("pending", vlthread_pending_raise(nullptr));
            note_count("in", pfm_inhibit_count());
        });
    }
}

TEST(PfmCleanup, RestoresCountsAndCanBeArmedAgain)
{
    expect_steps("inside2:1 tripped2:0 again1 second7 released0 ", [] {
        static pfm_cleanup_rec rec;
        volatile int round = 0;
        pfm_inhibit();
        rec = {};
        rec.status = sigsetjmp(rec.jump, 1);
        const int32_t status = pfm_cleanup_start(&rec, 0);
        if (status == 0) {
            pfm_inhibit();
            pfm_inhibit_suspend();
            note((std::string("inside") + std::to_string(pfm_inhibit_count()) + ":" +
                  std::to_string(pfm_inhibit_suspend_count()))
                     .c_str());
            pfm_raise(6);
        }
        if (round == 0) {
            round = 1;
            note((std::string("tripped") + std::to_string(pfm_inhibit_count()) + ":" +
                  std::to_string(pfm_inhibit_suspend_count()))
                     .c_str());
            pfm_cleanup_reset(&rec);
            note_count("again", pfm_inhibit_count());
            pfm_raise(7);
        }
        note_count("second", status);
        pfm_enable();
        pfm_enable();
        note_count("released", pfm_inhibit_count());
    });
}

TEST(PfmCleanup, InhibitArgumentAndNegativeStatus)
{
    expect_steps("started1 neg-3 in1 ", [] {
        pfm_cleanup_rec rec{};
        (void)pfm_cleanup_start(&rec, 1);
        note_count("started", pfm_inhibit_count());
        pfm_cleanup_rec other{};
        other.status = -3;
        note_count("neg", pfm_cleanup_start(&other, 1));
        note_count("in", pfm_inhibit_count());
        pfm_cleanup_rls(&rec);
    });
}

TEST(PfmCleanup, MisuseEndsTheProcess)
{
    struct Misuse {
        void (*act)();
        const char *text;
    };
    static const Misuse cases[] = {
        {[] {
             pfm_cleanup_rec outer{};
             pfm_cleanup_rec inner{};
             (void)pfm_cleanup_start(&outer, 0);
             (void)pfm_cleanup_start(&inner, 0);
             pfm_cleanup_rls(&outer);
         },
         "PFM_ASSERT:(cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET) failed: 'lib/ks/pfm':1136\n"},
        {[] {
             pfm_cleanup_rec rec{};
             (void)pfm_cleanup_start(&rec, 0);
             (void)pfm_cleanup_start(&rec, 0);
         },
         "PFM_ASSERT:(cl_tmp != cl_rec) failed: 'lib/ks/pfm':1073\n"},
        {[] {
             pfm_cleanup_rec rec{};
             (void)pfm_cleanup_start(&rec, 0);
             pfm_cleanup_reset(&rec);
         },
         "PFM_ASSERT:(cl_rec->magic == MAGIC_TRIPPED) failed: 'lib/ks/pfm':1151\n"},
        {[] { pfm_enable(); }, "PFM_ASSERT:(inh_count >=0) failed: 'lib/ks/pfm':1218\n"},
        {[] { (void)pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr); },
         "PFM_ASSERT:(pfm_inh_count == 1) failed: 'lib/ks/pfm':1314\n"},
        {[] {
             pfm_cleanup_rec rec{};
             (void)pfm_cleanup_start(&rec, 0);
             rec.thr_id = 1;
             pfm_raise(3);
         },
         "PFM_ASSERT:(vlthread_equal(vlthread_self(), cl_rec_root->thr_id)) failed: 'lib/ks/pfm':1018\n"},
        {[] { pfm_proc_init(PFM_PROCESS_INVALID); },
         "PFM_ASSERT:(proc_type != PFM_PROCESS_INVALID) failed: 'lib/ks/pfm':1572\n"},
        {[] { pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGINT); },
         "PFM_ASSERT:(sig == SIGCHLD) failed: 'lib/ks/pfm':1502\n"},
        {[] { pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD); },
         "PFM_ASSERT:(block_total >= 0) failed: 'lib/ks/pfm':1529\n"},
        {[] { pfm_proc_asignals(SIG_SETMASK); },
         "PFM_ASSERT:(how == SIG_BLOCK || how == SIG_UNBLOCK) failed: 'lib/ks/pfm':524\n"},
        {[] { pfm_panic("lib/x", 12); }, "***ABORT***  'lib/x':12\n"},
    };
    for (const Misuse &misuse : cases) {
        SCOPED_TRACE(misuse.text);
        const auto result = test::run_child([&misuse] {
            pfm_init();
            misuse.act();
            return 0;
        });
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.err, misuse.text);
    }
}

TEST(PfmSelect, IsInterruptedByANotification)
{
    expect_steps("early-1:4 late-1:4 flushed0 caught4 ", [] {
        const int32_t status = ks::protect([] {
            pfm_inhibit();
            ks_fd_set fds;
            ks_fd_zero(&fds);
            pfm_notify_vl_thread(4); // before the wait
            int ready = pfm_select_inhibited(0, &fds, nullptr, nullptr, nullptr);
            note((std::string("early") + std::to_string(ready) + ":" + std::to_string(errno)).c_str());
            vlthread_t thread;
            vlthread_create(
                &thread, nullptr,
                [](void *) -> void * {
                    pfm_notify_vl_thread(4);
                    return nullptr;
                },
                nullptr);
            ready = pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr);
            note((std::string("late") + std::to_string(ready) + ":" + std::to_string(errno)).c_str());
            vlthread_join(thread, nullptr);
            timeval now{};
            note_count("flushed", pfm_select_inhibited(0, nullptr, nullptr, nullptr, &now));
            pfm_enable();
            note("unreachable");
        });
        note_count("caught", status);
    });
}

TEST(PfmSelect, LeavesOtherDescriptorsAsSelectDoes)
{
    expect_steps("ready1 has1 bit1 ", [] {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        (void)!write(fds[1], "x", 1);
        ks_fd_set set;
        ks_fd_zero(&set);
        ks_fd_add(&set, fds[0]);
        pfm_inhibit();
        note_count("ready", pfm_select_inhibited(fds[0] + 1, &set, nullptr, nullptr, nullptr));
        note_count("has", ks_fd_has(&set, fds[0]));
        ks_fd_add(&set, KS_FD_MAX);
        note_count("bit", ks_fd_has(&set, KS_FD_MAX));
        pfm_enable();
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

void print_handler(int status, void *arg)
{
    printf("%s%d ", static_cast<const char *>(arg), status);
    fflush(stdout);
}

char first[] = "first";
char second[] = "second";

TEST(PfmExit, RunsHandlersNewestFirstAndEndsTheThread)
{
    const auto result = test::run_child([] {
        expected_threads = threads_at_first();
        const int before = test::open_descriptor_count();
        pfm_on_exit(print_handler, first);
        pfm_on_exit(print_handler, second);
        pfm_set_exit([](int status) {
            printf("alone%d ", test::threads_settle_at(expected_threads));
            fflush(stdout);
            exit(status);
        });
        printf("started%d ", test::open_descriptor_count() > before);
        pfm_exit(3);
        return 99;
    });
    EXPECT_EQ(result.out, "started1 second3 first3 alone1 ");
    EXPECT_EQ(result.exit_status, 3);
}

TEST(PfmExit, RaiseWithoutRecordExitsWithItsStatus)
{
    const auto result = test::run_child([] {
        pfm_on_exit(print_handler, first);
        vlthread_notify_raise(4);
        pfm_test_raise(nullptr);
        return 99;
    });
    EXPECT_EQ(result.out, "first4 ");
    EXPECT_EQ(result.exit_status, 4);
}

TEST(PfmExit, PlainExitRunsHandlersWithStatusZero)
{
    const auto result = test::run_child([] {
        pfm_on_exit(print_handler, first);
        exit(5);
        return 99;
    });
    EXPECT_EQ(result.out, "first0 ");
    EXPECT_EQ(result.exit_status, 5);
}

TEST(PfmExit, OtherThreadsEndAlone)
{
    const auto result = test::run_child([] {
        pfm_init();
        vlthread_t thread;
        const auto start = [](void *) -> void * {
            vlthread_notify_raise(6); // a record-less thread's delivery is its end
            pfm_test_raise(nullptr);
            return nullptr;
        };
        vlthread_create(&thread, nullptr, start, nullptr);
        void *value = nullptr;
        vlthread_join(thread, &value);
        vlthread_reset_raise(nullptr);
        pfm_exit(value == reinterpret_cast<void *>(6) ? 0 : 1);
        return 99;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmExit, HandlersOfExitMayUseTheLibrary)
{
    const auto result = test::run_child([] {
        expected_threads = threads_at_first();
        pfm_init();
        atexit([] {
            vlthread_notify_raise(4); // whatever is pending, the process is ending already
            pfm_inhibit();
            pfm_enable();
            pfm_test_raise(nullptr);
            printf("alone%d", test::threads_settle_at(expected_threads));
        });
        pfm_exit(3);
        return 99;
    });
    EXPECT_EQ(result.out, "alone1");
    EXPECT_EQ(result.exit_status, 3);
}

TEST(PfmExit, RoutineThatReturnsLeavesAManagerThatStartsAgain)
{
    const auto result = test::run_child([] {
        const int descriptors = test::open_descriptor_count();
        const int threads = threads_at_first();
        for (int round = 0; round < 3; ++round) {
            pfm_on_exit(print_handler, first);
            pfm_set_exit([](int) {});
            pfm_exit(round);
            if (test::open_descriptor_count() != descriptors || !test::threads_settle_at(threads) ||
                pfm_proc() != PFM_PROCESS_INVALID)
                return 1;
        }
        const int32_t status = ks::protect([] { pfm_raise(8); });
        return status == 8 ? 0 : 2;
    });
    EXPECT_EQ(result.out, "first0 first1 first2 ");
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(PfmProcessType, IsChosenOnce)
{
    struct Case {
        pfm_proc_type chosen;
        bool catches_int; // SIGINT has a handler of the library
    };
    for (const Case &c :
         {Case{PFM_PROCESS_ORDINARY, true}, Case{PFM_PROCESS_CHAINING, true}, Case{PFM_PROCESS_SAFE, false}}) {
        const auto result = test::run_child([c] {
            if (c.chosen == PFM_PROCESS_SAFE) {
                if (pfm_external_proc_init() != PFM_PROCESS_INVALID || pfm_external_proc_init() != PFM_PROCESS_SAFE)
                    return 1;
            } else {
                pfm_proc_init(c.chosen);
            }
            pfm_proc_init(PFM_PROCESS_ORDINARY); // a type is set: nothing
            struct sigaction action = {};
            sigaction(SIGINT, nullptr, &action);
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            const bool blocks = sigismember(&blocked, SIGTERM) == 1;
            return pfm_proc() == c.chosen && (action.sa_handler != SIG_DFL) == c.catches_int &&
                           blocks == (c.chosen == PFM_PROCESS_ORDINARY)
                       ? 0
                       : 2;
        });
        EXPECT_EQ(result.exit_status, 0) << c.chosen << result.err;
    }
}

TEST(PfmProcessType, ChainingDeliversAtRelease)
{
    const auto result = test::run_child([] {
        pfm_proc_init(PFM_PROCESS_CHAINING);
        const int32_t outer = ks::protect([] {
            const int32_t inner = ks::protect([] { vlthread_notify_raise(4); }); // taken by the release
            pfm_raise(inner + 10);
        });
        if (outer != 14)
            return 1;
        pfm_enable();
        pfm_exit(2); // returns while the exit routine is exit()
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

} // namespace
