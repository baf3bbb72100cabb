#include "depot_report.h"

#include "depot_process.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include <poll.h>
#include <unistd.h>

namespace depot {

namespace {

constinit stg_area *message_area = STG_AREA_NULL; // texts that live until the next report()
constinit bool is_written = true;
constinit bool is_memory_enough = true;

constexpr std::int64_t progress_after_ms = 1000;
constexpr std::int64_t progress_every_ms = 200;
constinit std::int64_t progress_due_ms = 0;
constinit bool is_progress_shown = false;

// Where this thread's errors are written down; NULL: they are printed.
constinit thread_local Failure *noting = nullptr;

// Marks that say how text is laid out: they count as printable and show nothing.
bool is_layout_mark(const char *from, std::size_t length)
{
    constexpr struct {
        char32_t first;
        char32_t last;
    } marks[] = {{0xAD, 0xAD},     {0x61C, 0x61C},   {0x200B, 0x200F}, {0x2028, 0x202E},
                 {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE007F}};
    std::mbstate_t state = {};
    wchar_t wide = 0;
    if (std::mbrtowc(&wide, from, length, &state) != length)
        return false;
    const auto character = static_cast<char32_t>(wide);
    return std::ranges::any_of(marks,
                               [&](const auto &mark) { return character >= mark.first && character <= mark.last; });
}

// Copies one character in a form that is safe to show; gives the bytes it had.
std::size_t show_character(const char *from, std::size_t available, char *&to)
{
    std::size_t length = 0;
    const bool is_plain =
        strutl_test_char(from, available, STRUTL_PRINT, &length) != 0 && *from != '\\' && !is_layout_mark(from, length);
    for (std::size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(from[i]);
        if (is_plain)
            *to++ = from[i];
        else
            to += strutl_snprintf(to, 5, "\\%03o", byte);
    }
    return length;
}

void note(Msg number, const char *name, int failure)
{
    if (noting->number != msg_none)
        return;
    noting->number = number;
    noting->error = failure;
    (void)strutl_snprintf(noting->name, sizeof noting->name, "%s", name);
}

// Whoever reads a pipe may stop when it has seen enough: that is no failure to speak of. Messages keep errno, so
// it is the pipe that is asked.
bool is_reader_gone()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

} // namespace

bool start_messages(const char *argv0)
{
    imsg_set_app_name(argv0);
    is_written = is_memory_enough = true;
    progress_due_ms = now_ms() + progress_after_ms;
    message_area = stg_create_area(8192);
    return message_area != STG_AREA_NULL;
}

void end_messages()
{
    stg_delete_area(&message_area);
}

void report(int kind, unsigned number, ...)
{
    erase_progress();
    va_list arguments;
    va_start(arguments, number);
    if (imsg_print_sharedv(kind, nullptr, &_depot_ks_msg_table, number, arguments) != 0 && kind < IMSG_WARNING)
        is_written = false;
    va_end(arguments);
    drop_texts();
}

bool fail(Msg number, const char *name)
{
    if (noting != nullptr)
        note(number, name, 0);
    else
        report(IMSG_ERROR, number, shown(name));
    return false;
}

bool fail(Msg number, const char *name, int failure)
{
    if (failure == ENOMEM)
        return fail(msg_no_memory, name);
    if (noting != nullptr)
        note(number, name, failure);
    else
        report(IMSG_ERROR, number, shown(name), imsg_strerror(failure));
    return false;
}

// What has no error's text in it passes over that.
void tell(const Failure &failure)
{
    report(IMSG_ERROR, failure.number, shown(failure.name), imsg_strerror(failure.error));
}

FailureNote::FailureNote(Failure &to) : before_(noting)
{
    noting = &to;
}

FailureNote::~FailureNote()
{
    noting = before_;
}

void show_progress(const char *name, std::uint64_t bytes)
{
    constexpr int columns = 40;
    constexpr std::size_t size = 4 * columns + 1;
    const std::int64_t now = now_ms();
    if (now < progress_due_ms || isatty(STDERR_FILENO) == 0)
        return;
    char *const cut = make_text(size);
    if (cut == nullptr || imsg_make_width(cut, size, shown(name), columns, 0) == 0)
        return;
    (void)imsg_print(IMSG_SYSTEM, &_depot_ks_msg_table, msg_progress, cut,
                     static_cast<unsigned long long>(bytes >> 20));
    drop_texts();
    progress_due_ms = now + progress_every_ms;
    is_progress_shown = true;
}

void erase_progress()
{
    if (!is_progress_shown)
        return;
    is_progress_shown = false;
    (void)imsg_print(IMSG_SYSTEM, &_depot_ks_msg_table, msg_progress_end); // it leaves the texts of report() alone
}

void put_out(std::string_view data)
{
    if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size())
        is_written = false;
}

bool is_output_to_program()
{
    return isatty(STDOUT_FILENO) == 0;
}

char *make_text(std::size_t size)
{
    auto *const text = static_cast<char *>(stg_alloc(message_area, size));
    is_memory_enough = is_memory_enough && text != nullptr;
    return text;
}

const char *no_text()
{
    is_memory_enough = false;
    return "?";
}

void drop_texts()
{
    stg_free_area(message_area, 1);
}

const char *text_of(unsigned number, ...)
{
    constexpr std::size_t size = 256;
    char *const text = make_text(size);
    if (text == nullptr)
        return "?";
    va_list arguments;
    va_start(arguments, number);
    (void)imsg_vsnprintf(text, size, &_depot_ks_msg_table, static_cast<int>(number), arguments);
    va_end(arguments);
    return text;
}

const char *shown(std::string_view name)
{
    char *const text = make_text(shown_bytes(name.size()));
    if (text == nullptr)
        return "?";
    show_in(text, name);
    return text;
}

void show_in(char *to, std::string_view name)
{
    while (!name.empty())
        name.remove_prefix(show_character(name.data(), name.size(), to));
    *to = '\0';
}

const char *padded(const char *text, int width)
{
    width = std::max(width, static_cast<int>(imsg_strwidth(text)));
    const std::size_t size = std::strlen(text) + static_cast<std::size_t>(width) + 1;
    char *const wide = make_text(size);
    return wide != nullptr && imsg_make_width(wide, size, text, width, 0) != 0 ? wide : text;
}

const char *unbracketed(const char *name)
{
    char *const text = make_text(std::strlen(name) + 1);
    if (text == nullptr)
        return name;
    char *const end =
        std::remove_copy_if(name, name + std::strlen(name), text, [](char c) { return c == '[' || c == ']'; });
    *end = '\0';
    return text;
}

bool check_output()
{
    if (std::fflush(stdout) != 0)
        is_written = false;
    if (!is_memory_enough)
        report(IMSG_ERROR, msg_no_memory, text_of(msg_output));
    else if (!is_written && !is_reader_gone())
        report(IMSG_ERROR, msg_output_lost);
    return is_output_complete();
}

bool is_output_complete()
{
    return is_written && is_memory_enough;
}

} // namespace depot
