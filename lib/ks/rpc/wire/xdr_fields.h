// The platform's XDR primitives over the operations of the stream.
//
// Their wire forms and their rules are the platform's, bit for bit. They are here because whoever has a stream has
// loaded the platform's RPC library, and whoever has none does without it and the Kerberos that comes with it.
#pragma once

#include "rpc/wire/rpc_platform.h"
#include "rpc/wire/xdr_impl.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace ks::xdr {

// Words through the operations of any stream. What is read is -1 for a failure.
bool put_word(XDR *xdrs, uint32_t word);
int64_t get_word(XDR *xdrs);
bool_t pass_word_by_operation(XDR *xdrs, void *word);
bool_t pass_hyper_by_operation(XDR *xdrs, uint64_t *hyper);

inline bool get_word(XDR *xdrs, uint32_t &out_word)
{
    const int64_t word = get_word(xdrs);
    if (word < 0)
        return false;
    out_word = static_cast<uint32_t>(word);
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

// One word: xdr_int, xdr_u_int, xdr_enum. Most go to or come from a record stream with room, where this is all.
template <typename Value> [[gnu::always_inline]] inline bool_t pass(XDR *xdrs, Value &value)
{
    static_assert((std::is_integral_v<Value> || std::is_enum_v<Value>)&&sizeof value == sizeof(uint32_t));
    if (rec::is_record_stream(xdrs)) {
        rec::RecordStream &stream = rec::stream_of(xdrs);
        uint32_t word;
        if (xdrs->x_op == XDR_ENCODE && rec::room_left(stream) >= sizeof word) {
            std::memcpy(&word, &value, sizeof word);
            rec::append_word(stream, word);
            return TRUE;
        }
        if (xdrs->x_op == XDR_DECODE && rec::at_hand(stream) >= sizeof word) {
            word = rec::take_word(stream);
            std::memcpy(&value, &word, sizeof word);
            return TRUE;
        }
    }
    return pass_word_by_operation(xdrs, &value);
}

// A number of fewer bits, widened. Decoding takes the lowest bits of any word: xdr_u_char, xdr_u_short.
template <typename Value> bool pass_narrow(XDR *xdrs, Value &value)
{
    static_assert(sizeof value < sizeof(uint32_t));
    auto word = static_cast<uint32_t>(value);
    if (xdrs->x_op == XDR_ENCODE)
        return put_word(xdrs, word);
    if (xdrs->x_op != XDR_DECODE)
        return true;
    if (!get_word(xdrs, word))
        return false;
    value = static_cast<Value>(word);
    return true;
}

// A hyper: the upper word, then the lower.
[[gnu::always_inline]] inline bool_t pass_hyper(XDR *xdrs, uint64_t *hyper)
{
    constexpr unsigned word_bits = 32;
    if (rec::is_record_stream(xdrs)) {
        rec::RecordStream &stream = rec::stream_of(xdrs);
        if (xdrs->x_op == XDR_ENCODE && rec::room_left(stream) >= sizeof *hyper) {
            rec::append_word(stream, static_cast<uint32_t>(*hyper >> word_bits));
            rec::append_word(stream, static_cast<uint32_t>(*hyper));
            return TRUE;
        }
        if (xdrs->x_op == XDR_DECODE && rec::at_hand(stream) >= sizeof *hyper) {
            const uint64_t high = rec::take_word(stream);
            *hyper = high << word_bits | rec::take_word(stream);
            return TRUE;
        }
    }
    return pass_hyper_by_operation(xdrs, hyper);
}

constexpr u_int padding_of(u_int count)
{
    return -count % BYTES_PER_XDR_UNIT;
}

// Whether the record that ks_xdrrec_skiprecord() went to has not begun to arrive. Skipping once more would pass over
// it.
bool is_record_unbegun(const XDR *xdrs);

// Whether bytes as they came from a connection begin with a record that is whole and of one fragment.
bool is_whole_record(const char *bytes, std::size_t size);
// Whether such a record is in the buffer behind the one that is being decoded. For a stream that blocks.
bool holds_next_record(const XDR *xdrs);
// Writes the records that were ended but not sent, when there are any and no further one was begun: false when they
// could not be written.
bool send_ended_records(XDR *xdrs);
// Takes back what was encoded of the current record; false when a part of it was sent already.
bool drop_record(XDR *xdrs);

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
