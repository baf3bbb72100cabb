// Runs a piece of a test in a process of its own.
//
// Whatever is process-wide (signals, exit, fork, environment caches, the library's start) is
// tested in a child; the test process itself never starts the library.
//
// EXPECT_... and ASSERT_... work in a child and in all that it forks: the failure is reported here,
// with its file and line, however the child ends.
#pragma once

#include <concepts>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/types.h>

#include <gtest/gtest.h>

namespace test {

struct ChildResult {
    bool exited = false;    // ended by exit
    int exit_status = -1;   // when exited
    int signal = 0;         // when ended by a signal
    bool timed_out = false; // killed by the deadline
    std::string out;        // what it wrote to descriptor 1
    std::string err;        // what it wrote to descriptor 2
};

// A running child; the destructor kills what still runs.
class Child {
  public:
    explicit Child(const std::function<int()> &body);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }

    // Waits until the child has written `text` to descriptor 1 or 2; false after the deadline.
    bool wait_for_output(const std::string &text, int deadline_ms = 20000);

    // Waits until waitpid reports a stop or an end; true when it is a stop by `sig`.
    bool wait_for_stop(int sig, int deadline_ms = 20000);

    // Collects the output to its end and the status.
    ChildResult finish(int deadline_ms = 60000);

  private:
    bool pump(int wait_ms);
    void kill_and_reap();

    struct Failures *failures_; // shared with the child
    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    bool reaped_ = false;
    int wait_status_ = 0;
    std::string out_;
    std::string err_;
};

// Runs `body` in a child in its own process group; its return value is the exit status, left
// through _exit() with stdio flushed.
ChildResult run_child(const std::function<int()> &body, int deadline_ms = 60000);

// The same with a body that returns nothing and so exits with 0. ASSERT_... needs this form.
template <std::invocable Body>
requires std::is_void_v<std::invoke_result_t<Body &>> ChildResult run_child(Body body, int deadline_ms = 60000)
{
    return run_child(std::function<int()>([&body] { return body(), 0; }), deadline_ms);
}

// Runs the checks of `body` in a child, which must end by itself with status 0.
void in_child(const std::function<void()> &body, const char *file = __builtin_FILE(), int line = __builtin_LINE());

// Descriptors open in this process, and threads; a test compares before and after. A thread that
// was joined may be counted for a moment longer, so the last form waits for the expected count.
int open_descriptor_count();
int thread_count();
bool threads_settle_at(int count);

// A fresh directory under the system's temporary directory, removed with everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

} // namespace test
