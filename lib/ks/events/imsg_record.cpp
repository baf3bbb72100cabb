// Records on their way to a log: stamped, on one line where the log wants it so, and written in one write.
#include "events/imsg_logs.h"

#include "kernel/stg_quiet.h"
#include "text/date_stamp.h"

#include <korvaks/imsg_log.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <utility>

#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ks::imsg {

constinit std::atomic<uint64_t> written_count{0};
constinit std::atomic<uint64_t> lost_count{0};

namespace {

// Room for the longest captured line, however many bytes of it are doubled; longer messages take theirs from the heap.
// The line feed in front is written where the last record was cut.
constexpr std::size_t process_room_size = 1 + 2 * IMSG_LOG_LINE_MAX + record_frame_max;
constinit char process_room[process_room_size]{'\n'};

constinit date_tls known_zone{}; // of stamps

// How much of what snprintf() has counted is there.
std::size_t length_in(int length, std::size_t size)
{
    return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size - 1);
}

// A text that was cut to the buffer ends its line all the same.
std::string_view as_line(char *buffer, std::size_t length, std::size_t size)
{
    if (length == 0 || buffer[length - 1] != '\n') {
        length = std::min(length, size - 1);
        buffer[length++] = '\n';
    }
    return {buffer, length};
}

struct Stamp {
    char buffer[report_size];
    std::string_view text;
    bool is_error = false; // the text is the line that says why there is none
};

// Into the caller's place, so that nothing that is said here touches the message being printed.
void make_stamp(Stamp &out)
{
    const std::size_t length = write_date_stamp(wall_clock(), known_zone, out.buffer);
    out.is_error = length == 0;
    if (out.is_error) {
        const int size = format_own(out.buffer, sizeof out.buffer, IMSG_ERROR, imsg_msg_null_message,
                                    "imsg_print_time: date_fmt_token_general failed");
        out.text = as_line(out.buffer, length_in(size, sizeof out.buffer), sizeof out.buffer);
        return;
    }
    out.buffer[length] = ' ';
    out.text = {out.buffer, length + 1};
}

[[gnu::format(printf, 2, 0)]] std::string_view make_report(char *buffer, const char *format, va_list args)
{
    const std::size_t head = length_in(build_head(IMSG_ERROR, subsystem, buffer, report_size), report_size);
    const int length = strutl_vsnprintf(buffer + head, report_size - head, format, args);
    return as_line(buffer, head + length_in(length, report_size - head), report_size);
}

Shape shape_of(const FILE *stream)
{
    return stream == logs.out ? Shape::one_line : Shape::plain;
}

bool ends_in_line_feed(int fd, off_t size)
{
    char last = '\n';
    return size == 0 || pread(fd, &last, 1, size - 1) != 1 || last == '\n';
}

// Whether the last record in the file was cut by whoever wrote it. Another process may be in the middle of a record,
// even for long when it does not get the processor. File systems that let one writer in at a time, as local ones do,
// have a write of nothing wait for that one; elsewhere the size grows, and one that grows says nothing yet.
bool ends_in_cut_record(int fd)
{
    constexpr int looks_max = 20;
    constexpr timespec pause{0, 1'000'000};
    const ErrnoSaver saver;
    struct stat st;
    off_t size = -1;
    for (int look = 0; look < looks_max; ++look) {
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || ends_in_line_feed(fd, st.st_size))
            return false;
        if (st.st_size == size)
            return true;
        size = st.st_size;
        (void)!write(fd, "", 0);
        (void)nanosleep(&pause, nullptr);
    }
    return false;
}

bool put_stamped(std::string_view text, FILE *stream)
{
    Stamp stamp;
    make_stamp(stamp);
    return put_text_itself(stamp.text, stream) && put_text_itself(text, stream);
}

bool write_for_log(std::string_view text, FILE *stream, bool opens_message)
{
    const bool is_stamped = opens_message && !text.empty() && wants_stamps();
    RecordFile *file = file_of(stream);
    if (file == nullptr)
        return is_stamped ? put_stamped(text, stream) : put_text_itself(text, stream);
    if (text.empty())
        return true;
    const int saved_errno = errno;
    const Shape shape = shape_of(stream);
    RecordWriter out(stream, *file);
    out.begin_record((shape == Shape::one_line ? 2 : 1) * text.size() + record_frame_max);
    if (is_stamped)
        out.add_stamp();
    out.add_text(text, shape);
    out.end_record();
    if (!out.finish())
        return false;
    errno = saved_errno;
    return true;
}

void prepare_print()
{
    reopen_when_due();
    drain(Extent::whole_lines);
}

} // namespace

constinit const LogHooks log_hooks{prepare_print, write_for_log};

RecordWriter::RecordWriter(int fd, RecordFile &file, char *room, std::size_t room_size)
    : file_(file), fd_(fd), room_(room), room_size_(room_size)
{
}

RecordWriter::RecordWriter(FILE *stream, RecordFile &file)
    : RecordWriter(fileno(stream), file, process_room, process_room_size)
{
    // What the program has printed on the stream itself comes first, unless another thread is in the middle of it.
    if (__fpending(stream) == 0 || ftrylockfile(stream) != 0)
        return;
    (void)fflush_unlocked(stream);
    funlockfile(stream);
}

RecordWriter::~RecordWriter()
{
    stg_free_int(heap_room_, 1);
}

void RecordWriter::begin_record(std::size_t size_max)
{
    if (size_max > room_size_ - used_)
        write_gathered();
    if (size_max <= room_size_ - used_ || heap_room_ != nullptr)
        return;
    heap_room_ = static_cast<char *>(heap_try_malloc(size_max + 1));
    if (heap_room_ == nullptr)
        return; // the record leaves in several writes
    heap_room_[0] = '\n';
    room_ = heap_room_;
    room_size_ = size_max + 1;
}

void RecordWriter::add(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (used_ == room_size_)
            write_gathered();
        const std::size_t size = std::min(bytes.size(), room_size_ - used_);
        std::memcpy(room_ + used_, bytes.data(), size);
        used_ += size;
        bytes.remove_prefix(size);
    }
}

void RecordWriter::add_stamp()
{
    Stamp stamp;
    make_stamp(stamp);
    add(stamp.text);
    if (stamp.is_error)
        end_record();
}

void RecordWriter::add_text(std::string_view text, Shape shape)
{
    for_each_file_piece(
        text, shape, [](std::string_view piece, void *writer) { static_cast<RecordWriter *>(writer)->add(piece); },
        this);
}

// How much the file took; with less than all of it error_ says why.
std::size_t RecordWriter::write_all_of(std::string_view bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t size = write(fd_, bytes.data() + written, bytes.size() - written);
        if (size >= 0) {
            written += static_cast<std::size_t>(size);
        } else if (errno != EINTR) {
            error_ = errno;
            break;
        }
    }
    if (written > 0)
        file_.is_cut = written < bytes.size() && bytes[written - 1] != '\n';
    return written;
}

void RecordWriter::lose_gathered()
{
    file_.lost_count += record_count_;
    lost_count.fetch_add(record_count_, std::memory_order_relaxed);
}

// Records of one write end in line feeds, so that those in the file can be counted.
void RecordWriter::note_refusal(std::string_view bytes, std::size_t written)
{
    const auto feeds = std::count(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(written), '\n');
    const auto whole = static_cast<uint64_t>(feeds) - (written > 0 && bytes.data() == room_ ? 1 : 0);
    const uint64_t whole_records = std::min(whole, record_count_);
    written_count.fetch_add(whole_records, std::memory_order_relaxed);
    record_count_ -= whole_records;
    lose_gathered();
    file_.error = error_;
}

// Before the first record that follows the lost ones, so that the log shows where they are missing.
void RecordWriter::say_what_was_lost()
{
    if (file_.lost_count == 0)
        return;
    char room[1 + 2 * report_size] = "\n";
    char text[128];
    RecordWriter report(fd_, file_, room, sizeof room);
    const uint64_t count = std::exchange(file_.lost_count, 0);
    if (wants_stamps())
        report.add_stamp();
    add_report(report, "%llu records could not be written: %s", static_cast<unsigned long long>(count),
               strerror_r(file_.error, text, sizeof text));
    report.record_count_ = 0; // it is no record that somebody would miss
    report.write_gathered();
    if (report.is_good())
        return;
    file_.lost_count = count;
    error_ = report.error_;
}

void RecordWriter::write_gathered()
{
    if (used_ == 1)
        return;
    if (is_good())
        say_what_was_lost();
    if (is_good()) {
        const std::string_view bytes =
            file_.is_cut ? std::string_view{room_, used_} : std::string_view{room_ + 1, used_ - 1};
        const std::size_t written = write_all_of(bytes);
        if (is_good()) {
            written_count.fetch_add(record_count_, std::memory_order_relaxed);
            file_.is_refused = file_.is_reported = false;
        } else {
            note_refusal(bytes, written);
        }
    } else {
        lose_gathered();
    }
    used_ = 1;
    record_count_ = 0;
}

bool RecordWriter::finish()
{
    write_gathered();
    if (is_good())
        return true;
    file_.is_refused = true;
    // Of the daemon log there is nowhere to tell but in it, when it can be written again.
    const bool is_to_be_said = &file_ != &logs.daemon_file && !std::exchange(file_.is_reported, true);
    if (is_to_be_said) {
        char text[128];
        report_to(state.real_err, "Unable to write to the log file: %s", strerror_r(error_, text, sizeof text));
    }
    errno = error_;
    return false;
}

void begin_records(RecordFile &file, int fd)
{
    file.is_cut.store(ends_in_cut_record(fd), std::memory_order_relaxed);
    file.is_reported = false;
}

bool try_again(FILE *stream, RecordFile &file)
{
    if (!file.is_refused)
        return true;
    RecordWriter out(stream, file);
    out.say_what_was_lost();
    file.is_refused = !out.is_good();
    return out.is_good();
}

RecordFile *file_of(const FILE *stream)
{
    if (stream == state.log_stream && logs.is_own_file)
        return logs.is_terminal ? nullptr : &logs.log_file;
    return stream != nullptr && (stream == logs.out || stream == logs.err) ? &logs.daemon_file : nullptr;
}

void add_report(RecordWriter &out, const char *format, ...)
{
    char buffer[report_size];
    va_list args;
    va_start(args, format);
    out.add(make_report(buffer, format, args));
    va_end(args);
    out.end_record();
}

void report_to(FILE *stream, const char *format, ...)
{
    char buffer[report_size];
    va_list args;
    va_start(args, format);
    const std::string_view line = make_report(buffer, format, args);
    va_end(args);
    (void)write_for_log(line, stream, true); // there is nobody else to tell
}

int format_own(char *buffer, std::size_t size, int kind, unsigned number, ...)
{
    Message message(kind, subsystem);
    message.table = &_imsg_ks_msg_table;
    message.number = number;
    const int head = build_head(kind, subsystem, buffer, size);
    if (head < 0)
        return head;
    const std::size_t used = std::min(static_cast<std::size_t>(head), size - 1);
    va_list args;
    va_start(args, number);
    const int length = format_text(message, text_of_locked(message), Tags{}, buffer + used, size - used, args);
    va_end(args);
    return length < 0 ? length : static_cast<int>(used) + length;
}

} // namespace ks::imsg

extern "C" void imsg_get_log_counters(imsg_log_counters *out_counters)
{
    using ks::imsg::lost_count, ks::imsg::suppressed_count, ks::imsg::written_count;
    *out_counters = {written_count.load(std::memory_order_relaxed), lost_count.load(std::memory_order_relaxed),
                     suppressed_count.load(std::memory_order_relaxed)};
}
