// The state of a record stream, and the short paths into its buffers.
#pragma once

#include "rpc/wire/rpc_platform.h"

#include <korvaks/xdr.h>

#include <bit>
#include <cstdint>
#include <cstring>

namespace ks::rec {

constexpr std::size_t header_bytes = 4;
constexpr uint32_t last_fragment = 0x80000000;

// One per connection. Input that may be decoded without a look at the connection lies between `in_finger` and
// `in_limit`: the bytes that are in the buffer and belong to the current fragment. What is left of the fragment as a
// whole is that and `in_beyond`, which is 0 unless the limit is the end of the buffered bytes.
struct RecordStream {
    char *out_finger;  // next free byte
    char *out_boundry; // end of the buffer
    char *in_finger;   // next byte to decode
    char *in_limit;
    char *in_boundry; // end of the valid bytes

    char *out_base;
    char *frag_header; // header of the fragment being built
    bool frag_sent;    // a part of the record that is being built was written already
    bool last_frag;    // the current fragment of the input is its record's last
    bool in_unbegun;   // skipped to a record of which no header is complete
    bool nonblock;
    bool in_haveheader;  // the header of the fragment being assembled is complete and was accepted
    uint32_t in_beyond;  // bytes of the current fragment that are not in the buffer yet
    std::size_t in_size; // of the receive buffer
    char *in_base;
    void *tcp_handle;
    ks_xdrrec_read_fn readit;
    ks_xdrrec_write_fn writeit;

    char in_header[header_bytes]; // of the next fragment; without blocking also of the one being assembled
    uint32_t in_hdrlen;           // bytes of it that were received

    // Non-blocking assembly.
    uint32_t in_maxrec;   // largest record that is accepted
    uint32_t in_reclen;   // fragments of the record so far, the one being received included
    uint32_t in_received; // bytes of them
};

inline RecordStream &stream_of(const XDR *xdrs)
{
    return *static_cast<RecordStream *>(xdrs->x_private);
}

// Words lie anywhere: fragments may have odd lengths.
inline uint32_t load_word(const char *from)
{
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return __builtin_bswap32(word);
}

inline void store_word(char *to, uint32_t word)
{
    word = __builtin_bswap32(word);
    std::memcpy(to, &word, sizeof word);
}
static_assert(std::endian::native == std::endian::little);

inline bool is_record_stream(const XDR *xdrs)
{
    return xdrs->x_ops == &ks_xdrrec_ops.platform;
}

inline std::size_t room_left(const RecordStream &stream)
{
    return static_cast<std::size_t>(stream.out_boundry - stream.out_finger);
}

inline std::size_t at_hand(const RecordStream &stream)
{
    return static_cast<std::size_t>(stream.in_limit - stream.in_finger);
}

// For a stream with room for a word.
inline void append_word(RecordStream &stream, uint32_t word)
{
    store_word(stream.out_finger, word);
    stream.out_finger += sizeof word;
}

// For a stream with a word at hand.
inline uint32_t take_word(RecordStream &stream)
{
    const uint32_t word = load_word(stream.in_finger);
    stream.in_finger += sizeof word;
    return word;
}

// Nothing of the current fragment is left to decode.
inline void end_fragment(RecordStream &stream)
{
    stream.in_limit = stream.in_finger;
    stream.in_beyond = 0;
}

// One call of the read function for 1 to `room` bytes; 0 at the end of the file, -1 with errno, or errno 0 when the
// function leaves it alone.
int read_some(const RecordStream &stream, char *to, std::size_t room);

} // namespace ks::rec
