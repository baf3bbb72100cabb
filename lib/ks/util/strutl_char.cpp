// Characters of the locale's encoding: length, class and case.
#include "util/strutl_impl.h"

#include <algorithm>
#include <cctype>
#include <cwchar>
#include <cwctype>

namespace ks::strutl {

Character decode(const char *s, std::size_t available)
{
    if (available == 0 || *s == '\0')
        return {0, 0, true};
    if (is_ascii(*s) || MB_CUR_MAX < 2)
        return {1, static_cast<wchar_t>(byte_of(*s)), true};
    const ErrnoSaver saver;
    std::mbstate_t state{};
    wchar_t code = 0;
    available = std::min<std::size_t>(available, MB_LEN_MAX);
    const std::size_t length = std::mbrtowc(&code, s, available, &state);
    // Both failures, invalid and cut off, are values above every length.
    if (length == 0 || length > available)
        return {1, static_cast<wchar_t>(byte_of(*s)), false};
    return {length, code, true};
}

bool is_well_formed(const char *s)
{
    for (;;) {
        while (*s != '\0' && is_ascii(*s))
            ++s;
        if (*s == '\0')
            return true;
        const Character character = decode(s);
        if (!character.valid)
            return false;
        s += character.length;
    }
}

std::size_t offset_in_set(const char *set, const char *ch, std::size_t length)
{
    std::size_t step = 0;
    for (const char *member = set; *member != '\0'; member += step) {
        step = char_length(member);
        if (step == length && std::memcmp(member, ch, length) == 0)
            return static_cast<std::size_t>(member - set);
    }
    return npos;
}

std::size_t cut_length(const char *src, std::size_t size, std::size_t limit)
{
    const Encoding encoding = locale_encoding();
    if (encoding == Encoding::single_byte)
        return limit;
    std::size_t at = 0;
    if (encoding == Encoding::utf8) {
        constexpr std::size_t most_trail_bytes = 3;
        at = limit;
        while (at > 0 && limit - at < most_trail_bytes && (byte_of(src[at]) & 0xC0) == 0x80)
            --at;
    }
    for (;;) {
        const std::size_t next = at + char_length(src + at, size - at);
        if (next > limit)
            return at;
        at = next;
    }
}

} // namespace ks::strutl

namespace {

using ks::strutl::byte_of;
using ks::strutl::char_length;
using ks::strutl::Character;
using ks::strutl::decode;
using ks::strutl::Encoding;
using ks::strutl::is_ascii;
using ks::strutl::is_in_classes;
using ks::strutl::locale_encoding;
using ks::strutl::store;

struct ClassTest {
    unsigned bit;
    int (*of_byte)(int);
    int (*of_wide)(std::wint_t);
};

constexpr ClassTest class_tests[] = {
    {STRUTL_ALPHA, isalpha, iswalpha}, {STRUTL_UPPER, isupper, iswupper},    {STRUTL_LOWER, islower, iswlower},
    {STRUTL_DIGIT, isdigit, iswdigit}, {STRUTL_XDIGIT, isxdigit, iswxdigit}, {STRUTL_ALNUM, isalnum, iswalnum},
    {STRUTL_SPACE, isspace, iswspace}, {STRUTL_PUNCT, ispunct, iswpunct},    {STRUTL_PRINT, isprint, iswprint},
    {STRUTL_GRAPH, isgraph, iswgraph},
};

char change_case(char c, int to_upper)
{
    return static_cast<char>(to_upper != 0 ? std::toupper(byte_of(c)) : std::tolower(byte_of(c)));
}

// Writes the other case of a multibyte character; 0 when the encoding has none.
std::size_t change_case(wchar_t code, int to_upper, char *out)
{
    const ks::ErrnoSaver saver;
    const auto wide = static_cast<std::wint_t>(code);
    const auto changed = static_cast<wchar_t>(to_upper != 0 ? std::towupper(wide) : std::towlower(wide));
    std::mbstate_t state{};
    const std::size_t written = std::wcrtomb(out, changed, &state);
    return written == static_cast<std::size_t>(-1) ? 0 : written;
}

} // namespace

namespace ks::strutl {

bool is_in_classes(const Character &character, const char *s, unsigned classes)
{
    const bool by_byte = character.length == 1 && (is_ascii(*s) || !character.valid || MB_CUR_MAX < 2);
    for (const ClassTest &test : class_tests) {
        if ((classes & test.bit) == 0)
            continue;
        const int holds = by_byte ? test.of_byte(byte_of(*s)) : test.of_wide(static_cast<std::wint_t>(character.code));
        if (holds == 0)
            return false;
    }
    return true;
}

} // namespace ks::strutl

extern "C" {

int strutl_mblen(const char *s, size_t n)
{
    return s == nullptr ? 0 : static_cast<int>(char_length(s, n));
}

unsigned strutl_get_sys_char_type(void)
{
    return MB_CUR_MAX < 2 ? 1 : 2;
}

size_t strutl_mb_char_from_str(const char *str, wchar_t *out_char)
{
    const Character character = decode(str);
    store(out_char, character.code);
    return character.length;
}

size_t strutl_mb_strlen(const char *str)
{
    if (locale_encoding() == Encoding::single_byte)
        return std::strlen(str);
    std::size_t count = 0;
    while (const std::size_t length = char_length(str)) {
        str += length;
        ++count;
    }
    return count;
}

size_t strutl_wide_char_from_str(const wchar_t *str, wchar_t *out_char)
{
    store(out_char, *str);
    return *str == L'\0' ? 0 : 1;
}

size_t strutl_wide_strlen(const wchar_t *str)
{
    return std::wcslen(str);
}

unsigned strutl_test_char(const char *s, size_t n, unsigned classes, size_t *out_len)
{
    const Character character = decode(s, n);
    store(out_len, character.length);
    return character.length > 0 && is_in_classes(character, s, classes) ? 1 : 0;
}

size_t strutl_cvt_case_char(const char *src, int to_upper, char *out, size_t *out_len)
{
    const Character character = decode(src);
    std::size_t written = 0;
    if (character.length == 1) {
        *out = change_case(*src, to_upper);
        written = 1;
    } else if (character.length > 1) {
        written = change_case(character.code, to_upper, out);
        if (written == 0) {
            std::memcpy(out, src, character.length);
            written = character.length;
        }
    }
    *out_len = written;
    return character.length;
}

unsigned strutl_cvt_case_string(const char *src, int to_upper, size_t out_size, char *out)
{
    if (out_size == 0)
        return 0;
    std::size_t left = out_size - 1;
    char converted[MB_LEN_MAX];
    std::size_t written = 0;
    while (const std::size_t length = strutl_cvt_case_char(src, to_upper, converted, &written)) {
        if (written > left)
            break;
        std::memcpy(out, converted, written);
        out += written;
        left -= written;
        src += length;
    }
    *out = '\0';
    return *src == '\0' ? 1 : 0;
}
}
