// What the files of the logs share: the state of log file and daemon log, the records on their way to a file, and the
// pipes of a daemon.
//
// All of it is guarded by ks_product_crit unless it is atomic, and nothing here prints a message: most of it runs in
// the middle of a print. What is to be said is written as a record of its own.
#pragma once

#include "messages/imsg_impl.h"

#include <atomic>
#include <cstdint>
#include <string_view>

#include <sys/types.h>

namespace ks::imsg {

// A file that takes records, by one descriptor or several.
struct RecordFile {
    std::atomic<bool> is_cut{false}; // its last record was written in part only; a signal handler looks at it
    bool is_refused = false;         // it did not take the last record
    bool is_reported = false;
    int error = 0;           // of the last refusal
    uint64_t lost_count = 0; // records lost since it was last said
};

struct Logs {
    // Log file.
    bool is_open = false;
    bool is_own_file = false; // not the real standard error
    bool is_locked = false;
    bool is_terminal = false;
    bool is_stamped = false; // messages have time stamps in it
    RecordFile log_file;

    // Daemon log.
    char *path = nullptr;
    FILE *out = nullptr; // NULL: no daemon
    FILE *err = nullptr; // the same stream, or one of its own
    RecordFile daemon_file;
    time_t opened_at = 0;
    time_t reopen_at = 0;
    bool has_said_reopen_failed = false;
    bool is_suspended = false;
};
extern constinit Logs logs;

// This process became a daemon itself; a child of its fork did not.
extern constinit std::atomic<bool> is_own_daemon;

extern constinit std::atomic<uint64_t> written_count;
extern constinit std::atomic<uint64_t> lost_count;

extern const LogHooks log_hooks;

// --- imsg_record.cpp ---

// Records on their way to a file: gathered, and written at its end in one write. One at a time.
class RecordWriter {
  public:
    RecordWriter(FILE *stream, RecordFile &file);
    ~RecordWriter();
    RecordWriter(const RecordWriter &) = delete;
    RecordWriter &operator=(const RecordWriter &) = delete;

    // A record of at most this many bytes; what was gathered is written first where there is no room for both.
    void begin_record(std::size_t size_max);
    void add(std::string_view bytes);
    void add_stamp();
    void add_text(std::string_view text, Shape shape);
    void end_record() { ++record_count_; }

    // Whether the file has taken all so far.
    bool is_good() const { return error_ == 0; }
    // All of it to the file; false, with errno, when the file has refused any of it.
    [[nodiscard]] bool finish();

    // If records were lost, says so.
    void say_what_was_lost();

  private:
    RecordWriter(int fd, RecordFile &file, char *room, std::size_t room_size);
    void write_gathered();
    std::size_t write_all_of(std::string_view bytes);
    void note_refusal(std::string_view bytes, std::size_t written);
    void lose_gathered();

    RecordFile &file_;
    int fd_;
    int error_ = 0; // of the first refusal
    char *room_;    // begins with a line feed, for where the last record was cut
    std::size_t room_size_;
    char *heap_room_ = nullptr; // of a long record
    std::size_t used_ = 1;
    uint64_t record_count_ = 0;
};

// Bytes of a record beside its text: stamp, head and line feeds.
inline constexpr std::size_t record_frame_max = 2048;
inline constexpr std::size_t report_size = 1024;

// Another file, just opened. What the one before has lost is said in it.
void begin_records(RecordFile &file, int fd);
// False while a file that has refused records refuses what is to be said about them.
[[nodiscard]] bool try_again(FILE *stream, RecordFile &file);
// What a stream's records go by; NULL for a stream that is written as any other.
RecordFile *file_of(const FILE *stream);
// What a log has to say itself, as an error of the program: a record of its own.
[[gnu::format(printf, 2, 3)]] void add_report(RecordWriter &out, const char *format, ...);
// The same to a stream of any sort.
[[gnu::format(printf, 2, 3)]] void report_to(FILE *stream, const char *format, ...);
// A message of the module in the manner of snprintf(), with the head of its kind.
int format_own(char *buffer, std::size_t size, int kind, unsigned number, ...);

// --- imsg_log.cpp ---

// Opens a file that is to take records at its end. A descriptor above 2; -1 with errno: EMLINK for a file with several
// names, EINVAL for what is neither a file nor a character device, ELOOP for a symbolic link, else open()'s.
[[nodiscard]] int open_for_records(const char *path, int flags, mode_t mode);
bool is_symbolic_link(const char *path);
// "Unable to open log file ...: pathname must not be a symbolic link".
void refuse_link(const char *path, FILE *stream);

// --- imsg_daemon.cpp ---

bool wants_stamps();
void reopen_when_due();

// --- imsg_pipes.cpp ---

// The read end of a pipe, and what was read of a line whose end has not come. A signal handler looks at it.
struct CapturedPipe {
    std::atomic<int> read_end{-1}; // -1: none, or ended
    char *room = nullptr;
    std::atomic<std::size_t> length{0};
    std::size_t size = 0; // of the pipe
};
extern constinit std::array<CapturedPipe, 2> captured_pipes; // of descriptors 1 and 2
extern constinit std::atomic<bool> is_draining;

enum class Extent {
    whole_lines,
    everything, // lines without their end, too
    last,       // everything, and nobody writes there any more
};
void drain(Extent extent);

// Puts pipes in the place of descriptors 1 and 2. NULL; else, with errno, what failed, and all is as before.
[[nodiscard]] const char *begin_capture();
// In a child: forgets its parent's pipes.
void forget_capture();
// Whether the log that captured lines go to refuses them.
bool is_log_refusing();
// The last drain: from here on descriptors 1 and 2 are the log itself.
void end_capture();

// --- imsg_watch.cpp ---

// The loop drains the pipes, or looks at them no more. No lock held.
void watch_pipes();
void unwatch_pipes();

// --- imsg_ending.cpp ---

// What is caught goes to the log also when the process exits, from the time when something is caught. No lock held.
void register_endings();
// The same for signals that end the process.
void catch_fatal_signals();

} // namespace ks::imsg
