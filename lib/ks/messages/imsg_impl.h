// What the files of the message modules share: the process-wide state, and the steps of a print.
//
// Everything in State is guarded by ks_product_crit. Storage modules print with an area's mutex
// held, so code under that lock neither makes an area nor asks for the thread's block, and takes
// its memory from the heap without messages (ks_heap.h): an exhausted heap must not start a print
// inside a print.
#pragma once

#include <korvaks/imsg.h>

#include "messages/imsg_msg.h"
#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "base/msg_port.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

struct imsg_tls;

namespace ks::imsg {

inline constexpr AssertPath here{"lib/ks/imsg"};
inline constexpr const char *subsystem = "ks/imsg";
inline constexpr std::size_t env_size = 1024; // bytes read of an environment variable

// What log files and the daemon log add to a print. They fill it in; empty, there is no log and no
// daemon. The functions are called with ks_product_crit held.
struct LogHooks {
    FILE *log_stream = nullptr;      // the open log file: takes every message
    FILE *one_line_stream = nullptr; // keeps each text on one line (a daemon's real stdout)
    bool (*make_stamp)(char *buffer, std::size_t size) = nullptr; // time stamp and a blank, for messages
                                                                  // of even kinds; NULL: none are wanted
    void (*reopen_if_due)() = nullptr;                            // the daemon log, when its time has passed
    void (*drain)() = nullptr;                                    // the daemon's captured pipes
};

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
    LogHooks hooks{};
};

extern constinit State state; // guarded by ks_product_crit
extern constinit std::atomic<bool> ate_enabled;
extern constinit std::atomic<bool> started;

// The first statement of every entry point.
inline void start()
{
    if (!started.load(std::memory_order_acquire)) [[unlikely]]
        imsg_initialize();
}

// A message with its text still to be found.
struct Message {
    int kind;
    const char *subsystem;  // shown in the head; "" for none
    const msg_table *table; // NULL: a raw format
    const char *raw_format;
    unsigned number;
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
// "ks/imsg" at level 1, for reports that go straight to standard error.
bool is_module_traced();

// imsg_catalog.cpp
// The text of a message. With the lock held the first form may be used until it is left; the second
// takes the lock itself and its result is the thread's, until its next call.
const char *cat_lookup(const msg_table &table, unsigned number);
const char *cat_extractmsg(const msg_table &table, unsigned number);
const char *default_text_of(const msg_table &table, unsigned number);
// The lists of directives of two formats take the same arguments in the same order.
bool has_same_directives(const char *text, const char *default_text);

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

// imsg_tls.cpp
// The calling thread's section, which frees its copies at the thread's end.
imsg_tls &thread_section();
// Makes `*buffer` hold at least `size` bytes; its old text is lost.
[[nodiscard]] bool make_room(char *&buffer, std::size_t &buffer_size, std::size_t size);

} // namespace ks::imsg
