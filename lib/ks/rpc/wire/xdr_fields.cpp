// Words by the stream's operations, and fields of more than one. A length from outside is checked against its limit
// before anything is allocated.
#include "rpc/wire/xdr_fields.h"

#include <cstdlib>
#include <cstring>

namespace ks::xdr {

bool put_word(XDR *xdrs, uint32_t word)
{
    const long wide = static_cast<int32_t>(word);
    return XDR_PUTLONG(xdrs, &wide) != FALSE;
}

int64_t get_word(XDR *xdrs)
{
    long wide = 0;
    return XDR_GETLONG(xdrs, &wide) != FALSE ? int64_t{static_cast<uint32_t>(wide)} : -1;
}

bool_t pass_word_by_operation(XDR *xdrs, void *place)
{
    uint32_t word;
    std::memcpy(&word, place, sizeof word);
    if (xdrs->x_op == XDR_ENCODE)
        return put_word(xdrs, word) ? TRUE : FALSE;
    if (xdrs->x_op != XDR_DECODE)
        return TRUE;
    if (!get_word(xdrs, word))
        return FALSE;
    std::memcpy(place, &word, sizeof word);
    return TRUE;
}

bool_t pass_hyper_by_operation(XDR *xdrs, uint64_t *hyper)
{
    constexpr unsigned word_bits = 32;
    auto high = static_cast<uint32_t>(*hyper >> word_bits);
    auto low = static_cast<uint32_t>(*hyper);
    if (!pass(xdrs, high) || !pass(xdrs, low))
        return FALSE;
    *hyper = uint64_t{high} << word_bits | low;
    return TRUE;
}

bool put_opaque(XDR *xdrs, const void *bytes, u_int count)
{
    constexpr char zeros[BYTES_PER_XDR_UNIT]{};
    const u_int padding = padding_of(count);
    return (count == 0 || XDR_PUTBYTES(xdrs, static_cast<const char *>(bytes), count) != FALSE) &&
           (padding == 0 || XDR_PUTBYTES(xdrs, zeros, padding) != FALSE);
}

bool get_opaque(XDR *xdrs, void *bytes, u_int count)
{
    char ignored[BYTES_PER_XDR_UNIT];
    const u_int padding = padding_of(count);
    return (count == 0 || XDR_GETBYTES(xdrs, static_cast<char *>(bytes), count) != FALSE) &&
           (padding == 0 || XDR_GETBYTES(xdrs, ignored, padding) != FALSE);
}

bool pass_opaque(XDR *xdrs, void *bytes, u_int count)
{
    if (xdrs->x_op == XDR_ENCODE)
        return put_opaque(xdrs, bytes, count);
    return xdrs->x_op != XDR_DECODE || get_opaque(xdrs, bytes, count);
}

bool get_body(XDR *xdrs, char *&bytes, u_int count, const Limits &limits)
{
    if (count > limits.count_max)
        return false;
    if (count == 0)
        return true;
    if (bytes == nullptr)
        bytes = static_cast<char *>(std::malloc(limits.room != 0 ? limits.room : count));
    return bytes != nullptr && get_opaque(xdrs, bytes, count);
}

bool pass_bytes(XDR *xdrs, char *&bytes, u_int &count, const Limits &limits)
{
    if (xdrs->x_op == XDR_FREE) {
        release(bytes);
        return true;
    }
    if (xdrs->x_op == XDR_ENCODE)
        return count <= limits.count_max && put_word(xdrs, count) && put_opaque(xdrs, bytes, count);
    return pass(xdrs, count) && get_body(xdrs, bytes, count, limits);
}

namespace {

bool put_string(XDR *xdrs, const char *text, u_int size_max)
{
    const std::size_t size = text != nullptr ? std::strlen(text) : SIZE_MAX;
    const auto count = static_cast<u_int>(size);
    return size <= size_max && put_word(xdrs, count) && put_opaque(xdrs, text, count);
}

bool get_string(XDR *xdrs, char *&text, u_int size_max)
{
    uint32_t size = 0;
    if (!get_word(xdrs, size) || size > size_max)
        return false;
    if (text == nullptr)
        text = static_cast<char *>(std::malloc(std::size_t{size} + 1));
    if (text == nullptr)
        return false;
    text[size] = '\0';
    return get_opaque(xdrs, text, size);
}

} // namespace

bool pass_string(XDR *xdrs, char *&text, u_int size_max)
{
    if (xdrs->x_op == XDR_ENCODE)
        return put_string(xdrs, text, size_max);
    if (xdrs->x_op == XDR_DECODE)
        return get_string(xdrs, text, size_max);
    release(text);
    return true;
}

} // namespace ks::xdr
