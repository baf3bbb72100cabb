// Bounded formatting, and the scan of a format for its directives.
//
// Most directives ask for strings and integers as they are. These are formatted here, in a fraction of the time; from
// the first one with anything else in it, a width, a flag, another conversion, the C library formats the rest.
#include "util/strutl_impl.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace {

enum class Length {
    plain,
    of_long,
    of_long_long,
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

const char *skip_digits(const char *at)
{
    while (is_digit(*at))
        ++at;
    return at;
}

bool is_one_of(char c, const char *set)
{
    return c != '\0' && std::strchr(set, c) != nullptr;
}

strutl_printf_kind integer_kind(Length length, bool is_signed)
{
    switch (length) {
    case Length::of_long:
        return is_signed ? strutl_printf_kind_long : strutl_printf_kind_unsigned_long;
    case Length::of_long_long:
        return is_signed ? strutl_printf_kind_long_long : strutl_printf_kind_unsigned_long_long;
    case Length::plain:
        break;
    }
    return is_signed ? strutl_printf_kind_int : strutl_printf_kind_unsigned_int;
}

// strutl_printf_kind_null for a character that is no conversion.
strutl_printf_kind conversion_kind(char conversion, Length length)
{
    if (conversion == '%')
        return strutl_printf_kind_percent;
    if (conversion == 'p')
        return strutl_printf_kind_pointer;
    if (conversion == 's')
        return strutl_printf_kind_string;
    if (is_one_of(conversion, "eEfgG"))
        return strutl_printf_kind_double;
    if (is_one_of(conversion, "di"))
        return integer_kind(length, true);
    if (is_one_of(conversion, "ouxXc"))
        return integer_kind(length, false);
    return strutl_printf_kind_null;
}

struct Directive {
    strutl_printf_kind kind = strutl_printf_kind_null;
    int star_width = 0;
    int star_precision = 0;
    const char *end = nullptr;
};

// Reads what follows a "%"; the kind stays null when it is malformed.
Directive read_directive(const char *at)
{
    Directive directive;
    if (is_one_of(*at, " #'+-0"))
        ++at;
    directive.star_width = *at == '*' ? 1 : 0;
    at = directive.star_width != 0 ? at + 1 : skip_digits(at);
    if (*at == '.') {
        ++at;
        directive.star_precision = *at == '*' ? 1 : 0;
        if (directive.star_precision == 0 && !is_digit(*at))
            return {};
        at = directive.star_precision != 0 ? at + 1 : skip_digits(at);
    }
    Length length = Length::plain;
    if (at[0] == 'l' && at[1] == 'l') {
        length = Length::of_long_long;
        at += 2;
    } else if (*at == 'l') {
        length = Length::of_long;
        ++at;
    } else if (*at == 'h') {
        ++at;
    }
    directive.kind = conversion_kind(*at, length);
    if (directive.kind == strutl_printf_kind_null)
        return {};
    directive.end = at + 1;
    return directive;
}

// A buffer that counts what does not fit.
class Output {
  public:
    Output(char *buf, std::size_t size) : buf_(buf), room_(size == 0 ? 0 : size - 1), is_given_(size != 0) {}

    void add(const char *text, std::size_t count)
    {
        if (length_ < room_)
            std::memcpy(buf_ + length_, text, std::min(count, room_ - length_));
        length_ += count;
    }

    // The length of all, with what fits of it in the buffer.
    std::size_t finish()
    {
        if (is_given_)
            buf_[std::min(length_, room_)] = '\0';
        return length_;
    }

    // The C library's part, behind all others: false when it fails.
    bool add_rest(const char *format, va_list args)
    {
        const bool has_room = length_ < room_;
        const int count =
            std::vsnprintf(has_room ? buf_ + length_ : nullptr, has_room ? room_ - length_ + 1 : 0, format, args);
        length_ += count < 0 ? 0 : static_cast<std::size_t>(count);
        return count >= 0;
    }

  private:
    char *buf_;
    std::size_t room_; // without the NUL
    bool is_given_;
    std::size_t length_ = 0;
};

// A struct, so that it can be passed by reference.
struct Arguments {
    va_list list;
};

template <typename Integer> void add_integer(Output &out, Integer value, int base)
{
    char digits[24]; // of 64 bits in base 10 or 16, and a sign
    const std::to_chars_result result = std::to_chars(std::begin(digits), std::end(digits), value, base);
    out.add(digits, static_cast<std::size_t>(result.ptr - digits));
}

void add_string(Output &out, const char *text)
{
    if (text == nullptr)
        text = "(null)"; // as the C library shows it
    out.add(text, std::strlen(text));
}

template <typename Signed, typename Unsigned>
bool add_integer_argument(Output &out, char conversion, Arguments &arguments)
{
    switch (conversion) {
    case 'd':
    case 'i':
        add_integer(out, va_arg(arguments.list, Signed), 10);
        return true;
    case 'u':
        add_integer(out, va_arg(arguments.list, Unsigned), 10);
        return true;
    case 'x':
        add_integer(out, va_arg(arguments.list, Unsigned), 16);
        return true;
    default:
        return false;
    }
}

// Formats the directive behind a "%" and moves behind it; false, with nothing moved, when that is left to the C
// library.
bool add_directive(Output &out, const char *&at, Arguments &arguments)
{
    switch (*at) {
    case '%':
        out.add(at++, 1);
        return true;
    case 's':
        ++at;
        add_string(out, va_arg(arguments.list, const char *));
        return true;
    case 'l':
        if (!add_integer_argument<long, unsigned long>(out, at[1], arguments))
            return false;
        at += 2;
        return true;
    default:
        if (!add_integer_argument<int, unsigned>(out, *at, arguments))
            return false;
        ++at;
        return true;
    }
}

// Whether a directive stores the length so far, which the C library knows of what it has formatted itself.
bool stores_length(const char *format)
{
    for (const char *at = strchrnul(format, '%'); *at != '\0'; at = strchrnul(at, '%')) {
        at += 1 + std::strspn(at + 1, "0123456789 #'+-.*$Ihljztq");
        if (*at == 'n')
            return true;
        at += *at == '%' ? 1 : 0;
    }
    return false;
}

// False when the C library has to do it all, or fails.
bool format_in_parts(Output &out, const char *format, Arguments &arguments)
{
    for (;;) {
        const char *percent = strchrnul(format, '%');
        out.add(format, static_cast<std::size_t>(percent - format));
        if (*percent == '\0')
            return true;
        format = percent + 1;
        if (!add_directive(out, format, arguments))
            return !stores_length(percent) && out.add_rest(percent, arguments.list);
    }
}

} // namespace

extern "C" {

unsigned strutl_find_printf_directive(const char *fmt, size_t start, size_t dir_size, char *dir, size_t *out_next,
                                      strutl_printf_kind *out_kind, int *out_star_width, int *out_star_precision)
{
    std::size_t percent = 0;
    Directive directive;
    if (strutl_find_char(fmt + start, '%', &percent) != 0) {
        percent = start + std::strlen(fmt + start);
    } else {
        percent += start;
        directive = read_directive(fmt + percent + 1);
    }
    *out_kind = directive.kind;
    *out_star_width = directive.star_width;
    *out_star_precision = directive.star_precision;
    if (directive.end == nullptr) {
        *out_next = percent;
        return 0;
    }
    *out_next = static_cast<std::size_t>(directive.end - fmt);
    if (dir_size > 0)
        (void)strutl_ncpy_buf(dir, fmt + percent, *out_next - percent, dir_size); // a longer text is cut
    return 1;
}

int strutl_vsnprintf(char *buf, size_t size, const char *format, va_list args)
{
    Output out(buf, size);
    Arguments arguments;
    va_copy(arguments.list, args);
    const bool is_done = format_in_parts(out, format, arguments);
    va_end(arguments.list);
    if (is_done && out.finish() <= INT_MAX)
        return static_cast<int>(out.finish());
    return std::vsnprintf(buf, size, format, args);
}

int strutl_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = strutl_vsnprintf(buf, size, format, args);
    va_end(args);
    return length;
}
}
