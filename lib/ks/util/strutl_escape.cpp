// The backslash escapes of string literals.
#include "util/strutl_impl.h"

#include <optional>

namespace {

using ks::strutl::byte_of;
using ks::strutl::char_length;

// A character of the literal: the bytes it stands for and what it took to write them.
struct Unescaped {
    const char *text; // whole characters stand for themselves, else `byte` is meant
    char byte;
    std::size_t size;
    std::size_t consumed;
};

constexpr unsigned not_a_digit = 16;

unsigned digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A') + 10;
    return not_a_digit;
}

std::optional<Unescaped> one_byte(unsigned value, std::size_t consumed)
{
    if (value > 255)
        return std::nullopt;
    return Unescaped{nullptr, static_cast<char>(value), 1, consumed};
}

// A number of at most `most` digits, after `prefix` bytes of the escape.
std::optional<Unescaped> read_number(const char *at, const char *end, std::size_t prefix, unsigned base,
                                     std::size_t most)
{
    unsigned value = 0;
    std::size_t digits = 0;
    for (at += prefix; at + digits < end && digits < most && digit_value(at[digits]) < base; ++digits)
        value = value * base + digit_value(at[digits]);
    if (digits == 0)
        return std::nullopt;
    return one_byte(value, prefix + digits);
}

// At a backslash that is not the last byte.
std::optional<Unescaped> read_escape(const char *at, const char *end)
{
    constexpr char letters[] = "\"'?\\abfnrtv";
    constexpr char values[] = "\"'?\\\a\b\f\n\r\t\v";
    const char escaped = at[1];
    // Kept exactly: "\0" is a NUL byte at once, whatever digits follow.
    if (escaped == '0')
        return one_byte(0, 2);
    if (escaped == 'x')
        return read_number(at, end, 2, 16, 2);
    const char *known = escaped == '\0' ? nullptr : std::strchr(letters, escaped);
    if (known != nullptr)
        return one_byte(byte_of(values[known - letters]), 2);
    return read_number(at, end, 1, 8, 3);
}

std::optional<Unescaped> read_character(const char *at, const char *end, bool quoted)
{
    if (*at == '\\') {
        if (at + 1 == end)
            return std::nullopt;
        return read_escape(at, end);
    }
    if (*at == '"' && quoted) {
        if (at + 1 == end || at[1] != '"')
            return std::nullopt;
        return one_byte('"', 2);
    }
    const std::size_t length = char_length(at);
    if (length > static_cast<std::size_t>(end - at))
        return std::nullopt;
    return Unescaped{at, '\0', length, length};
}

// Counts the bytes of the result, and writes them when `out` is given; false for a bad literal.
bool unescape(const char *at, const char *end, bool quoted, char *out, std::size_t &out_size)
{
    out_size = 0;
    while (at < end) {
        const std::optional<Unescaped> next = read_character(at, end, quoted);
        if (!next)
            return false;
        if (out != nullptr)
            std::memcpy(out + out_size, next->text != nullptr ? next->text : &next->byte, next->size);
        out_size += next->size;
        at += next->consumed;
    }
    return true;
}

} // namespace

extern "C" unsigned strutl_cstr_to_str(const char *src, int quoted, char **out_str)
{
    if (src == nullptr)
        return 1;
    const char *end = src + std::strlen(src);
    if (quoted != 0) {
        if (end - src < 2 || *src != '"' || end[-1] != '"')
            return 1;
        ++src;
        --end;
    }
    // Measured before it is made: a bad literal leaves nothing to free.
    std::size_t size = 0;
    if (!unescape(src, end, quoted != 0, nullptr, size))
        return 1;
    char *made = static_cast<char *>(stg_malloc(size + 1));
    if (made == nullptr)
        return 1;
    (void)unescape(src, end, quoted != 0, made, size); // the same literal as just measured
    made[size] = '\0';
    *out_str = made;
    return 0;
}
