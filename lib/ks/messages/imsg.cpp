// The start of the message module, and the printing of a message.
//
// One message is formatted into one process-wide buffer and written in one hold of ks_product_crit,
// so messages of different threads never mix. A raise is taken before the lock; while it is held
// none is delivered. Procedures that replace a stream get a copy of the text after it is released.
#include "messages/imsg_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/evutl.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <strings.h>
#include <unistd.h>

namespace ks::imsg {

static_assert(IMSG_OK == int{msg_ok} && IMSG_OUTPUT == int{msg_output} && IMSG_WARNING == int{msg_warning} &&
              IMSG_ERROR == int{msg_error} && IMSG_TRACE == int{msg_trace} && IMSG_SYSTEM == int{msg_system});

constinit State state{};
constinit std::atomic<bool> ate_enabled{false};
constinit std::atomic<bool> started{false};
constinit std::atomic<uint64_t> suppressed_count{0};

namespace {

constinit bool starting = false; // guarded by ks_product_crit

// The output buffer, guarded by ks_product_crit. The first one is no heap block, so that a message
// about an exhausted heap can be printed.
constexpr std::size_t first_buffer_size = 16384;
constinit char first_buffer[first_buffer_size]{};
constinit char *out_buf_p = first_buffer;
constinit std::size_t out_buf_size = first_buffer_size;

// --- Start ---

bool is_set(const char *name)
{
    char value[env_size];
    return getenv_safe(name, value, sizeof value, EVUTL_GETENV_NONEMPTY) != nullptr;
}

void read_environment()
{
    state.subsystem_display = is_set("PRINT_SUBSYS");
    if (is_set("PRINT_SUBSYS_OK")) {
        state.subsystem_display = true;
        state.ok_display = true;
    }
    state.interleave = is_set("IMSG_IO_INTERLEAVE");
    char value[env_size];
    if (getenv_safe("VELLUM_ENABLE_ATE_MESSAGES", value, sizeof value, 0) != nullptr && strcasecmp(value, "True") == 0)
        ate_enabled.store(true, std::memory_order_relaxed);
    start_capture_log();
}

void fetch_head_words()
{
    for (unsigned word = 0; word < head_word_count; ++word) {
        Message message;
        message.table = &_imsg_ks_msg_table;
        message.number = imsg_msg_head_ok + word;
        // A longer one is cut.
        (void)strutl_cpy_buf(state.head_words[word], text_of_locked(message), sizeof state.head_words[word]);
    }
}

// --- Heads ---

bool is_known(int kind)
{
    return kind >= 0 && kind < IMSG_KIND_COUNT;
}

// Odd kinds continue what an even kind opened.
bool is_continuation(int kind)
{
    return is_known(kind) && kind % 2 != 0;
}

bool has_program_head(int kind)
{
    switch (kind) {
    case IMSG_OK:
    case IMSG_OUTPUT:
        return state.ok_display;
    case IMSG_WARNING:
    case IMSG_ERROR:
    case IMSG_TRACE:
        return true;
    default:
        return false;
    }
}

// What follows the program head.
const char *head_word(int kind)
{
    switch (kind) {
    case IMSG_OK:
        return state.ok_display ? state.head_words[head_ok] : "";
    case IMSG_WARNING:
        return state.head_words[head_warning];
    case IMSG_ERROR:
        return state.head_words[head_error];
    default:
        return is_known(kind) ? "" : state.head_words[head_system];
    }
}

// The time of day, as trace heads show it.
void print_time_of_day(char *ts, std::size_t ts_sz)
{
    const timeval now = wall_clock();
    tm local{};
    char seconds[32] = "";
    if (localtime_r(&now.tv_sec, &local) != nullptr)
        (void)std::strftime(seconds, sizeof seconds, "%H:%M:%S", &local); // always fits
    const int ts_count = strutl_snprintf(ts, ts_sz, "%s.%.3ld", seconds, static_cast<long>(now.tv_usec / 1000));
    here.require(ts_count >= 0 && static_cast<std::size_t>(ts_count) <= ts_sz, "ts_count <= ts_sz");
}

// The program head in the manner of snprintf().
int build_program_head(int kind, const char *subsystem_shown, char *buffer, std::size_t size)
{
    const bool with_subsystem = *subsystem_shown != '\0';
    const char *prefix_format = nullptr;
    if (kind == IMSG_TRACE) {
        char time_of_day[32];
        print_time_of_day(time_of_day, sizeof time_of_day);
        prefix_format = with_subsystem ? ">>> %s (%s/%s): " : ">>> %s (%s): ";
        here.require(prefix_format != nullptr, "prefix_format != NULL");
        return strutl_snprintf(buffer, size, prefix_format, time_of_day, app_name(), subsystem_shown);
    }
    prefix_format = with_subsystem ? "%s/%s: " : "%s: ";
    here.require(prefix_format != nullptr, "prefix_format != NULL");
    return strutl_snprintf(buffer, size, prefix_format, app_name(), subsystem_shown);
}

// --- One print ---

// What is left to do when the lock is released.
struct Outcome {
    bool is_written = true;
    Slot slot{}; // with a procedure: hand it `text`
    const char *text = nullptr;
    char *long_text = nullptr; // owned, when the text does not fit in `short_text`
    char short_text[1024];
};

Slot slot_of(int kind)
{
    const auto &slots = state.slots;
    if ((kind == IMSG_OUTPUT || kind == IMSG_OUTPUT_MORE) && slots[static_cast<std::size_t>(kind)].proc == nullptr)
        return slots[static_cast<std::size_t>(kind - 2)];
    return slots[static_cast<std::size_t>(is_known(kind) ? kind : int{IMSG_ERROR})];
}

bool wants_duplicate()
{
    if (!state.dup_output_read) {
        char value[env_size];
        long number = 0;
        state.dup_output = getenv_safe("IMSG_DUP_OUTPUT", value, sizeof value, 0) != nullptr &&
                           strutl_strtol(value, 10, &number) == 0 && number != 0;
        state.dup_output_read = true;
    }
    return state.dup_output;
}

std::size_t room_after(std::size_t used)
{
    return used < out_buf_size ? out_buf_size - used : 0;
}

// Gives the buffer exactly `size` bytes; what it held is lost.
void grow_buffer(std::size_t size)
{
    if (out_buf_p != first_buffer)
        stg_free_int(out_buf_p, 1);
    out_buf_p = first_buffer; // in place while there is no larger one: an assertion is printed, too
    out_buf_size = first_buffer_size;
    auto *larger = static_cast<char *>(heap_try_malloc(size));
    here.require(larger != nullptr, "out_buf_p != NULL");
    out_buf_p = larger;
    out_buf_size = size;
}

void explain_failed_message()
{
    const IoLockGuard lock(ks_product_crit);
    explain("There was some kind of error in imsg_print_sharedv_util. (sz: %d).\n", static_cast<int>(out_buf_size));
}

// Head and message into the buffer, as far as they fit: false when either cannot be formatted.
bool format_into_buffer(const Message &message, const char *text, Tags tags, int &out_head, int &out_length,
                        va_list args)
{
    out_head = build_head(message.kind, message.subsystem, out_buf_p, out_buf_size);
    if (out_head < 0) {
        explain("prefix consumed entire buffer. (sz: %ld).\n", static_cast<long>(out_buf_size));
        return false;
    }
    const auto used = static_cast<std::size_t>(out_head);
    const std::size_t room = room_after(used);
    out_length = format_text(message, text, tags, room == 0 ? nullptr : out_buf_p + used, room, args);
    if (out_length < 0)
        explain_failed_message();
    return out_length >= 0;
}

// The whole message into the buffer; its length, or -1.
ssize_t format_message(const Message &message, va_list args)
{
    const char *text = text_of_locked(message);
    int head = 0;
    int length = 0;
    va_list again;
    va_copy(again, args);
    Tags tags = tags_of_a_print;
    bool is_formatted = format_into_buffer(message, text, tags, head, length, args);
    const std::size_t needed = static_cast<std::size_t>(head) + static_cast<std::size_t>(length) + 1;
    if (is_formatted && needed > out_buf_size) {
        grow_buffer(needed);
        tags.captured = false; // noted already
        is_formatted = format_into_buffer(message, text, tags, head, length, again);
    }
    va_end(again);
    // A text that changes between the two passes is another thread's doing; what fits is printed.
    const std::size_t total = static_cast<std::size_t>(head) + static_cast<std::size_t>(length);
    return is_formatted ? static_cast<ssize_t>(total < out_buf_size ? total : out_buf_size - 1) : -1;
}

// Puts the private copy of the text where the procedure will read it; false without memory.
bool copy_for_procedure(Outcome &outcome, std::size_t length)
{
    char *copy = outcome.short_text;
    if (length >= sizeof outcome.short_text) {
        outcome.long_text = static_cast<char *>(heap_try_malloc(length + 1));
        copy = outcome.long_text;
    }
    if (copy == nullptr)
        return false;
    std::memcpy(copy, out_buf_p, length + 1);
    outcome.text = copy;
    return true;
}

// Under the lock: formats, and writes to the stream or leaves the text for a procedure.
void print_locked(const Message &message, va_list args, Outcome &outcome)
{
    const ssize_t length = format_message(message, args);
    if (length < 0) {
        outcome.is_written = false;
        return;
    }
    const Slot slot = slot_of(message.kind);
    bool is_redirected = state.log_stream == nullptr && slot.proc != nullptr && slot.proc != imsg_default_output;
    if (is_redirected && slot.proc != IMSG_PROC_SUPPRESS) {
        // Without memory for the copy nothing is lost: the text goes to the stream.
        is_redirected = copy_for_procedure(outcome, static_cast<std::size_t>(length));
        outcome.slot = is_redirected ? slot : Slot{};
    }
    if (is_redirected && !wants_duplicate()) {
        if (slot.proc == IMSG_PROC_SUPPRESS)
            suppressed_count.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    FILE *stream = state.log_stream != nullptr ? state.log_stream : real_stream(message.kind);
    const std::string_view text{out_buf_p, static_cast<std::size_t>(length)};
    outcome.is_written = state.log_hooks != nullptr
                             ? state.log_hooks->write(text, stream, !is_continuation(message.kind))
                             : put_text_itself(text, stream);
}

// Hands the text to the procedure, with no lock held. A raise of the procedure's goes on once the
// text is freed.
void call_procedure(const Outcome &outcome)
{
    const Slot slot = outcome.slot;
    const char *text = outcome.text;
    if (outcome.long_text == nullptr) {
        slot.proc(slot.info, text);
        return;
    }
    const int32_t raised = protect([&] { slot.proc(slot.info, text); });
    stg_free_int(outcome.long_text, 1);
    if (raised != 0)
        pfm_raise(raised);
}

// Whether the text goes to a stream that a user may be looking at.
bool is_shown(int kind)
{
    const imsg_output_proc proc = slot_of(kind).proc;
    return state.log_stream == nullptr && (proc == nullptr || proc == imsg_default_output || wants_duplicate());
}

// False, and nothing is printed, while another thread asks the user something and `may_wait` says to keep away.
bool try_to_print(const Message &message, int saved_errno, bool may_wait, va_list args, Outcome &outcome)
{
    const IoLockGuard lock(ks_product_crit);
    if (may_wait && is_turn_of_another() && is_shown(message.kind)) [[unlikely]]
        return false;
    if (state.log_hooks != nullptr)
        state.log_hooks->prepare();
    errno = saved_errno; // the format may ask for its text
    print_locked(message, args, outcome);
    errno = saved_errno;
    return true;
}

int print_message(const Message &message, int saved_errno, va_list args)
{
    Outcome outcome;
    for (bool may_wait = true; !try_to_print(message, saved_errno, may_wait, args, outcome);) {
        may_wait = may_wait_for_turn();
        if (may_wait)
            wait_for_turn();
    }
    const int result = outcome.is_written ? 0 : -1;
    if (outcome.slot.proc != nullptr)
        call_procedure(outcome);
    errno = saved_errno;
    return result;
}

} // namespace

const char *app_name()
{
    return state.app_name == nullptr ? "noname" : state.app_name;
}

FILE *real_stream(int kind)
{
    return kind >= IMSG_OK && kind <= IMSG_OUTPUT_MORE ? state.real_out : state.real_err;
}

int build_head(int kind, const char *shown_subsystem, char *buffer, std::size_t size)
{
    *buffer = '\0';
    if (state.prefix_suppressed || is_continuation(kind))
        return 0;
    const bool shows_subsystem = state.subsystem_display || state.log_stream != nullptr;
    int length = 0;
    if (has_program_head(kind))
        length = build_program_head(kind, shows_subsystem ? shown_subsystem : "", buffer, size);
    if (length < 0)
        return length;
    const char *word = head_word(kind);
    const auto used = static_cast<std::size_t>(length);
    if (used < size)
        (void)strutl_cpy_buf(buffer + used, word, size - used); // the caller compares lengths
    return length + static_cast<int>(std::strlen(word));
}

} // namespace ks::imsg

extern "C" {

void imsg_initialize(void)
{
    using ks::imsg::started, ks::imsg::starting, ks::imsg::state;
    if (started.load(std::memory_order_acquire))
        return;
    const ks::IoLockGuard lock(ks::ks_product_crit);
    if (started.load(std::memory_order_relaxed) || starting)
        return;
    starting = true; // what is printed on the way goes out with what is known so far
    const ks::ErrnoSaver saver;
    state.real_out = stdout;
    state.real_err = stderr;
    ks::imsg::read_environment();
    ks::imsg::fetch_head_words();
    ks::imsg::imsg_init_term();
    started.store(true, std::memory_order_release);
}

int imsg_print_sharedv(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, va_list args)
{
    const int saved_errno = errno;
    pfm_test_raise(nullptr);
    ks::imsg::start();
    ks::imsg::Message message(kind, subsys);
    const bool is_nameless = table_or_format == nullptr && msg_no != IMSG_RAW;
    if (!is_nameless && !ks::imsg::is_known(kind))
        (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, imsg_msg_unknown_kind, kind, ks::imsg::here.path, __LINE__);
    if (!ks::imsg::resolve(message, table_or_format, msg_no, is_nameless ? "print_sharedv" : "vsprintf")) {
        if (!is_nameless)
            ks::imsg::explain_failed_message();
        errno = saved_errno;
        return -1;
    }
    return ks::imsg::print_message(message, saved_errno, args);
}

int imsg_print_shared(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, ...)
{
    va_list args;
    va_start(args, msg_no);
    const int result = imsg_print_sharedv(kind, subsys, table_or_format, msg_no, args);
    va_end(args);
    return result;
}

int imsg_print(int kind, const msg_table *table, unsigned msg_no, ...)
{
    va_list args;
    va_start(args, msg_no);
    const int result = imsg_print_sharedv(kind, nullptr, table, msg_no, args);
    va_end(args);
    return result;
}
}
