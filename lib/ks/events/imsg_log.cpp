// Log files: opened with care, locked for the process, and given a header. A log that cannot be had is the real
// standard error.
#include "events/imsg_logs.h"

#include "kernel/ks_guard.h"
#include "util/ks_open.h"

#include <korvaks/date.h>
#include <korvaks/imsg_log.h>
#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

#include <algorithm>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ks::imsg {

constinit Logs logs{};

namespace {

constexpr int lock_tries = 20;
constexpr int asterisk_count = 67;

// 0, or the errno that says why the descriptor's file takes no records.
int refusal_of(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return errno;
    if (S_ISREG(st.st_mode))
        return st.st_nlink > 1 ? EMLINK : 0;
    if (!S_ISCHR(st.st_mode))
        return EINVAL;
    // A terminal makes its writer wait, as terminals do; and what others do with it is not changed: it was opened here.
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0 ? 0 : errno;
}

bool lock_whole_file(int fd)
{
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    for (int tries = 0; tries < lock_tries; ++tries) {
        if (fcntl(fd, F_SETLK, &whole) == 0)
            return true;
    }
    return false;
}

void unlock_whole_file(int fd)
{
    struct flock whole {};
    whole.l_type = F_UNLCK;
    whole.l_whence = SEEK_SET;
    (void)fcntl(fd, F_SETLK, &whole); // closing it does the same
}

UniqueFd open_log(const char *path)
{
    if (path == nullptr || *path == '\0')
        return {};
    UniqueFd fd(open_for_records(path, O_RDWR | O_APPEND, 0));
    if (!fd && errno == ENOENT)
        fd.reset(open_for_records(path, O_RDWR | O_APPEND | O_CREAT, 0666));
    if (!fd && errno == ELOOP && is_symbolic_link(path))
        refuse_link(path, state.real_err);
    return fd;
}

// The stream of a log that was opened and locked; NULL for one that was not.
FILE *stream_of(const char *path)
{
    UniqueFd fd = open_log(path);
    if (!fd)
        return nullptr;
    logs.is_terminal = isatty(fd.get()) == 1;
    logs.is_locked = !logs.is_terminal && lock_whole_file(fd.get());
    if (!logs.is_terminal && !logs.is_locked)
        return nullptr;
    FILE *stream = fdopen(fd.get(), "r+");
    if (stream == nullptr)
        return nullptr;
    (void)fd.release();
    (void)std::fseek(stream, 0, SEEK_END); // a terminal has none
    return stream;
}

void begin_log(const char *path)
{
    logs.is_locked = logs.is_terminal = false;
    FILE *stream = stream_of(path);
    logs.is_own_file = stream != nullptr;
    if (stream == nullptr) {
        logs.is_locked = false; // given up with the file
        logs.is_terminal = isatty(fileno(state.real_err)) == 1;
        stream = state.real_err;
    }
    logs.log_file.is_refused = false; // of an earlier log
    logs.log_file.lost_count = 0;
    begin_records(logs.log_file, fileno(stream));
    logs.is_open = true;
    state.log_stream = stream;
    state.log_hooks = &log_hooks;
}

// What a header says, asked for before the lock is taken.
struct HeaderValues {
    const char *date = "";
    char host[256] = "";
    char user[256] = "";
};

void ask_for_header(HeaderValues &out)
{
    const char *date = date_fmt_long_date_time(wall_clock().tv_sec);
    if (date != nullptr)
        out.date = date;
    // Without a name the header has an empty one.
    (void)sysutl_myhostname(out.host, sizeof out.host);
    (void)sysutl_user_name(out.user, sizeof out.user);
}

void write_header(const HeaderValues &values)
{
    char text[2048];
    text[0] = '\n';
    std::fill_n(text + 1, asterisk_count, '*');
    text[asterisk_count + 1] = '\n';
    std::size_t used = asterisk_count + 2;
    Message message(IMSG_OK_MORE);
    message.table = &_imsg_ks_msg_table;
    message.number = imsg_msg_log_header;
    const char *hdrfmt = text_of_locked(message);
    here.require(hdrfmt != nullptr, "hdrfmt != NULL");
    const int length = strutl_snprintf(text + used, sizeof text - used, hdrfmt, values.date, values.host,
                                       static_cast<int>(getpid()), values.user);
    used += length < 0 ? 0 : std::min(static_cast<std::size_t>(length), sizeof text - used - 1);
    (void)log_hooks.write({text, used}, state.log_stream, false); // a refusal is said there
}

} // namespace

int open_for_records(const char *path, int flags, mode_t mode)
{
    return open_judged(path, flags, mode, refusal_of);
}

bool is_symbolic_link(const char *path)
{
    const ErrnoSaver saver;
    struct stat st;
    return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

void refuse_link(const char *path, FILE *stream)
{
    constexpr const char *format = "Unable to open log file \"%s\": pathname must not be a symbolic link.\n";
    const ErrnoSaver saver;
    char text[4096 + 128]; // a path that exists is not longer
    const int length = strutl_snprintf(text, sizeof text, format, path);
    if (length > 0)
        (void)put_text(text, std::min(static_cast<std::size_t>(length), sizeof text - 1), stream);
}

} // namespace ks::imsg

using ks::imsg::logs, ks::imsg::state;

extern "C" {

FILE *imsg_start_log(const char *path, void *, int header)
{
    ks::imsg::start();
    ks::imsg::HeaderValues values;
    if (header != 0)
        ks::imsg::ask_for_header(values);
    const ks::IoLockGuard lock(ks::ks_product_crit);
    ks::imsg::drain(ks::imsg::Extent::whole_lines);
    if (!logs.is_open) {
        logs.is_stamped = header == 0;
        ks::imsg::begin_log(path);
    }
    if (header != 0)
        ks::imsg::write_header(values);
    return state.log_stream;
}

FILE *imsg_start_log_file(const char *path)
{
    return imsg_start_log(path, nullptr, 1);
}

void imsg_end_log_file(void)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    const ks::ErrnoSaver saver;
    ks::imsg::drain(ks::imsg::Extent::whole_lines);
    if (!logs.is_open)
        return;
    FILE *stream = std::exchange(state.log_stream, nullptr);
    logs.is_open = false;
    logs.is_stamped = false;
    if (!std::exchange(logs.is_own_file, false))
        return;
    // What the program has printed on it itself belongs to the locked file.
    (void)std::fflush(stream);
    if (std::exchange(logs.is_locked, false))
        ks::imsg::unlock_whole_file(fileno(stream));
    (void)std::fclose(stream); // all was written
}

void imsg_end_log(void)
{
    imsg_end_log_file();
}
}
