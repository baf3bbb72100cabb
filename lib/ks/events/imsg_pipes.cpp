// The pipes of a daemon: put in the place of descriptors 1 and 2, and drained into the log line by line.
#include "events/imsg_logs.h"

#include "events/children.h"
#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"

#include <korvaks/imsg_log.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ks::imsg {

constinit std::array<CapturedPipe, 2> captured_pipes{};
constinit std::atomic<bool> is_draining{false};

namespace {

constexpr int pipe_size_wanted = 1 << 20;
constexpr std::size_t read_size = 65536;
constexpr std::size_t room_size = IMSG_LOG_LINE_MAX + read_size;
constexpr std::size_t head_size = 1024;

constexpr int descriptor_of(std::size_t i)
{
    return STDOUT_FILENO + static_cast<int>(i);
}

FILE *stream_of(std::size_t i)
{
    return i == 0 ? stdout : stderr;
}

constexpr int kind_of(std::size_t i)
{
    return i == 0 ? IMSG_OK : IMSG_ERROR;
}

int read_end(std::size_t i)
{
    return captured_pipes[i].read_end.load(std::memory_order_relaxed);
}

bool is_capturing()
{
    return is_own_daemon.load(std::memory_order_relaxed) && (read_end(0) >= 0 || read_end(1) >= 0);
}

// Where captured lines go: an open log file, else the daemon log.
bool is_into_log_file()
{
    return state.log_stream != nullptr && logs.is_own_file;
}

RecordFile &file_of_captured()
{
    return is_into_log_file() ? logs.log_file : logs.daemon_file;
}

// Bytes in a pipe.
std::size_t waiting_in(int fd)
{
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}

// One drain, from what is waiting when it begins to the log.
class Drain {
  public:
    Drain(FILE *stream, RecordFile &file, Extent extent)
        : out_(stream, file), extent_(extent), has_heads_(state.log_stream == nullptr)
    {
    }

    void run();

  private:
    void look();
    void flush_own(std::size_t i);
    void read_pipe(std::size_t i);
    bool take_read(std::size_t i, ssize_t got);
    void take_lines(std::size_t i, std::size_t added);
    void take_line(std::size_t i, std::string_view line);
    void take_record(std::size_t i, std::string_view line);
    void take_piece(std::size_t i);
    void end_pipe(std::size_t i, const char *reason);
    std::string_view head_of(std::size_t i);

    RecordWriter out_;
    const Extent extent_;
    const bool has_heads_;
    std::array<std::size_t, 2> waiting_{};
    std::array<char[head_size], 2> heads_;
    std::array<std::size_t, 2> head_lengths_{};
};

std::string_view Drain::head_of(std::size_t i)
{
    if (head_lengths_[i] == 0) {
        const int length = build_head(kind_of(i), "", heads_[i], head_size);
        head_lengths_[i] = std::min(static_cast<std::size_t>(std::max(length, 0)), head_size - 1);
    }
    return {heads_[i], head_lengths_[i]};
}

void Drain::take_record(std::size_t i, std::string_view line)
{
    out_.begin_record(2 * line.size() + record_frame_max);
    if (has_heads_) {
        if (wants_stamps())
            out_.add_stamp();
        out_.add(head_of(i));
    }
    const bool is_one_line = has_heads_ && (i == 0 || logs.err == logs.out);
    out_.add_text(line, is_one_line ? Shape::one_line : Shape::plain);
    out_.add("\n");
    out_.end_record();
}

void Drain::take_line(std::size_t i, std::string_view line)
{
    for (; line.size() > IMSG_LOG_LINE_MAX; line.remove_prefix(IMSG_LOG_LINE_MAX))
        take_record(i, line.substr(0, IMSG_LOG_LINE_MAX));
    take_record(i, line);
}

// What stands in the room now, of which the last `added` bytes are new.
void Drain::take_lines(std::size_t i, std::size_t added)
{
    CapturedPipe &pipe = captured_pipes[i];
    const std::size_t before = pipe.length.load(std::memory_order_relaxed);
    std::string_view rest{pipe.room, before + added};
    std::size_t searched = before;
    for (std::size_t feed; (feed = rest.find('\n', searched)) != rest.npos; searched = 0) {
        take_line(i, rest.substr(0, feed));
        rest.remove_prefix(feed + 1);
    }
    for (; rest.size() > IMSG_LOG_LINE_MAX; rest.remove_prefix(IMSG_LOG_LINE_MAX))
        take_record(i, rest.substr(0, IMSG_LOG_LINE_MAX));
    std::memmove(pipe.room, rest.data(), rest.size());
    pipe.length.store(rest.size(), std::memory_order_release);
}

// The line whose end will not come any more.
void Drain::take_piece(std::size_t i)
{
    CapturedPipe &pipe = captured_pipes[i];
    if (const std::size_t length = pipe.length.exchange(0); length > 0)
        take_record(i, {pipe.room, length});
}

void Drain::end_pipe(std::size_t i, const char *reason)
{
    take_piece(i);
    captured_pipes[i].read_end.store(-1, std::memory_order_release); // closed where it is watched no more
    char text[report_size];
    const int length = std::snprintf(text, sizeof text, "Error while reading pipe: %s\n", reason);
    out_.begin_record(record_frame_max);
    if (wants_stamps())
        out_.add_stamp();
    out_.add({text, static_cast<std::size_t>(length)}); // which always fits
    out_.end_record();
}

// Whether there is more to read.
bool Drain::take_read(std::size_t i, ssize_t got)
{
    if (got > 0) {
        take_lines(i, static_cast<std::size_t>(got));
        waiting_[i] -= static_cast<std::size_t>(got);
        return waiting_[i] > 0 && out_.is_good();
    }
    if (got < 0 && errno == EINTR)
        return true;
    char text[128];
    if (got == 0 && extent_ != Extent::last)
        end_pipe(i, "end of file");
    else if (got < 0 && errno != EAGAIN)
        end_pipe(i, strerror_r(errno, text, sizeof text));
    return false;
}

void Drain::read_pipe(std::size_t i)
{
    CapturedPipe &pipe = captured_pipes[i];
    bool has_more = waiting_[i] > 0 && out_.is_good();
    while (has_more) {
        const std::size_t length = pipe.length.load(std::memory_order_relaxed);
        has_more = take_read(i, read(read_end(i), pipe.room + length, std::min(waiting_[i], room_size - length)));
    }
}

// What is waiting in the pipes.
void Drain::look()
{
    std::array<pollfd, 2> fds{pollfd{read_end(0), POLLIN, 0}, pollfd{read_end(1), POLLIN, 0}};
    if (poll(fds.data(), fds.size(), 0) <= 0)
        return;
    for (std::size_t i = 0; i < fds.size(); ++i) {
        if ((fds[i].revents & POLLIN) != 0)
            waiting_[i] = waiting_in(fds[i].fd);
        else if (fds[i].revents != 0)
            waiting_[i] = 1; // an end or an error, which the read tells
    }
}

// Text of the program's own goes into the pipe first, for which there must be room: the C library drops what a full
// pipe does not take. Where another thread is in the middle of a text the next drain finds it.
void Drain::flush_own(std::size_t i)
{
    FILE *stream = stream_of(i);
    const std::size_t pending = __fpending(stream);
    if ((pending == 0 && ferror_unlocked(stream) == 0) || read_end(i) < 0 || fileno(stream) != descriptor_of(i))
        return;
    if (waiting_[i] + pending > captured_pipes[i].size / 2)
        read_pipe(i);
    if (ftrylockfile(stream) != 0)
        return;
    const bool is_flushed = fflush_unlocked(stream) == 0;
    const bool is_lost = !is_flushed || ferror_unlocked(stream) != 0;
    clearerr_unlocked(stream);
    funlockfile(stream);
    if (is_flushed)
        waiting_[i] += pending;
    if (!is_lost)
        return;
    lost_count.fetch_add(1, std::memory_order_relaxed);
    out_.begin_record(record_frame_max);
    if (wants_stamps())
        out_.add_stamp();
    add_report(out_, "Text written to standard %s was lost", i == 0 ? "output" : "error");
}

void Drain::run()
{
    look();
    for (std::size_t i = 0; i < waiting_.size(); ++i)
        flush_own(i);
    for (std::size_t i = 0; i < waiting_.size(); ++i) {
        read_pipe(i);
        if (extent_ != Extent::whole_lines && out_.is_good())
            take_piece(i);
    }
    (void)out_.finish(); // what was lost is counted and said
}

// --- The pipes themselves ---

struct Ends {
    UniqueFd read_end;
    UniqueFd write_end;
    UniqueFd before; // what the descriptor was; none for one that was closed
    bool is_replaced = false;
};
using AllEnds = std::array<Ends, 2>;

bool open_pipe(Ends &out_ends)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    out_ends.read_end.reset(above_stdio(ends[0]));
    out_ends.write_end.reset(above_stdio(ends[1]));
    if (!out_ends.read_end || !out_ends.write_end)
        return false;
    (void)fcntl(out_ends.read_end.get(), F_SETPIPE_SZ, pipe_size_wanted); // else it stays as large as it is
    return true;
}

bool replace_descriptor(Ends &ends, int fd)
{
    struct stat st;
    const bool was_open = fstat(fd, &st) == 0 || errno != EBADF;
    if (was_open)
        ends.before.reset(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (was_open && !ends.before)
        return false;
    ends.is_replaced = dup2(ends.write_end.get(), fd) == fd;
    ends.write_end.reset();
    return ends.is_replaced;
}

void put_back(AllEnds &all)
{
    const ErrnoSaver saver;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (!all[i].is_replaced)
            continue;
        if (all[i].before)
            (void)dup2(all[i].before.get(), descriptor_of(i)); // it was there before
        else
            (void)close(descriptor_of(i));
    }
}

bool stop_blocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool make_room_for_lines(CapturedPipe &pipe)
{
    if (pipe.room == nullptr)
        pipe.room = static_cast<char *>(heap_try_malloc(room_size));
    if (pipe.room == nullptr)
        errno = ENOMEM;
    return pipe.room != nullptr;
}

// NULL, or what failed.
const char *set_up(AllEnds &all)
{
    for (Ends &ends : all) {
        if (!open_pipe(ends))
            return "Can't create pipe";
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (!replace_descriptor(all[i], descriptor_of(i)))
            return "Can't dup pipes to stdout/err";
    }
    if (!stop_blocking(all[0].read_end.get()))
        return "Unable to set stdout read pipe non-blocking";
    if (!stop_blocking(all[1].read_end.get()))
        return "Unable to set stderr read pipe non-blocking";
    if (!stop_blocking(STDOUT_FILENO))
        return "Unable to set stdout non-blocking";
    if (!stop_blocking(STDERR_FILENO))
        return "Unable to set stderr non-blocking";
    if (!make_room_for_lines(captured_pipes[0]))
        return "Can't set stdout pipe read handle";
    if (!make_room_for_lines(captured_pipes[1]))
        return "Can't set stderr pipe read handle";
    return nullptr;
}

int refuse(unsigned number)
{
    (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, number);
    errno = EINVAL;
    return -1;
}

} // namespace

void drain(Extent extent)
{
    if (!is_capturing())
        return;
    const ErrnoSaver saver;
    FILE *stream = is_into_log_file() ? state.log_stream : logs.out;
    RecordFile &file = file_of_captured();
    if (!try_again(stream, file))
        return; // what waits is better off where it is
    is_draining.store(true, std::memory_order_relaxed);
    Drain(stream, file, extent).run();
    is_draining.store(false, std::memory_order_release);
}

bool is_log_refusing()
{
    return file_of_captured().is_refused;
}

const char *begin_capture()
{
    AllEnds all;
    if (const char *what = set_up(all); what != nullptr) {
        put_back(all);
        return what;
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        captured_pipes[i].length.store(0, std::memory_order_relaxed);
        captured_pipes[i].size = static_cast<std::size_t>(
            std::max(fcntl(all[i].read_end.get(), F_GETPIPE_SZ), 0)); // 0: read before each flush
        captured_pipes[i].read_end.store(all[i].read_end.release(), std::memory_order_release);
    }
    return nullptr;
}

void forget_capture()
{
    for (CapturedPipe &pipe : captured_pipes)
        const UniqueFd fd(pipe.read_end.exchange(-1));
}

void end_capture()
{
    if (!is_capturing())
        return;
    const ErrnoSaver saver;
    drain(Extent::whole_lines);
    // Text that comes from here on, from handlers and other threads, goes to the log as it is.
    for (std::size_t i = 0; i < captured_pipes.size(); ++i)
        (void)dup2(fileno(logs.out), descriptor_of(i)); // else it stays what it was
    drain(Extent::last);
    for (CapturedPipe &pipe : captured_pipes)
        pipe.read_end.store(-1, std::memory_order_release);
}

} // namespace ks::imsg

extern "C" {

void imsg_drain_pipes(void)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    ks::imsg::drain(ks::imsg::Extent::whole_lines);
}

int imsg_drain_pipes_fully(void)
{
    ks::imsg::start();
    if (!ks::imsg::is_own_daemon.load(std::memory_order_relaxed))
        return ks::imsg::refuse(imsg_msg_not_daemon_drain);
    const ks::IoLockGuard lock(ks::ks_product_crit);
    ks::imsg::drain(ks::imsg::Extent::everything);
    return 0;
}

int imsg_set_pipes_blocking(void)
{
    ks::imsg::start();
    if (imsg_am_daemon() == 0)
        return ks::imsg::refuse(imsg_msg_not_daemon_blocking);
    const bool is_done = ks::make_pipe_blocking(STDOUT_FILENO) && ks::make_pipe_blocking(STDERR_FILENO);
    return is_done ? 0 : -1;
}

int imsg_daemon_pipe_fd(int fd)
{
    ks::imsg::start();
    if (!ks::imsg::is_own_daemon.load(std::memory_order_relaxed))
        return ks::imsg::refuse(imsg_msg_not_daemon_fd);
    const bool is_captured = fd == STDOUT_FILENO || fd == STDERR_FILENO;
    const int end = is_captured ? ks::imsg::read_end(static_cast<std::size_t>(fd - STDOUT_FILENO)) : -1;
    return end >= 0 ? end : ks::imsg::refuse(imsg_msg_log_not_open);
}
}
