// Record streams: fragments and records on the wire, and the assembly of records that come in pieces.
#include "rpc/wire/connection.h"

#include "harness/child.h"

#include <sstream>

#include <sys/resource.h>

#include <gtest/gtest.h>

namespace {

using test::Connection;
using test::fragment;
using test::hex;
using test::Stream;
using test::wire_word;

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
    ASSERT_TRUE(stream.put("odd") && ks_xdrrec_endofrecord(&stream, FALSE));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr); // not on a multiple of 4
    ASSERT_TRUE(ks_xdrrec_endofrecord(&stream, TRUE));
    EXPECT_EQ(connection.writes, std::vector{hex("80000004 FFFFFFFE 80000003 6F6464 80000000")});
    // A header fits behind 91 bytes and not behind 92; behind 96 the buffer is full and written at once.
    for (const auto &[size, writes] : {std::pair{91u, 0u}, {92u, 1u}, {96u, 2u}, {5u, 0u}, {97u, 2u}}) {
        connection.writes.clear();
        ASSERT_TRUE(stream.put(std::string(size, 'x')) && ks_xdrrec_endofrecord(&stream, FALSE));
        EXPECT_EQ(connection.writes.size(), writes);
        ASSERT_TRUE(writes > 0 || ks_xdrrec_endofrecord(&stream, TRUE));
    }
    EXPECT_EQ(connection.sent(), fragment(std::string(96, 'x'), false) + fragment("x", true));
    EXPECT_NE(XDR_INLINE(&stream, 96), nullptr);
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr);
    EXPECT_EQ(XDR_GETPOS(&stream), static_cast<u_int>(-1));
    EXPECT_FALSE(XDR_SETPOS(&stream, 0) || stream.x_ops->x_control(&stream, 0, nullptr));
    connection.writable = 99;
    EXPECT_FALSE(stream.put(1) || stream.put("x") || ks_xdrrec_endofrecord(&stream, TRUE));
}

// A record in fragments of odd lengths, an empty one, and one that is passed over.
TEST(RecordStream, RecordsAreReadAndPassedOver)
{
    Connection connection{.incoming = fragment("abc", false) + fragment("\xFF\xFF", false) +
                                      fragment("\xFF\xFE", true) + fragment("", true) + fragment("12", false) +
                                      fragment("34", true)};
    Stream stream(connection, XDR_DECODE);
    std::string odd(3, '#');
    long value = 0;
    int32_t word = 0;
    EXPECT_FALSE(stream.get(word)); // no record has begun
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream) && stream.get(odd) && XDR_GETLONG(&stream, &value));
    EXPECT_EQ(odd, "abc");
    EXPECT_EQ(value, 0xFFFFFFFEL);
    EXPECT_FALSE(stream.get(word) || ks_xdrrec_eof(&stream));
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_FALSE(stream.get(word) || ks_xdrrec_eof(&stream));
    ASSERT_TRUE(ks_xdrrec_skiprecord(&stream));
    EXPECT_TRUE(ks_xdrrec_eof(&stream));
    EXPECT_FALSE(ks_xdrrec_skiprecord(&stream) && stream.get(word));
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
    EXPECT_EQ(ntohl(static_cast<uint32_t>(*words)), 0x35363738u);
    std::string odd(1, '#');
    ASSERT_TRUE(stream.get(odd));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr);
    stream.x_op = XDR_FREE;
    EXPECT_EQ(XDR_INLINE(&stream, 0), nullptr);
    // Words stay where they would have been in one piece.
    Connection pieces{.incoming = fragment("12345678", true), .piece = 6};
    Stream in_pieces(pieces, XDR_DECODE);
    ASSERT_TRUE(ks_xdrrec_skiprecord(&in_pieces) && in_pieces.get(word));
    EXPECT_NE(XDR_INLINE(&in_pieces, 4), nullptr);
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

// What arrives in each step: bytes, "x100" for so many, "-" for nothing yet, "end"; and what the step answers:
// More, Idle, Died, or True when the record is complete.
struct Assembly {
    const char *what;
    int maxrec;
    const char *steps;
    bool expects = true;
};

TEST(RecordAssembly, StatusOfEachStep)
{
    const Assembly cases[] = {
        {"a header in three reads", 8, "80 M - I 0000 M 04 I 31323334 T - I"},
        {"a body in two", 8, "800000043132 M 3334 T"},
        {"fragments up to the limit", 8, "0000000431323334 M 8000000435363738 T"},
        {"a sum beyond it", 8, "0000000431323334 M 800000053536373839 D - D"},
        {"a fragment beyond it", 8, "80000009 D"},
        {"a length of nearly 2^31", 0, "FFFFFFFF D"},
        {"the buffer's size is the limit", 0, "80000064 I x100 T 80000065 D"},
        {"beyond the buffer's size", 300, "00000096 I x149 M x1 M 80000096 I x150 T 8000012D D"},
        {"length 0", 8, "00000000 D - D"},
        {"an empty last fragment", 8, "80000000 D"},
        {"the end", 8, "end D"},
        {"the end, not unexpected", 8, "end I 80 M end I", false},
        {"the end in a body", 8, "800000043132 M end D"},
    };
    for (const auto &[what, maxrec, steps, expects] : cases) {
        SCOPED_TRACE(what);
        Connection connection;
        Stream stream(connection, XDR_DECODE, 0, 100);
        ASSERT_TRUE(__ks_xdrrec_setnonblock(&stream, maxrec));
        std::string arrives, answer;
        for (std::istringstream in(steps); in >> arrives >> answer;) {
            connection.is_open = arrives != "end";
            if (arrives[0] == 'x')
                connection.incoming += std::string(std::stoul(arrives.substr(1)), 'x');
            else if (connection.is_open && arrives != "-")
                connection.incoming += hex(arrives);
            xprt_stat status = XPRT_DIED;
            EXPECT_EQ(__ks_xdrrec_getrec(&stream, &status, expects), answer == "T") << arrives;
            EXPECT_EQ(status, answer == "D" ? XPRT_DIED : answer == "I" ? XPRT_IDLE : XPRT_MOREREQS) << arrives;
        }
    }
}

// A length that lies costs address space, no memory.
TEST(RecordAssembly, MemoryIsWhatHasArrived)
{
    test::in_child([] {
        Connection connection{.incoming = hex("84000000 31323334"), .is_open = true};
        Stream stream(connection, XDR_DECODE);
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        xprt_stat status = XPRT_DIED;
        __ks_xdrrec_setnonblock(&stream, 0x4000000);
        EXPECT_FALSE(__ks_xdrrec_getrec(&stream, &status, TRUE));
        getrusage(RUSAGE_SELF, &after);
        EXPECT_EQ(status, XPRT_MOREREQS);
        EXPECT_LT(after.ru_maxrss, before.ru_maxrss + 32 * 1024); // of 64 MiB that were claimed
    });
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
    // What is not decoded when bytes of the next record come is lost.
    connection.incoming += fragment("9abc", true);
    EXPECT_TRUE(__ks_xdrrec_getrec(&stream, &status, TRUE));
    connection.incoming += fragment("defg", true).substr(0, 7);
    EXPECT_FALSE(__ks_xdrrec_getrec(&stream, &status, TRUE) || stream.get(word));
}

} // namespace
