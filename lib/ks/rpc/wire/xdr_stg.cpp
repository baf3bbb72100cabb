// The storage stream: XDR into a block of the storage heap that grows as it is written, and out of one.
//
// The platform's handle holds all of the state: x_base the block, x_private the place in it, x_handy the bytes from
// there to its end, free ones when encoding and unread ones when decoding.
#include "rpc/wire/rpc_platform.h"

#include "base/ks_msg.h"
#include "base/msg_port.h"

#include <korvaks/imsg.h>
#include <korvaks/xdr.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

char *place_of(const XDR *xdrs)
{
    return static_cast<char *>(xdrs->x_private);
}

std::size_t used_bytes(const XDR *xdrs)
{
    return static_cast<std::size_t>(place_of(xdrs) - xdrs->x_base);
}

void set_block(XDR *xdrs, void *block, std::size_t place, std::size_t size)
{
    xdrs->x_base = static_cast<char *>(block);
    xdrs->x_private = xdrs->x_base + place;
    xdrs->x_handy = static_cast<u_int>(size - place);
}

void clear_block(XDR *xdrs)
{
    set_block(xdrs, nullptr, 0, 0);
}

void step(XDR *xdrs, u_int count)
{
    xdrs->x_private = place_of(xdrs) + count;
    xdrs->x_handy -= count;
}

void report_failure(const char *operation)
{
    (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_operation, operation, imsg_strerror(errno));
}

// Kept exactly: the block doubles while it is small and grows in steps of 4096 then, but always by what is wanted.
[[gnu::noinline]] bool grow(XDR *xdrs, std::size_t wanted)
{
    constexpr std::size_t largest_step = 4096;
    const std::size_t total = used_bytes(xdrs) + xdrs->x_handy;
    const std::size_t size = total + std::max(std::min(total, largest_step), wanted - xdrs->x_handy);
    void *block = nullptr;
    if (size > UINT_MAX) // positions are of 32 bits
        errno = EOVERFLOW;
    else
        block = stg_realloc(xdrs->x_base, size);
    if (block == nullptr) {
        report_failure("stg_realloc");
        return false;
    }
    set_block(xdrs, block, used_bytes(xdrs), size);
    return true;
}

bool has_room(XDR *xdrs, u_int wanted)
{
    return xdrs->x_handy >= wanted || grow(xdrs, wanted);
}

static_assert(std::endian::native == std::endian::little);

bool_t put_word(XDR *xdrs, uint32_t word)
{
    if (!has_room(xdrs, sizeof word)) [[unlikely]]
        return FALSE;
    word = __builtin_bswap32(word);
    std::memcpy(xdrs->x_private, &word, sizeof word);
    step(xdrs, sizeof word);
    return TRUE;
}

bool_t put_long(XDR *xdrs, const long *value)
{
    return put_word(xdrs, static_cast<uint32_t>(*value));
}

bool_t put_int32(XDR *xdrs, const int32_t *value)
{
    return put_word(xdrs, static_cast<uint32_t>(*value));
}

bool_t put_bytes(XDR *xdrs, const char *from, u_int count)
{
    if (!has_room(xdrs, count)) [[unlikely]]
        return FALSE;
    if (count > 0)
        std::memcpy(xdrs->x_private, from, count);
    step(xdrs, count);
    return TRUE;
}

template <typename Value> bool_t get_word(XDR *xdrs, Value *out_value)
{
    uint32_t word;
    if (xdrs->x_handy < sizeof word) [[unlikely]]
        return FALSE;
    std::memcpy(&word, xdrs->x_private, sizeof word);
    // Kept exactly: with its sign, other than the record stream.
    *out_value = static_cast<int32_t>(__builtin_bswap32(word));
    step(xdrs, sizeof word);
    return TRUE;
}

bool_t get_long(XDR *xdrs, long *out_value)
{
    return get_word(xdrs, out_value);
}

bool_t get_int32(XDR *xdrs, int32_t *out_value)
{
    return get_word(xdrs, out_value);
}

bool_t get_bytes(XDR *xdrs, char *to, u_int count)
{
    if (xdrs->x_handy < count) [[unlikely]]
        return FALSE;
    if (count > 0)
        std::memcpy(to, xdrs->x_private, count);
    step(xdrs, count);
    return TRUE;
}

u_int get_position(XDR *xdrs)
{
    return static_cast<u_int>(used_bytes(xdrs));
}

bool_t set_position(XDR *xdrs, u_int position)
{
    const std::size_t total = used_bytes(xdrs) + xdrs->x_handy;
    if (position > total)
        return FALSE;
    set_block(xdrs, xdrs->x_base, position, total);
    return TRUE;
}

int32_t *in_place(XDR *xdrs, u_int count)
{
    const bool is_aligned = reinterpret_cast<std::uintptr_t>(xdrs->x_private) % alignof(int32_t) == 0;
    if (xdrs->x_handy < count || !is_aligned)
        return nullptr;
    auto *words = static_cast<int32_t *>(xdrs->x_private);
    step(xdrs, count);
    return words;
}

bool_t refuse_control(XDR *, int, void *)
{
    return FALSE;
}

} // namespace

extern "C" {

const ks_xdr_ops xdrstg_ops = {
    {get_long, put_long, get_bytes, put_bytes, get_position, set_position, in_place, xdrstg_destroy, refuse_control},
    get_int32,
    put_int32,
};

int xdrstg_create(XDR *xdrs, u_int size, enum xdr_op op)
{
    xdrs->x_op = op;
    xdrs->x_ops = &xdrstg_ops.platform;
    clear_block(xdrs);
    if (op == XDR_FREE)
        return 0;
    void *block = stg_malloc(size);
    if (block == nullptr) {
        report_failure("stg_malloc");
        return 1;
    }
    set_block(xdrs, block, 0, size);
    return 0;
}

int xdrstg_create_decode_buf(XDR *xdrs, void *buf, u_int len)
{
    xdrs->x_op = XDR_DECODE;
    xdrs->x_ops = &xdrstg_ops.platform;
    set_block(xdrs, buf, 0, len);
    return 0;
}

void xdrstg_destroy(XDR *xdrs)
{
    if (xdrs->x_op == XDR_FREE)
        return;
    stg_free(xdrs->x_base);
    clear_block(xdrs);
}
}
