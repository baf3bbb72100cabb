#include "depot_format.h"

#include "depot_report.h"

#include <korvaks/date.h>
#include <korvaks/stg.h>
#include <korvaks/strfmt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace depot {

namespace {

// Values of a row, as texts that live until the next report().

const char *name_of(const Row &row, char)
{
    return row.name;
}

const char *bytes_text(std::uint64_t count)
{
    return text_of(msg_bytes, static_cast<unsigned long long>(count));
}

const char *size_of(const Row &row, char)
{
    return bytes_text(row.entry.length);
}

const char *stored_size_of(const Row &row, char)
{
    return bytes_text(row.entry.stored_length);
}

const char *ratio_of(const Row &row, char)
{
    const Entry &entry = row.entry;
    if (entry.length == 0)
        return text_of(msg_unknown);
    const double percent = 100.0 * static_cast<double>(entry.stored_length) / static_cast<double>(entry.length);
    return text_of(msg_percent, static_cast<unsigned>(percent + 0.5));
}

const char *checksum_of(const Row &row, char)
{
    return text_of(msg_checksum, row.entry.checksum);
}

// In the date style of the process. A time that the calendar does not have is shown as seconds.
const char *date_text(const timespec &time, char modifier)
{
    const char *const date = modifier == 'D'   ? date_fmt_token_date(time.tv_sec)
                             : modifier == 'S' ? date_fmt_token_short_date_time(time.tv_sec)
                             : modifier == 'U' ? date_fmt_token_utc(time.tv_sec)
                                               : date_fmt_token_date_time(time.tv_sec);
    if (date == nullptr && errno == ENOMEM)
        return no_text();
    return date != nullptr ? date : text_of(msg_seconds, static_cast<long long>(time.tv_sec));
}

const char *date_of(const Row &row, char modifier)
{
    return date_text(row.entry.stored, modifier);
}

const char *change_date_of(const Row &row, char modifier)
{
    return date_text(row.entry.changed, modifier);
}

const char *owner_of(const Row &row, char)
{
    return row.entry.owner.empty() ? text_of(msg_unknown) : shown(row.entry.owner);
}

const char *comment_of(const Row &row, char)
{
    return shown(row.entry.comment);
}

// The conversions of formats.
struct Conversion {
    char letter;
    const char *modifiers; // of which one may stand before the letter
    const char *(*value)(const Row &row, char modifier);
    Msg heading;
    Msg meaning;
};

constexpr Conversion conversions[] = {
    {'n', "", name_of, msg_head_name, msg_format_name},
    {'s', "", size_of, msg_head_size, msg_format_size},
    {'z', "", stored_size_of, msg_head_stored, msg_format_stored},
    {'r', "", ratio_of, msg_head_ratio, msg_format_ratio},
    {'k', "", checksum_of, msg_head_checksum, msg_format_checksum},
    {'d', "DSU", date_of, msg_head_date, msg_format_date},
    {'m', "DSU", change_date_of, msg_head_changed, msg_format_changed},
    {'u', "", owner_of, msg_head_owner, msg_format_owner},
    {'c', "", comment_of, msg_head_comment, msg_format_comment},
};

consteval auto collect_letters()
{
    std::array<char, std::size(conversions) + 1> letters{};
    for (std::size_t i = 0; i < std::size(conversions); ++i)
        letters[i] = conversions[i].letter;
    return letters;
}
constexpr auto letters = collect_letters();

const Conversion &conversion_of(char letter)
{
    return *std::ranges::find(conversions, letter, &Conversion::letter);
}

constexpr int columns_max = 4096; // in a width or precision

bool is_sound(int columns)
{
    return columns == STRFMT_NONE || (columns >= -columns_max && columns <= columns_max);
}

bool is_sound(const strfmt_directive &directive, const Conversion &conversion)
{
    const char *const modifiers = directive.modifiers;
    const bool is_known =
        *modifiers == '\0' || (modifiers[1] == '\0' && std::strchr(conversion.modifiers, *modifiers) != nullptr);
    return is_known && *directive.text == '\0' && is_sound(directive.width) && is_sound(directive.precision);
}

// Cuts a text to a number of columns; a negative number keeps its end.
const char *cut(const char *text, int columns)
{
    if (columns == STRFMT_NONE || static_cast<int>(imsg_strwidth(text)) <= std::abs(columns))
        return text;
    const std::size_t size = std::strlen(text) + 2;
    char *const part = make_text(size);
    if (part == nullptr || imsg_make_width(part, size, text, std::abs(columns), columns < 0 ? 1 : 0) == 0)
        return text;
    return part;
}

// Renders one directive for a row, or for the headings when there is none.
int render(void *client, char *out, std::size_t space, const strfmt_directive *directive)
{
    constexpr int rejected = 1;
    const auto *const row = static_cast<const Row *>(client);
    const Conversion &conversion = conversion_of(directive->conversion);
    if (!is_sound(*directive, conversion))
        return rejected;
    const char *text = row == nullptr ? text_of(conversion.heading) : conversion.value(*row, *directive->modifiers);
    text = cut(text, directive->precision);
    const int wanted = directive->width == STRFMT_NONE ? 0 : directive->width;
    const int width = std::max(static_cast<int>(imsg_strwidth(text)), std::abs(wanted));
    return imsg_make_width(out, space, text, width, wanted > 0 ? 1 : 0) != 0 ? 0 : STRFMT_FULL;
}

// NULL when the format is wrong or memory is exhausted, which has been reported.
char *format_row(const char *format, const Row *row)
{
    constexpr std::size_t usual_size = 256;
    char *text = nullptr;
    if (strfmt_gsprintf_fmt(&text, usual_size, letters.data(), format, const_cast<Row *>(row), render) == 0)
        return text;
    stg_free(text);
    return nullptr;
}

bool print(const char *format, const Row *row)
{
    char *const text = format_row(format, row);
    if (text == nullptr)
        return false;
    if (is_output_complete())
        put_out(text);
    stg_free(text);
    drop_texts();
    return is_output_complete();
}

// "%n %s ... ": the conversions.
const char *list_directives()
{
    char text[3 * std::size(conversions) + 1];
    char *end = text;
    for (const Conversion &conversion : conversions) {
        *end++ = '%';
        *end++ = conversion.letter;
        *end++ = ' ';
    }
    *end = '\0';
    return text_of(msg_text, text);
}

} // namespace

bool check_format(const char *format)
{
    char *const text = format_row(format, nullptr);
    if (text == nullptr)
        report(IMSG_ERROR_MORE, msg_bad_format, list_directives());
    stg_free(text);
    return text != nullptr;
}

bool print_row(const char *format, const Row &row)
{
    return print(format, &row);
}

bool print_headings(const char *format)
{
    return print(format, nullptr);
}

int width_of_date(const Row &row)
{
    return static_cast<int>(imsg_strwidth(date_of(row, '\0')));
}

void explain_formats()
{
    constexpr char column[] = "%[30]t"; // the longest
    constexpr int width = sizeof column - 1;
    report(IMSG_OUTPUT, msg_help_format);
    for (const Conversion &conversion : conversions) {
        const char name[] = {'%', conversion.letter, '\0'};
        report(IMSG_OUTPUT, msg_help_row, padded(name, width), text_of(conversion.meaning));
    }
    report(IMSG_OUTPUT, msg_help_row, column, text_of(msg_format_column));
    report(IMSG_OUTPUT, msg_format_notes);
}

} // namespace depot
