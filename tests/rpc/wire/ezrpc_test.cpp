// The counted string without a bound, and the flag row that uses it, over the platform's streams.
#include <korvaks/ezrpc.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <malloc.h>
#include <rpc/rpc.h>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

std::string encode(const char *text)
{
    std::string buffer(100000, '\0');
    XDR stream;
    xdrmem_create(&stream, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
    char *string = const_cast<char *>(text);
    EXPECT_EQ(xdr_ez_string8(&stream, &string), 1);
    buffer.resize(xdr_getpos(&stream));
    return buffer;
}

// Decodes from a heap block that ends where the bytes do.
char *decode(const std::string &bytes, u_int *out_used = nullptr)
{
    const auto size = static_cast<u_int>(bytes.size());
    char *block = static_cast<char *>(std::malloc(std::max<size_t>(bytes.size(), 1)));
    std::memcpy(block, bytes.data(), bytes.size());
    XDR stream;
    xdrmem_create(&stream, block, size, XDR_DECODE);
    char *string = nullptr;
    const int decoded = xdr_ez_string8(&stream, &string);
    EXPECT_EQ(decoded != 0, string != nullptr);
    if (out_used != nullptr)
        *out_used = xdr_getpos(&stream);
    std::free(block);
    return string;
}

TEST(EzString, WireFormIsThatOfAString)
{
    EXPECT_EQ(encode(""), "\0\0\0\0"s);
    EXPECT_EQ(encode("abc"), "\0\0\0\3abc\0"s);
    EXPECT_EQ(encode("abcd"), "\0\0\0\4abcd"s);
    EXPECT_EQ(encode("abcde"), "\0\0\0\5abcde\0\0\0"s);
}

TEST(EzString, EveryLengthComesBack)
{
    for (const size_t size : {0UL, 1UL, 3UL, 4UL, 5UL, 4095UL, 4096UL, 4097UL, 8191UL, 8192UL, 8193UL, 70001UL}) {
        SCOPED_TRACE(size);
        const std::string text(size, 'x');
        const std::string bytes = encode(text.c_str());
        u_int used = 0;
        char *string = decode(bytes, &used);
        ASSERT_NE(string, nullptr);
        EXPECT_EQ(string, text);
        EXPECT_EQ(used, bytes.size());
        XDR stream;
        stream.x_op = XDR_FREE;
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 1);
        EXPECT_EQ(string, nullptr);
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 1);
    }
}

TEST(EzString, TruncatedAnywhereFails)
{
    const std::string bytes = encode("abcdefg");
    for (size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(decode(bytes.substr(0, size)), nullptr) << size;
}

TEST(EzString, MisuseFails)
{
    XDR stream;
    std::string bytes = encode("abc");
    xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    char room[2] = "";
    char *string = room;
    EXPECT_EQ(xdr_ez_string8(&stream, &string), 0);
    EXPECT_EQ(string, room);
    stream.x_op = XDR_ENCODE;
    string = nullptr;
    EXPECT_EQ(xdr_ez_string8(&stream, &string), 0);
}

// A stream that delivers so many bytes and then ends, and notes the largest piece that was asked for
// and the heap in use while it was.
struct Drip {
    size_t left;
    size_t largest_piece;
    size_t most_heap;
};

size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

int drip_bytes(XDR *stream, char *to, u_int count)
{
    Drip *drip = reinterpret_cast<Drip *>(stream->x_private);
    drip->largest_piece = std::max<size_t>(drip->largest_piece, count);
    drip->most_heap = std::max(drip->most_heap, heap_in_use());
    if (count > drip->left)
        return FALSE;
    std::memset(to, 'x', count);
    drip->left -= count;
    return TRUE;
}

int drip_length(XDR *, long *out)
{
    *out = 0xFFFFFFF0L;
    return TRUE;
}

// The peer says four gigabytes and sends a little: the little is what it costs.
TEST(EzString, FalseLengthCostsNoMemory)
{
    for (const size_t sent : {size_t{0}, size_t{5000}, size_t{1000000}}) {
        SCOPED_TRACE(sent);
        Drip drip{sent, 0, 0};
        XDR::xdr_ops ops{};
        ops.x_getlong = drip_length;
        ops.x_getbytes = drip_bytes;
        XDR stream{};
        stream.x_op = XDR_DECODE;
        stream.x_ops = &ops;
        stream.x_private = reinterpret_cast<decltype(stream.x_private)>(&drip);
        char *string = nullptr;
        const size_t before = heap_in_use();
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 0);
        EXPECT_EQ(string, nullptr);
        EXPECT_LE(drip.largest_piece, std::max<size_t>(4096, sent + 4096));
        EXPECT_LE(drip.most_heap, before + 2 * sent + 3 * 4096);
        EXPECT_LE(heap_in_use(), before);
    }
}

TEST(FlagItemXdr, GoldenBytesAndBack)
{
    char buffer[64];
    XDR stream;
    xdrmem_create(&stream, buffer, sizeof buffer, XDR_ENCODE);
    strutl_flag_item_t item{"ro", 0x5FFFFFFFEUL};
    ASSERT_EQ(xdr_strutl_flag_item_t(&stream, &item), 1);
    const std::string bytes(buffer, xdr_getpos(&stream));
    EXPECT_EQ(bytes, "\0\0\0\2ro\0\0\xFF\xFF\xFF\xFE"s);
    EXPECT_STREQ(item.name, "ro");

    xdrmem_create(&stream, buffer, static_cast<u_int>(bytes.size()), XDR_DECODE);
    strutl_flag_item_t back{};
    ASSERT_EQ(xdr_strutl_flag_item_t(&stream, &back), 1);
    EXPECT_STREQ(back.name, "ro");
    EXPECT_EQ(back.value, 0xFFFFFFFEUL);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_strutl_flag_item_t), &back);
    EXPECT_EQ(back.name, nullptr);

    for (u_int size = 0; size < bytes.size(); ++size) {
        xdrmem_create(&stream, buffer, size, XDR_DECODE);
        EXPECT_EQ(xdr_strutl_flag_item_t(&stream, &back), 0) << size;
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_strutl_flag_item_t), &back);
    }
}

} // namespace
