// The counted string without a bound, and the flag row that uses it, over the platform's streams.
#include "rpc/wire/connection.h"

#include <korvaks/ezrpc.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <string>

#include <malloc.h>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

// What is refused, and that what comes back is what went in, is the fuzz target's.
TEST(EzString, HasTheWireFormOfAString)
{
    char *text = const_cast<char *>("abcde"), *string = nullptr;
    EXPECT_EQ(test::encode(xdr_ez_string8, text), "\0\0\0\5abcde\0\0\0"s);
    for (const std::size_t size : {0UL, 1UL, 4095UL, 4096UL, 8191UL, 8192UL, 70001UL}) {
        const std::string given(size, 'x');
        text = const_cast<char *>(given.c_str());
        std::string bytes = test::encode(xdr_ez_string8, text);
        test::Stream stream(bytes, XDR_DECODE);
        ASSERT_TRUE(xdr_ez_string8(&stream, &string)) << size;
        EXPECT_EQ(string, given);
        test::release(xdr_ez_string8, string);
        EXPECT_EQ(string, nullptr);
        test::release(xdr_ez_string8, string);
    }
    EXPECT_EQ(test::encode(xdr_ez_string8, string), "");
}

// A stream that says four gigabytes, delivers so many bytes and then ends, and notes the heap in use
// while it was asked.
struct Drip {
    std::size_t left;
    std::size_t most_heap;
};

std::size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

int drip_bytes(XDR *stream, char *to, u_int count)
{
    Drip *drip = reinterpret_cast<Drip *>(stream->x_private);
    drip->most_heap = std::max(drip->most_heap, heap_in_use());
    if (count > drip->left)
        return FALSE;
    std::memset(to, 'x', count);
    drip->left -= count;
    return TRUE;
}

// The little that was sent is what it costs.
TEST(EzString, FalseLengthCostsNoMemory)
{
    for (const std::size_t sent : {0u, 5000u, 1000000u}) {
        Drip drip{sent, 0};
        XDR::xdr_ops ops{};
        ops.x_getlong = [](XDR *, long *out) { return *out = 0xFFFFFFF0L, TRUE; };
        ops.x_getbytes = drip_bytes;
        XDR stream{};
        stream.x_op = XDR_DECODE;
        stream.x_ops = &ops;
        stream.x_private = reinterpret_cast<decltype(stream.x_private)>(&drip);
        char *string = nullptr;
        const std::size_t before = heap_in_use();
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 0);
        EXPECT_LE(drip.most_heap, before + 2 * sent + 3 * 4096);
        EXPECT_LE(heap_in_use(), before);
    }
}

TEST(FlagItemXdr, GoldenBytesAndBack)
{
    const std::string bytes = "\0\0\0\2ro\0\0\xFF\xFF\xFF\xFE"s;
    strutl_flag_item_t item{"ro", 0x5FFFFFFFEUL}, back{};
    EXPECT_EQ(test::encode(xdr_strutl_flag_item_t, item), bytes);
    ASSERT_TRUE(test::decode(xdr_strutl_flag_item_t, bytes, back));
    EXPECT_STREQ(back.name, "ro");
    EXPECT_EQ(back.value, 0xFFFFFFFEUL);
    test::release(xdr_strutl_flag_item_t, back);
    EXPECT_EQ(back.name, nullptr);
}

} // namespace
