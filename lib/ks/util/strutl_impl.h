// What the files of strutl share: characters of the locale's encoding, and the two decisions that
// keep byte searches both right and fast.
//
// In a single-byte locale every byte is a character. In UTF-8 no byte of one character occurs inside
// another one's, so that text that is itself whole characters can be searched for as bytes. In other
// encodings (Shift-JIS, GBK, ...) a trail byte may look like any ASCII character, and the only way
// is to step from character to character from a known start.
#pragma once

#include <korvaks/strutl.h>

#include "base/ks_base.h"

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>

namespace ks::strutl {

inline constexpr AssertPath here{"lib/ks/strutl"};

enum class Encoding {
    single_byte,
    utf8,
    multibyte, // any other
};

inline bool is_utf8_name(const char *s)
{
    return s[0] == 'U' && s[1] == 'T' && s[2] == 'F' && s[3] == '-' && s[4] == '8' && s[5] == '\0';
}

inline Encoding locale_encoding()
{
    if (is_utf8_name(nl_langinfo(CODESET)))
        return Encoding::utf8;
    return MB_CUR_MAX < 2 ? Encoding::single_byte : Encoding::multibyte;
}

inline unsigned char byte_of(char c)
{
    return static_cast<unsigned char>(c);
}

// In every encoding that the C library offers as a locale, an ASCII byte at the start of a character
// is the whole character.
inline bool is_ascii(char c)
{
    return byte_of(c) < 0x80;
}

struct Character {
    std::size_t length; // bytes; 0 only at the end of the text
    wchar_t code;       // of an invalid character the byte's value
    bool valid;
};

// The first character of at most `available` bytes; none at their end and at a NUL. In a single-byte locale the code
// is the byte.
Character decode(const char *s, std::size_t available = MB_LEN_MAX);

// Its length. Text mostly is ASCII, and answered here.
inline std::size_t char_length(const char *s, std::size_t available = MB_LEN_MAX)
{
    const bool is_plain = available > 0 && *s != '\0' && is_ascii(*s);
    return is_plain ? 1 : decode(s, available).length;
}

// The character that begins at `s` is in all of the classes (STRUTL_...).
bool is_in_classes(const Character &character, const char *s, unsigned classes);

inline bool is_white_space(const Character &character, const char *s)
{
    return character.length > 0 && is_in_classes(character, s, STRUTL_SPACE);
}

// Every byte sequence of the text is a valid character.
bool is_well_formed(const char *s);

// Text that can be searched for as bytes without meeting the inside of a character.
inline bool is_searchable_as_bytes(Encoding encoding, const char *s)
{
    return encoding == Encoding::single_byte || (encoding == Encoding::utf8 && is_well_formed(s));
}

inline bool is_searchable_as_byte(Encoding encoding, char c)
{
    return encoding == Encoding::single_byte || (encoding == Encoding::utf8 && is_ascii(c));
}

// Offset in `set` of the character of `length` bytes at `ch`; `npos` when it is not there.
inline constexpr std::size_t npos = static_cast<std::size_t>(-1);
std::size_t offset_in_set(const char *set, const char *ch, std::size_t length);

// Length of the longest whole-character beginning of `src` within `limit` bytes; `src` has `size` bytes, which are
// more.
std::size_t cut_length(const char *src, std::size_t size, std::size_t limit);

// Stores a result that the caller may not want.
template <typename Value> void store(Value *out, Value value)
{
    if (out != nullptr)
        *out = value;
}

// Joins at most 32 strings of an argument list in an area; NULL for more or without memory.
char *int_concat(stg_area *area, int count, va_list args);

} // namespace ks::strutl
