// Bold, stand-out and underline through terminfo, and the writing of texts that may ask for them.
//
// The terminal library is one process-wide thing: everything here runs under ks_product_crit, and
// what it says about the terminal is read once and copied. Its headers define macros with everyday
// names, so no other file includes them.
#include "messages/imsg_impl.h"

#include <korvaks/evutl.h>
#include <korvaks/ks_product.h>
#include <korvaks/strutl.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <sys/auxv.h>
#include <termios.h>
#include <unistd.h>

#include <curses.h>
#include <term.h>

namespace {

constexpr char marker_byte = '\001';
constexpr std::size_t marker_size = 4;

enum Style : unsigned {
    bold = 1,
    standout = 2,
    underline = 4,
};

struct Capabilities {
    const char *end_all;
    const char *bold;
    const char *end_standout;
    const char *standout;
    const char *end_underline;
    const char *underline;
};

constinit Capabilities terminal{}; // guarded by ks_product_crit, as all below
constinit unsigned styles_on = 0;  // what the terminal shows now
constinit ks::imsg::StreamWriter *style_sink = nullptr;

constinit termios saved_modes{};
constinit std::atomic<pid_t> saved_by{0}; // the process that saved the modes; 0: none are saved

// Holds SIGTTOU off the calling thread: a process in the background must not stop over its terminal.
class StopHeldOff {
  public:
    StopHeldOff()
    {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTTOU);
        (void)pthread_sigmask(SIG_BLOCK, &stop, &before_); // cannot fail with these arguments
    }
    ~StopHeldOff() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    StopHeldOff(const StopHeldOff &) = delete;
    StopHeldOff &operator=(const StopHeldOff &) = delete;

  private:
    sigset_t before_;
};

// The terminal description can be named by several variables, so a privileged process reads none.
bool may_use_styles()
{
    char term[ks::imsg::env_size];
    return getauxval(AT_SECURE) == 0 && getenv_safe("TERM", term, sizeof term, 0) != nullptr && ks_no_bold() == 0;
}

// A lasting copy of a capability; NULL when the terminal has none.
const char *read_capability(const char *name)
{
    const char *value = tigetstr(name);
    if (value == nullptr || value == reinterpret_cast<const char *>(-1))
        return nullptr;
    return strdup(value);
}

// A start is only of use where there is an end to it.
void read_pair(const char *end_name, const char *start_name, const char *&out_end, const char *&out_start)
{
    out_end = read_capability(end_name);
    out_start = out_end == nullptr ? nullptr : read_capability(start_name);
}

void read_capabilities(int fd)
{
    int result = 0; // always given: without it the library ends the process over an unknown terminal
    if (setupterm(nullptr, fd, &result) != OK)
        return;
    read_pair("sgr0", "bold", terminal.end_all, terminal.bold);
    read_pair("rmso", "smso", terminal.end_standout, terminal.standout);
    read_pair("rmul", "smul", terminal.end_underline, terminal.underline);
}

// A process that was put in the background leaves the terminal to whoever has it now.
bool is_terminal_ours()
{
    const pid_t foreground = tcgetpgrp(STDOUT_FILENO);
    return foreground < 0 || foreground == getpgrp();
}

extern "C" void restore_terminal_at_exit(void)
{
    ks::imsg::imsg_reset_term();
}

void save_modes()
{
    if (tcgetattr(STDOUT_FILENO, &saved_modes) != 0)
        return;
    // Not pfm_on_exit(): the start can come from a print under an area's mutex, where the fault
    // manager's lock must not be taken.
    if (std::atexit(restore_terminal_at_exit) == 0)
        saved_by = getpid();
}

extern "C" int put_to_sink(int c)
{
    const char byte = static_cast<char>(c);
    style_sink->add({&byte, 1});
    return c;
}

void emit(const char *capability, ks::imsg::StreamWriter &out)
{
    if (capability == nullptr)
        return;
    style_sink = &out;
    (void)tputs(capability, 1, put_to_sink); // a refused byte shows at the end
}

void show_styles(unsigned styles, ks::imsg::StreamWriter &out)
{
    if (styles == styles_on)
        return;
    styles_on = styles;
    if ((styles & bold) == 0)
        emit(terminal.end_all, out);
    if ((styles & standout) == 0)
        emit(terminal.end_standout, out);
    if ((styles & underline) == 0)
        emit(terminal.end_underline, out);
    if ((styles & bold) != 0)
        emit(terminal.bold, out);
    if ((styles & standout) != 0)
        emit(terminal.standout, out);
    if ((styles & underline) != 0)
        emit(terminal.underline, out);
}

// The style of a marker's last byte; 0 for no style.
unsigned style_of(char letter)
{
    switch (letter) {
    case 'B':
        return bold;
    case 'I':
        return standout;
    case 'U':
        return underline;
    default:
        return 0;
    }
}

bool is_marker(std::string_view text)
{
    return text.size() >= marker_size && text[0] == marker_byte && text[1] == marker_byte &&
           (text[2] == '0' || text[2] == '1') && style_of(text[3]) != 0;
}

// Where pieces of a text go.
struct Taker {
    void (*take)(std::string_view piece, void *taker);
    void *taker;

    void operator()(std::string_view piece) const { take(piece, taker); }
};

bool is_on_one_line(std::string_view piece)
{
    return piece.find('|') == piece.npos && piece.find('\n') >= piece.size() - 1;
}

// Gives one piece without markers as part of a single line: an inner line feed becomes "|", and a
// "|" of the text is doubled. Steps by characters, as "|" is a trail byte in some encodings.
void take_on_one_line(std::string_view piece, bool is_last, const Taker &take)
{
    for (std::size_t at = 0; at < piece.size();) {
        const bool is_inner_feed = piece[at] == '\n' && !(is_last && at + 1 == piece.size());
        const int length = strutl_mblen(piece.data() + at, piece.size() - at);
        const std::size_t size = length > 1 ? static_cast<std::size_t>(length) : 1;
        if (is_inner_feed)
            take("|");
        else
            take(piece[at] == '|' ? "||" : ks::part_of(piece, at, size));
        at += size;
    }
}

// The text up to its last visible character.
std::string_view without_trailing_markers(std::string_view text)
{
    while (text.size() >= marker_size && is_marker(ks::part_of(text, text.size() - marker_size)))
        text.remove_suffix(marker_size);
    return text;
}

// Shows the text piece by piece, from marker to marker. A marker byte is never part of a longer
// character, so a search for bytes finds it.
template <typename OnPiece, typename OnMarker>
void for_each_piece(std::string_view text, OnPiece on_piece, OnMarker on_marker)
{
    std::size_t from = 0;
    for (std::size_t at = 0; from < text.size();) {
        at = text.find(marker_byte, at);
        const bool is_end = at == text.npos;
        if (!is_end && !is_marker(ks::part_of(text, at))) {
            ++at;
            continue;
        }
        on_piece(ks::part_of(text, from, is_end ? text.npos : at - from), is_end);
        if (is_end)
            return;
        on_marker(text[at + 2] == '1', style_of(text[at + 3]));
        at += marker_size;
        from = at;
    }
}

void write_with_markers(std::string_view text, FILE *stream, ks::imsg::StreamWriter &out)
{
    const bool is_terminal = isatty(fileno(stream)) == 1;
    for_each_piece(
        text, [&](std::string_view piece, bool) { out.add(piece); },
        [&](bool is_on, unsigned style) {
            if (is_terminal)
                show_styles(is_on ? styles_on | style : styles_on & ~style, out);
        });
}

} // namespace

namespace ks::imsg {

void imsg_init_term()
{
    const int fd = state.real_out == nullptr ? -1 : fileno(state.real_out);
    if (fd < 0 || isatty(fd) != 1 || !may_use_styles())
        return;
    const StopHeldOff held_off;
    save_modes();
    read_capabilities(fd);
}

void imsg_reset_term()
{
    // Without the lock, and without waiting for output: an exit must not hang on a stuck terminal.
    pid_t self = getpid();
    if (!saved_by.compare_exchange_strong(self, 0) || !is_terminal_ours())
        return;
    const StopHeldOff held_off;
    (void)tcsetattr(STDOUT_FILENO, TCSANOW, &saved_modes); // the terminal may be gone by now
}

bool put_text_itself(std::string_view text, FILE *stream)
{
    const int saved_errno = errno;
    StreamWriter out(stream);
    if (text.find(marker_byte) == text.npos)
        out.add(text);
    else
        write_with_markers(text, stream, out);
    if (!out.finish())
        return false;
    errno = saved_errno;
    return true;
}

bool put_text(const char *text, std::size_t length, FILE *stream)
{
    if (state.log_hooks != nullptr)
        return state.log_hooks->write({text, length}, stream, false);
    return put_text_itself({text, length}, stream);
}

void for_each_file_piece(std::string_view text, Shape shape, void (*take)(std::string_view piece, void *taker),
                         void *taker)
{
    const Taker taking{take, taker};
    if (shape == Shape::one_line)
        text = without_trailing_markers(text);
    for_each_piece(
        text,
        [&](std::string_view piece, bool is_last) {
            if (shape == Shape::plain || (is_last && is_on_one_line(piece)))
                taking(piece);
            else
                take_on_one_line(piece, is_last, taking);
        },
        [](bool, unsigned) {});
}

} // namespace ks::imsg

extern "C" {

int imsg_fputs(const char *text, FILE *stream)
{
    ks::imsg::start();
    if (text == nullptr || stream == nullptr)
        return -1;
    const ks::IoLockGuard lock(ks::ks_product_crit);
    return ks::imsg::put_text(text, std::strlen(text), stream) ? 0 : -1;
}

void imsg_strip_style_chars(char *out, const char *in)
{
    std::string_view rest{in};
    while (!rest.empty()) {
        const std::size_t skipped = is_marker(rest) ? marker_size : 0;
        if (skipped == 0)
            *out++ = rest.front();
        rest.remove_prefix(skipped == 0 ? 1 : skipped);
    }
    *out = '\0';
}
}
