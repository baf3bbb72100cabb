// The wire forms of the base types, and the table of cursors.
#include "rpc/wire/connection.h"

#include <gtest/gtest.h>

namespace {

using test::decode;
using test::encode;
using test::hex;
using test::release;
using test::Stream;

template <typename Routine, typename Object>
void expect_wire(Routine routine, Object value, const char *text, const Object &comes_back)
{
    Object back{};
    EXPECT_EQ(encode(routine, value), hex(text));
    EXPECT_TRUE(decode(routine, hex(text), back)) << text;
    EXPECT_EQ(back, comes_back);
}

TEST(BaseTypes, HaveTheirWireForms)
{
    for (const auto routine : {xdr_ks_int64_t, xdr_ks_off64_t}) {
        expect_wire(routine, int64_t{-2}, "FFFFFFFF FFFFFFFE", int64_t{-2});
        expect_wire(routine, int64_t{0x0102030485060708}, "01020304 85060708", int64_t{0x0102030485060708});
    }
    expect_wire(xdr_ks_uint64_t, ks_uint64_t{0xFF00000080000000}, "FF000000 80000000", ks_uint64_t{0xFF00000080000000});
    expect_wire(xdr_ks_uint32_t, ks_uint32_t{0xFFFFFFFE}, "FFFFFFFE", ks_uint32_t{0xFFFFFFFE});
    expect_wire(xdr_ks_off32_t, ks_off32_t{-2}, "FFFFFFFE", ks_off32_t{-2});
    expect_wire(xdr_ks_byte_t, ks_byte_t{0xFE}, "000000FE", ks_byte_t{0xFE});
    expect_wire(xdr_ks_boolean_t, ks_boolean_t{7}, "00000007", ks_boolean_t{7});
    expect_wire(xdr_ks_char_t, ks_char_t{-2}, "FFFFFFFE", ks_char_t{-2});
    expect_wire(xdr_u_long_as_int, u_long{0x1FFFFFFFE}, "FFFFFFFE", u_long{0xFFFFFFFE});
    expect_wire(xdr_stg_area_rpc_ptr_t, STG_AREA_HEAP, "00000000", STG_AREA_NULL);
}

TEST(BaseTypes, Strings)
{
    const std::string bytes = hex("00000005 2F612F6263 000000");
    char *text = const_cast<char *>("/a/bc"), *back = nullptr, *absent = nullptr;
    const char *constant = text;
    EXPECT_EQ(encode(xdr_ks_canon_pname_p_t, text), bytes);
    EXPECT_EQ(encode(xdr_ks_canon_pname_c_p_t, constant), bytes);
    EXPECT_EQ(encode(xdr_string_pointer, text), hex("00000001") + bytes);
    EXPECT_EQ(encode(xdr_string_pointer, absent), hex("00000000"));
    ASSERT_TRUE(decode(xdr_string_pointer, hex("00000001") + bytes, back));
    EXPECT_STREQ(back, text);
    release(xdr_string_pointer, back);
    EXPECT_EQ(back, nullptr);
    std::string nothing = hex("00000000");
    Stream in(nothing, XDR_DECODE);
    EXPECT_TRUE(xdr_string_pointer(&in, &text));
    EXPECT_EQ(text, nullptr);
    for (const std::size_t size : {0u, 5u, 4095u, 4096u}) {
        std::string name(size, 'p');
        Stream stream(0, XDR_ENCODE);
        ASSERT_TRUE(xdr_ks_canon_pname_t(&stream, name.data()) && XDR_SETPOS(&stream, 0));
        stream.x_op = XDR_DECODE;
        ks_canon_pname_t path{};
        EXPECT_EQ(xdr_ks_canon_pname_t(&stream, path), size < sizeof path);
        EXPECT_EQ(path, size < sizeof path ? name : "");
    }
}

TEST(BaseTypes, SocketAddresses)
{
    sockaddr_storage address{}, back;
    std::memset(&back, '#', sizeof back);
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    ipv4 = {AF_INET, htons(0xFEDC), {htonl(0x7F000001)}, {}};
    EXPECT_EQ(encode(xdr_ks_sockaddr_storage_t, address), hex("00000001 7F000001 0000FEDC"));
    EXPECT_TRUE(decode(xdr_ks_sockaddr_storage_t, hex("00000001 7F000001 0000FEDC"), back));
    EXPECT_EQ(std::memcmp(&back, &address, sizeof ipv4), 0);
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
    ipv6 = {AF_INET6, htons(1), 99, {}, 99};
    std::string bytes = hex("00000002");
    for (uint8_t i = 0; i < 16; ++i)
        bytes += test::wire_word(ipv6.sin6_addr.s6_addr[i] = static_cast<uint8_t>(i * 17));
    bytes += hex("00000001");
    EXPECT_EQ(encode(xdr_ks_sockaddr_storage_t, address), bytes);
    EXPECT_TRUE(decode(xdr_ks_sockaddr_storage_t, bytes, back));
    ipv6.sin6_flowinfo = ipv6.sin6_scope_id = 0;
    EXPECT_EQ(std::memcmp(&back, &address, sizeof ipv6), 0);
    // No other family goes in or comes out.
    address.ss_family = AF_UNIX;
    EXPECT_EQ(encode(xdr_ks_sockaddr_storage_t, address), "");
    for (const uint32_t family : {0u, 3u, uint32_t{AF_INET6}})
        EXPECT_FALSE(decode(xdr_ks_sockaddr_storage_t, test::wire_word(family) + bytes, back)) << family;
}

// A foreign table is left to its owner when it is full; what cannot be sent is not stored.
TEST(Cursors, TablesOfOthersAndFullStreams)
{
    struct {
        ks_cursor_table head{2, 8, KS_CURSOR_TABLE_FOREIGN};
        void *entries[2]{};
    } foreign;
    ks_cursor_table *table = &foreign.head;
    uint32_t count = 1;
    vlthread_mutex_t mutex;
    vlthread_mutex_init(&mutex);
    std::string bytes(8, '#');
    Stream stream(bytes, XDR_ENCODE);
    void *cursors[] = {&stream, &table, &count};
    uint32_t index = 0;
    for (void *&cursor : cursors)
        EXPECT_EQ(xdr_ks_generic_cursor_t(&stream, &cursor, &index, &table, &count, &mutex), &cursor != &cursors[2]);
    EXPECT_EQ(bytes, hex("00000001 00000002"));
    EXPECT_EQ(foreign.entries[1], &stream);
    ASSERT_EQ(table->ownership, KS_CURSOR_TABLE_OWN);
    EXPECT_EQ(table->capacity, 4u);
    void **entries = reinterpret_cast<void **>(table + 1);
    EXPECT_EQ(entries[3], nullptr);
    index = 1;
    EXPECT_FALSE(xdr_ks_generic_cursor_t(&stream, &cursors[2], &index, &table, &count, &mutex));
    EXPECT_TRUE(index == 1 && entries[1] == &stream);
    stg_free(table);
}

} // namespace
