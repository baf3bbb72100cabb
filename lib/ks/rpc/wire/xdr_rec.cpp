// The record stream: XDR over a connection, in records made of fragments with a header each (RFC 5531, 11).
//
// Everything here blocks as long as the functions of the connection do. Assembly of a record from a connection that
// does not block is in xdr_rec_nonblock.cpp.
#include "rpc/wire/xdr_fields.h"
#include "rpc/wire/xdr_impl.h"

#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

namespace {

using ks::rec::append_word;
using ks::rec::at_hand;
using ks::rec::header_bytes;
using ks::rec::load_word;
using ks::rec::RecordStream;
using ks::rec::room_left;
using ks::rec::store_word;
using ks::rec::stream_of;

void finish_header(const RecordStream &stream, uint32_t last_bit)
{
    const auto length = static_cast<uint32_t>(stream.out_finger - stream.frag_header) - uint32_t{header_bytes};
    store_word(stream.frag_header, length | last_bit);
}

// Writes the buffer up to `end`, behind which nothing is to be kept. After a failure it stays as it is.
bool write_out(RecordStream &stream, const char *end)
{
    const auto size = static_cast<int>(end - stream.out_base);
    if (stream.writeit(stream.tcp_handle, stream.out_base, size) != size)
        return false;
    stream.frag_header = stream.out_base;
    stream.out_finger = stream.out_base + header_bytes;
    return true;
}

// Writes the buffer, in which the current fragment is the last thing.
bool flush(RecordStream &stream, uint32_t last_bit)
{
    finish_header(stream, last_bit);
    return write_out(stream, stream.out_finger);
}

bool flush_fragment(RecordStream &stream)
{
    stream.frag_sent = true;
    return flush(stream, 0);
}

[[gnu::noinline]] bool_t put_in_next_fragment(RecordStream &stream, uint32_t word)
{
    if (!flush_fragment(stream))
        return FALSE;
    append_word(stream, word);
    return TRUE;
}

bool_t put_word(XDR *xdrs, uint32_t word)
{
    RecordStream &stream = stream_of(xdrs);
    if (room_left(stream) < sizeof word) [[unlikely]]
        return put_in_next_fragment(stream, word);
    append_word(stream, word);
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

// Names and padding are short, and a call of memcpy() costs more than they do.
void copy_bytes(char *to, const char *from, std::size_t count)
{
    constexpr std::size_t step = sizeof(uint64_t);
    if (count > 2 * step) {
        std::memcpy(to, from, count);
        return;
    }
    if (count >= step) {
        std::memcpy(to, from, step);
        std::memcpy(to + count - step, from + count - step, step);
        return;
    }
    for (std::size_t i = 0; i < count; ++i)
        to[i] = from[i];
}

[[gnu::noinline]] bool_t put_bytes_in_pieces(RecordStream &stream, const char *from, std::size_t count)
{
    while (count > 0) {
        const std::size_t piece = std::min(count, room_left(stream));
        std::memcpy(stream.out_finger, from, piece);
        stream.out_finger += piece;
        from += piece;
        count -= piece;
        // Kept exactly: also when nothing follows, so that a record may end with an empty fragment.
        if (stream.out_finger == stream.out_boundry && !flush_fragment(stream))
            return FALSE;
    }
    return TRUE;
}

bool_t put_bytes(XDR *xdrs, const char *from, u_int count)
{
    RecordStream &stream = stream_of(xdrs);
    if (count >= room_left(stream)) [[unlikely]]
        return put_bytes_in_pieces(stream, from, count);
    copy_bytes(stream.out_finger, from, count);
    stream.out_finger += count;
    return TRUE;
}

// Divides what is left of the fragment into what is in the buffer and what is not.
void set_limit(RecordStream &stream, uint32_t left)
{
    const auto here = std::min<std::size_t>(left, static_cast<std::size_t>(stream.in_boundry - stream.in_finger));
    stream.in_limit = stream.in_finger + here;
    stream.in_beyond = left - static_cast<uint32_t>(here);
}

// Reads into the empty buffer, at the place that keeps words where they would have been.
bool refill(RecordStream &stream)
{
    const auto offset = static_cast<std::size_t>(stream.in_boundry - stream.in_base) % BYTES_PER_XDR_UNIT;
    const int count = ks::rec::read_some(stream, stream.in_base + offset, stream.in_size - offset);
    if (count <= 0)
        return false;
    stream.in_finger = stream.in_base + offset;
    stream.in_boundry = stream.in_finger + count;
    set_limit(stream, stream.in_beyond);
    return true;
}

// Reads the next fragment's header, behind the end of the one before. What has arrived of it is kept when the
// connection has no more for now: a client whose call times out there goes on with it in the next one.
bool next_fragment(RecordStream &stream)
{
    while (stream.in_hdrlen < header_bytes) {
        if (stream.in_finger == stream.in_boundry && !refill(stream))
            return false;
        stream.in_header[stream.in_hdrlen++] = *stream.in_finger++;
        stream.in_limit = stream.in_finger;
    }
    stream.in_hdrlen = 0;
    stream.in_unbegun = false;
    const uint32_t word = load_word(stream.in_header);
    stream.last_frag = (word & ks::rec::last_fragment) != 0;
    set_limit(stream, word & ~ks::rec::last_fragment);
    return word != 0;
}

// Gets something of the current record into reach.
bool advance(RecordStream &stream)
{
    if (stream.nonblock)
        return false;
    if (stream.in_beyond > 0)
        return refill(stream);
    return !stream.last_frag && next_fragment(stream);
}

[[gnu::noinline]] bool_t get_bytes_in_pieces(RecordStream &stream, char *to, std::size_t count)
{
    while (count > 0) {
        const std::size_t piece = std::min(count, at_hand(stream));
        std::memcpy(to, stream.in_finger, piece);
        stream.in_finger += piece;
        to += piece;
        count -= piece;
        if (count > 0 && !advance(stream))
            return FALSE;
    }
    return TRUE;
}

bool_t get_bytes(XDR *xdrs, char *to, u_int count)
{
    RecordStream &stream = stream_of(xdrs);
    if (count > at_hand(stream)) [[unlikely]]
        return get_bytes_in_pieces(stream, to, count);
    copy_bytes(to, stream.in_finger, count);
    stream.in_finger += count;
    return TRUE;
}

template <typename Value> [[gnu::noinline]] bool_t get_word_in_pieces(RecordStream &stream, Value *out_value)
{
    char bytes[sizeof(uint32_t)];
    if (get_bytes_in_pieces(stream, bytes, sizeof bytes) == FALSE)
        return FALSE;
    *out_value = static_cast<Value>(load_word(bytes));
    return TRUE;
}

template <typename Value> bool_t get_word(XDR *xdrs, Value *out_value)
{
    RecordStream &stream = stream_of(xdrs);
    if (at_hand(stream) < sizeof(uint32_t)) [[unlikely]]
        return get_word_in_pieces(stream, out_value);
    *out_value = static_cast<Value>(ks::rec::take_word(stream));
    return TRUE;
}

// Kept exactly: the upper half is zero, whatever the sign of the word.
bool_t get_long(XDR *xdrs, long *out_value)
{
    return get_word(xdrs, out_value);
}

bool_t get_int32(XDR *xdrs, int32_t *out_value)
{
    return get_word(xdrs, out_value);
}

u_int get_position(XDR *)
{
    return static_cast<u_int>(-1);
}

bool_t set_position(XDR *, u_int)
{
    return FALSE;
}

// The bytes from `finger` on as words, when there are `count` up to `end`.
int32_t *take_in_place(char *&finger, const char *end, u_int count)
{
    const bool is_aligned = reinterpret_cast<std::uintptr_t>(finger) % alignof(int32_t) == 0;
    if (count > static_cast<std::size_t>(end - finger) || !is_aligned)
        return nullptr;
    auto *words = reinterpret_cast<int32_t *>(finger);
    finger += count;
    return words;
}

int32_t *in_place(XDR *xdrs, u_int count)
{
    RecordStream &stream = stream_of(xdrs);
    if (xdrs->x_op == XDR_ENCODE)
        return take_in_place(stream.out_finger, stream.out_boundry, count);
    return xdrs->x_op == XDR_DECODE ? take_in_place(stream.in_finger, stream.in_limit, count) : nullptr;
}

void free_stream(RecordStream *stream)
{
    std::free(stream->out_base);
    std::free(stream->in_base);
    std::free(stream);
}

void destroy(XDR *xdrs)
{
    auto *stream = static_cast<RecordStream *>(std::exchange(xdrs->x_private, nullptr));
    if (stream != nullptr) // as a creation that failed has left it
        free_stream(stream);
}

bool_t refuse_control(XDR *, int, void *)
{
    return FALSE;
}

// The functions of the connection take sizes as int.
std::size_t buffer_size(std::size_t wanted)
{
    constexpr std::size_t least = 100;
    constexpr std::size_t usual = 4000;
    constexpr std::size_t most = INT_MAX / BYTES_PER_XDR_UNIT * BYTES_PER_XDR_UNIT;
    if (wanted < least)
        return usual;
    return std::min((wanted + BYTES_PER_XDR_UNIT - 1) / BYTES_PER_XDR_UNIT * BYTES_PER_XDR_UNIT, most);
}

RecordStream *make_stream(std::size_t sendsize, std::size_t recvsize)
{
    auto *stream = static_cast<RecordStream *>(std::calloc(1, sizeof(RecordStream)));
    if (stream == nullptr)
        return nullptr;
    stream->out_base = static_cast<char *>(std::calloc(1, sendsize));
    stream->in_base = static_cast<char *>(std::calloc(1, recvsize));
    if (stream->out_base == nullptr || stream->in_base == nullptr) {
        free_stream(stream);
        return nullptr;
    }
    stream->frag_header = stream->out_base;
    stream->out_finger = stream->out_base + header_bytes;
    stream->out_boundry = stream->out_base + sendsize;
    stream->in_size = recvsize;
    stream->in_boundry = stream->in_base + recvsize;
    stream->in_finger = stream->in_boundry;
    stream->in_limit = stream->in_boundry;
    stream->last_frag = true;
    return stream;
}

bool skip_fragment(RecordStream &stream)
{
    stream.in_finger = stream.in_limit;
    while (stream.in_beyond > 0) {
        if (!refill(stream))
            return false;
        stream.in_finger = stream.in_limit;
    }
    return true;
}

// Behind the last fragment of the current record.
bool skip_record(RecordStream &stream)
{
    while (skip_fragment(stream)) {
        if (stream.last_frag)
            return true;
        if (!next_fragment(stream))
            return false;
    }
    return false;
}

// Kept exactly: a record that this completes is passed over. Between the assembly of a record and its decoding it
// loses that record, when the next one has come.
bool_t skip_assembled(XDR *xdrs, RecordStream &stream)
{
    xprt_stat status = XPRT_IDLE;
    const bool is_complete = __ks_xdrrec_getrec(xdrs, &status, FALSE) != FALSE;
    const bool is_empty = stream.in_finger == stream.in_boundry;
    if (!is_complete && (!is_empty || status != XPRT_MOREREQS))
        return FALSE;
    ks::rec::end_fragment(stream);
    return TRUE;
}

} // namespace

namespace ks::rec {

int read_some(const RecordStream &stream, char *to, std::size_t room)
{
    errno = 0;
    const int count = stream.readit(stream.tcp_handle, to, static_cast<int>(room));
    return count <= static_cast<int>(room) ? count : -1;
}

} // namespace ks::rec

bool ks::xdr::is_record_unbegun(const XDR *xdrs)
{
    return stream_of(xdrs).in_unbegun;
}

bool ks::xdr::is_whole_record(const char *bytes, std::size_t size)
{
    if (size < header_bytes)
        return false;
    const uint32_t word = load_word(bytes);
    return (word & ks::rec::last_fragment) != 0 && (word & ~ks::rec::last_fragment) <= size - header_bytes;
}

bool ks::xdr::holds_next_record(const XDR *xdrs)
{
    const RecordStream &stream = stream_of(xdrs);
    return stream.in_beyond == 0 && stream.last_frag &&
           is_whole_record(stream.in_limit, static_cast<std::size_t>(stream.in_boundry - stream.in_limit));
}

bool ks::xdr::send_ended_records(XDR *xdrs)
{
    RecordStream &stream = stream_of(xdrs);
    const bool is_another_begun = stream.out_finger != stream.frag_header + header_bytes;
    if (stream.frag_header == stream.out_base || is_another_begun)
        return true;
    return write_out(stream, stream.frag_header);
}

bool ks::xdr::drop_record(XDR *xdrs)
{
    RecordStream &stream = stream_of(xdrs);
    if (stream.frag_sent)
        return false;
    stream.out_finger = stream.frag_header + header_bytes;
    return true;
}

extern "C" {

const ks_xdr_ops ks_xdrrec_ops = {
    {get_long, put_long, get_bytes, put_bytes, get_position, set_position, in_place, destroy, refuse_control},
    get_int32,
    put_int32,
};

void ks_xdrrec_create(XDR *xdrs, u_int sendsize, u_int recvsize, void *tcp_handle, ks_xdrrec_read_fn readit,
                      ks_xdrrec_write_fn writeit)
{
    RecordStream *stream = make_stream(buffer_size(sendsize), buffer_size(recvsize));
    xdrs->x_private = stream;
    xdrs->x_ops = &ks_xdrrec_ops.platform;
    if (stream == nullptr) {
        (void)ks_warnx("ks_xdrrec_create: out of memory");
        return;
    }
    stream->tcp_handle = tcp_handle;
    stream->readit = readit;
    stream->writeit = writeit;
}

bool_t ks_xdrrec_endofrecord(XDR *xdrs, bool_t sendnow)
{
    RecordStream &stream = stream_of(xdrs);
    if (sendnow != FALSE || stream.frag_sent || room_left(stream) <= header_bytes) {
        stream.frag_sent = false;
        return flush(stream, ks::rec::last_fragment) ? TRUE : FALSE;
    }
    finish_header(stream, ks::rec::last_fragment);
    stream.frag_header = stream.out_finger;
    stream.out_finger += header_bytes;
    return TRUE;
}

bool_t ks_xdrrec_skiprecord(XDR *xdrs)
{
    RecordStream &stream = stream_of(xdrs);
    if (stream.nonblock)
        return skip_assembled(xdrs, stream);
    if (!skip_record(stream))
        return FALSE;
    stream.last_frag = false;
    stream.in_unbegun = true;
    return TRUE;
}

bool_t ks_xdrrec_eof(XDR *xdrs)
{
    RecordStream &stream = stream_of(xdrs);
    if (stream.nonblock) {
        ks::rec::end_fragment(stream);
        return TRUE;
    }
    return !skip_record(stream) || stream.in_finger == stream.in_boundry ? TRUE : FALSE;
}
}
