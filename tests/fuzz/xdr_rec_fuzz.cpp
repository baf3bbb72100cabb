// Record streams: whatever comes, in pieces of any size, blocking and non-blocking input find the same records, those
// of the marking; and what is written is read back.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

#include <utility>

namespace {

using test::Connection;
using test::Stream;
using Records = std::vector<std::string>;

// The whole records up to the first header that is not admitted.
Records parse(const std::string &wire, std::size_t record_max, bool admits_empty)
{
    Records records;
    std::string record;
    for (std::size_t at = 0; wire.size() - at >= 4;) {
        uint32_t header = 0;
        for (int i = 0; i < 4; ++i)
            header = header << 8 | static_cast<unsigned char>(wire[at++]);
        const std::size_t length = header & 0x7FFFFFFF;
        if ((length == 0 && !(admits_empty && header != 0)) || record.size() + length > record_max ||
            length > wire.size() - at)
            break;
        record += wire.substr(at, length);
        at += length;
        if (header != length)
            records.push_back(std::exchange(record, ""));
    }
    return records;
}

Records assemble(const std::string &wire, std::size_t piece, int record_max)
{
    Connection connection{.incoming = wire, .piece = piece, .is_open = true};
    Stream stream(connection, XDR_DECODE, 0, 100);
    __ks_xdrrec_setnonblock(&stream, record_max);
    Records records;
    for (xprt_stat status = XPRT_MOREREQS; status == XPRT_MOREREQS;)
        if (__ks_xdrrec_getrec(&stream, &status, TRUE)) {
            records.emplace_back();
            for (std::string byte(1, '#'); stream.get(byte);)
                records.back() += byte;
        }
    return records;
}

void check_blocking(const std::string &wire, std::size_t piece, const Records &records)
{
    Connection connection{.incoming = wire, .piece = piece};
    Stream stream(connection, XDR_DECODE, 0, 100);
    for (std::string bytes : records) {
        const std::string expected = bytes;
        FUZZ_REQUIRE(ks_xdrrec_skiprecord(&stream) && stream.get(bytes) && bytes == expected &&
                     !stream.get(bytes = "#"));
    }
    while (ks_xdrrec_skiprecord(&stream)) // whatever follows comes to an end
        (void)XDR_INLINE(&stream, 8);
}

void check_output(const Records &records, u_int size)
{
    Connection connection;
    Stream stream(connection, XDR_ENCODE, size);
    for (const std::string &record : records)
        FUZZ_REQUIRE(stream.put(record) && ks_xdrrec_endofrecord(&stream, record.size() % 2 == 0));
    FUZZ_REQUIRE(ks_xdrrec_endofrecord(&stream, TRUE));
    Records written = parse(connection.sent(), SIZE_MAX, true);
    FUZZ_REQUIRE(!written.empty() && written.back().empty());
    written.pop_back();
    FUZZ_REQUIRE(written == records);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::size_t piece = input.take_byte() + 1u;
    const int record_max = input.take_byte() * 2 + 1;
    const std::string wire = input.take_rest();
    const Records records = parse(wire, static_cast<std::size_t>(record_max), false);
    for (const std::size_t size : {std::size_t{1}, std::size_t{3}, piece}) {
        FUZZ_REQUIRE(assemble(wire, size, record_max) == records);
        check_blocking(wire, size, records);
    }
    check_output(records, static_cast<u_int>(100 + piece));
}
