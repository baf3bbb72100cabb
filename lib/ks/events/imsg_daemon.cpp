// The daemon log: opened, opened anew while it is written, and suspended; and how a process becomes a daemon.
#include "events/imsg_logs.h"

#include "events/children.h"
#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"

#include <korvaks/imsg_log.h>
#include <korvaks/strutl.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ks::imsg {

constinit std::atomic<bool> is_own_daemon{false};

namespace {

constexpr time_t reopen_seconds = 3600;
constexpr time_t retry_seconds = 60;
constexpr mode_t log_mode = 0666;

// What failed, for perror(); NULL: nothing did.
struct Failure {
    const char *what = nullptr;
    int error = 0;
    bool is_link = false; // `what` is the path of a symbolic link
};

Failure failure_of(const char *what)
{
    return {what, errno, false};
}

// With no lock held.
int report(const Failure &failure)
{
    if (failure.is_link) {
        const IoLockGuard lock(ks_product_crit);
        refuse_link(failure.what, state.real_err);
    } else {
        errno = failure.error;
        std::perror(failure.what);
    }
    errno = failure.error;
    return -1;
}

// What was printed before belongs to the streams as they are.
void flush_own_streams()
{
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
}

// --- Opening ---

// Readable where the process may read it: its last byte tells whether its last record is whole.
int open_daemon_log(const char *path)
{
    if (path == nullptr || *path == '\0') {
        errno = path == nullptr ? EINVAL : ENOENT;
        return -1;
    }
    const int fd = open_for_records(path, O_RDWR | O_APPEND | O_CREAT, log_mode);
    return fd >= 0 || errno != EACCES ? fd : open_for_records(path, O_WRONLY | O_APPEND | O_CREAT, log_mode);
}

Failure failure_to_open(const char *path)
{
    Failure failure = failure_of(path == nullptr ? "NULL" : path);
    failure.is_link = failure.error == ELOOP && is_symbolic_link(path);
    return failure;
}

bool is_same_file(int fd, int other_fd)
{
    struct stat st;
    struct stat other;
    return fstat(fd, &st) == 0 && fstat(other_fd, &other) == 0 && st.st_dev == other.st_dev &&
           st.st_ino == other.st_ino;
}

// A device's mode is not the log's to change.
void open_to_everybody(int fd)
{
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0777) != log_mode)
        (void)fchmod(fd, log_mode); // another user's file stays as it is
}

bool put_in_place(int fd, int place, int flags)
{
    int result = -1;
    do
        result = dup3(fd, place, flags);
    while (result < 0 && (errno == EINTR || errno == EBUSY));
    return result >= 0;
}

void note_opening(time_t now)
{
    logs.opened_at = now;
    logs.reopen_at = now + reopen_seconds;
    logs.has_said_reopen_failed = false;
}

// The path as it is from anywhere; NULL with errno.
char *absolute(const char *path)
{
    char directory[PATH_MAX] = "";
    const bool is_relative = *path != '/' && getcwd(directory, sizeof directory) != nullptr;
    const std::size_t size = std::strlen(directory) + 1 + std::strlen(path) + 1;
    auto *copy = static_cast<char *>(heap_try_malloc(size));
    if (copy == nullptr)
        errno = ENOMEM;
    else
        (void)strutl_snprintf(copy, size, is_relative ? "%s/%s" : "%s%s", directory, path);
    return copy;
}

void keep_path(char *path)
{
    stg_free_int(std::exchange(logs.path, path), 1);
}

// The new file in the place of the old one, in which nothing is lost: prints wait for the lock.
Failure replace_log(const char *path)
{
    const UniqueFd fd(open_daemon_log(path));
    if (!fd)
        return failure_to_open(path);
    open_to_everybody(fd.get());
    const bool is_other = !is_same_file(fd.get(), fileno(logs.out));
    if (!put_in_place(fd.get(), fileno(logs.out), O_CLOEXEC) ||
        (logs.err != logs.out && !put_in_place(fd.get(), fileno(logs.err), O_CLOEXEC)))
        return failure_of(path);
    if (is_other)
        begin_records(logs.daemon_file, fd.get());
    note_opening(wall_clock().tv_sec);
    return {};
}

// A process that is no daemon has its own descriptors replaced, as by freopen().
Failure replace_own_streams(const char *path)
{
    const UniqueFd fd(open_daemon_log(path));
    if (!fd)
        return failure_to_open(path);
    open_to_everybody(fd.get());
    if (!put_in_place(fd.get(), fileno(state.real_out), 0) || !put_in_place(fd.get(), fileno(state.real_err), 0))
        return failure_of(path);
    return {};
}

bool is_log_opened_here()
{
    return logs.out != nullptr && is_own_daemon.load(std::memory_order_relaxed);
}

Failure reopen_at_path(const char *path)
{
    drain(Extent::whole_lines);
    char *copy = path == nullptr ? nullptr : absolute(path);
    if (path != nullptr && copy == nullptr)
        return failure_of(path);
    const Failure failure = replace_log(path);
    if (failure.what == nullptr)
        keep_path(copy);
    else
        stg_free_int(copy, 1);
    return failure;
}

// --- Becoming a daemon ---

extern "C" void imsg_daemon_fork_child(void)
{
    is_own_daemon.store(false, std::memory_order_relaxed);
}

void watch_forks()
{
    static constinit bool is_watching = false; // guarded by ks_product_crit
    if (!is_watching)
        is_watching = pthread_atfork(nullptr, nullptr, imsg_daemon_fork_child) == 0;
}

// Descriptor 0 must not become a file of somebody's by chance.
void occupy_descriptor_0()
{
    const int fd = open("/dev/null", O_RDONLY);
    if (fd > 0)
        (void)close(fd); // the number was taken
    else if (fd < 0)
        (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, imsg_msg_unable_to_open, "/dev/null", imsg_strerror(errno));
}

FILE *stream_over(UniqueFd &fd)
{
    FILE *stream = fdopen(fd.get(), "a");
    if (stream == nullptr)
        return nullptr;
    (void)fd.release();
    (void)std::setvbuf(stream, nullptr, _IOLBF, 0); // the buffer is made when it is used
    return stream;
}

void close_log_streams()
{
    const ErrnoSaver saver;
    FILE *err = std::exchange(logs.err, nullptr);
    FILE *out = std::exchange(logs.out, nullptr);
    if (err != nullptr && err != out)
        (void)std::fclose(err); // nothing waits in it
    if (out != nullptr)
        (void)std::fclose(out);
}

// The first opening. The second stream is over the same opening: both write at the end.
Failure open_log_streams(const char *path, bool has_separate_err)
{
    UniqueFd fd(open_daemon_log(path));
    if (!fd)
        return failure_to_open(path);
    open_to_everybody(fd.get());
    begin_records(logs.daemon_file, fd.get());
    UniqueFd second(has_separate_err ? fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1);
    if (has_separate_err && !second)
        return failure_of(path);
    logs.out = stream_over(fd);
    logs.err = has_separate_err && logs.out != nullptr ? stream_over(second) : logs.out;
    if (logs.err == nullptr) {
        close_log_streams();
        return failure_of(path);
    }
    note_opening(wall_clock().tv_sec);
    return {};
}

void use_log_streams()
{
    state.real_out = logs.out;
    state.real_err = logs.err;
}

// In a child of a daemon, which becomes a daemon of its own: its parent's log and pipes are nothing to it.
void forget_parents_log()
{
    if (logs.out == nullptr || is_log_opened_here())
        return;
    forget_capture();
    if (stdout == logs.out) // of a parent without pipes, whose log stream goes on as the child's own output
        logs.out = logs.err = nullptr;
    close_log_streams();
    keep_path(nullptr);
    logs.is_suspended = false;
    state.is_daemon = false;
    state.real_out = stdout;
    state.real_err = stderr;
}

enum class Form { captured, abe };

// What makes the log the process's output; NULL, or what failed.
const char *take_output(Form form)
{
    if (form == Form::captured)
        return begin_capture();
    stdout = stderr = logs.out;
    return nullptr;
}

Failure become_daemon_locked(const char *path, Form form)
{
    imsg_reset_term();
    if (is_log_opened_here())
        return reopen_at_path(path);
    forget_parents_log();
    char *copy = absolute(path == nullptr ? "" : path);
    if (copy == nullptr)
        return failure_of(path);
    const Failure failure = open_log_streams(path, form == Form::captured);
    if (failure.what != nullptr) {
        stg_free_int(copy, 1);
        return failure;
    }
    if (const char *what = take_output(form); what != nullptr) {
        const Failure undone = failure_of(what);
        close_log_streams();
        stg_free_int(copy, 1);
        return undone;
    }
    watch_forks();
    is_own_daemon.store(true, std::memory_order_relaxed);
    keep_path(copy);
    use_log_streams();
    state.is_daemon = true;
    state.log_hooks = &log_hooks;
    return {};
}

int become_daemon(const char *path, Form form)
{
    start();
    // Before anything is replaced: where this cannot be done the process ends, and says why.
    if (form == Form::captured)
        register_endings();
    occupy_descriptor_0();
    flush_own_streams();
    const bool is_new = !is_own_daemon.load(std::memory_order_relaxed);
    if (is_new)
        unwatch_pipes(); // which a parent may have had
    Failure failure;
    {
        const IoLockGuard lock(ks_product_crit);
        failure = become_daemon_locked(path, form);
        if (failure.what == nullptr)
            state.ok_display = !logs.is_suspended;
    }
    if (failure.what != nullptr)
        return report(failure);
    before_child_start.store(imsg_starting_process, std::memory_order_release);
    if (form == Form::captured && is_new) {
        catch_fatal_signals();
        watch_pipes();
    }
    return 0;
}

// --- Suspending ---

bool has_log()
{
    return state.is_daemon && logs.out != nullptr;
}

int refuse(const char *what)
{
    errno = EINVAL;
    std::perror(what);
    errno = EINVAL;
    return -1;
}

void suspend_locked()
{
    drain(Extent::whole_lines);
    logs.is_suspended = true;
    state.real_out = stdout;
    state.real_err = stderr;
    state.ok_display = false;
}

void resume_locked()
{
    drain(Extent::whole_lines); // what was printed meanwhile comes first
    logs.is_suspended = false;
    use_log_streams();
    state.ok_display = true;
}

int change_logging(void (*change)(), const char *what_is_refused)
{
    start();
    {
        const IoLockGuard lock(ks_product_crit);
        if (has_log()) {
            change();
            return 0;
        }
    }
    return refuse(what_is_refused);
}

void say_on_old_file(const Failure &failure)
{
    char text[PATH_MAX + report_size];
    if (format_own(text, sizeof text, IMSG_ERROR, imsg_msg_daemon_log_failed, logs.path) > 0)
        (void)log_hooks.write(text, logs.err, true); // there is nobody else to tell
    if (failure.is_link)
        refuse_link(logs.path, logs.err);
    else
        report_to(logs.err, "%s: %s", logs.path, strerror_r(failure.error, text, sizeof text));
}

} // namespace

bool wants_stamps()
{
    return (has_log() && !logs.is_suspended) || (logs.is_open && logs.is_stamped);
}

// A clock that was set back counts as time that has passed.
void reopen_when_due()
{
    if (!is_log_opened_here() || logs.is_suspended)
        return;
    const time_t now = wall_clock().tv_sec;
    if (now < logs.reopen_at && now >= logs.opened_at)
        return;
    const ErrnoSaver saver;
    drain(Extent::whole_lines);
    const Failure failure = replace_log(logs.path);
    if (failure.what == nullptr)
        return;
    logs.opened_at = now;
    logs.reopen_at = now + retry_seconds;
    if (!std::exchange(logs.has_said_reopen_failed, true))
        say_on_old_file(failure);
}

} // namespace ks::imsg

using ks::imsg::logs, ks::imsg::state;

extern "C" {

int imsg_init_daemon(const char *path)
{
    return ks::imsg::become_daemon(path, ks::imsg::Form::captured);
}

int imsg_init_abe(const char *path)
{
    return ks::imsg::become_daemon(path, ks::imsg::Form::abe);
}

int imsg_open_daemon(const char *path)
{
    ks::imsg::start();
    ks::imsg::flush_own_streams();
    ks::imsg::Failure failure;
    {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        failure = logs.out != nullptr ? ks::imsg::reopen_at_path(path) : ks::imsg::replace_own_streams(path);
    }
    return failure.what == nullptr ? 0 : ks::imsg::report(failure);
}

int imsg_am_daemon(void)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    return state.is_daemon ? 1 : 0;
}

int imsg_suspend_daemon_logging(void)
{
    return ks::imsg::change_logging(ks::imsg::suspend_locked, "Can't suspend daemon logging, process not a daemon");
}

int imsg_resume_daemon_logging(void)
{
    return ks::imsg::change_logging(ks::imsg::resume_locked, "Can't resume daemon logging, process not a daemon");
}

void imsg_starting_process(void)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    ks::imsg::reopen_when_due();
}
}
