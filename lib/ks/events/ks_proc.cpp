// Starting programs. Between the fork and the exec the child does what is async-signal-safe; only where it has failed
// and is about to end it does more.
#include "base/ks_base.h"
#include "base/ks_msg.h"
#include "base/msg_port.h"
#include "events/children.h"
#include "kernel/ks_guard.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_proc.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(ks_proc_result) == 16 && offsetof(ks_proc_result, err_fd) == 12);

namespace ks {

constinit std::atomic<void (*)()> before_child_start{nullptr};

bool make_pipe_blocking(int fd)
{
    struct stat info;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fstat(fd, &info) != 0)
        return false;
    if ((flags & O_NONBLOCK) == 0 || !S_ISFIFO(info.st_mode))
        return true;
    char path[] = "/proc/self/fd/?";
    path[sizeof path - 2] = static_cast<char>('0' + fd);
    // Opened without blocking, since nobody may be reading any more.
    const int own = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (own < 0)
        return false;
    const bool is_made = fcntl(own, F_SETFL, O_WRONLY) == 0 && dup2(own, fd) == fd;
    const ErrnoSaver saver;
    (void)close(own); // given up either way
    return is_made;
}

} // namespace ks

namespace {

constexpr ks::AssertPath here{"lib/ks/ks_proc"};

constexpr std::size_t stream_count = 3;
constexpr std::size_t line_size = 1024;

// The pipe of a stream; -1 for an end that is not open.
struct Pipe {
    int read_end = -1;
    int write_end = -1;
};

// What is started, and how far it has come.
struct Start {
    char *const *argv;
    const char *command;
    char *const *env;
    uint32_t flags;
    bool is_detached;
    bool has_own_group;
    const char *dir;
    std::array<Pipe, stream_count> pipes{};
    pid_t forked = -1; // what the fork returned

    bool is_piped(std::size_t stream) const { return (flags & (1u << stream)) != 0; }
    bool is_in_child() const { return forked == 0; }

    int &childs_end(std::size_t stream)
    {
        return stream == STDIN_FILENO ? pipes[stream].read_end : pipes[stream].write_end;
    }
    int &parents_end(std::size_t stream)
    {
        return stream == STDIN_FILENO ? pipes[stream].write_end : pipes[stream].read_end;
    }
};

void close_end(int &fd)
{
    if (fd >= 0)
        (void)close(std::exchange(fd, -1)); // given up either way
}

void close_pipes(Start &start)
{
    const ks::ErrnoSaver saver;
    for (Pipe &pipe : start.pipes) {
        close_end(pipe.read_end);
        close_end(pipe.write_end);
    }
}

bool open_pipe(Pipe &out_pipe)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    out_pipe.read_end = ks::above_stdio(ends[0]);
    const ks::ErrnoSaver saver;
    out_pipe.write_end = ks::above_stdio(ends[1]);
    return out_pipe.read_end >= 0 && out_pipe.write_end >= 0;
}

void report(KsMsg message, int error)
{
    (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, message, strerror(error)); // the result says it too
}

// --- In the child ---

// One line on descriptor 2: the program's name, what failed, and the number.
void say(int error, const char *kind, const char *format, const char *argument)
{
    std::array<char, line_size> what;
    std::array<char, line_size> line;
    (void)strutl_snprintf(what.data(), what.size(), format, argument);
    const int length = strutl_snprintf(line.data(), line.size(), "%s: %s: %s: errno %d\n", imsg_get_app_name(), kind,
                                       what.data(), error);
    const std::size_t size = length < 0 ? 0 : std::min(static_cast<std::size_t>(length), line.size() - 1);
    (void)!write(STDERR_FILENO, line.data(), size); // there is nobody else to tell
}

// The parent's text waits in the streams too: of the standard ones it is discarded, and the others get nowhere to
// write it to.
[[noreturn]] void end_child(int status)
{
    for (FILE *stream : {stdin, stdout, stderr})
        __fpurge(stream);
    (void)close_range(STDERR_FILENO + 1, ~0U, 0); // where the system cannot, exec would have left them open too
    pfm_exit(status);
    _exit(status);
}

[[noreturn]] void fail_child(const char *format, const char *argument)
{
    const int error = errno;
    say(error, "Error", format, argument);
    end_child(error);
}

void connect_streams(Start &start)
{
    for (std::size_t stream = 0; stream < stream_count; ++stream) {
        if (!start.is_piped(stream))
            continue;
        if (dup2(start.childs_end(stream), static_cast<int>(stream)) < 0)
            fail_child("Unable to dup() pipe in subprocess", "");
        close_end(start.pipes[stream].read_end);
        close_end(start.pipes[stream].write_end);
    }
}

// A pipe that does not block belongs to whoever reads the output of the parent; the child's own opening of it does.
void make_outputs_blocking(const Start &start)
{
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (!start.is_piped(static_cast<std::size_t>(fd)))
            (void)ks::make_pipe_blocking(fd); // else it stays as it was
    }
}

void enter_place(const Start &start)
{
    if (start.dir != nullptr && chdir(start.dir) != 0)
        fail_child("Unable to change directory to \"%s\"", start.dir);
    if (start.has_own_group && setpgid(0, 0) != 0) {
        char number[16];
        const int error = errno;
        (void)strutl_snprintf(number, sizeof number, "%d", static_cast<int>(start.forked));
        say(error, "Warning", "Unable to set process group id in child [%s]", number);
    }
}

// The process that goes on is the child's child.
void detach()
{
    const pid_t pid = vlthread_fork(VLTHREAD_FORK_EXEC);
    if (pid < 0)
        fail_child("Unable to create new process, fork() failed", "");
    if (pid > 0)
        end_child(0);
}

// The memory is the child's own by now: the parent's environment stays as it is.
void take_environment(const Start &start)
{
    if (start.env != nullptr) {
        environ = const_cast<char **>(start.env); // which exec does not change
        return;
    }
    if (environ == nullptr)
        return;
    char **to = environ;
    for (char **from = environ; *from != nullptr; ++from) {
        if (**from != '\0')
            *to++ = *from;
    }
    *to = nullptr;
}

[[noreturn]] void execute(const Start &start)
{
    constexpr const char *shell = "/bin/sh";
    const char *const shell_argv[] = {shell, "-c", start.command, nullptr};
    char *const *argv = start.argv != nullptr ? start.argv : const_cast<char *const *>(shell_argv);
    pfm_test_raise(nullptr);     // a stop that came since the fork would be lost by the exec
    (void)execvp(argv[0], argv); // returns only when it has failed
    fail_child("Unable to exec \"%s\"", argv[0]);
}

[[noreturn]] void run_child(Start &start)
{
    pfm_inhibit();
    connect_streams(start);
    make_outputs_blocking(start);
    pfm_enable();
    enter_place(start);
    if (start.is_detached)
        detach();
    take_environment(start);
    execute(start);
}

// --- In the parent ---

bool open_pipes(Start &start)
{
    for (std::size_t stream = 0; stream < stream_count; ++stream) {
        if (start.is_piped(stream) && !open_pipe(start.pipes[stream]))
            return false;
    }
    return true;
}

void close_childs_ends(Start &start)
{
    for (std::size_t stream = 0; stream < stream_count; ++stream)
        close_end(start.childs_end(stream));
}

// From here on the ends are the caller's. No raise point lies between the release of the record and this.
void hand_over(Start &start, ks_proc_result &result)
{
    int32_t *const ends[stream_count] = {&result.in_fd, &result.out_fd, &result.err_fd};
    result.pid = start.forked;
    for (std::size_t stream = 0; stream < stream_count; ++stream) {
        if (start.is_piped(stream))
            *ends[stream] = start.parents_end(stream);
    }
}

bool start_process(Start &start)
{
    if (const auto prepare = ks::before_child_start.load(std::memory_order_acquire))
        prepare();
    if (!open_pipes(start)) {
        const int error = errno;
        close_pipes(start);
        report(ks_msg_pipe_failed, error);
        return false;
    }
    start.forked = vlthread_fork(VLTHREAD_FORK_EXEC);
    if (start.is_in_child())
        run_child(start);
    if (start.forked < 0) {
        const int error = errno;
        close_pipes(start);
        report(ks_msg_fork_failed, error);
        return false;
    }
    close_childs_ends(start);
    return true;
}

} // namespace

extern "C" {

int ks_proc_create_process_int(char *const argv[], const char *command, char *const env[], uint32_t flags, int detach,
                               int new_pgrp, const char *dir, ks_proc_result *out_result)
{
    here.require(argv != nullptr || command != nullptr, "argv != NULL || command != NULL");
    Start start{argv, command, env, flags, detach != 0, new_pgrp != 0, dir};
    bool is_started = false;
    const int32_t pfm_st = ks::protect([&] { is_started = start_process(start); });
    if (start.is_in_child()) {
        here.require(pfm_st != 0, "pfm_st != PFM_CLEANUP_SET");
        _exit(1);
    }
    if (pfm_st != 0) {
        close_pipes(start);
        pfm_raise(pfm_st);
    }
    if (!is_started)
        return 0;
    hand_over(start, *out_result);
    return 1;
}

int ks_proc_create_process(char *const argv[], char *const env[], uint32_t flags, int detach, int new_pgrp,
                           ks_proc_result *out_result)
{
    return ks_proc_create_process_int(argv, nullptr, env, flags, detach, new_pgrp, nullptr, out_result);
}

int ks_proc_create_process_str(const char *command, char *const env[], uint32_t flags, int detach, int new_pgrp,
                               ks_proc_result *out_result)
{
    return ks_proc_create_process_int(nullptr, command, env, flags, detach, new_pgrp, nullptr, out_result);
}

int ks_proc_create_process_cd(char *const argv[], char *const env[], uint32_t flags, int detach, int new_pgrp,
                              const char *dir, ks_proc_result *out_result)
{
    return ks_proc_create_process_int(argv, nullptr, env, flags, detach, new_pgrp, dir, out_result);
}

int ks_proc_create_process_str_cd(const char *command, char *const env[], uint32_t flags, int detach, int new_pgrp,
                                  const char *dir, ks_proc_result *out_result)
{
    return ks_proc_create_process_int(nullptr, command, env, flags, detach, new_pgrp, dir, out_result);
}
}
