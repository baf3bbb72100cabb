// What does one formatted line that is flushed to a file cost, as plain output and as an error with
// a head in front? And what does a trace that nobody wants cost?
//
// The file is standard output or standard error, sent to a temporary file for the time of a run.
#include <korvaks/imsg.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
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
