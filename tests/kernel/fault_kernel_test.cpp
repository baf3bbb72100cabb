// The thread layer and the fault manager under failing calls, and their delivery checks.
#include "harness/fault_sweep.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::End;
using test::fault::ends_of_start;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr const char *no_fault_block = " (pfm): [P#][T#]Unable to set PFM TLS #\n";
constexpr const char *no_pipe =
    "PFM_ASSERT:(pfm_setup_pipe(pfm_notify_pipe, FALSE, FALSE) == 0) failed: 'lib/ks/pfm':1859\n";
constexpr const char *no_entry =
    "PFM_ASSERT:((new = (struct on_exit_entry *)malloc(sizeof(struct on_exit_entry))) != NULL) failed: "
    "'lib/ks/pfm':801\n";
constexpr const char *no_exit_handler = "PFM_ASSERT:(atexit(pfm_atexit_handler) == 0) failed: 'lib/ks/pfm':#\n";
constexpr const char *no_fork_handlers =
    "vlthread_atfork(hold_modules, release_modules, release_modules_in_child) == 0 at 'vlthread':#\n";
constexpr const char *no_pfm_fork_handlers =
    "PFM_ASSERT:(vlthread_atfork(pfm_thread_fork_prepare, NULL, pfm_thread_fork_child) == 0) failed: "
    "'lib/ks/pfm':#\n";

// What a start of the fault manager ends with.
std::vector<End> ends_of_manager(std::vector<End> others = {})
{
    const End ends[] = {
        {Call::pipe, no_pipe},
        {Call::at_exit, no_exit_handler},
        {Call::allocation, no_fork_handlers},
        {Call::allocation, no_pfm_fork_handlers},
        {Call::allocation, no_fault_block},
        {Call::key, no_fault_block},
        {Call::allocation, ""}, // the entry on the state list, and the start of the signal-handler thread
        {Call::thread, ""},
        {Call::eventfd, ""},
    };
    others.insert(others.end(), std::begin(ends), std::end(ends));
    return others;
}

int result = 0;
int error = 0;

// --- Thread layer ---

vlthread_t thread{};
std::atomic<bool> is_released{false};
int runs_of_thread = 0;
void *value_of_thread = nullptr;

const Scenario threads{
    .name = "vlthread_create, vlthread_join",
    .setup =
        [] {
            runs_of_thread = 0;
            is_released = false;
        },
    .act =
        [] {
            result = vlthread_create(
                &thread, nullptr,
                [](void *argument) {
                    while (!is_released) // so that its calls come after the creator's
                        (void)sched_yield();
                    ++runs_of_thread;
                    return argument;
                },
                &result);
            is_released = true;
            if (result == 0)
                error = vlthread_join(thread, &value_of_thread);
        },
    .check = [](const Trial &trial) -> const char * {
        if (result == 0)
            return error == 0 && runs_of_thread == 1 && value_of_thread == &result ? nullptr : "the thread did not run";
        if (!trial.fired || runs_of_thread != 0)
            return "refused without a cause";
        return result == trial.plan.answer || result == EAGAIN ? nullptr : "not the error of the failing call";
    },
    .ends = {{Call::allocation, ""}, {Call::allocation, no_fault_block}, {Call::key, no_fault_block}},
};

long blocks_kept = 0;

TEST(FaultThreads, CreationAndHandlers)
{
    test::fault::sweep(threads);
    test::fault::sweep_first_use({
        .name = "vlthread_atfork",
        .act =
            [] {
                blocks_kept = -test::fault::blocks_outstanding();
                result = vlthread_atfork([](int) {}, [](int) {}, [](int) {});
                blocks_kept += test::fault::blocks_outstanding();
            },
        .check = [](const Trial &trial) -> const char * {
            if (!test::fault::can_fail_allocations())
                return nullptr;
            if (result == 0)
                return blocks_kept == 3 ? nullptr : "not all handlers are registered";
            return trial.fired && result == ENOMEM && blocks_kept == 0 ? nullptr : "half registered";
        },
    });
}

vlthread_mutex_t mutex;
vlthread_key_t key;
void *tls_block = nullptr;

TEST(FaultThreads, MutexesKeysAndBlocks)
{
    test::fault::sweep({
        .name = "vlthread_mutex_init",
        .act = [] { result = vlthread_mutex_init(&mutex); },
        .check = [](const Trial &trial) -> const char * {
            return result == (trial.fired ? trial.plan.answer : 0) ? nullptr : "not the error of the failing call";
        },
        .cleanup = [] { (void)vlthread_mutex_destroy(&mutex); },
    });
    test::fault::sweep({
        .name = "vlthread_key_create, vlthread_set_tls",
        .act =
            [] {
                result = vlthread_key_create(&key, nullptr);
                if (result != 0)
                    return;
                result = vlthread_set_tls(key, &result);
                (void)vlthread_key_delete(key);
            },
        .check = [](const Trial &trial) -> const char * {
            return result == (trial.fired ? trial.plan.answer : 0) ? nullptr : "not the error of the failing call";
        },
    });
    const Scenario blocks{
        .name = "vlthread_alloc_tls",
        .act = [] { tls_block = vlthread_alloc_tls(200); },
        .check = [](const Trial &trial) -> const char * {
            return (tls_block != nullptr) == !trial.fired ? nullptr : "the block does not tell of the failure";
        },
        .cleanup = [] { vlthread_free_tls(tls_block); },
        .ends = {{Call::allocation, "area != STG_AREA_NULL at 'vlthread':1670\n"},
                 {Call::mutex, "area != STG_AREA_NULL at 'vlthread':1670\n"}},
    };
    test::fault::sweep(blocks);
    test::fault::sweep_first_use({
        .name = "ks_tls_get",
        .act = [] { (void)ks_tls_get(); },
        .ends = ends_of_start({
            {Call::allocation, "***ABORT***  'include/tls_impl':140\n"},
            {Call::key, "***ABORT***  'include/tls_impl':140\n"},
            {Call::allocation, "area != STG_AREA_NULL at 'vlthread':1670\n"},
            {Call::mutex, "area != STG_AREA_NULL at 'vlthread':1670\n"},
        }),
    });
}

TEST(FaultThreads, SleepAndCriticalSection)
{
    test::fault::sweep({.name = "vlthread_sleep",
                        .act = [] { result = vlthread_sleep(2); },
                        .check = [](const Trial &) { return result == 0 ? nullptr : "not asleep"; }});
    const Scenario section{
        .name = "vlthread_enter_critical_section",
        .act =
            [] {
                vlthread_enter_critical_section();
                vlthread_enter_critical_section();
                vlthread_leave_critical_section();
                vlthread_leave_critical_section();
            },
        .check = [](const Trial &) { return vlthread_attached_tid() == 0 ? nullptr : "still attached"; },
        .cleanup = [] { (void)vlthread_try_attach_lib(); },
        .ends = ends_of_start(),
    };
    test::fault::sweep(section);
    test::fault::sweep_first_use(section);
}

// --- Start and end of the fault manager ---

TEST(FaultManager, Start)
{
    test::fault::sweep_first_use({.name = "pfm_init", .act = [] { pfm_init(); }, .ends = ends_of_manager()});
    test::fault::sweep_first_use({
        .name = "ks_system_init",
        .act = [] { (void)ks_system_init(); },
        .check = [](const Trial &) { return vlthread_try_attach_lib() == 0 ? nullptr : "not attached"; },
        .ends = ends_of_manager(),
    });
}

int exit_status = 0;
int on_exit_calls = 0;

TEST(FaultManager, ExitAndNewStart)
{
    test::fault::sweep_first_use({
        .name = "pfm_on_exit",
        .setup =
            [] {
                pfm_init();
                // Answered only by a signal-handler thread that has started.
                pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
                pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
            },
        .act = [] { pfm_on_exit([](int, void *) {}, nullptr); },
        .ends = {{Call::allocation, no_entry}},
    });
    test::fault::sweep_first_use({
        .name = "pfm_on_exit, pfm_exit",
        .setup =
            [] {
                exit_status = 0;
                on_exit_calls = 0;
            },
        .act =
            [] {
                pfm_init();
                (void)pfm_set_exit([](int status) { exit_status = status; });
                pfm_on_exit([](int status, void *) { on_exit_calls += status; }, nullptr);
                pfm_exit(7);
            },
        .check = [](const Trial &) { return exit_status == 7 && on_exit_calls == 7 ? nullptr : "no orderly end"; },
        .ends = ends_of_start({{Call::allocation, no_entry, true}}),
    });
}

// --- Notification and waiting ---

// What the failure of the notice is reported with.
bool is_reported(const Trial &trial)
{
    if (trial.plan.answer == test::fault::answer_short)
        return has_said("Warning: Notify send failed, 2 of 4 bytes sent.\n");
    char text[256];
    snprintf(text, sizeof text, "Warning: Notify send failed, error %d (%s)\n", trial.plan.answer,
             strerror(trial.plan.answer));
    return has_said(text);
}

TEST(FaultManager, Notice)
{
    test::fault::sweep({
        .name = "pfm_notify_vl_thread",
        .act = [] { pfm_notify_vl_thread(4); },
        .check = [](const Trial &trial) -> const char * {
            if (test::fault::take_raise() != 4)
                return "the raise is lost with its notice";
            return !trial.fired || is_reported(trial) ? nullptr : "no warning";
        },
    });
}

TEST(FaultManager, InterruptibleWait)
{
    const Scenario wait{
        .name = "pfm_select_inhibited",
        .act =
            [] {
                timeval none{0, 0};
                pfm_inhibit();
                errno = 0;
                result = pfm_select_inhibited(0, nullptr, nullptr, nullptr, &none);
                error = errno;
                pfm_enable();
            },
        .check = [](const Trial &trial) -> const char * {
            if (trial.failed(Call::select))
                return result == -1 && error == trial.plan.answer ? nullptr : "not the result of select()";
            return trial.fired || result == 0 ? nullptr : "nothing happened, and something was reported";
        },
    };
    test::fault::sweep(wait);
    test::fault::sweep_raises(wait);
    test::fault::sweep({
        .name = "pfm_select_inhibited with a raise pending",
        .setup = [] { pfm_notify_vl_thread(4); },
        .act =
            [] {
                ++pfm_tls_get()->pfm_inh_count; // pfm_inhibit() would take the raise
                result = pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr);
                error = errno;
                --pfm_tls_get()->pfm_inh_count;
            },
        .check = [](const Trial &trial) -> const char * {
            if (result != -1 || error != (trial.failed(Call::select) ? trial.plan.answer : EINTR))
                return "not interrupted";
            return test::fault::take_raise() == 4 ? nullptr : "the raise is lost";
        },
    });
}

// --- Signals ---

void first_handler(int) {}

void second_handler(int) {}

TEST(FaultManager, SignalRegistration)
{
    static pfm_signal_t previous = SIG_DFL;
    test::fault::sweep({
        .name = "pfm_signal",
        .setup = [] { (void)pfm_signal(SIGUSR1, first_handler); },
        .act =
            [] {
                errno = 0;
                previous = pfm_signal(SIGUSR1, second_handler);
                error = errno;
            },
        .check = [](const Trial &trial) -> const char * {
            if (trial.fired && (previous != SIG_ERR || error != EINVAL))
                return "the refusal is not reported";
            if (!trial.fired && previous != first_handler)
                return "not the handler before";
            const pfm_signal_t now = pfm_signal(SIGUSR1, SIG_DFL);
            return now == (trial.fired ? first_handler : second_handler) ? nullptr : "half registered";
        },
    });
    test::fault::sweep({
        .name = "pfm_signal_handler_chg_block_sig",
        .act =
            [] {
                pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
                pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
            },
    });
}

// --- Raises ---

TEST(FaultManager, RaisesAtEveryCheck)
{
    test::fault::sweep_raises({
        .name = "inhibits",
        .act =
            [] {
                pfm_inhibit();
                pfm_inhibit_suspend();
                (void)pfm_inhibit_count();
                pfm_enable_suspend();
                (void)pfm_inhibit_suspend_count();
                pfm_enable();
                pfm_test_raise(nullptr);
            },
    });
    static int caught = 0;
    test::fault::sweep_raises({
        .name = "records in records",
        .setup = [] { caught = 0; },
        .act =
            [] {
                const int32_t status = ks::protect([] {
                    const int32_t inner = ks::protect([] { pfm_test_raise(nullptr); });
                    if (inner != 0) {
                        ++caught;
                        pfm_raise(inner);
                    }
                });
                if (status != 0) {
                    ++caught;
                    pfm_raise(status);
                }
            },
        .check = [](const Trial &trial) -> const char * {
            return trial.fired == (trial.raised == 4) ? nullptr : "the raise did not reach the outer record";
        },
    });
    test::fault::sweep_raises({
        .name = "a counted lock",
        .setup = [] { (void)vlthread_mutex_init(&mutex); },
        .act =
            [] {
                const ks::LockGuard lock(mutex);
                pfm_test_raise(nullptr); // the lock holds it off
                pfm_inhibit();
                pfm_enable();
            },
        .check = [](const Trial &trial) { return trial.raised == 0 ? nullptr : "delivered under a lock"; },
        .cleanup = [] { (void)vlthread_mutex_destroy(&mutex); },
    });
}

// --- Fork ---

pid_t child = -1;
pid_t waited = -1;
int child_status = 0;
int kind_of_fork = 0;

// What a child of any kind can do.
[[noreturn]] void live_in_child()
{
    stg_area *area = stg_create_area(100);
    (void)stg_alloc(area, 10);
    stg_delete_area(&area);
    pfm_inhibit();
    pfm_enable();
    _exit(pfm_get_notify_channel() >= 0 ? 0 : 1);
}

const char *check_fork(const Trial &trial)
{
    if (child < 0)
        return trial.failed(Call::fork) && error == trial.plan.answer ? nullptr : "refused without a cause";
    if (waited != child)
        return "no child";
    const int status = child_status;
    if (WIFSIGNALED(status)) {
        const bool is_named = (trial.failed(Call::pipe) && has_said(no_pipe)) || trial.failed(Call::eventfd) ||
                              trial.failed(Call::thread) || trial.failed(Call::key) || trial.failed(Call::allocation) ||
                              trial.failed(Call::mutex);
        return WTERMSIG(status) == SIGABRT && is_named ? nullptr : "the child ended by a signal";
    }
    return WEXITSTATUS(status) == 0 ? nullptr : "the child cannot go on";
}

TEST(FaultManager, Fork)
{
    static constexpr void (*set_kind[])() = {[] { kind_of_fork = 0; }, [] { kind_of_fork = 1; },
                                             [] { kind_of_fork = 2; }, [] { kind_of_fork = 3; }};
    for (auto *setup : set_kind) {
        test::fault::sweep({
            .name = "vlthread_fork",
            .setup = setup,
            .act =
                [] {
                    child = vlthread_fork(kind_of_fork);
                    error = errno;
                    if (child == 0)
                        live_in_child();
                    waited = waitpid(child, &child_status, 0);
                },
            .check = check_fork,
        });
    }
}

} // namespace
