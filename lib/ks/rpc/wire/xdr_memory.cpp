// The stream over bytes of the caller's. `x_base` is their start, `x_private` the place and `x_handy` what is left.
#include "rpc/wire/xdr_memory.h"

#include <cstdint>
#include <cstring>

#include <arpa/inet.h>

namespace {

char *place_of(const XDR *xdrs)
{
    return static_cast<char *>(xdrs->x_private);
}

u_int position_of(XDR *xdrs)
{
    return static_cast<u_int>(place_of(xdrs) - xdrs->x_base);
}

// The place before, after which there are `count` bytes; NULL when there are fewer.
char *advance(XDR *xdrs, u_int count)
{
    if (count > xdrs->x_handy)
        return nullptr;
    char *place = place_of(xdrs);
    xdrs->x_private = place + count;
    xdrs->x_handy -= count;
    return place;
}

bool_t get_bytes(XDR *xdrs, char *bytes, u_int count)
{
    const char *from = advance(xdrs, count);
    if (from == nullptr)
        return FALSE;
    std::memcpy(bytes, from, count);
    return TRUE;
}

bool_t put_bytes(XDR *xdrs, const char *bytes, u_int count)
{
    char *to = advance(xdrs, count);
    if (to == nullptr)
        return FALSE;
    std::memcpy(to, bytes, count);
    return TRUE;
}

bool_t get_long(XDR *xdrs, long *out_value)
{
    uint32_t word;
    if (get_bytes(xdrs, reinterpret_cast<char *>(&word), sizeof word) == FALSE)
        return FALSE;
    *out_value = static_cast<int32_t>(ntohl(word));
    return TRUE;
}

bool_t put_long(XDR *xdrs, const long *value)
{
    const uint32_t word = htonl(static_cast<uint32_t>(*value));
    return put_bytes(xdrs, reinterpret_cast<const char *>(&word), sizeof word);
}

bool_t set_position(XDR *xdrs, u_int position)
{
    const u_int size = position_of(xdrs) + xdrs->x_handy;
    if (position > size)
        return FALSE;
    xdrs->x_private = xdrs->x_base + position;
    xdrs->x_handy = size - position;
    return TRUE;
}

int32_t *hand_out(XDR *xdrs, u_int count)
{
    if (reinterpret_cast<std::uintptr_t>(place_of(xdrs)) % alignof(int32_t) != 0)
        return nullptr;
    return reinterpret_cast<int32_t *>(advance(xdrs, count));
}

void destroy(XDR *) {}

bool_t control(XDR *, int, void *)
{
    return FALSE;
}

constexpr XDR::xdr_ops operations = {get_long,     put_long, get_bytes, put_bytes, position_of,
                                     set_position, hand_out, destroy,   control};

} // namespace

namespace ks {

void make_memory_stream(XDR &xdrs, void *bytes, u_int size, xdr_op op)
{
    xdrs = {};
    xdrs.x_op = op;
    xdrs.x_ops = &operations;
    xdrs.x_base = static_cast<char *>(bytes);
    xdrs.x_private = bytes;
    xdrs.x_handy = size;
}

} // namespace ks
