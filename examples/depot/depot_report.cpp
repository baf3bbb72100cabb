#include "depot_report.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace depot {

namespace {

constinit stg_area *message_area = STG_AREA_NULL; // texts that live until the next report()
constinit bool is_complete = true;

// Copies one character in a form that is safe to show; gives the bytes it had.
std::size_t show_character(const char *from, std::size_t available, char *&to)
{
    std::size_t length = 0;
    const bool is_plain = strutl_test_char(from, available, STRUTL_PRINT, &length) != 0 && *from != '\\';
    for (std::size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(from[i]);
        if (is_plain)
            *to++ = from[i];
        else
            to += strutl_snprintf(to, 5, "\\%03o", byte);
    }
    return length;
}

} // namespace

bool start_messages(const char *argv0)
{
    imsg_set_app_name(argv0);
    message_area = stg_create_area(8192);
    return message_area != STG_AREA_NULL;
}

void end_messages()
{
    stg_delete_area(&message_area);
}

void report(int kind, unsigned number, ...)
{
    va_list arguments;
    va_start(arguments, number);
    if (imsg_print_sharedv(kind, nullptr, &_depot_ks_msg_table, number, arguments) != 0)
        is_complete = false;
    va_end(arguments);
    stg_free_area(message_area, 1);
}

char *make_text(std::size_t size)
{
    return static_cast<char *>(stg_alloc(message_area, size));
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
    char *const text = make_text(4 * name.size() + 1); // 4 bytes for \ooo
    if (text == nullptr)
        return "?";
    char *to = text;
    while (!name.empty())
        name.remove_prefix(show_character(name.data(), name.size(), to));
    *to = '\0';
    return text;
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

bool is_output_complete()
{
    return is_complete;
}

} // namespace depot
