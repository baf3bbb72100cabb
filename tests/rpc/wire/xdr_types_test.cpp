// The wire forms of the base types, and cursors.
#include "rpc/wire/connection.h"

#include <gtest/gtest.h>

namespace {

using test::Stream;
using test::wire_word;
using namespace std::string_literals;

// Encodes to the bytes, decodes from them into `out_back`, and fails on fewer. XDR_FREE needs no stream.
template <typename Routine, typename Object>
void expect_wire(Routine routine, Object value, const std::string &bytes, Object &out_back)
{
    SCOPED_TRACE(testing::PrintToString(bytes));
    Stream stream(0, XDR_ENCODE);
    ASSERT_TRUE(routine(&stream, &value));
    ASSERT_EQ(std::string(stream.x_base, XDR_GETPOS(&stream)), bytes);
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        std::string part = bytes.substr(0, size);
        Stream in(part, XDR_DECODE);
        ASSERT_EQ(routine(&in, &out_back), size == bytes.size()) << size;
    }
}

template <typename Routine, typename Object>
void expect_round_trip(Routine routine, Object value, const std::string &bytes)
{
    Object back{};
    expect_wire(routine, value, bytes, back);
    EXPECT_EQ(back, value);
    xdr_free(reinterpret_cast<xdrproc_t>(routine), &back);
}

TEST(BaseTypes, HaveTheirWireForms)
{
    expect_round_trip(xdr_ks_uint32_t, ks_uint32_t{0xFFFFFFFE}, "\xFF\xFF\xFF\xFE");
    for (const auto routine : {xdr_ks_int64_t, xdr_ks_off64_t}) {
        expect_round_trip(routine, int64_t{-2}, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE");
        expect_round_trip(routine, int64_t{0x0102030405060708}, "\1\2\3\4\5\6\7\x08");
    }
    expect_round_trip(xdr_ks_uint64_t, ks_uint64_t{0xFF00000080000000}, "\xFF\0\0\0\x80\0\0\0"s);
    expect_round_trip(xdr_ks_off32_t, ks_off32_t{-2}, "\xFF\xFF\xFF\xFE");
    expect_round_trip(xdr_ks_byte_t, ks_byte_t{0xFE}, "\0\0\0\xFE"s);
    expect_round_trip(xdr_ks_boolean_t, ks_boolean_t{7}, "\0\0\0\7"s);
    expect_round_trip(xdr_ks_char_t, ks_char_t{-2}, "\xFF\xFF\xFF\xFE");
    u_long wide = 0;
    expect_wire(xdr_u_long_as_int, u_long{0x1FFFFFFFE}, "\xFF\xFF\xFF\xFE", wide);
    EXPECT_EQ(wide, 0xFFFFFFFEul);
    auto *area = reinterpret_cast<stg_area *>(&wide);
    expect_wire(xdr_stg_area_rpc_ptr_t, area, "\0\0\0\0"s, area);
    EXPECT_EQ(area, STG_AREA_NULL);
}

TEST(BaseTypes, Strings)
{
    const std::string bytes = "\0\0\0\5/a/bc\0\0\0"s;
    for (const auto &[routine, form] :
         {std::pair{&xdr_ks_canon_pname_p_t, bytes}, {&xdr_string_pointer, "\0\0\0\1"s + bytes}}) {
        char *back = nullptr;
        expect_wire(routine, const_cast<char *>("/a/bc"), form, back);
        EXPECT_STREQ(back, "/a/bc");
        xdr_free(reinterpret_cast<xdrproc_t>(routine), &back);
        EXPECT_EQ(back, nullptr);
    }
    char *absent = const_cast<char *>("x");
    expect_wire(xdr_string_pointer, static_cast<char *>(nullptr), "\0\0\0\0"s, absent);
    EXPECT_EQ(absent, nullptr);
    const char *constant = nullptr;
    expect_wire(xdr_ks_canon_pname_c_p_t, static_cast<const char *>("/a/bc"), bytes, constant);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_ks_canon_pname_c_p_t), &constant);

    for (const std::size_t size : {0u, 5u, 4095u, 4096u}) {
        std::string text(size, 'p');
        Stream stream(0, XDR_ENCODE);
        ASSERT_TRUE(xdr_ks_canon_pname_t(&stream, text.data()) && XDR_SETPOS(&stream, 0));
        stream.x_op = XDR_DECODE;
        ks_canon_pname_t path{};
        ASSERT_EQ(xdr_ks_canon_pname_t(&stream, path), size < sizeof path);
        EXPECT_EQ(path, size < sizeof path ? text : "");
        stream.x_op = XDR_FREE;
        EXPECT_TRUE(xdr_ks_canon_pname_t(&stream, path));
        stream.x_op = XDR_DECODE;
    }
}

TEST(BaseTypes, SocketAddresses)
{
    sockaddr_storage address{}, back;
    std::memset(&back, '#', sizeof back);
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    ipv4 = {AF_INET, htons(0xFEDC), {htonl(0x7F000001)}, {}};
    std::string bytes = "\0\0\0\1"
                        "\x7F\0\0\1"
                        "\0\0\xFE\xDC"s;
    expect_wire(xdr_ks_sockaddr_storage_t, address, bytes, back);
    EXPECT_EQ(std::memcmp(&back, &address, sizeof ipv4), 0);
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
    ipv6 = {AF_INET6, htons(1), 99, {}, 99};
    bytes = "\0\0\0\2"s;
    for (uint8_t i = 0; i < 16; ++i)
        bytes += wire_word(ipv6.sin6_addr.s6_addr[i] = static_cast<uint8_t>(i * 17));
    expect_wire(xdr_ks_sockaddr_storage_t, address, bytes + "\0\0\0\1"s, back);
    ipv6.sin6_flowinfo = 0;
    ipv6.sin6_scope_id = 0;
    EXPECT_EQ(std::memcmp(&back, &address, sizeof ipv6), 0);
    // No other family goes in or comes out.
    address.ss_family = AF_UNIX;
    Stream stream(0, XDR_ENCODE);
    EXPECT_FALSE(xdr_ks_sockaddr_storage_t(&stream, &address));
    EXPECT_EQ(XDR_GETPOS(&stream), 0u);
    for (const uint32_t family : {0u, 3u, uint32_t{AF_INET6}}) {
        bytes.replace(0, 4, wire_word(family));
        Stream in(bytes, XDR_DECODE);
        EXPECT_FALSE(xdr_ks_sockaddr_storage_t(&in, &back)) << family;
    }
}

class Cursors : public testing::Test {
  protected:
    Cursors() { vlthread_mutex_init(&mutex_); }
    ~Cursors() override { stg_free(table_); }

    // The index that travels, -1 for a failure.
    int send(void *cursor, uint32_t index = 0)
    {
        Stream stream(0, XDR_ENCODE);
        if (!xdr_ks_generic_cursor_t(&stream, &cursor, &index, &table_, &count_, &mutex_))
            return -1;
        EXPECT_EQ(index, 0u);
        return static_cast<int>(ntohl(*reinterpret_cast<uint32_t *>(stream.x_base)));
    }

    // The cursor that an index gives, `none` for a failure.
    void *receive(uint32_t index)
    {
        std::string bytes = wire_word(index);
        Stream stream(bytes, XDR_DECODE);
        void *cursor = none;
        uint32_t taken = 99;
        const bool is_done = xdr_ks_generic_cursor_t(&stream, &cursor, &taken, &table_, &count_, &mutex_) != FALSE;
        EXPECT_EQ(taken, is_done ? index : 99);
        return cursor;
    }

    static void *cursor(std::uintptr_t number) { return reinterpret_cast<void *>(number * 8); }

    void *none = this;
    ks_cursor_table *table_ = nullptr;
    uint32_t count_ = 0;
    vlthread_mutex_t mutex_;
};

TEST_F(Cursors, TravelAsIndexes)
{
    EXPECT_EQ(receive(1), none);
    EXPECT_EQ(receive(0), nullptr);
    EXPECT_EQ(send(nullptr), 0);
    EXPECT_EQ(table_->capacity, 4u);
    for (int i = 1; i <= 9; ++i)
        EXPECT_EQ(send(cursor(static_cast<std::uintptr_t>(i))), i);
    EXPECT_EQ(table_->capacity, 16u);
    EXPECT_EQ(count_, 10u);
    EXPECT_EQ(receive(9), cursor(9));
    EXPECT_EQ(receive(10), none);
    EXPECT_EQ(receive(~0u), none);
    // An entry is changed in its place, freed by NULL and used again, the lowest first.
    EXPECT_EQ(send(cursor(50), 5), 5);
    EXPECT_EQ(receive(5), cursor(50));
    EXPECT_EQ(send(nullptr, 7), 0);
    EXPECT_EQ(send(nullptr, 3), 0);
    EXPECT_EQ(receive(3), none);
    EXPECT_EQ(send(cursor(60)), 3);
    EXPECT_EQ(send(cursor(70)), 7);
    EXPECT_EQ(send(cursor(80), 10), -1);
}

TEST_F(Cursors, KeepTheirTable)
{
    // A foreign table is left to its owner when it is full; what cannot be sent is not stored.
    struct {
        ks_cursor_table head{2, 8, KS_CURSOR_TABLE_FOREIGN};
        void *entries[2]{};
    } foreign;
    table_ = &foreign.head;
    count_ = 1;
    EXPECT_EQ(send(cursor(1)), 1);
    EXPECT_EQ(send(cursor(2)), 2);
    EXPECT_EQ(foreign.entries[1], cursor(1));
    EXPECT_EQ(table_->ownership, KS_CURSOR_TABLE_OWN);
    std::string no_room;
    for (uint32_t index : {0u, 1u}) {
        Stream full(no_room, XDR_ENCODE);
        void *unsent = cursor(3);
        const uint32_t before = index;
        EXPECT_FALSE(xdr_ks_generic_cursor_t(&full, &unsent, &index, &table_, &count_, &mutex_));
        EXPECT_EQ(index, before);
        EXPECT_EQ(receive(3), none);
        EXPECT_EQ(receive(1), cursor(1));
    }
    XDR freeing{};
    freeing.x_op = XDR_FREE;
    EXPECT_TRUE(xdr_ks_generic_cursor_t(&freeing, nullptr, nullptr, &table_, &count_, nullptr));
}

} // namespace
