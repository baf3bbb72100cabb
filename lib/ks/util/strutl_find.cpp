// Searching for characters and substrings, in whole characters.
#include "util/strutl_impl.h"

#include <algorithm>
#include <functional>

namespace {

using ks::strutl::byte_of;
using ks::strutl::char_length;
using ks::strutl::Encoding;
using ks::strutl::is_ascii;
using ks::strutl::is_searchable_as_byte;
using ks::strutl::is_searchable_as_bytes;
using ks::strutl::locale_encoding;
using ks::strutl::npos;
using ks::strutl::offset_in_set;
using ks::strutl::store;

std::size_t offset(const char *from, const char *to)
{
    return static_cast<std::size_t>(to - from);
}

// Where a text of bytes is cut so that it can be searched for without going back (Crochemore and Perrin, "Two-way
// string-matching"): the start of its greatest suffix, and the period of that.
struct Suffix {
    std::size_t start;
    std::size_t period;
};

template <typename Less> Suffix greatest_suffix(const char *text, std::size_t size, Less less)
{
    Suffix best{0, 1};
    std::size_t matched = 0;
    for (std::size_t rival = 1; rival + matched < size;) {
        const unsigned char ours = byte_of(text[best.start + matched]);
        const unsigned char theirs = byte_of(text[rival + matched]);
        if (theirs == ours) {
            if (++matched == best.period) {
                rival += best.period;
                matched = 0;
            }
        } else if (less(theirs, ours)) {
            rival += matched + 1;
            matched = 0;
            best.period = rival - best.start;
        } else {
            best = {rival++, 1};
            matched = 0;
        }
    }
    return best;
}

// Finds a substring where bytes do not tell where characters begin: every occurrence of its bytes, and a second
// position that follows the characters to it. Both go through the text once, whatever it holds, and need no memory.
class CharacterSearch {
  public:
    CharacterSearch(const char *needle, std::size_t size) : needle_(needle), size_(size)
    {
        const Suffix up = greatest_suffix(needle, size, std::less<unsigned char>());
        const Suffix down = greatest_suffix(needle, size, std::greater<unsigned char>());
        const Suffix cut = up.start > down.start ? up : down;
        cut_ = cut.start;
        if (std::memcmp(needle, needle + cut.period, cut_) == 0) {
            step_ = cut.period;
            overlap_ = size - cut.period;
        } else {
            step_ = std::max(cut_, size - cut_) + 1;
        }
        // What follows the needle's last whole characters decides where its last one ends.
        const std::size_t near_end = size - std::min<std::size_t>(size, MB_CUR_MAX);
        while (last_part_ < near_end)
            last_part_ += char_length(needle + last_part_);
    }

    const char *find(const char *text, const char *end) const
    {
        const char *boundary = text;
        std::size_t known = 0; // bytes at `at` that are known to match
        for (const char *at = text; offset(at, end) >= size_;) {
            const std::size_t from = std::max(cut_, known);
            const std::size_t right = from + matching(at + from, needle_ + from, size_ - from);
            if (right < size_) {
                at += right - cut_ + 1;
                known = 0;
                continue;
            }
            if (known >= cut_ || std::memcmp(at + known, needle_ + known, cut_ - known) == 0) {
                while (boundary < at)
                    boundary += char_length(boundary);
                if (boundary == at && ends_with_a_character(at))
                    return at;
            }
            at += step_;
            known = overlap_;
        }
        return nullptr;
    }

  private:
    static std::size_t matching(const char *a, const char *b, std::size_t size)
    {
        return offset(a, std::mismatch(a, a + size, b).first);
    }

    bool ends_with_a_character(const char *start) const
    {
        const char *at = start + last_part_;
        while (at < start + size_)
            at += char_length(at);
        return at == start + size_;
    }

    const char *needle_;
    std::size_t size_;
    std::size_t cut_ = 0;
    std::size_t step_ = 0;    // from an occurrence of what follows the cut to the next possible one
    std::size_t overlap_ = 0; // bytes that the two have in common
    std::size_t last_part_ = 0;
};

// Ranges hold no NUL byte before their end.
const char *find_in_range(const char *text, const char *end, const char *needle)
{
    const std::size_t size = std::strlen(needle);
    if (size == 0)
        return text;
    if (is_searchable_as_bytes(locale_encoding(), needle))
        return static_cast<const char *>(memmem(text, offset(text, end), needle, size));
    return CharacterSearch(needle, size).find(text, end);
}

const char *find_last_char(const char *str, int ch)
{
    const char wanted = static_cast<char>(ch);
    if (wanted == '\0')
        return nullptr;
    if (is_searchable_as_byte(locale_encoding(), wanted))
        return std::strrchr(str, wanted);
    const char *last = nullptr;
    while (const std::size_t length = char_length(str)) {
        if (length == 1 && *str == wanted)
            last = str;
        str += length;
    }
    return last;
}

const char *find_char(const char *str, int ch)
{
    const char wanted = static_cast<char>(ch);
    if (wanted == '\0')
        return nullptr;
    if (is_searchable_as_byte(locale_encoding(), wanted))
        return std::strchr(str, wanted);
    while (const std::size_t length = char_length(str)) {
        if (length == 1 && *str == wanted)
            return str;
        str += length;
    }
    return nullptr;
}

unsigned report(const char *str, const char *found, std::size_t *out_pos)
{
    if (found == nullptr)
        return 1;
    store(out_pos, offset(str, found));
    return 0;
}

bool is_ascii_text(const char *s)
{
    while (*s != '\0' && is_ascii(*s))
        ++s;
    return *s == '\0';
}

// Sets can be searched for byte by byte when each member is one byte that is always a character.
bool is_byte_set(const char *set)
{
    const Encoding encoding = locale_encoding();
    return encoding == Encoding::single_byte || (encoding == Encoding::utf8 && is_ascii_text(set));
}

const char *find_closing(const char *at, char open, char close)
{
    std::size_t depth = 1;
    while (const std::size_t length = char_length(at)) {
        if (length == 1 && *at == close) {
            if (--depth == 0)
                return at;
        } else if (length == 1 && *at == open) {
            ++depth;
        }
        at += length;
    }
    return nullptr;
}

} // namespace

extern "C" {

unsigned strutl_find_char_from(const char *str, size_t start, const char *set, size_t *out_pos, size_t *out_which)
{
    const char *at = str + start;
    std::size_t which = npos;
    if (is_byte_set(set)) {
        at += std::strcspn(at, set);
        if (*at != '\0')
            which = offset(set, std::strchr(set, *at));
    } else {
        while (const std::size_t length = char_length(at)) {
            which = offset_in_set(set, at, length);
            if (which != npos)
                break;
            at += length;
        }
    }
    if (which == npos)
        return 1;
    store(out_pos, offset(str, at));
    store(out_which, which);
    return 0;
}

unsigned strutl_find_char(const char *str, int ch, size_t *out_pos)
{
    return report(str, find_char(str, ch), out_pos);
}

unsigned strutl_find_last_char(const char *str, int ch, size_t *out_pos)
{
    return report(str, find_last_char(str, ch), out_pos);
}

unsigned strutl_match_last_char(const char *str, int ch)
{
    const char *last = find_last_char(str, ch);
    return last != nullptr && last[1] == '\0' ? 0 : 1;
}

char *strutl_right_char(const char *str, int ch)
{
    return const_cast<char *>(find_last_char(str, ch));
}

unsigned strutl_find_str_range(const char *str, size_t start, size_t end, const char *sub, size_t *out_pos)
{
    if (end < start)
        return 1;
    const char *text = str + start;
    return report(str, find_in_range(text, text + strnlen(text, end - start), sub), out_pos);
}

unsigned strutl_find_str(const char *str, size_t start, const char *sub, size_t *out_pos)
{
    // What is not there as bytes is not there as characters.
    const char *text = str + start;
    const char *found = std::strstr(text, sub);
    if (found != nullptr && !is_searchable_as_bytes(locale_encoding(), sub))
        found = find_in_range(text, text + std::strlen(text), sub);
    return report(str, found, out_pos);
}

unsigned strutl_find_end_delim(const char *str, size_t start, int open, int close, size_t *out_pos)
{
    const char opening = static_cast<char>(open);
    const char *at = str + start;
    if (opening == '\0' || *at != opening || char_length(at) != 1)
        return 1;
    return report(str, find_closing(at + 1, opening, static_cast<char>(close)), out_pos);
}

char *strutl_strrpbrk(const char *str, const char *set)
{
    const char *last = nullptr;
    if (is_byte_set(set)) {
        for (const char *at = std::strpbrk(str, set); at != nullptr; at = std::strpbrk(at + 1, set))
            last = at;
    } else {
        while (const std::size_t length = char_length(str)) {
            if (offset_in_set(set, str, length) != npos)
                last = str;
            str += length;
        }
    }
    return const_cast<char *>(last);
}
}
