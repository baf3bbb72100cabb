// The command history: what a host's users have run, one line for each command.
//
// Many processes write to the same file at the same time. A record is built whole and goes out with one
// write to a descriptor opened for appending, which the system keeps in one piece. A write may still be
// cut, by a full disk, a limit or the end of its process; so whoever writes looks first whether the last
// record is whole, and holds a lock on the file meanwhile, or else a record that was cut after the look
// would run together with the next one. Nobody waits long for the lock: a history that cannot be written
// is no reason for a tool to stand still.
#include "command/clp_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"
#include "kernel/ks_locks.h"
#include "messages/ks_hostdata.h"
#include "util/ks_open.h"

#include <korvaks/date.h>
#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string_view>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ks::clp::here;
using Pieces = std::initializer_list<std::string_view>;

constexpr std::size_t command_bytes = sizeof(clp_tls::command_text); // with the NUL
static_assert(command_bytes == 257);

// --- Whether history is kept ---

// A host without a data directory keeps none: a tool that reports its command line must not end where it
// could have done its work.
bool is_history_kept()
{
    char marker[KS_PATH_SIZE];
    return ks::try_hostdata_dir(marker, "config", "collect_history") && fileutl_exists(marker) != 0;
}

enum class Answer : unsigned char {
    unknown,
    kept,
    not_kept,
};

// Written once, each under its lock, and read without it.
constinit std::atomic<Answer> collectdatas_answer{Answer::unknown};
constinit std::atomic<Answer> collectdatai_answer{Answer::unknown};

bool is_history_kept_once(std::atomic<Answer> &answer, vlthread_mutex_t &lock)
{
    if (answer.load(std::memory_order_acquire) == Answer::unknown) {
        const bool is_kept = is_history_kept(); // not under the lock: it may wait for a disk
        const ks::LockGuard guard(lock);
        if (answer.load(std::memory_order_relaxed) == Answer::unknown)
            answer.store(is_kept ? Answer::kept : Answer::not_kept, std::memory_order_release);
    }
    return answer.load(std::memory_order_acquire) == Answer::kept;
}

// --- The file ---

ks::UniqueFd open_log(const char *path)
{
    constexpr int flags = O_APPEND | O_CREAT;
    constexpr mode_t mode = 0666;
    ks::UniqueFd fd(ks::open_own_file(path, O_RDWR | flags, mode)); // to see its last byte
    if (!fd && errno == EACCES)
        fd.reset(ks::open_own_file(path, O_WRONLY | flags, mode));
    return fd;
}

enum class Turn {
    ours,
    not_given, // there are no locks here
    missed,    // somebody else's, for too long
};

Turn take_turn(int fd)
{
    constexpr long wait_max_ns = 1'000'000'000;
    constexpr long pause_max_ns = 10'000'000;
    flock whole_file{};
    whole_file.l_type = F_WRLCK;
    long waited_ns = 0;
    for (long pause_ns = 50'000; fcntl(fd, F_OFD_SETLK, &whole_file) != 0;
         pause_ns = std::min(2 * pause_ns, pause_max_ns)) {
        if (errno != EAGAIN && errno != EINTR)
            return Turn::not_given;
        if (waited_ns >= wait_max_ns)
            return Turn::missed;
        const timespec pause{0, pause_ns};
        (void)nanosleep(&pause, nullptr); // one that is interrupted only makes the wait shorter
        waited_ns += pause_ns;
    }
    return Turn::ours;
}

// Closing does not end it while a child that was forked meanwhile has the file open too.
void end_turn(int fd)
{
    flock whole_file{};
    whole_file.l_type = F_UNLCK;
    (void)fcntl(fd, F_OFD_SETLK, &whole_file); // else closing it must do
}

bool ends_with_a_line(int fd)
{
    struct stat st;
    char last = '\0';
    return fstat(fd, &st) == 0 && (st.st_size == 0 || (pread(fd, &last, 1, st.st_size - 1) == 1 && last == '\n'));
}

// A write that goes beyond the limit on the size of files ends a process that has not provided for it
// (SIGXFSZ). No record is worth that.
void write_within_limits(int fd, const char *data, std::size_t size)
{
    sigset_t limit_signal;
    sigset_t mask;
    sigset_t pending;
    (void)sigemptyset(&limit_signal);
    (void)sigaddset(&limit_signal, SIGXFSZ);
    (void)pthread_sigmask(SIG_BLOCK, &limit_signal, &mask);
    (void)sigpending(&pending);
    ssize_t written;
    do
        written = write(fd, data, size);
    while (written < 0 && errno == EINTR);
    // Nothing is written again after a short write: the turn ends.
    if (written < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec at_once{};
        while (sigtimedwait(&limit_signal, nullptr, &at_once) < 0 && errno == EINTR) {
        }
    }
    (void)pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

// The line begins with a line break that is left out where it is not needed.
void write_line(const char *path, const char *line, std::size_t size)
{
    const ks::UniqueFd fd = open_log(path);
    const Turn turn = fd ? take_turn(fd.get()) : Turn::missed;
    if (turn == Turn::missed)
        return;
    const std::size_t skipped = turn == Turn::ours && ends_with_a_line(fd.get()) ? 1 : 0;
    write_within_limits(fd.get(), line + skipped, size - skipped);
    if (turn == Turn::ours)
        end_turn(fd.get());
}

// --- Records ---

// Bytes of the control character that the text begins with, 0 for none. Those beyond ASCII are known by
// their UTF-8 form in every locale: whoever reads the file has one of their own.
std::size_t control_length(std::string_view text)
{
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte == 0xC2 && text.size() > 1 && (static_cast<unsigned char>(text[1]) & 0xE0U) == 0x80)
        return 2;
    return (byte < ' ' && byte != '\t') || byte == 0x7F ? 1 : 0;
}

// A line break in a word would forge a record, other controls the reader's terminal.
char *append(char *to, std::string_view piece)
{
    while (!piece.empty()) {
        const std::size_t control = control_length(piece);
        *to++ = control != 0 ? '?' : piece.front();
        piece.remove_prefix(std::max<std::size_t>(control, 1));
    }
    return to;
}

struct Stamp {
    char text[64];
};

Stamp stamp_of(const timeval &time)
{
    Stamp stamp{};
    tm local{};
    (void)date_get_localtime(time.tv_sec, &local); // the clock shows no year that it fails for
    const std::size_t length = strftime(stamp.text, sizeof stamp.text, "%Y:%m:%d:%H:%M:%S.", &local);
    (void)std::snprintf(stamp.text + length, sizeof stamp.text - length, "%03u ",
                        static_cast<unsigned>(time.tv_usec / 1000)); // fits
    return stamp;
}

// The pieces as one record, behind a line break that is written when it is needed.
void write_record(Pieces pieces)
{
    char path[KS_PATH_SIZE];
    if (!ks::try_hostdata_dir(path, "log", "vellum_history"))
        return;
    timeval now;
    date_get_timeval(&now);
    const Stamp stamp = stamp_of(now);
    std::size_t size = std::strlen(stamp.text) + 2;
    for (const std::string_view piece : pieces)
        if (__builtin_add_overflow(size, piece.size(), &size))
            return;
    auto *const line = static_cast<char *>(ks::heap_try_malloc(size));
    if (line == nullptr)
        return; // as silent as a file that cannot be written
    char *to = line;
    *to++ = '\n';
    to = append(to, stamp.text);
    for (const std::string_view piece : pieces)
        to = append(to, piece);
    *to++ = '\n';
    {
        const ks::CancelHold hold; // a cancelled thread would keep the lock
        write_line(path, line, static_cast<std::size_t>(to - line));
    }
    stg_free_int(line, 1);
}

// --- What records say ---

struct Identity {
    char text[32];
};

// The caller's identity as text, in the form of credentials.
Identity caller_identity()
{
    Identity identity{};
    (void)std::snprintf(identity.text, sizeof identity.text, "UNIX:UID-%d", static_cast<int>(geteuid())); // fits
    return identity;
}

const char *behind_first_dash(const char *text)
{
    const char *const dash = std::strchr(text, '-');
    return dash != nullptr ? dash + 1 : text;
}

void write_command_record(const char *command, const char *took)
{
    const Identity identity = caller_identity();
    char caller[80];
    (void)std::snprintf(caller, sizeof caller, "(uid=%s) (pid=%d) ", behind_first_dash(identity.text),
                        static_cast<int>(getpid())); // fits
    char directory[PATH_MAX];
    const bool has_directory = getcwd(directory, sizeof directory) != nullptr;
    write_record({caller, command, " ", has_directory ? "in " : "", has_directory ? directory : "",
                  has_directory ? " " : "", took != nullptr ? "took " : "", took != nullptr ? took : "",
                  took != nullptr ? " " : ""});
}

const char *build_command(const char *name, int argc, char *const *argv)
{
    char *const text = ks_tls_get()->clp.command_text;
    (void)strutl_cpy_buf(text, name != nullptr ? name : "", command_bytes); // a longer one is cut
    std::size_t length = std::strlen(text);
    for (int i = 0; i < argc; ++i) {
        here.require(argv[i] != nullptr, "argv[i] != NULL");
        const std::size_t word_length = std::strlen(argv[i]);
        if (word_length >= command_bytes || length + word_length + 3 >= command_bytes)
            break;
        (void)std::snprintf(text + length, command_bytes - length, " '%s'", argv[i]);
        length += word_length + 3;
    }
    return text;
}

const char *or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

void write_collected(const char *tag, const char *text)
{
    write_record({tag, " '", text, "': "});
}

// --- The end of a tool ---

bool is_logged_at_exit(const char *name)
{
    return std::strcmp(name, "veltool") == 0 || std::strcmp(name, "spantool") == 0 ||
           std::strncmp(name, "velmake", 7) == 0;
}

float seconds_since(const timeval &start)
{
    timeval now;
    date_get_timeval(&now);
    time_t seconds = 0;
    suseconds_t microseconds = 0;
    (void)__builtin_sub_overflow(now.tv_sec, start.tv_sec, &seconds); // a start out of range gives a wrapped time
    (void)__builtin_sub_overflow(now.tv_usec, start.tv_usec, &microseconds);
    return static_cast<float>(seconds) + static_cast<float>(microseconds) * 1e-6F;
}

} // namespace

extern "C" {

void clp_log_cl_args(const char *name, int argc, char *const *argv, const char *took)
{
    here.require(argc <= 0 || argv != nullptr, "argv != NULL");
    const ks::ErrnoSaver saver;
    const char *const command = build_command(name, argc, argv);
    if (is_history_kept())
        write_command_record(command, took);
}

void clp_log_command(const char *name, const clp_handle *hdl, const char *took)
{
    ks::clp::require_handle(hdl);
    clp_log_cl_args(name, hdl->argc, hdl->argv, took);
}

const char *clp_get_command(void)
{
    const char *const text = ks_tls_get()->clp.command_text;
    return text[0] != '\0' ? text : "No command";
}

void clp_get_starttime(struct timeval *out_time)
{
    date_get_timeval(out_time);
}

void clp_exit_log_args(int argc, char *const *argv, const struct timeval *start)
{
    const char *const name = imsg_get_app_name();
    if (!is_logged_at_exit(name))
        return;
    here.require(start != nullptr, "start != NULL");
    char took[256];
    (void)std::snprintf(took, sizeof took, " %f s", static_cast<double>(seconds_since(*start))); // fits
    clp_log_cl_args(name, argc, argv, took);
}

void clp_exit_log_command(const clp_handle *hdl, const struct timeval *start)
{
    ks::clp::require_handle(hdl);
    clp_exit_log_args(hdl->argc, hdl->argv, start);
}

void clp_collectdatas(const char *tag, const char *text)
{
    const ks::ErrnoSaver saver;
    if (is_history_kept_once(collectdatas_answer, ks::clp_collectdatas_crit))
        write_collected(or_empty(tag), or_empty(text));
}

void clp_collectdatai(const char *text, int number)
{
    const ks::ErrnoSaver saver;
    if (!is_history_kept_once(collectdatai_answer, ks::clp_collectdatai_crit))
        return;
    text = or_empty(text);
    char shown_text[1025];
    if (number == 0)
        (void)strutl_cpy_buf(shown_text, text, sizeof shown_text); // a longer one is cut
    else
        (void)std::snprintf(shown_text, sizeof shown_text, "%.1000s %20d", text, number);
    write_collected(text, shown_text);
}
}
