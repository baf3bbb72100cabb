// Storage streams: how they grow, where they end, and what they share with the platform's memory stream.
#include "rpc/wire/connection.h"

#include "harness/child.h"

#include <gtest/gtest.h>

namespace {

using test::Stream;
using namespace std::string_literals;

TEST(StorageStream, GrowsAsItIsWritten)
{
    struct Case {
        u_int size, written, then_left;
    };
    // The bytes left behind a write of so many tell by how much the block grew.
    for (const auto &[size, written, left] : {Case{0, 5, 0},
                                              {10, 10, 0},
                                              {10, 11, 9},
                                              {10, 30, 0},
                                              {4096, 4097, 4095},
                                              {10000, 10001, 4095},
                                              {10000, 20000, 0}}) {
        SCOPED_TRACE(written);
        Stream stream(size, XDR_ENCODE);
        const std::string bytes(written, 'x');
        ASSERT_TRUE(stream.put(bytes));
        EXPECT_EQ(XDR_GETPOS(&stream), written);
        EXPECT_EQ(stream.x_handy, left);
        EXPECT_EQ(std::string(stream.x_base, written), bytes);
    }
    Stream words(0, XDR_ENCODE);
    long value = -2;
    ASSERT_TRUE(words.put(0x01020304) && XDR_PUTLONG(&words, &value));
    EXPECT_EQ(std::string(words.x_base, 8), "\1\2\3\4\xFF\xFF\xFF\xFE");
}

TEST(StorageStream, EndsWhereItsBlockDoes)
{
    Stream stream(8, XDR_ENCODE);
    ASSERT_TRUE(stream.put(-2) && stream.put("odd"s));
    EXPECT_TRUE(XDR_SETPOS(&stream, 8));
    EXPECT_FALSE(XDR_SETPOS(&stream, 9));
    EXPECT_EQ(XDR_INLINE(&stream, 4), nullptr);
    EXPECT_EQ(XDR_GETPOS(&stream), 8u);
    ASSERT_TRUE(XDR_SETPOS(&stream, 0));
    stream.x_op = XDR_DECODE;
    long value = 0;
    std::string bytes(5, '#');
    ASSERT_TRUE(XDR_GETLONG(&stream, &value));
    EXPECT_EQ(value, -2);
    EXPECT_FALSE(stream.get(bytes));
    bytes.resize(3);
    ASSERT_TRUE(stream.get(bytes));
    EXPECT_EQ(bytes, "odd");
    EXPECT_FALSE(XDR_GETLONG(&stream, &value));
    EXPECT_EQ(XDR_INLINE(&stream, 1), nullptr); // not on a multiple of 4
    ASSERT_TRUE(XDR_SETPOS(&stream, 4));
    EXPECT_EQ(XDR_INLINE(&stream, 5), nullptr);
    EXPECT_EQ(reinterpret_cast<char *>(XDR_INLINE(&stream, 4)), stream.x_base + 4);
    xdrstg_destroy(&stream);
    EXPECT_FALSE(stream.get(bytes));
    EXPECT_EQ(XDR_GETPOS(&stream), 0u);
}

TEST(StorageStream, WithoutABlockOfItsOwn)
{
    Stream none(100, XDR_FREE);
    EXPECT_EQ(none.x_base, nullptr);
    XDR stream;
    char bytes[] = "\0\0\0\7#";
    ASSERT_EQ(xdrstg_create_decode_buf(&stream, bytes, 4), 0);
    u_int value = 0;
    EXPECT_TRUE(xdr_u_int(&stream, &value));
    EXPECT_EQ(value, 7u);
    EXPECT_FALSE(xdr_u_int(&stream, &value));
    // Positions are of 32 bits: behind 4 GiB nothing can be written.
    test::in_child([&] {
        xdrstg_create_decode_buf(&stream, nullptr, ~0u);
        stream.x_op = XDR_ENCODE;
        EXPECT_TRUE(XDR_SETPOS(&stream, ~0u) && !XDR_PUTBYTES(&stream, "x", 1));
    });
}

} // namespace
