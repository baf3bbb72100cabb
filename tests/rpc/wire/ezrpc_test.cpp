// The counted string without a bound, and the flag row that uses it, over the platform's streams.
#include <korvaks/ezrpc.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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

// Decodes from a heap block that ends where the bytes do, all of which must be used.
char *decode(const std::string &bytes)
{
    const std::vector<char> block(bytes.begin(), bytes.end());
    XDR stream;
    xdrmem_create(&stream, const_cast<char *>(block.data()), static_cast<u_int>(block.size()), XDR_DECODE);
    char *string = nullptr;
    const int decoded = xdr_ez_string8(&stream, &string);
    EXPECT_EQ(decoded != 0, string != nullptr);
    EXPECT_TRUE(decoded == 0 || xdr_getpos(&stream) == bytes.size());
    return string;
}

TEST(EzString, HasTheWireFormOfAStringAndComesBack)
{
    const std::string bytes = "\0\0\0\5abcde\0\0\0"s;
    EXPECT_EQ(encode("abcde"), bytes);
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(decode(bytes.substr(0, size)), nullptr) << size;
    for (const std::size_t size : {0UL, 1UL, 5UL, 4095UL, 4096UL, 8191UL, 8192UL, 70001UL}) {
        SCOPED_TRACE(size);
        const std::string text(size, 'x');
        char *string = decode(encode(text.c_str()));
        ASSERT_NE(string, nullptr);
        EXPECT_EQ(string, text);
        XDR stream;
        stream.x_op = XDR_FREE;
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 1);
        EXPECT_EQ(string, nullptr);
        EXPECT_EQ(xdr_ez_string8(&stream, &string), 1);
    }
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
    std::string bytes = "\0\0\0\2ro\0\0\xFF\xFF\xFF\xFE"s;
    std::string buffer(bytes.size(), '#');
    XDR stream;
    xdrmem_create(&stream, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
    strutl_flag_item_t item{"ro", 0x5FFFFFFFEUL};
    ASSERT_EQ(xdr_strutl_flag_item_t(&stream, &item), 1);
    EXPECT_EQ(buffer, bytes);
    for (u_int size = 0; size <= bytes.size(); ++size) {
        xdrmem_create(&stream, bytes.data(), size, XDR_DECODE);
        strutl_flag_item_t back{};
        ASSERT_EQ(xdr_strutl_flag_item_t(&stream, &back), size == bytes.size() ? 1 : 0) << size;
        if (size == bytes.size()) {
            EXPECT_STREQ(back.name, "ro");
            EXPECT_EQ(back.value, 0xFFFFFFFEUL);
        }
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_strutl_flag_item_t), &back);
        EXPECT_EQ(back.name, nullptr);
    }
}

} // namespace
