// Assembly of whole records from a connection that does not block.
//
// The header of a fragment is received into the stream's state, its bytes behind those of the fragments before it, so
// that a record of any number of fragments lies in one piece when it is decoded.
#include "rpc/wire/xdr_impl.h"

#include <cerrno>
#include <cstdlib>

namespace {

using ks::rec::header_bytes;
using ks::rec::RecordStream;

// What a read of nothing means.
xprt_stat status_of_read(int count, bool expects_data)
{
    if (count == 0)
        return expects_data ? XPRT_DIED : XPRT_IDLE;
    return errno == EAGAIN || errno == EWOULDBLOCK ? XPRT_IDLE : XPRT_DIED;
}

// Makes room for `size` bytes; what lies in the buffer moves with it.
bool enlarge(RecordStream &stream, std::size_t size)
{
    const auto finger = stream.in_finger - stream.in_base;
    const auto limit = stream.in_limit - stream.in_base;
    const auto boundry = stream.in_boundry - stream.in_base;
    auto *base = static_cast<char *>(std::realloc(stream.in_base, size));
    if (base == nullptr)
        return false;
    stream.in_base = base;
    stream.in_size = size;
    stream.in_finger = base + finger;
    stream.in_limit = base + limit;
    stream.in_boundry = base + boundry;
    return true;
}

// A header that is complete: false when its fragment is not admitted, and then nothing has changed.
bool accept_header(RecordStream &stream)
{
    const uint32_t word = ks::rec::load_word(stream.in_header);
    const uint32_t length = word & ~ks::rec::last_fragment;
    const uint64_t total = uint64_t{stream.in_reclen} + length;
    if (length == 0 || total > stream.in_maxrec || (total > stream.in_size && !enlarge(stream, total)))
        return false;
    stream.in_reclen = static_cast<uint32_t>(total);
    stream.last_frag = word != length;
    stream.in_haveheader = true;
    return true;
}

// Reads into `to`; false with a status when nothing came.
bool receive(const RecordStream &stream, char *to, uint32_t wanted, uint32_t &received, xprt_stat &out_status,
             bool expects_data)
{
    const int count = ks::rec::read_some(stream, to, wanted);
    if (count <= 0) {
        out_status = status_of_read(count, expects_data);
        return false;
    }
    received += static_cast<uint32_t>(count);
    out_status = XPRT_MOREREQS;
    return true;
}

// True when the header of the current fragment is there and its bytes are next.
bool receive_header(RecordStream &stream, xprt_stat &out_status, bool expects_data)
{
    if (stream.in_haveheader)
        return true;
    const uint32_t missing = uint32_t{header_bytes} - stream.in_hdrlen;
    if (missing > 0 &&
        !receive(stream, stream.in_header + stream.in_hdrlen, missing, stream.in_hdrlen, out_status, expects_data))
        return false;
    if (stream.in_hdrlen < header_bytes)
        return false;
    if (accept_header(stream))
        return true;
    out_status = XPRT_DIED;
    return false;
}

void lay_out(RecordStream &stream)
{
    stream.in_finger = stream.in_base;
    stream.in_boundry = stream.in_base + stream.in_reclen;
    stream.in_limit = stream.in_boundry;
    stream.in_reclen = 0;
    stream.in_received = 0;
}

} // namespace

extern "C" {

bool_t __ks_xdrrec_setnonblock(XDR *xdrs, int maxrec)
{
    RecordStream &stream = ks::rec::stream_of(xdrs);
    stream.nonblock = true;
    stream.in_maxrec = static_cast<uint32_t>(maxrec > 0 ? static_cast<std::size_t>(maxrec) : stream.in_size);
    return TRUE;
}

bool_t __ks_xdrrec_getrec(XDR *xdrs, enum xprt_stat *statp, bool_t expectdata)
{
    RecordStream &stream = ks::rec::stream_of(xdrs);
    if (!receive_header(stream, *statp, expectdata != FALSE))
        return FALSE;
    if (!receive(stream, stream.in_base + stream.in_received, stream.in_reclen - stream.in_received, stream.in_received,
                 *statp, expectdata != FALSE))
        return FALSE;
    ks::rec::end_fragment(stream); // what was left of the record before is written over
    if (stream.in_received < stream.in_reclen)
        return FALSE;
    stream.in_haveheader = false;
    stream.in_hdrlen = 0;
    if (!stream.last_frag)
        return FALSE;
    lay_out(stream);
    return TRUE;
}
}
