// What does one formatted line that is flushed to a file cost, as plain output and as an error with
// a head in front? And what does a trace that nobody wants cost? And a line in the log of a daemon,
// printed or caught from its standard output?
//
// The file is standard output or standard error, sent to a temporary file for the time of a run.
#include <korvaks/imsg.h>
#include <korvaks/imsg_log.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef BENCH_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#endif

namespace {

constexpr const char *texts[] = {"opened \"%s\" as number %d, %u bytes\n"};
constexpr std::uint16_t numbers[] = {1};
constexpr msg_table table = {"bench", "bench", 1, 1, texts, numbers};

constexpr const char *path = "/var/lib/depot/index";
constexpr unsigned byte_count = 81920;

// A file that is gone when this is.
class TemporaryFile {
  public:
    TemporaryFile() : fd_(mkstemp(name_)) {}
    ~TemporaryFile()
    {
        close(fd_);
        unlink(name_);
    }
    TemporaryFile(const TemporaryFile &) = delete;

    int fd() const { return fd_; }
    const char *name() const { return name_; }

    // Bytes per line shows that every contender has written the same.
    double size_per(benchmark::IterationCount lines) const
    {
        return static_cast<double>(lseek(fd_, 0, SEEK_END)) / static_cast<double>(lines);
    }

  private:
    char name_[32] = "/tmp/korvaks_bench_XXXXXX";
    int fd_;
};

// While it lives, what is written to `fd` goes to the end of the file.
class Redirection {
  public:
    Redirection(int fd, const TemporaryFile &file) : fd_(fd), saved_(dup(fd))
    {
        std::fflush(nullptr);
        const int appending = open(file.name(), O_WRONLY | O_APPEND);
        dup2(appending, fd);
        close(appending);
    }
    ~Redirection()
    {
        std::fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
    }
    Redirection(const Redirection &) = delete;

  private:
    int fd_;
    int saved_;
};

void count_bytes(benchmark::State &state, const TemporaryFile &file)
{
    state.counters["bytes"] = file.size_per(state.iterations());
}

template <int kind, int fd> void print_message(benchmark::State &state)
{
    imsg_set_app_name("bench");
    const TemporaryFile file;
    int number = 0;
    {
        const Redirection redirection(fd, file);
        for (auto _ : state)
            imsg_print(kind, &table, 0, path, ++number, byte_count);
    }
    count_bytes(state, file);
}
constexpr int output_kind = 2;
constexpr int error_kind = 6;
BENCHMARK(print_message<output_kind, STDOUT_FILENO>)->Name("message/plain_line/korvaks");
BENCHMARK(print_message<error_kind, STDERR_FILENO>)->Name("message/error_line/korvaks");

void write_line(benchmark::State &state)
{
    const TemporaryFile file;
    int number = 0;
    char line[256];
    for (auto _ : state) {
        const int length = std::snprintf(line, sizeof line, texts[0], path, ++number, byte_count);
        if (write(file.fd(), line, static_cast<std::size_t>(length)) != length)
            return state.SkipWithError("not written");
    }
    count_bytes(state, file);
}
BENCHMARK(write_line)->Name("message/plain_line/snprintf_write");

#ifdef BENCH_SPDLOG
// The pattern gives the line that the library prints, so no time stamp.
void log_line(benchmark::State &state, const char *pattern)
{
    const TemporaryFile file;
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(file.name()));
    logger.set_pattern(pattern);
    logger.flush_on(spdlog::level::info);
    int number = 0;
    for (auto _ : state)
        logger.error("opened \"{}\" as number {}, {} bytes", path, ++number, byte_count);
    count_bytes(state, file);
}
BENCHMARK_CAPTURE(log_line, plain, "%v")->Name("message/plain_line/spdlog");
BENCHMARK_CAPTURE(log_line, error, "%n: Error: %v")->Name("message/error_line/spdlog");
#endif

// Daemons. Each job runs in a process of its own, since there is no way back from being one.
constexpr long daemon_lines = 20000;

double seconds_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Seconds that the child needs for its lines; what it writes goes to the file.
template <typename Work> void time_in_child(benchmark::State &state, Work work)
{
    const TemporaryFile file;
    int ends[2];
    for (auto _ : state) {
        if (pipe(ends) != 0)
            return state.SkipWithError("no pipe");
        if (const pid_t child = fork(); child == 0) {
            const double took = work(file.name());
            _exit(write(ends[1], &took, sizeof took) == sizeof took ? 0 : 1);
        } else {
            double took = 0;
            const bool is_read = read(ends[0], &took, sizeof took) == sizeof took;
            waitpid(child, nullptr, 0);
            close(ends[0]);
            close(ends[1]);
            if (!is_read)
                return state.SkipWithError("not run");
            state.SetIterationTime(took / daemon_lines);
        }
    }
}

template <typename Line> double time_lines(Line line)
{
    for (int n = 0; n < 100; ++n)
        line(n);
    const double start = seconds_now();
    for (int n = 0; n < daemon_lines; ++n)
        line(n);
    return seconds_now() - start;
}

void print_in_daemon(benchmark::State &state)
{
    time_in_child(state, [](const char *name) {
        imsg_set_app_name("bench");
        if (imsg_init_daemon(name) != 0)
            _exit(1);
        return time_lines([](int n) { imsg_print(output_kind, &table, 0, path, n, byte_count); });
    });
}
BENCHMARK(print_in_daemon)->Name("message/daemon_line/korvaks")->UseManualTime()->Iterations(5);

void poll_and_write(benchmark::State &state)
{
    time_in_child(state, [](const char *name) {
        const int log = open(name, O_WRONLY | O_APPEND);
        int ends[2];
        if (pipe(ends) != 0)
            _exit(1);
        return time_lines([=](int n) {
            char line[256];
            pollfd fds[] = {{ends[0], POLLIN, 0}, {ends[0], POLLIN, 0}};
            poll(fds, 2, 0);
            const int length = std::snprintf(
                line, sizeof line, "2026-03-05T14:03:59.120345+01:00 bench: opened \"%s\" as number %d, %u bytes\n",
                path, n, byte_count);
            if (write(log, line, static_cast<std::size_t>(length)) != length)
                _exit(1);
        });
    });
}
BENCHMARK(poll_and_write)->Name("message/daemon_line/poll_write")->UseManualTime()->Iterations(5);

void print_through_pipe(benchmark::State &state)
{
    time_in_child(state, [](const char *name) {
        imsg_set_app_name("bench");
        if (imsg_init_daemon(name) != 0)
            _exit(1);
        return time_lines([](int n) {
            std::printf(texts[0], path, n, byte_count);
            imsg_drain_pipes();
        });
    });
}
BENCHMARK(print_through_pipe)->Name("message/captured_line/korvaks")->UseManualTime()->Iterations(5);

// The text has to get into the pipe on this side as well.
void read_twice_and_write(benchmark::State &state)
{
    time_in_child(state, [](const char *name) {
        const int log = open(name, O_WRONLY | O_APPEND);
        int ends[2];
        if (pipe2(ends, O_NONBLOCK) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
            _exit(1);
        return time_lines([=](int n) {
            char text[256];
            char line[512];
            std::printf(texts[0], path, n, byte_count);
            std::fflush(stdout);
            const ssize_t got = read(ends[0], text, sizeof text);
            if (read(ends[0], text + got, sizeof text - static_cast<std::size_t>(got)) > 0)
                _exit(1);
            const int length = std::snprintf(line, sizeof line, "2026-03-05T14:03:59.120345+01:00 bench: Ok: %.*s",
                                             static_cast<int>(got), text);
            if (write(log, line, static_cast<std::size_t>(length)) != length)
                _exit(1);
        });
    });
}
BENCHMARK(read_twice_and_write)->Name("message/captured_line/2_reads_write")->UseManualTime()->Iterations(5);

void ask_for_trace(benchmark::State &state)
{
    imsg_set_trace_verbosity(0);
    for (auto _ : state)
        benchmark::DoNotOptimize(imsg_should_trace("bench", 1));
}
BENCHMARK(ask_for_trace)->Name("message/trace_off/korvaks");

__attribute__((noinline)) int do_nothing(const char *subsys, long level)
{
    __asm__ volatile("" : : "r"(subsys), "r"(level));
    return 0;
}

void call_nothing(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(do_nothing("bench", 1));
}
BENCHMARK(call_nothing)->Name("message/trace_off/empty_call");

} // namespace
