// The platform's XDR primitives over the operations of the stream.
//
// Their wire forms and their rules are the platform's, bit for bit. They are here because whoever has a stream has
// loaded the platform's RPC library, and whoever has none does without it and the Kerberos that comes with it.
#pragma once

#include "rpc/wire/rpc_platform.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace ks::xdr {

inline bool put_word(XDR *xdrs, uint32_t word)
{
    const long wide = static_cast<int32_t>(word);
    return XDR_PUTLONG(xdrs, &wide) != FALSE;
}

inline bool get_word(XDR *xdrs, uint32_t &out_word)
{
    long wide = 0;
    if (XDR_GETLONG(xdrs, &wide) == FALSE)
        return false;
    out_word = static_cast<uint32_t>(wide);
    return true;
}

// The number in an enumeration, which need not be one of those that have a name: it came from outside.
template <typename Enum> uint32_t word_of(const Enum &value)
{
    static_assert(std::is_enum_v<Enum> && sizeof value == sizeof(uint32_t));
    uint32_t word;
    std::memcpy(&word, &value, sizeof word);
    return word;
}

template <typename Value> void set_from_word(Value &value, uint32_t word)
{
    if constexpr (std::is_enum_v<Value>)
        std::memcpy(&value, &word, sizeof value);
    else
        value = static_cast<Value>(word);
}

// One word: xdr_int, xdr_u_int, xdr_enum. A narrower type is widened, and takes the lowest bits of any word:
// xdr_u_char, xdr_u_short.
template <typename Value> bool pass(XDR *xdrs, Value &value)
{
    static_assert(sizeof(Value) <= sizeof(uint32_t));
    if (xdrs->x_op == XDR_ENCODE) {
        if constexpr (std::is_enum_v<Value>)
            return put_word(xdrs, word_of(value));
        else
            return put_word(xdrs, static_cast<uint32_t>(value));
    }
    if (xdrs->x_op != XDR_DECODE)
        return true;
    uint32_t word = 0;
    if (!get_word(xdrs, word))
        return false;
    set_from_word(value, word);
    return true;
}

constexpr u_int padding_of(u_int count)
{
    return -count % BYTES_PER_XDR_UNIT;
}

// Bytes and their padding: xdr_opaque().
bool put_opaque(XDR *xdrs, const void *bytes, u_int count);
bool get_opaque(XDR *xdrs, void *bytes, u_int count);
bool pass_opaque(XDR *xdrs, void *bytes, u_int count);

// What a counted thing may hold, and what is allocated for it where the caller has no room: `room` bytes, or with 0 as
// many as it has.
struct Limits {
    u_int count_max;
    u_int room;
};

// Decodes a body whose count is known already.
bool get_body(XDR *xdrs, char *&bytes, u_int count, const Limits &limits);

// A count up to the limit and so many bytes: xdr_bytes().
bool pass_bytes(XDR *xdrs, char *&bytes, u_int &count, const Limits &limits);

// A string of at most `size_max` bytes without its NUL: xdr_string().
bool pass_string(XDR *xdrs, char *&text, u_int size_max);

// Frees what decoding has allocated.
template <typename Element> void release(Element *&block)
{
    std::free(block);
    block = nullptr;
}

} // namespace ks::xdr
