// What the files of the message modules share: the process-wide state, and the steps of a print.
//
// Everything in State is guarded by ks_product_crit. Storage modules print with an area's mutex
// held, so code under that lock neither makes an area nor asks for the thread's block, and takes
// its memory from the heap without messages (stg_quiet.h): an exhausted heap must not start a print
// inside a print.
#pragma once

#include <korvaks/imsg.h>

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "messages/imsg_msg.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include <nl_types.h>

struct imsg_tls;

namespace ks::imsg {

inline constexpr AssertPath here{"lib/ks/imsg"};
inline constexpr const char *subsystem = "ks/imsg";
inline constexpr std::size_t env_size = 1024; // bytes read of an environment variable

struct Slot {
    imsg_output_proc proc = nullptr;
    void *info = nullptr;
};

// The texts that follow the program name in heads.
enum HeadWord {
    head_ok,
    head_warning,
    head_error,
    head_system,
    head_word_count,
};

struct State {
    FILE *real_out = nullptr; // standard output and error as they were at the start
    FILE *real_err = nullptr;
    char *app_name = nullptr; // NULL: "noname"
    bool subsystem_display = false;
    bool ok_display = false;
    bool prefix_suppressed = false;
    bool interleave = false; // flush both streams around prompts
    bool dup_output = false;
    bool dup_output_read = false;
    std::array<Slot, IMSG_KIND_COUNT> slots{};
    Slot old_out{}; // the two-channel form as it was set
    Slot old_err{};
    char head_words[head_word_count][128]{};
    char capture_log[env_size + 16]{}; // "": none
    imsg_clock_proc clock = nullptr;
    void *clock_arg = nullptr;
    FILE *log_stream = nullptr; // an open log file: it takes every message
    bool is_daemon = false;     // keeps a daemon log, and never asks
    const struct LogHooks *log_hooks = nullptr;
};

// What whoever keeps logs does in a print; it stands above this layer. NULL in State until the first log is begun.
// All of it with the lock held; none of it prints a message.
struct LogHooks {
    // Before a message is formatted: the log is opened anew when that is due, and what is waiting for it is brought in.
    void (*prepare)();
    // A finished text for any stream; false, with errno, when the stream refused it. What opens a message may get a
    // stamp of the time.
    bool (*write)(std::string_view text, FILE *stream, bool opens_message);
};

extern constinit State state; // guarded by ks_product_crit
extern constinit std::atomic<bool> ate_enabled;
extern constinit std::atomic<bool> started;
extern constinit std::atomic<uint64_t> suppressed_count; // messages that IMSG_PROC_SUPPRESS kept back

// The first statement of every entry point.
inline void start()
{
    if (!started.load(std::memory_order_acquire)) [[unlikely]]
        imsg_initialize();
}

// A message with its text still to be found.
struct Message {
    explicit Message(int message_kind = IMSG_OK, const char *shown_subsystem = nullptr)
        : kind(message_kind), subsystem(shown_subsystem)
    {
    }

    int kind;
    const char *subsystem;            // shown in the head; "" for none
    const msg_table *table = nullptr; // NULL: a raw format
    const char *raw_format = nullptr;
    unsigned number = 0;
};

// How far a formatting counts as a message that is shown.
struct Tags {
    bool captured = false; // the capture log takes note
    bool tagged = false;   // the ATE form, when `enabled` or switched on
    bool enabled = false;
};
inline constexpr Tags tags_of_a_print{true, true, false};

// imsg_format.cpp
// Fills in what `table_or_format` and the number say; prints an internal error naming `where`, and
// is false, when they say nothing. Takes no lock.
[[nodiscard]] bool resolve(Message &out_message, const void *table_or_format, unsigned number, const char *where);
// Formats in the manner of vsnprintf(); `text` is the message's text.
int format_text(const Message &message, const char *text, Tags tags, char *buffer, std::size_t size, va_list args);
// Reports that go straight to standard error, while "ks/imsg" is traced at level 1.
[[gnu::format(printf, 1, 2)]] void explain(const char *format, ...);
bool is_module_traced();

// imsg_capture.cpp
void start_capture_log();
void note_in_capture_log(const msg_table &table, unsigned number);

// imsg_catalog.cpp
// The text of a message. With the lock held the first form may be used until it is left; the second
// takes the lock itself and its result is the thread's, until its next call.
const char *text_of_locked(const Message &message);
const char *text_of(const Message &message);
const char *default_text_of(const msg_table &table, unsigned number);

// imsg_catalog_path.cpp
// What catopen() gives, for a catalogue of that name on NLSPATH or among the installed ones. Lock held.
nl_catd find_catalog_file(const char *name);

// imsg_directives.cpp
// Why a text must not be formatted with the arguments of a default text; NULL when it may.
const char *refusal_of(const char *text, const char *default_text);
inline bool has_same_directives(const char *text, const char *default_text)
{
    return refusal_of(text, default_text) == nullptr;
}

// imsg.cpp
// Builds the head of a kind in the manner of snprintf(). Lock held.
int build_head(int kind, const char *shown_subsystem, char *buffer, std::size_t size);
// The real stream of a kind. Lock held.
FILE *real_stream(int kind);
const char *app_name();

// imsg_style.cpp
void imsg_init_term();
// Restores the terminal modes that the start saved, once.
void imsg_reset_term();
// imsg_fputs() for `length` bytes. Lock held.
[[nodiscard]] bool put_text(const char *text, std::size_t length, FILE *stream);
// The same past whoever keeps logs.
[[nodiscard]] bool put_text_itself(std::string_view text, FILE *stream);
// Gives the pieces of a text as they stand in a file, which shows no styles. On one line a line feed that is not the
// last character becomes "|", and a "|" is doubled.
enum class Shape { plain, one_line };
void for_each_file_piece(std::string_view text, Shape shape, void (*take)(std::string_view piece, void *taker),
                         void *taker);

// imsg_stream.cpp
// The way of one text to a stream, on which nothing is lost to a signal: where that could be, the bytes go past the
// stream's buffer. Lock held.
class StreamWriter {
  public:
    explicit StreamWriter(FILE *stream);
    StreamWriter(const StreamWriter &) = delete;
    StreamWriter &operator=(const StreamWriter &) = delete;

    // Gathers small pieces, so that a text goes out in few writes.
    void add(std::string_view bytes);
    // All on the way; false, with errno, when the stream has refused any of it.
    [[nodiscard]] bool finish();

  private:
    void write(std::string_view bytes);
    void write_gathered();

    FILE *stream_;
    int descriptor_; // -1: through the stream
    int error_ = 0;  // of the first refusal
    std::size_t gathered_ = 0;
    char piece_[4096];
};

// imsg_turn.cpp
// The thread that asks the user something; 0: none. Written with the lock held.
extern constinit std::atomic<vlthread_t> turn_owner;
// Whether another thread asks the user something now. Lock held.
bool is_turn_of_another_locked();
inline bool is_turn_of_another()
{
    return turn_owner.load(std::memory_order_relaxed) != vlthread_t{} && is_turn_of_another_locked();
}
// False: others may wait for the caller. Called with no lock of the module held; a raise point.
bool may_wait_for_turn();
// Waits for a while, or until nobody has the turn, with no lock held. A raise point.
void wait_for_turn();
// From the question to the answer, which is not nested. The first is a raise point, until it has the turn.
void take_turn();
void give_turn();
// From here on nobody waits any more: the process ends.
void drop_turns();

// imsg_tls.cpp
// The calling thread's section, which frees its copies at the thread's end.
imsg_tls &thread_section();
// Makes `*buffer` hold at least `size` bytes; its old text is lost.
[[nodiscard]] bool make_room(char *&buffer, std::size_t &buffer_size, std::size_t size);

} // namespace ks::imsg
