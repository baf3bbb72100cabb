#include "harness/child.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

// What failed in a child, in memory that it shares with its parent: it costs no descriptor and
// outlasts a child that a signal ends.
struct Failures {
    std::atomic<std::size_t> size{0}; // of all that was to be told
    char text[1 << 14];               // the beginning of it
};

namespace {

using Clock = std::chrono::steady_clock;

int milliseconds_left(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Appends what is readable; closes the descriptor at the end of the output.
void read_available(int &fd, std::string &into)
{
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got > 0) {
        into.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        close(fd);
        fd = -1;
    }
}

int count_entries(const char *directory)
{
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(directory))
        ++count;
    return count;
}

Failures *share_failures()
{
    void *pages = mmap(nullptr, sizeof(Failures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        std::abort();
    return new (pages) Failures;
}

// Stands in a child where the printer of results stands in its parent.
class FailureSender : public testing::EmptyTestEventListener {
  public:
    explicit FailureSender(Failures &failures) : failures_(failures) {}

    void OnTestPartResult(const testing::TestPartResult &result) override
    {
        if (!result.failed())
            return;
        std::ostringstream text;
        text << result;
        const std::string line = text.str();
        const std::size_t at = failures_.size.fetch_add(line.size());
        if (at < sizeof failures_.text)
            line.copy(failures_.text + at, sizeof failures_.text - at);
    }

  private:
    Failures &failures_;
};

void send_failures(Failures &failures)
{
    testing::TestEventListeners &listeners = testing::UnitTest::GetInstance()->listeners();
    static testing::TestEventListener *current = listeners.default_result_printer();
    delete listeners.Release(current); // in a child of a child: the sender to its parent
    current = new FailureSender(failures);
    listeners.Append(current);
}

void report(Failures &failures)
{
    const std::size_t size = std::min(failures.size.exchange(0), sizeof failures.text);
    if (size > 0)
        ADD_FAILURE() << "in a child:\n" << std::string(failures.text, size);
}

#ifdef __SANITIZE_ADDRESS__
// Whether no other thread of this process is on the processor or wants it.
bool others_rest()
{
    const std::string self = std::to_string(gettid());
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string stat;
        std::getline(std::ifstream(task.path() / "stat"), stat);
        const std::size_t name_end = stat.rfind(')');
        if (task.path().filename() != self && name_end != stat.npos && stat.compare(name_end, 3, ") R") == 0)
            return false;
    }
    return true;
}

// The locks of the address sanitizer, of its allocator above all, are not let go in the child of a fork. A thread that
// sleeps has none of them, so a fork waits for that, though not without end.
extern "C" void rest_before_fork()
{
    const int saved = errno;
    constexpr int tries = 200;
    constexpr useconds_t pause_us = 100;
    for (int i = 0; i < tries && !others_rest(); ++i)
        usleep(pause_us);
    errno = saved;
}

int fork_depth = 0;

extern "C" void count_fork()
{
    ++fork_depth;
}

[[maybe_unused]] const int registered = pthread_atfork(rest_before_fork, nullptr, count_fork);
#endif

} // namespace

#ifdef __SANITIZE_ADDRESS__
// Of a process that was forked by one with threads: what those had just allocated nobody leads to in it.
extern "C" [[gnu::visibility("default")]] int __lsan_is_turned_off()
{
    return fork_depth > 1 ? 1 : 0;
}
#endif

Child::Child(const std::function<int()> &body) : failures_(share_failures())
{
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        std::abort();
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        std::abort();
    if (pid_ == 0) {
        setpgid(0, 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]);
        close(out[1]);
        close(err[0]);
        close(err[1]);
        send_failures(*failures_);
        const int status = body();
        std::fflush(nullptr);
        _exit(status);
    }
    setpgid(pid_, pid_);
    close(out[1]);
    close(err[1]);
    out_fd_ = out[0];
    err_fd_ = err[0];
}

Child::~Child()
{
    if (!reaped_)
        kill_and_reap();
    if (out_fd_ >= 0)
        close(out_fd_);
    if (err_fd_ >= 0)
        close(err_fd_);
    report(*failures_);
    munmap(failures_, sizeof *failures_);
}

void Child::kill_and_reap()
{
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    waitpid(pid_, &wait_status_, 0);
    reaped_ = true;
}

bool Child::pump(int wait_ms)
{
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    const bool is_ready = poll(fds, 2, wait_ms) > 0;
    if (is_ready && fds[0].revents != 0)
        read_available(out_fd_, out_);
    if (is_ready && fds[1].revents != 0)
        read_available(err_fd_, err_);
    return out_fd_ >= 0 || err_fd_ >= 0;
}

bool Child::wait_for_output(const std::string &text, int deadline_ms)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(deadline_ms);
    const auto has_come = [&] { return out_.find(text) != std::string::npos || err_.find(text) != std::string::npos; };
    while (!has_come() && milliseconds_left(deadline) > 0 && pump(milliseconds_left(deadline))) {
    }
    return has_come();
}

bool Child::wait_for_stop(int sig, int deadline_ms)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(deadline_ms);
    while (milliseconds_left(deadline) > 0) {
        const pid_t changed = waitpid(pid_, &wait_status_, WUNTRACED | WNOHANG);
        if (changed == pid_) {
            if (WIFSTOPPED(wait_status_))
                return WSTOPSIG(wait_status_) == sig;
            reaped_ = true;
            return false;
        }
        if (!pump(10) && out_fd_ < 0 && err_fd_ < 0)
            usleep(1000);
    }
    return false;
}

ChildResult Child::finish(int deadline_ms)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(deadline_ms);
    ChildResult result;
    // A grandchild may keep the pipes open, so the child's end counts as well as theirs.
    while (!reaped_ && milliseconds_left(deadline) > 0) {
        if (!pump(reaped_ ? 0 : 5) && out_fd_ < 0 && err_fd_ < 0)
            usleep(500);
        if (waitpid(pid_, &wait_status_, WNOHANG) == pid_)
            reaped_ = true;
    }
    if (!reaped_) {
        result.timed_out = true;
        kill_and_reap();
    }
    for (int quiet = 0; quiet < 2 && (out_fd_ >= 0 || err_fd_ >= 0);) {
        const std::size_t before = out_.size() + err_.size();
        pump(20);
        quiet = out_.size() + err_.size() == before ? quiet + 1 : 0;
    }
    result.exited = WIFEXITED(wait_status_);
    if (result.exited)
        result.exit_status = WEXITSTATUS(wait_status_);
    if (WIFSIGNALED(wait_status_))
        result.signal = WTERMSIG(wait_status_);
    result.out = out_;
    result.err = err_;
    report(*failures_);
    return result;
}

ChildResult run_child(const std::function<int()> &body, int deadline_ms)
{
    Child child(body);
    return child.finish(deadline_ms);
}

void in_child(const std::function<void()> &body, const char *file, int line)
{
    const ChildResult result = run_child(body);
    if (result.exit_status != 0)
        ADD_FAILURE_AT(file, line) << "the child ended with status " << result.exit_status << ", signal "
                                   << result.signal << (result.timed_out ? ", at the deadline" : "") << "; it said:\n"
                                   << result.err;
}

int open_descriptor_count()
{
    return count_entries("/proc/self/fd");
}

int thread_count()
{
    return count_entries("/proc/self/task");
}

bool threads_settle_at(int count)
{
    for (int tries = 0; tries < 5000; ++tries) {
        if (thread_count() == count)
            return true;
        usleep(1000);
    }
    return false;
}

TempDir::TempDir()
{
    std::string name = (std::filesystem::temp_directory_path() / "korvaks-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        std::abort();
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary);
    out << content;
}

} // namespace test
