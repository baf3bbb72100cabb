// Changing strings in place, and copies that replace characters.
#include "util/strutl_impl.h"

#include "base/msg_port.h"
#include "util/strutl_msg.h"

namespace {

using ks::strutl::char_length;
using ks::strutl::Character;
using ks::strutl::decode;
using ks::strutl::here;
using ks::strutl::is_white_space;
using ks::strutl::npos;
using ks::strutl::offset_in_set;
using ks::strutl::store;

unsigned report_too_small()
{
    (void)imsg_print(ks::msg_error, &_strutl_ks_msg_table, strutl_msg_buffer_too_small);
    return 1;
}

// Puts the replacement of the character with the given offset in the set.
const char *replacement_of(const char *chars, std::size_t offset, const char *const *replacements)
{
    std::size_t index = 0;
    for (std::size_t at = 0; at < offset; at += char_length(chars + at))
        ++index;
    return replacements[index];
}

} // namespace

extern "C" {

char *strutl_strip_whitespace(char *str)
{
    const char *first = nullptr; // the first character that is no white space, and the end of the last one
    const char *end = str;
    Character character = decode(str);
    for (const char *at = str; character.length > 0; character = decode(at)) {
        const bool is_kept = !is_white_space(character, at);
        if (is_kept && first == nullptr)
            first = at;
        at += character.length;
        if (is_kept)
            end = at;
    }
    const auto kept = static_cast<std::size_t>(first == nullptr ? 0 : end - first);
    if (kept > 0)
        std::memmove(str, first, kept);
    str[kept] = '\0';
    return str;
}

void strutl_slide_tail(char *str, size_t pos, long delta)
{
    here.require(delta >= 0 || pos >= -static_cast<std::size_t>(delta), "pos + delta >= 0");
    std::memmove(str + pos + delta, str + pos, std::strlen(str + pos) + 1);
}

unsigned strutl_replace_substr(char *buf, size_t pos, size_t buf_size, size_t old_len, const char *new_text)
{
    const std::size_t length = std::strlen(buf);
    here.require(pos <= length && old_len <= length - pos, "pos + old_len <= strlen(buf)");
    const std::size_t new_len = std::strlen(new_text);
    std::size_t needed = 0;
    if (__builtin_add_overflow(length - old_len + 1, new_len, &needed) || needed > buf_size)
        return report_too_small();
    std::memmove(buf + pos + new_len, buf + pos + old_len, length - pos - old_len + 1);
    std::memcpy(buf + pos, new_text, new_len);
    return 0;
}

unsigned strutl_find_replace_substr(char *buf, size_t start, size_t buf_size, const char *old_text,
                                    const char *new_text, size_t *out_next)
{
    std::size_t pos = 0;
    if (*old_text == '\0' || strutl_find_str(buf, start, old_text, &pos) != 0)
        return 1;
    if (strutl_replace_substr(buf, pos, buf_size, std::strlen(old_text), new_text) != 0)
        return 1;
    store(out_next, pos + std::strlen(new_text));
    return 0;
}

unsigned strutl_xlate_pname_sep(const char *src, const char *seps, char to, char *buf, size_t buf_size,
                                int *out_changed)
{
    // In front of the result there is never more than of the source, so one buffer can be both.
    std::size_t written = 0;
    int changed = 0;
    std::size_t length = 0;
    for (; (length = char_length(src)) > 0; src += length) {
        const bool is_separator = offset_in_set(seps, src, length) != npos;
        const std::size_t size = is_separator ? 1 : length;
        if (written + size >= buf_size)
            break;
        if (is_separator) {
            buf[written] = to;
            changed = 1;
        } else {
            std::memmove(buf + written, src, size);
        }
        written += size;
    }
    const bool is_cut = length > 0 || buf_size == 0;
    if (buf_size > 0)
        buf[written] = '\0';
    store(out_changed, changed);
    return is_cut ? 1 : 0;
}

size_t strutl_xlate_chars_to_strings(char *dst, const char *src, const char *chars, const char *const *replacements)
{
    std::size_t written = 0;
    while (const std::size_t length = char_length(src)) {
        const std::size_t found = offset_in_set(chars, src, length);
        const char *piece = found == npos ? src : replacement_of(chars, found, replacements);
        const std::size_t size = found == npos ? length : std::strlen(piece);
        if (dst != nullptr)
            std::memcpy(dst + written, piece, size);
        written += size;
        src += length;
    }
    if (dst != nullptr)
        dst[written] = '\0';
    return written;
}
}
