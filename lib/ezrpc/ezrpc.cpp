// The counted string without a bound.
//
// Its length comes from the other side before its bytes do, so decoding trusts it only as far as bytes
// arrive: the buffer grows with what was read, and a false length costs the sender's bytes, not ours.
//
// Only the stream's own operations are called, so that no program loads the platform's RPC library, and the
// Kerberos that comes with it, for a string.
#include <korvaks/ezrpc.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <rpc/rpc.h>

namespace {

// Reads `count` bytes into a new string; NULL when the stream or the memory ends before.
char *read_growing(XDR *xdrs, std::size_t count)
{
    constexpr std::size_t first_capacity = 4096;
    std::size_t capacity = std::min(count + 1, first_capacity);
    auto *text = static_cast<char *>(std::malloc(capacity));
    if (text == nullptr)
        return nullptr;
    for (std::size_t held = 0;;) {
        const std::size_t piece = std::min(count, capacity - 1) - held;
        if (piece > 0 && XDR_GETBYTES(xdrs, text + held, static_cast<u_int>(piece)) == FALSE)
            break;
        held += piece;
        if (held == count) {
            text[count] = '\0';
            return text;
        }
        capacity = std::min(2 * capacity, count + 1);
        auto *grown = static_cast<char *>(std::realloc(text, capacity));
        if (grown == nullptr)
            break;
        text = grown;
    }
    std::free(text);
    return nullptr;
}

bool skip_padding(XDR *xdrs, std::size_t count)
{
    char padding[BYTES_PER_XDR_UNIT];
    const std::size_t odd = count % BYTES_PER_XDR_UNIT;
    return odd == 0 || XDR_GETBYTES(xdrs, padding, static_cast<u_int>(BYTES_PER_XDR_UNIT - odd)) != FALSE;
}

int decode(XDR *xdrs, char **string)
{
    // The room behind an address that is already there is not known.
    int32_t word = 0;
    if (*string != nullptr || XDR_GETINT32(xdrs, &word) == FALSE)
        return FALSE;
    const auto count = static_cast<uint32_t>(word);
    char *text = read_growing(xdrs, count);
    if (text == nullptr)
        return FALSE;
    if (!skip_padding(xdrs, count)) {
        std::free(text);
        return FALSE;
    }
    *string = text;
    return TRUE;
}

int encode(XDR *xdrs, const char *string)
{
    constexpr char padding[BYTES_PER_XDR_UNIT]{};
    const std::size_t size = std::strlen(string);
    auto word = static_cast<int32_t>(size);
    if (size > UINT_MAX || XDR_PUTINT32(xdrs, &word) == FALSE ||
        XDR_PUTBYTES(xdrs, string, static_cast<u_int>(size)) == FALSE)
        return FALSE;
    const std::size_t odd = size % BYTES_PER_XDR_UNIT;
    return odd == 0 ? TRUE : XDR_PUTBYTES(xdrs, padding, static_cast<u_int>(BYTES_PER_XDR_UNIT - odd));
}

} // namespace

extern "C" int xdr_ez_string8(XDR *xdrs, char **string)
{
    if (xdrs->x_op == XDR_DECODE)
        return decode(xdrs, string);
    if (xdrs->x_op == XDR_ENCODE)
        return *string == nullptr ? FALSE : encode(xdrs, *string);
    std::free(*string);
    *string = nullptr;
    return TRUE;
}
