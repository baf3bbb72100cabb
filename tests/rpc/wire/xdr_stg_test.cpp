// Storage streams: how they grow, where they end, and what they share with the platform's memory stream.
#include "rpc/wire/connection.h"

#include "harness/child.h"

#include <gtest/gtest.h>

namespace {

using test::Stream;

// How a stream grows and moves is the fuzz target's.
TEST(StorageStream, WritesAndReadsWords)
{
    Stream stream(10, XDR_ENCODE);
    long value = 0xFFFFFFFFELL;
    ASSERT_TRUE(stream.put(0x01020304) && XDR_PUTLONG(&stream, &value) && stream.put("odd"));
    EXPECT_EQ(std::string(stream.x_base, 11), test::hex("01020304 FFFFFFFE 6F6464"));
    EXPECT_EQ(stream.x_handy, 9u);
    ASSERT_TRUE(XDR_SETPOS(&stream, 4));
    stream.x_op = XDR_DECODE;
    ASSERT_TRUE(XDR_GETLONG(&stream, &value));
    EXPECT_EQ(value, -2);
    ASSERT_TRUE(XDR_SETPOS(&stream, 17));
    EXPECT_FALSE(XDR_GETLONG(&stream, &value) || XDR_SETPOS(&stream, 21));
    xdrstg_destroy(&stream);
    EXPECT_FALSE(XDR_GETLONG(&stream, &value));
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
