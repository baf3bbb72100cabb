// Forks of each kind while other threads lock, allocate, print, read dates and the environment, also
// under locks that fork handlers take: no fork and no child is stuck, and each can do all of it.
#include "harness/child.h"
#include "harness/forked.h"

#include <korvaks/date.h>
#include <korvaks/evutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int worker_count = 8;
constexpr int date_style = 2;

// How many forks of each kind; more with KORVAKS_FORKS in the environment.
int forks_of_each_kind()
{
    const char *asked = std::getenv("KORVAKS_FORKS");
    return asked != nullptr ? std::atoi(asked) : 50;
}

char trace_threads[] = "TRACE_VLTHREAD=TRUE";
char trace_everything[] = "TRACE_SUBSYS=*";
char trace_level[] = "TRACE_VERBOSITY=9";

std::atomic<bool> stop{false};
vlthread_mutex_t shared_mutex = VLTHREAD_MUTEX_INITIALIZER;
stg_area *shared_area = STG_AREA_NULL;

bool use_library(unsigned round)
{
    stg_area *area = stg_create_area(128);
    const bool allocated = stg_alloc(area, 64) != nullptr && stg_alloc(shared_area, 16) != nullptr;
    stg_delete_area(&area);
    char value[64];
    const bool read = getenv_safe("PATH", value, sizeof value, 0) != nullptr;
    std::time_t time = 0;
    const bool dated = date_fmt_set_default_style(date_style) == date_style && date_str_to_time("now", 0, &time) == 0;
    return imsg_print(0, &_imsg_ks_msg_table, 14) == 0 && read && dated && allocated &&
           pfm_set_exit(std::exit) == static_cast<pfm_exit_routine>(std::exit) &&
           (round % 32 != 0 || imsg_print(4, &_ks_ks_msg_table, 23) == 0);
}

// Two of the program's own, which its fork handlers take: one registered before the library started,
// one after. Whoever holds one uses the library.
std::array<std::mutex, 2> program_mutexes;

template <std::size_t index> void register_handlers()
{
    const auto after = [](int) {
        EXPECT_TRUE(use_library(0));
        program_mutexes[index].unlock();
    };
    const auto prepare = [](int) {
        program_mutexes[index].lock();
        EXPECT_TRUE(use_library(0));
    };
    EXPECT_EQ(vlthread_atfork(prepare, after, after), 0);
}

bool use_everything(unsigned round)
{
    vlthread_mutex_lock(&shared_mutex);
    vlthread_mutex_unlock(&shared_mutex);
    const std::lock_guard lock(program_mutexes[round % program_mutexes.size()]);
    return use_library(round);
}

void work()
{
    for (unsigned round = 0; !stop; ++round) {
        if (!use_everything(round))
            std::abort();
        if (round % 1000 == 0)
            stg_free_area(shared_area, 1);
    }
}

void fork_under_load(int kind, int forks)
{
    const int quiet = open("/dev/null", O_WRONLY);
    dup2(quiet, 1);
    dup2(quiet, 2);
    register_handlers<0>();
    ks_system_init();
    register_handlers<1>();
    (void)date_fmt_set_default_style(date_style);
    shared_area = stg_create_area(4096);
    std::vector<std::thread> workers;
    for (int i = 0; i < worker_count; ++i)
        workers.emplace_back(work);
    for (int i = 0; i < forks && !testing::Test::HasFailure(); ++i) {
        // The attached thread of the parent holds a counted lock and an inhibit across the fork.
        vlthread_mutex_lock(&shared_mutex);
        pfm_inhibit();
        const pid_t pid = vlthread_fork(kind);
        if (pid == 0) {
            pfm_enable();
            vlthread_mutex_unlock(&shared_mutex);
            _exit(use_everything(0) && use_everything(1) ? 0 : 2);
        }
        pfm_enable();
        vlthread_mutex_unlock(&shared_mutex);
        EXPECT_EQ(test::exit_status_of(pid), 0) << "child " << i;
    }
    stop = true;
    for (std::thread &worker : workers)
        worker.join();
    stg_delete_area(&shared_area);
}

void fork_in_each_kind(int forks, bool is_traced)
{
    for (const int kind : {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC, VLTHREAD_FORK_CONTINUE, VLTHREAD_FORK_CONTINUE_3}) {
        const auto result = test::run_child(
            [=] {
                if (is_traced)
                    for (char *setting : {trace_threads, trace_everything, trace_level})
                        putenv(setting);
                fork_under_load(kind, forks);
            },
            110000);
        EXPECT_EQ(result.exit_status, 0) << "kind " << kind;
        EXPECT_FALSE(result.timed_out);
    }
}

TEST(ForkLoad, NoChildOfAnyKindIsStuck)
{
    fork_in_each_kind(forks_of_each_kind(), false);
}

// Traces are printed under nearly every lock there is. Debug builds end on a lock out of order.
TEST(ForkLoad, NoLockIsOutOfOrderWithEveryTraceOn)
{
    fork_in_each_kind(5, true);
}

} // namespace
