// Record streams: fragments and records on the wire, and the assembly of records that come in pieces.
#include "rpc/wire/connection.h"

#include <gtest/gtest.h>

namespace {

using test::Connection;
using test::fragment;
using test::Stream;
using test::wire_word;
using namespace std::string_literals;

std::string counted_bytes(std::size_t count)
{
    std::string bytes;
    while (bytes.size() < count)
        bytes += static_cast<char>(bytes.size() * 7 + bytes.size() / 251);
    return bytes;
}

TEST(RecordStream, BuffersHaveTheirSizes)
{
    for (const auto &[asked, had] : {std::pair{0u, 4000u}, {99u, 4000u}, {100u, 100u}, {101u, 104u}}) {
        Connection connection{.incoming = std::string(5000, 'x')};
        Stream stream(connection, XDR_ENCODE, asked, asked);
        for (u_int used = 4; used < had; used += 4)
            ASSERT_TRUE(stream.put(1));
        EXPECT_TRUE(connection.writes.empty());
        ASSERT_TRUE(stream.put(1));
        EXPECT_EQ(connection.writes.at(0).size(), had);
        stream.x_op = XDR_DECODE;
        EXPECT_TRUE(ks_xdrrec_skiprecord(&stream)); // the first record has begun before it is asked for
        int32_t word = 0;
        EXPECT_TRUE(stream.get(word));
        EXPECT_EQ(connection.at, had);
    }
}

TEST(RecordStream, RecordsOnTheWire)
{
    Connection connection;
    Stream stream(connection, XDR_ENCODE, 100);
    // Small records leave together.
    long minus_two = -2;
    ASSERT_TRUE(XDR_PUTLONG(&stream, &minus_two) && ks_xdrrec_endofrecord(&stream, FALSE));
    ASSERT_TRUE(stream.put("odd"s) && ks_xdrrec_endofrecord(&stream, FALSE));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr); // not on a multiple of 4
    ASSERT_TRUE(ks_xdrrec_endofrecord(&stream, TRUE));
    EXPECT_EQ(connection.writes, std::vector{"\x80\0\0\4\xFF\xFF\xFF\xFE"s + "\x80\0\0\3odd"s + "\x80\0\0\0"s});
    // A header fits behind 91 bytes and not behind 92; behind 96 the buffer is full and written at once.
    const std::string bytes = counted_bytes(97);
    for (const std::size_t size : {91u, 92u, 96u, 97u}) {
        connection.writes.clear();
        ASSERT_TRUE(stream.put(bytes.substr(0, size)) && ks_xdrrec_endofrecord(&stream, FALSE));
        EXPECT_EQ(connection.writes.size(), size / 92 + size / 96);
        ASSERT_TRUE(size > 91 || ks_xdrrec_endofrecord(&stream, TRUE));
        EXPECT_EQ(connection.sent(),
                  size < 96 ? fragment(bytes.substr(0, size), true) + (size < 92 ? fragment("", true) : "")
                            : fragment(bytes.substr(0, 96), false) + fragment(bytes.substr(96, size - 96), true));
    }
    EXPECT_NE(XDR_INLINE(&stream, 96), nullptr);
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr);
    EXPECT_EQ(XDR_GETPOS(&stream), static_cast<u_int>(-1));
    EXPECT_FALSE(XDR_SETPOS(&stream, 0));
    EXPECT_FALSE(stream.x_ops->x_control(&stream, 0, nullptr));
    connection.writable = 99;
    EXPECT_FALSE(stream.put(1));
    EXPECT_FALSE(stream.put("x"s));
    EXPECT_FALSE(ks_xdrrec_endofrecord(&stream, TRUE));
}

// What the platform's record stream wrote, and what it makes of ours.
TEST(RecordStream, ThePlatformAgrees)
{
    for (std::size_t size = 0; size < 300; size += 3) {
        std::string bytes = counted_bytes(size);
        std::string wires[2];
        for (const bool is_ours : {false, true}) {
            Connection connection;
            XDR stream;
            (is_ours ? ks_xdrrec_create : xdrrec_create)(&stream, 100, 100, &connection, Connection::read,
                                                         Connection::write);
            stream.x_op = XDR_ENCODE;
            int64_t hyper = -3;
            char *text = bytes.data();
            auto count = static_cast<u_int>(size);
            for (int record = 0; record < 3; ++record) {
                ASSERT_TRUE(xdr_hyper(&stream, &hyper) && xdr_bytes(&stream, &text, &count, ~0u));
                ASSERT_TRUE((is_ours ? ks_xdrrec_endofrecord : xdrrec_endofrecord)(&stream, record == 2));
            }
            XDR_DESTROY(&stream);
            wires[is_ours] = connection.sent();
        }
        ASSERT_EQ(wires[0], wires[1]) << size;
    }
}

// Three records: 7 bytes in fragments of 1, 2 and 4; none; 8 bytes.
const std::string three_records = fragment("a", false) + fragment("bc", false) + fragment("\xFF\xFF\xFF\xFE", true) +
                                  fragment("", true) + fragment("12345678", true);

TEST(RecordStream, FragmentsComeInAnyPieces)
{
    for (std::size_t piece = 1; piece <= three_records.size(); ++piece) {
        SCOPED_TRACE(piece);
        Connection connection{.incoming = three_records, .piece = piece};
        Stream stream(connection, XDR_DECODE);
        std::string odd(3, '#');
        long value = 0;
        int32_t word = 0;
        EXPECT_FALSE(stream.get(word)); // no record has begun
        ASSERT_TRUE(ks_xdrrec_skiprecord(&stream) && stream.get(odd) && XDR_GETLONG(&stream, &value));
        EXPECT_EQ(odd, "abc");
        EXPECT_EQ(value, 0xFFFFFFFEL);
        EXPECT_FALSE(stream.get(word));
        ASSERT_TRUE(ks_xdrrec_skiprecord(&stream));
        EXPECT_FALSE(stream.get(word));
        ASSERT_TRUE(ks_xdrrec_skiprecord(&stream) && stream.get(word));
        EXPECT_EQ(word, 0x31323334);
        EXPECT_TRUE(ks_xdrrec_eof(&stream));
        EXPECT_FALSE(ks_xdrrec_skiprecord(&stream) && stream.get(word));
    }
    // Unread records are passed over, and seen when they are in the buffer.
    Connection connection{.incoming = three_records};
    Stream stream(connection, XDR_DECODE);
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_FALSE(ks_xdrrec_eof(&stream));
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream) && ks_xdrrec_skiprecord(&stream));
    EXPECT_TRUE(ks_xdrrec_eof(&stream));
}

TEST(RecordStream, InPlaceIsWhatIsWholeAndAligned)
{
    Connection connection{.incoming = fragment("12345678", false) + fragment("9abcd5678", true)};
    Stream stream(connection, XDR_DECODE);
    int32_t word = 0;
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr); // nothing was read yet
    ASSERT_TRUE(stream.get(word));
    EXPECT_EQ(XDR_INLINE(&stream, 5), nullptr);
    const int32_t *words = XDR_INLINE(&stream, 4);
    ASSERT_NE(words, nullptr);
    EXPECT_EQ(*words, static_cast<int32_t>(htonl(0x35363738)));
    std::string odd(1, '#');
    ASSERT_TRUE(stream.get(odd));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr);
    stream.x_op = XDR_FREE;
    EXPECT_EQ(XDR_INLINE(&stream, 0), nullptr);
}

// The end of the connection at every place, and a header of 0: each is a failure and stays one.
TEST(RecordStream, BrokenInputFails)
{
    const std::string record = fragment("1234", false) + fragment("5678", true);
    for (std::size_t size = 0; size < record.size(); ++size) {
        Connection connection{.incoming = record.substr(0, size)};
        Stream stream(connection, XDR_DECODE);
        std::string bytes(8, '#');
        EXPECT_TRUE(ks_xdrrec_skiprecord(&stream));
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(stream.get(bytes)) << size;
        EXPECT_TRUE(ks_xdrrec_eof(&stream));
        EXPECT_FALSE(ks_xdrrec_skiprecord(&stream));
    }
    Connection connection{.incoming = wire_word(0) + record};
    Stream stream(connection, XDR_DECODE);
    int32_t word = 0;
    EXPECT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_FALSE(stream.get(word));
}

struct Step {
    std::string arrives;
    xprt_stat status;
    bool is_complete = false;
};

struct Assembly {
    const char *what;
    int maxrec;
    std::vector<Step> steps;
    bool ends = false; // the connection ends behind the steps, each of which expects data or not
    bool expects = true;
};

TEST(RecordAssembly, StatusOfEachStep)
{
    const auto more = XPRT_MOREREQS;
    const Assembly cases[] = {
        {"a header in three reads",
         8,
         {{"\x80"s, more}, {"", XPRT_IDLE}, {"\0\0"s, more}, {"\4"s, XPRT_IDLE}, {"1234", more, true}}},
        {"a body in two",
         8,
         {{"\x80\0\0\4"
           "12"s,
           more},
          {"34", more, true},
          {"", XPRT_IDLE}}},
        {"fragments up to the limit", 8, {{fragment("1234", false), more}, {fragment("5678", true), more, true}}},
        {"a sum beyond it",
         8,
         {{fragment("1234", false), more}, {fragment("56789", true), XPRT_DIED}, {"", XPRT_DIED}}},
        {"a fragment beyond it", 8, {{fragment("123456789", true), XPRT_DIED}}},
        {"a length of nearly 2^31", 0, {{"\xFF\xFF\xFF\xFF"s, XPRT_DIED}}},
        {"the buffer's size is the limit",
         0,
         {{fragment(std::string(100, 'x'), true), more, true}, {fragment(std::string(101, 'x'), true), XPRT_DIED}}},
        {"beyond the buffer's size",
         300,
         {{fragment(std::string(150, 'x'), false), more}, {fragment(std::string(150, 'x'), true), more, true}}},
        {"length 0", 8, {{wire_word(0), XPRT_DIED}, {"", XPRT_DIED}}},
        {"an empty last fragment", 8, {{fragment("", true), XPRT_DIED}}},
        {"the end", 8, {{"", XPRT_DIED}}, true},
        {"the end, not unexpected", 8, {{"", XPRT_IDLE}}, true, false},
        {"the end in a body",
         8,
         {{"\x80\0\0\4"
           "12"s,
           more},
          {"", XPRT_DIED}},
         true},
    };
    for (const auto &[what, maxrec, steps, ends, expects] : cases) {
        SCOPED_TRACE(what);
        Connection connection;
        Stream stream(connection, XDR_DECODE, 0, 100);
        ASSERT_TRUE(__ks_xdrrec_setnonblock(&stream, maxrec));
        for (const auto &[arrives, status, is_complete] : steps) {
            connection.incoming += arrives;
            connection.is_open = !ends || !arrives.empty();
            xprt_stat seen = XPRT_DIED;
            EXPECT_EQ(__ks_xdrrec_getrec(&stream, &seen, expects), is_complete);
            EXPECT_EQ(seen, status);
        }
    }
}

TEST(RecordAssembly, EveryCutGivesTheSameRecords)
{
    const std::string first = counted_bytes(270), second = counted_bytes(9);
    const std::string wire = fragment(first.substr(0, 1), false) + fragment(first.substr(1, 130), false) +
                             fragment(first.substr(131), true) + fragment(second, true);
    for (std::size_t cut = 0; cut < wire.size(); ++cut) {
        Connection connection{.incoming = wire.substr(0, cut), .is_open = true};
        Stream stream(connection, XDR_DECODE, 0, 100);
        __ks_xdrrec_setnonblock(&stream, 1000);
        std::vector<std::string> records;
        for (int calls = 0; calls < 12; ++calls) {
            xprt_stat status = XPRT_DIED;
            if (__ks_xdrrec_getrec(&stream, &status, TRUE)) {
                std::string record((records.empty() ? first : second).size(), '#');
                int32_t beyond = 0;
                EXPECT_TRUE(stream.get(record) && !stream.get(beyond) && ks_xdrrec_eof(&stream));
                records.push_back(record);
            }
            ASSERT_NE(status, XPRT_DIED) << cut;
            if (status == XPRT_IDLE)
                connection.incoming = wire;
        }
        EXPECT_EQ(records, (std::vector{first, second})) << cut;
    }
}

// In non-blocking mode a skip takes one step, and passes over the record that it completes.
TEST(RecordAssembly, SkippingTakesAStep)
{
    Connection connection{.incoming = fragment("1234", true), .is_open = true};
    Stream stream(connection, XDR_DECODE);
    __ks_xdrrec_setnonblock(&stream, 0);
    xprt_stat status = XPRT_DIED;
    int32_t word = 0;
    ASSERT_TRUE(__ks_xdrrec_getrec(&stream, &status, TRUE));
    EXPECT_FALSE(ks_xdrrec_skiprecord(&stream)); // nothing there: the record stays
    connection.incoming += wire_word(0x80000004);
    EXPECT_FALSE(ks_xdrrec_skiprecord(&stream));
    EXPECT_TRUE(stream.get(word));
    connection.incoming += "56";
    EXPECT_TRUE(ks_xdrrec_skiprecord(&stream)); // nothing to decode, and more on its way
    connection.incoming += "78";
    EXPECT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_FALSE(stream.get(word));
}

} // namespace
