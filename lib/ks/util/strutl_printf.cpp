// Bounded formatting, and the scan of a format for its directives.
#include "util/strutl_impl.h"

#include <cstdio>

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
    return std::vsnprintf(buf, size, format, args);
}

int strutl_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(buf, size, format, args);
    va_end(args);
    return length;
}
}
