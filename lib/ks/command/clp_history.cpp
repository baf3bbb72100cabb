// The command history: what a host's users have run, one line for each command.
//
// Many processes write to the same file at the same time and none may wait for another. So a record is
// built whole and goes out with one write to a descriptor opened for appending, which the system
// keeps in one piece.
#include "command/clp_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_heap.h"
#include "kernel/ks_locks.h"

#include <korvaks/date.h>
#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ks::clp::here;
using Pieces = std::initializer_list<std::string_view>;

constexpr std::size_t command_bytes = sizeof(clp_tls::command_text); // with the NUL
static_assert(command_bytes == 257);

// --- Whether history is kept ---

// A host without a data directory keeps none. That is asked first: a tool that reports its command
// line must not end where it could have done its work.
bool is_history_kept()
{
    if (ks_has_hostdata_dir() == 0)
        return false;
    char marker[KS_PATH_SIZE];
    return fileutl_exists(ks_host_config_dir(marker, "collect_history")) != 0;
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
        const bool is_kept = is_history_kept(); // not under the lock: it may print
        const ks::LockGuard guard(lock);
        if (answer.load(std::memory_order_relaxed) == Answer::unknown)
            answer.store(is_kept ? Answer::kept : Answer::not_kept, std::memory_order_release);
    }
    return answer.load(std::memory_order_acquire) == Answer::kept;
}

// --- The file ---

bool is_regular(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// O_NONBLOCK: the name may be a pipe's that nobody reads.
ks::UniqueFd open_log(const char *path)
{
    constexpr int flags = O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t mode = 0666;
    ks::UniqueFd fd(open(path, O_RDWR | flags, mode)); // to see its last byte
    if (!fd && errno == EACCES)
        fd.reset(open(path, O_WRONLY | flags, mode));
    if (fd && !is_regular(fd.get()))
        fd.reset();
    return fd;
}

// Whether a full disk has cut the last record. While another process is writing it may look so too;
// then an empty line comes between the records.
bool ends_within_a_line(int fd)
{
    struct stat st;
    char last = '\n';
    if (fstat(fd, &st) != 0 || st.st_size == 0 || pread(fd, &last, 1, st.st_size - 1) != 1)
        return false;
    return last != '\n';
}

// Nothing is written again after a short write: other processes may have gone on.
void write_line(const char *path, const char *line_with_break, std::size_t size)
{
    const ks::UniqueFd fd = open_log(path);
    if (!fd)
        return;
    const std::size_t skipped = ends_within_a_line(fd.get()) ? 0 : 1;
    ssize_t written;
    do
        written = write(fd.get(), line_with_break + skipped, size - skipped);
    while (written < 0 && errno == EINTR);
}

// --- Records ---

// A line break in a word would forge a record, other controls the reader's terminal.
char shown(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    const bool is_control = (byte < ' ' && c != '\t') || byte == 0x7F;
    return is_control ? '?' : c;
}

char *append(char *to, std::string_view piece)
{
    for (const char c : piece)
        *to++ = shown(c);
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
    (void)ks_hostdata_dir(path, "log", "vellum_history");
    const ks::ErrnoSaver saver;
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
    *to = '\n';
    write_line(path, line, size);
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
    if (is_history_kept_once(collectdatas_answer, ks::clp_collectdatas_crit))
        write_collected(or_empty(tag), or_empty(text));
}

void clp_collectdatai(const char *text, int number)
{
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
