// Bounded copies and joining.
#include "util/strutl_impl.h"

#include <algorithm>

namespace {

using ks::strutl::cut_length;
using ks::strutl::int_concat;
using ks::strutl::npos;

struct Piece {
    std::size_t size; // bytes to copy
    bool cut;         // there was more
};

// What of the first `limit` bytes of `src` can be copied into `room` bytes. Nothing is read behind
// the limit.
Piece fit(const char *src, std::size_t limit, std::size_t room)
{
    const std::size_t most = std::min(limit, room);
    const std::size_t size = strnlen(src, most);
    if (size < most || most == limit || src[size] == '\0')
        return {size, false};
    return {cut_length(src, limit, most), true};
}

// memmove, because an in-place change copies a string onto itself.
unsigned copy(char *dst, const char *src, Piece piece)
{
    std::memmove(dst, src, piece.size);
    dst[piece.size] = '\0';
    return piece.cut ? 1 : 0;
}

const char *or_empty(const char *s)
{
    return s == nullptr ? "" : s;
}

// Bytes of all strings and a NUL; false when no memory could hold them.
bool total_size(int count, va_list args, std::size_t &out_size)
{
    out_size = 1;
    for (int i = 0; i < count; ++i) {
        if (__builtin_add_overflow(out_size, std::strlen(or_empty(va_arg(args, const char *))), &out_size))
            return false;
    }
    return true;
}

} // namespace

namespace ks::strutl {

char *int_concat(stg_area *area, int count, va_list args)
{
    constexpr int most_strings = 32;
    if (count > most_strings)
        return nullptr;
    std::size_t size = 0;
    va_list measured;
    va_copy(measured, args);
    const bool fits = total_size(count, measured, size);
    va_end(measured);
    if (!fits) {
        errno = ENOMEM;
        return nullptr;
    }
    char *joined = static_cast<char *>(stg_alloc(area, size));
    if (joined == nullptr)
        return nullptr;
    char *end = joined;
    for (int i = 0; i < count; ++i)
        end = stpcpy(end, or_empty(va_arg(args, const char *)));
    *end = '\0';
    return joined;
}

} // namespace ks::strutl

extern "C" {

unsigned strutl_cpy_buf(char *dst, const char *src, size_t size)
{
    return size == 0 ? 1 : copy(dst, src, fit(src, npos, size - 1));
}

unsigned strutl_ncpy(char *dst, const char *src, size_t n)
{
    return copy(dst, src, fit(src, npos, n));
}

unsigned strutl_ncpy_buf(char *dst, const char *src, size_t n, size_t size)
{
    return size == 0 ? 1 : copy(dst, src, fit(src, n, size - 1));
}

unsigned strutl_ccpy_buf(char *dst, const char *src, int stop, size_t size)
{
    std::size_t length = npos;
    (void)strutl_find_char(src, stop, &length); // without one, the whole string is copied
    return strutl_ncpy_buf(dst, src, length, size);
}

unsigned strutl_prepend(char *buf, size_t size, const char *prefix)
{
    const std::size_t added = std::strlen(prefix);
    const std::size_t held = std::strlen(buf);
    std::size_t needed = 0;
    if (__builtin_add_overflow(added, held + 1, &needed) || needed > size)
        return 1;
    std::memmove(buf + added, buf, held + 1);
    std::memcpy(buf, prefix, added);
    return 0;
}

unsigned strutl_cpy_and_advance(char **dst, size_t *left, const char *src)
{
    if (*left == 0)
        return 1;
    const Piece piece = fit(src, npos, *left - 1);
    (void)copy(*dst, src, piece); // reported below
    *dst += piece.size;
    *left -= piece.size;
    return piece.cut ? 1 : 0;
}

unsigned strutl_concat(char *buf, size_t size, int n, ...)
{
    if (size == 0)
        return 1;
    unsigned cut = 0;
    char *end = buf;
    std::size_t left = size;
    va_list args;
    va_start(args, n);
    for (int i = 0; i < n && cut == 0; ++i) {
        const char *source = or_empty(va_arg(args, const char *));
        cut = strutl_cpy_and_advance(&end, &left, source);
    }
    va_end(args);
    if (n < 1)
        *buf = '\0';
    return cut;
}

char *strutl_concat_heap(int n, ...)
{
    va_list args;
    va_start(args, n);
    char *joined = int_concat(STG_AREA_HEAP, n, args);
    va_end(args);
    return joined;
}

char *strutl_concat_area(stg_area *area, int n, ...)
{
    va_list args;
    va_start(args, n);
    char *joined = int_concat(area, n, args);
    va_end(args);
    return joined;
}
}
