// What threads, forks, signals and ends do to each other at the worst moment. Each case once hung, aborted
// or lost something; all of them run against the whole library, in children with a deadline.
#include "harness/child.h"
#include "harness/forked.h"
#include "harness/misuse.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Threads that do one thing until they are told to stop.
class Workers {
  public:
    template <typename Work> Workers(int count, Work work)
    {
        for (int i = 0; i < count; ++i)
            threads_.emplace_back([this, work] {
                while (!stop_)
                    work();
            });
    }
    ~Workers()
    {
        stop_ = true;
        for (std::thread &thread : threads_)
            thread.join();
    }

  private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

// A pipe in the place of standard output.
class Output {
  public:
    Output()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
        reader_ = ends[0];
    }
    void wait_until_full() const
    {
        for (int waiting = 0; waiting < 65536;)
            (void)ioctl(reader_, FIONREAD, &waiting);
        (void)fcntl(reader_, F_SETFL, O_NONBLOCK);
    }
    void take() const
    {
        char text[4096];
        (void)!read(reader_, text, sizeof text);
    }

  private:
    int reader_ = -1;
};

const char *const line_text[] = {"%s"};
const uint16_t line_number[] = {1};
const msg_table lines = {"none", "none", 1, 1, line_text, line_number};

void spin_until(const std::atomic<int> &count, int wanted)
{
    while (count < wanted)
        std::this_thread::yield();
}

std::atomic<int> calls{0};
extern "C" void count_call(int)
{
    ++calls;
}

// Signals ------------------------------------------------------------------------------------------

extern "C" void inhibit_in_handler(int)
{
    pfm_inhibit();
    pfm_enable();
    ++calls;
}

void wait_for_held_stop()
{
    timeval second;
    do
        second = {1, 0};
    while (pfm_select_inhibited(0, nullptr, nullptr, nullptr, &second) != -1 || errno != EINTR);
}

TEST(KernelSignals, TheHandlerOfAHeldStopMayInhibit)
{
    test::in_child([] {
        pfm_init();
        (void)pfm_signal(SIGTSTP, inhibit_in_handler);
        pfm_inhibit();
        (void)kill(getpid(), SIGTSTP);
        wait_for_held_stop();
        pfm_enable();
        EXPECT_EQ(calls, 1);
    });
}

extern "C" void return_from_exit(int) {}

void expect_to_stop_behind(void (*work)())
{
    test::Child child([work] {
        pfm_init();
        work();
        (void)kill(getpid(), SIGTSTP);
        for (;;)
            pause();
        return 0;
    });
    EXPECT_TRUE(child.wait_for_stop(SIGTSTP));
}

TEST(KernelSignals, ASecondStartStillStopsTheProcess)
{
    expect_to_stop_behind([] {
        (void)pfm_set_exit(return_from_exit);
        pfm_exit(0);
        pfm_init();
    });
}

// The thread sanitizer ends a child that starts a thread, as these do for a signal. The address sanitizer's
// allocator stays locked in a child of a fork while another thread allocates, as that for signals does here.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
std::atomic<int> earlier_calls{0};

TEST(KernelSignals, ChildrenOfAChainingProcessOweEarlierHandlersTheirCalls)
{
    for (const int kind : {VLTHREAD_FORK_PLAIN, VLTHREAD_FORK_EXEC})
        test::in_child([kind] {
            (void)signal(SIGUSR1, [](int) { ++earlier_calls; });
            pfm_proc_init(PFM_PROCESS_CHAINING);
            (void)pfm_signal(SIGUSR1, count_call);
            const pid_t child = vlthread_fork(kind);
            if (child == 0) {
                (void)raise(SIGUSR1);
                spin_until(earlier_calls, 1);
                _exit(calls == 1 ? 0 : 1);
            }
            EXPECT_EQ(test::exit_status_of(child), 0);
        });
}
#endif

TEST(KernelSignals, SafeModeLeavesBlockedWhatItsHostBlocked)
{
    test::in_child([] {
        sigset_t usr2;
        sigemptyset(&usr2);
        sigaddset(&usr2, SIGUSR2);
        (void)pthread_sigmask(SIG_BLOCK, &usr2, nullptr);
        (void)signal(SIGUSR2, count_call);
        (void)pfm_external_proc_init();
        for (int i = 0; i < 300; ++i) {
            (void)kill(getpid(), SIGUSR2);
            int sig = 0;
            EXPECT_EQ(sigwait(&usr2, &sig), 0); // and no thread of the library has taken it
        }
        EXPECT_EQ(calls, 0);
    });
}

TEST(KernelMisuse, AStatusBelowOneIsNone)
{
    test::expect_misuse({{[] { pfm_raise(-5); }, "(status > 0) failed: 'lib/ks/pfm'"},
                         {[] { pfm_raise(0); }, "(status > 0) failed: 'lib/ks/pfm'"},
                         {[] { pfm_init(), pfm_notify_vl_thread(-5); }, "(status > 0) failed: 'lib/ks/pfm'"},
                         {[] { vlthread_fork_begin_clean(); }, "is_fork_child at 'vlthread'"}});
}

// Starts and ends ----------------------------------------------------------------------------------

TEST(KernelStart, MayHappenInManyThreadsAtOnce)
{
    for (int round = 0; round < 40; ++round)
        test::in_child([] {
            std::atomic<int> ready{0};
            std::atomic<uint32_t> started{0};
            const auto meet = [&] {
                ++ready;
                spin_until(ready, 4);
            };
            std::thread inhibits([&] { meet(), pfm_inhibit(), pfm_enable(); });
            std::thread prints([&] { meet(), (void)imsg_print(2, &lines, 0, ""); });
            std::thread starts([&] { meet(), started += ks_system_init(); });
            meet();
            started += ks_system_init();
            inhibits.join();
            prints.join();
            starts.join();
            EXPECT_EQ(started, 1u);
        });
}

TEST(KernelStart, SaysWhatIsMissing)
{
    const auto result = test::run_child([] {
        const rlimit limit{5, 5};
        (void)setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd = 3; fd < 5; ++fd)
            (void)close(fd);
        pfm_init(); // its pipe takes the last two
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.err.find("pfm: cannot start: no descriptor"), std::string::npos) << result.err;
}

TEST(KernelStart, KeepsOutOfTheStandardDescriptors)
{
    test::in_child([] {
        const int errors = fcntl(STDERR_FILENO, F_DUPFD, 100);
        for (int fd = 0; fd <= 2; ++fd)
            (void)close(fd);
        pfm_init();
        for (int fd = 0; fd <= 2; ++fd)
            EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd;
        (void)dup2(errors, STDERR_FILENO);
    });
}

// With a channel that sets hold, and with one that none does.
void wait_with_channel_above(int fd)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    while (dup(ends[0]) < fd) {
    }
    pfm_init();
    ASSERT_GT(pfm_get_notify_channel(), fd);
    ks_fd_set read_set;
    ks_fd_zero(&read_set);
    ks_fd_add(&read_set, ends[0]);
    ks_fd_set write_set = read_set;
    ks_fd_add(&write_set, ends[1]);
    timeval now{};
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    pfm_inhibit();
    EXPECT_EQ(pfm_select_inhibited(ends[1] + 1, &read_set, &write_set, nullptr, &now), 2);
    EXPECT_TRUE(ks_fd_has(&read_set, ends[0]) && !ks_fd_has(&write_set, ends[0]) && ks_fd_has(&write_set, ends[1]));
    pfm_notify_vl_thread(7);
    EXPECT_EQ(pfm_select_inhibited(0, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINTR);
    vlthread_reset_raise(nullptr);
    EXPECT_EQ(pfm_select_inhibited(0, nullptr, nullptr, nullptr, &now), 0); // the channel is empty again
    pfm_enable();
}

TEST(KernelWait, IsInterruptedWhateverTheChannel)
{
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    for (const int fd : {3, KS_FD_MAX})
        test::in_child([limit, fd] {
            const rlimit most{limit.rlim_max, limit.rlim_max};
            (void)setrlimit(RLIMIT_NOFILE, &most);
            if (limit.rlim_max > KS_FD_MAX + 8 || fd < KS_FD_MAX)
                wait_with_channel_above(fd);
            else
                std::puts("the hard limit of descriptors is too low for this test");
        });
}

[[noreturn]] void *end_by_exit(void *)
{
    vlthread_exit(&calls);
}

[[noreturn]] void *end_by_pthread_exit(void *)
{
    pthread_exit(&calls);
}

// However it ends, it releases the critical section, and the next thread of its id does not take its raise.
TEST(KernelEnd, OfAThreadLeavesNothingBehind)
{
    void *(*const ends[])(void *) = {[](void *) -> void * { return &calls; }, end_by_exit, end_by_pthread_exit};
    for (auto *end : ends)
        test::in_child([end] {
            pfm_init();
            vlthread_release_critical_section();
            const auto run = [](void *(*body)(void *), void *arg, vlthread_t &out_id) {
                void *value = nullptr;
                EXPECT_EQ(vlthread_create(&out_id, nullptr, body, arg), 0);
                EXPECT_EQ(vlthread_join(out_id, &value), 0);
                return value;
            };
            const auto raise_and_end = [](void *last_call) -> void * {
                vlthread_enter_critical_section();
                vlthread_enter_critical_section();
                vlthread_notify_raise(9);
                return reinterpret_cast<void *(*)(void *)>(last_call)(nullptr);
            };
            vlthread_t first{};
            vlthread_t second{};
            EXPECT_EQ(run(raise_and_end, reinterpret_cast<void *>(end), first), &calls);
            vlthread_reset_raise(nullptr);
            EXPECT_EQ(run([](void *) -> void * { return vlthread_pending_raise(nullptr) == 0 ? &calls : nullptr; },
                          nullptr, second),
                      &calls);
            EXPECT_EQ(first, second); // the system hands the stack out again
            EXPECT_EQ(vlthread_try_enter_critical_section(), 1);
        });
}

TEST(KernelEnd, OfAThreadGivesItsInhibitsBack)
{
    expect_to_stop_behind([] {
        std::thread([] {
            pfm_inhibit_suspend();
            pfm_inhibit();
            pthread_exit(nullptr);
        }).join();
    });
}

vlthread_mutex_t waited_mutex = VLTHREAD_MUTEX_INITIALIZER;
vlthread_cond_t never = VLTHREAD_COND_INITIALIZER;
int unlock_result = -1;

TEST(KernelEnd, ACancelledWaitOwnsItsMutexInTheCleanup)
{
    test::in_child([] {
        vlthread_t id{};
        std::atomic<int> waits{0};
        EXPECT_EQ(vlthread_create(
                      &id, nullptr,
                      [](void *arg) -> void * {
                          (void)vlthread_mutex_lock(&waited_mutex);
                          ++*static_cast<std::atomic<int> *>(arg);
                          pthread_cleanup_push([](void *) { unlock_result = vlthread_mutex_unlock(&waited_mutex); },
                                               nullptr);
                          for (;;)
                              (void)vlthread_cond_wait(&never, &waited_mutex);
                          pthread_cleanup_pop(0);
                      },
                      &waits),
                  0);
        spin_until(waits, 1);
        (void)vlthread_mutex_lock(&waited_mutex); // it waits by now
        (void)vlthread_mutex_unlock(&waited_mutex);
        (void)pthread_cancel(id);
        (void)vlthread_join(id, nullptr);
        EXPECT_EQ(unlock_result, 0);
        EXPECT_EQ(vlthread_mutex_trylock(&waited_mutex), 0);
    });
}

TEST(KernelEnd, APrintIsCancelledWhenItHasGivenItsLocksBack)
{
    test::in_child([] {
        ks_system_init();
        const Output output;
        vlthread_t id{};
        EXPECT_EQ(vlthread_create(
                      &id, nullptr,
                      [](void *) -> void * {
                          const std::string line(4096, 'x');
                          for (;; pthread_testcancel())
                              (void)imsg_print(2, &lines, 0, line.c_str());
                      },
                      nullptr),
                  0);
        output.wait_until_full();
        (void)pthread_cancel(id);
        const Workers drain(1, [&] { output.take(); });
        (void)vlthread_join(id, nullptr);
        EXPECT_EQ(imsg_print(2, &lines, 0, "free"), 0);
    });
}

std::atomic<int> handler_began{0};

TEST(KernelEnd, AnOnExitHandlerMayExitAndEnterTheCriticalSection)
{
    const auto result = test::run_child([] {
        pfm_init();
        (void)pfm_signal(SIGUSR1, [](int) {
            ++handler_began;
            (void)pfm_signal(SIGUSR2, SIG_IGN); // waits for the lock under which on-exit handlers run
        });
        pfm_on_exit(
            [](int, void *) {
                vlthread_enter_critical_section();
                (void)kill(getpid(), SIGUSR1);
                spin_until(handler_began, 1);
                pfm_exit(3);
            },
            nullptr);
        pfm_exit(2);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exit_status, 3) << result.err;
}

TEST(KernelHeap, TracingMayBeSwitchedWhileBlocksAreOut)
{
    test::in_child([] {
        const auto trace = [](long verbosity) {
            imsg_set_trace_subsys("ks/stg");
            imsg_set_trace_verbosity(verbosity);
        };
        ks_system_init();
        for (const long before : {0, 1}) {
            trace(before);
            stg_area *area = stg_create_area(100);
            (void)stg_alloc(area, 10);
            void *blocks[] = {stg_malloc(1), stg_malloc(100)};
            trace(1 - before);
            blocks[1] = stg_realloc(blocks[1], 5000);
            (void)stg_alloc(area, 1000);
            for (void *block : blocks)
                stg_free(block);
            stg_delete_area(&area);
        }
    });
}

// The thread sanitizer ends a child of many threads that starts one of its own.
#ifdef __SANITIZE_THREAD__
constexpr int fork_kinds = 2;
#else
constexpr int fork_kinds = 4;
#endif

// Forks --------------------------------------------------------------------------------------------

std::atomic<int> allocations{0};

void allocate_inhibited()
{
    pfm_inhibit();
    stg_area *area = stg_create_area(1000);
    for (int i = 0; i < 20; ++i)
        (void)stg_alloc(area, 100);
    stg_delete_area(&area);
    ++allocations;
    pfm_enable();
}

TEST(KernelFork, ComesThroughThreadsThatAllocateInhibited)
{
    test::in_child([] {
        pfm_init();
        Workers workers(16, allocate_inhibited);
        for (int i = 0; i < 50; ++i) {
            const pid_t child = vlthread_fork(i % fork_kinds);
            if (child == 0) {
                allocate_inhibited();
                _exit(7);
            }
            EXPECT_EQ(test::exit_status_of(child), 7);
        }
    });
}

TEST(KernelFork, WaitsForABlockedPrintAndHoldsNobodyUp)
{
    test::in_child([] {
        ks_system_init();
        const Output output;
        const std::string line(4096, 'x'); // a page, so that the pipe fills up
        std::thread printing([&] {
            for (int i = 0; i < 200; ++i)
                (void)imsg_print(2, &lines, 0, line.c_str());
        });
        output.wait_until_full();
        std::atomic<int> forked{0};
        std::thread forking([&] {
            const pid_t child = vlthread_fork(VLTHREAD_FORK_EXEC);
            if (child == 0)
                _exit(0);
            EXPECT_EQ(test::exit_status_of(child), 0);
            ++forked;
        });
        for (int i = 0; i < 20000; ++i) {
            allocate_inhibited();
            (void)pfm_signal(SIGUSR1, i % 2 == 0 ? SIG_IGN : SIG_DFL);
        }
        EXPECT_EQ(forked, 0);
        const Workers drain(1, [&] { output.take(); });
        printing.join();
        forking.join();
    });
}

TEST(KernelFork, TheChildOfAnyThreadCanEndItself)
{
    for (int kind = 0; kind < fork_kinds; ++kind)
        test::in_child([kind] {
            pfm_init();
            (void)pfm_set_exit([](int status) { _exit(status); }); // exit() would look for leaks of the lost threads
            std::thread([kind] {
                const pid_t child = vlthread_fork(kind);
                if (child == 0) {
                    pfm_exit(5);
                    _exit(1);
                }
                EXPECT_EQ(test::exit_status_of(child), 5) << kind;
            }).join();
        });
}

TEST(KernelFork, ACleanChildRunsNothingOfItsParents)
{
    const auto result = test::run_child([] {
        pfm_on_exit([](int, void *) { (void)!write(STDOUT_FILENO, "parent", 6); }, nullptr);
        // A sanitizer's leak check in exit() needs a lock that the parent's starting thread may have held at the fork.
        (void)pfm_set_exit([](int status) { _exit(status); });
        pfm_cleanup_rec rec{};
        rec.status = sigsetjmp(rec.jump, 1);
        if (pfm_cleanup_start(&rec, 0) != 0)
            _exit(1); // the child came back into its parent's record
        const pid_t child = vlthread_fork(VLTHREAD_FORK_EXEC);
        if (child == 0) {
            vlthread_fork_begin_clean();
            pfm_raise(4);
        }
        EXPECT_EQ(test::exit_status_of(child), 4);
        _exit(0);
    });
    EXPECT_EQ(result.out, "");
}

TEST(KernelFork, ReadWriteLocksOfAChildAreUsable)
{
    test::in_child([] {
        vlthread_rwlock_t own;
        vlthread_rwlock_t others;
        (void)vlthread_rwlock_init(&own, VLTHREAD_RAISE_COUNTED);
        (void)vlthread_rwlock_init(&others, VLTHREAD_RAISE_COUNTED);
        std::atomic<int> step{0};
        std::thread other([&] {
            (void)vlthread_rwlock_rdlock(&others);
            ++step;
            spin_until(step, 2);
            (void)vlthread_rwlock_unlock(&others);
        });
        spin_until(step, 1);
        (void)vlthread_rwlock_wrlock(&own);
        const pid_t child = vlthread_fork(VLTHREAD_FORK_EXEC);
        if (child == 0) {
            const bool sound = vlthread_rwlock_rdlock(&own) != 0 && vlthread_rwlock_unlock(&own) == 0 &&
                               vlthread_rwlock_wrlock(&own) == 0 && vlthread_rwlock_unlock(&own) == 0 &&
                               vlthread_rwlock_wrlock_trylock(&others) == 0 && vlthread_rwlock_unlock(&others) == 0;
            _exit(sound ? 0 : 1);
        }
        EXPECT_EQ(test::exit_status_of(child), 0);
        ++step;
        other.join();
    });
}

} // namespace
