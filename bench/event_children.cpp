// What does it cost to start a program, from a small parent and from one of a GiB, until it has ended and was reaped?
// And how long does it take from a child's death until the loop calls back? All of it is wall time.
#include <korvaks/ks_proc.h>
#include <korvaks/rt.h>
#include <korvaks/rt_proc.h>
#include <korvaks/vlthread.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef BENCH_LIBUV
#include <uv.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begun)
{
    return std::chrono::duration<double>(Clock::now() - begun).count();
}

// --- Starting a program ---

char *const program[] = {const_cast<char *>("/bin/true"), nullptr};

pid_t start_by_korvaks()
{
    ks_proc_result result{-1, -1, -1, -1};
    return ks_proc_create_process(program, nullptr, 0, 0, 0, &result) == 1 ? result.pid : -1;
}

pid_t start_by_fork()
{
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(program[0], program);
        _exit(127);
    }
    return pid;
}

pid_t start_by_spawn()
{
    pid_t pid = -1;
    return posix_spawnp(&pid, program[0], nullptr, nullptr, program, environ) == 0 ? pid : -1;
}

// Pages of the usual size, each of them written to.
class Resident {
  public:
    explicit Resident(std::size_t bytes)
        : bytes_(bytes), memory_(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        (void)madvise(memory_, bytes_, MADV_NOHUGEPAGE);
        for (std::size_t i = 0; i < bytes_; i += 4096)
            static_cast<char *>(memory_)[i] = 1;
    }
    ~Resident() { munmap(memory_, bytes_); }
    Resident(const Resident &) = delete;
    Resident &operator=(const Resident &) = delete;

  private:
    std::size_t bytes_;
    void *memory_;
};

void start_program(benchmark::State &state, pid_t (*start)(), std::size_t bytes)
{
    const Resident resident(bytes);
    for (auto _ : state) {
        const auto begun = Clock::now();
        const pid_t pid = start();
        while (pid > 0 && waitpid(pid, nullptr, 0) < 0 && errno == EINTR) // or the library has reaped it
            ;
        state.SetIterationTime(seconds_since(begun));
        if (pid < 0)
            state.SkipWithError("the program could not be started");
    }
}

// --- From a death to the callback ---

// A child ends as soon as nobody holds the other end of its standard input any more.
struct Leash {
    std::array<int, 2> ends;
    Leash() { (void)!pipe2(ends.data(), O_CLOEXEC); }
    void child_is_started()
    {
        close(ends[0]);
        std::this_thread::sleep_for(std::chrono::milliseconds(3)); // until it reads
    }
    Clock::time_point cut()
    {
        const auto now = Clock::now();
        close(ends[1]);
        return now;
    }
};

double time_of_death = 0;
Clock::time_point cut_at;

void death_to_callback_korvaks(benchmark::State &state)
{
    for (auto _ : state) {
        Leash leash;
        const auto report = [](pid_t, int32_t, void *, rt_proc_child *) {
            time_of_death = seconds_since(cut_at);
            rt_shutdown();
        };
        if (rt_proc_fork(report, nullptr, VLTHREAD_FORK_EXEC) == 0) {
            dup2(leash.ends[0], STDIN_FILENO);
            execl("/bin/cat", "cat", nullptr);
            _exit(127);
        }
        leash.child_is_started();
        cut_at = leash.cut();
        rt_run();
        state.SetIterationTime(time_of_death);
    }
}

#ifdef BENCH_LIBUV
double until_exit_callback(uv_loop_t &loop)
{
    Leash leash;
    uv_process_t process{};
    std::array<uv_stdio_container_t, 1> streams{};
    streams[0].flags = UV_INHERIT_FD;
    streams[0].data.fd = leash.ends[0];
    std::array argv{const_cast<char *>("cat"), static_cast<char *>(nullptr)};
    uv_process_options_t options{};
    options.file = "/bin/cat";
    options.args = argv.data();
    options.stdio = streams.data();
    options.stdio_count = static_cast<int>(streams.size());
    options.exit_cb = [](uv_process_t *ended, int64_t, int) {
        time_of_death = seconds_since(cut_at);
        uv_close(reinterpret_cast<uv_handle_t *>(ended), nullptr);
    };
    if (uv_spawn(&loop, &process, &options) != 0)
        return -1;
    leash.child_is_started();
    cut_at = leash.cut();
    uv_run(&loop, UV_RUN_DEFAULT);
    return time_of_death;
}

// From a write to the thread that waits for it.
double until_other_thread_wakes()
{
    const int fd = eventfd(0, EFD_CLOEXEC);
    Clock::time_point woken;
    std::thread waiting([&] {
        uint64_t value = 0;
        (void)!read(fd, &value, sizeof value);
        woken = Clock::now();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // until it waits
    const auto begun = Clock::now();
    const uint64_t one = 1;
    (void)!write(fd, &one, sizeof one);
    waiting.join();
    close(fd);
    return std::chrono::duration<double>(woken - begun).count();
}

// In a process that the library has no part in: both own SIGCHLD.
[[noreturn]] void serve_times(int requests, int answers)
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    uv_loop_t loop;
    uv_loop_init(&loop);
    for (char request = 0; read(requests, &request, 1) == 1;) {
        const double time = until_exit_callback(loop) + until_other_thread_wakes();
        (void)!write(answers, &time, sizeof time);
    }
    _exit(0);
}

void death_to_callback_libuv(benchmark::State &state)
{
    std::array<int, 2> requests{};
    std::array<int, 2> answers{};
    if (pipe2(requests.data(), O_CLOEXEC) != 0 || pipe2(answers.data(), O_CLOEXEC) != 0)
        return;
    const pid_t pid = fork();
    if (pid == 0) {
        close(requests[1]);
        serve_times(requests[0], answers[1]);
    }
    close(answers[1]);
    for (auto _ : state) {
        double time = 0;
        if (write(requests[1], "?", 1) != 1 || read(answers[0], &time, sizeof time) != sizeof time || time < 0)
            state.SkipWithError("no time was measured");
        state.SetIterationTime(time);
    }
    close(requests[0]);
    close(requests[1]);
    close(answers[0]);
    (void)waitpid(pid, nullptr, 0); // or the library has reaped it
}
#endif

const int registered = [] {
    using benchmark::RegisterBenchmark;
    for (const auto &[size, bytes] : {std::pair("1_MiB", std::size_t{1} << 20), {"1_GiB", std::size_t{1} << 30}}) {
        const std::string job = std::string("event/start_program_") + size;
        RegisterBenchmark((job + "/korvaks").c_str(), start_program, start_by_korvaks, bytes)->UseManualTime();
        RegisterBenchmark((job + "/fork_exec").c_str(), start_program, start_by_fork, bytes)->UseManualTime();
        RegisterBenchmark((job + "/posix_spawn").c_str(), start_program, start_by_spawn, bytes)->UseManualTime();
    }
    RegisterBenchmark("event/death_to_callback/korvaks", death_to_callback_korvaks)->UseManualTime();
#ifdef BENCH_LIBUV
    RegisterBenchmark("event/death_to_callback/libuv_and_wake_up", death_to_callback_libuv)->UseManualTime();
#endif
    return 0;
}();

} // namespace
