// RPC messages against the layouts of RFC 5531, and against the platform's routines.
#include "rpc/wire/connection.h"

#include <gtest/gtest.h>

namespace {

using test::Stream;
using namespace std::string_literals;

template <typename Routine, typename Object> std::string encode(Routine routine, Object &object)
{
    Stream stream(0, XDR_ENCODE);
    EXPECT_TRUE(routine(&stream, &object));
    return {stream.x_base, XDR_GETPOS(&stream)};
}

// Decodes all of the bytes, and fails on less at every place.
template <typename Routine, typename Object> void decode(Routine routine, std::string bytes, Object &object)
{
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        std::string part = bytes.substr(0, size);
        Object shorter{object};
        Stream stream(part, XDR_DECODE);
        ASSERT_EQ(routine(&stream, &shorter), size == bytes.size()) << size;
        if (size == bytes.size())
            object = shorter;
        else
            xdr_free(reinterpret_cast<xdrproc_t>(routine), &shorter);
    }
}

template <typename Routine, typename Object> void release(Routine routine, Object &object)
{
    xdr_free(reinterpret_cast<xdrproc_t>(routine), &object);
}

rpc_msg call_message()
{
    rpc_msg msg{};
    msg.rm_xid = 0x01020304;
    msg.rm_direction = CALL;
    msg.rm_call = {2, 0x20000001, 3, 4, {AUTH_UNIX, const_cast<char *>("cred!"), 5}, {AUTH_NONE, nullptr, 0}};
    return msg;
}

const std::string call_header = "\1\2\3\4"
                                "\0\0\0\0"
                                "\0\0\0\2"
                                "\x20\0\0\1"
                                "\0\0\0\3"s;
const std::string call_bytes = call_header + "\0\0\0\4"
                                             "\0\0\0\1"
                                             "\0\0\0\5"
                                             "cred!\0\0\0"
                                             "\0\0\0\0"
                                             "\0\0\0\0"s;

TEST(RpcMessages, ACall)
{
    rpc_msg msg = call_message();
    EXPECT_EQ(encode(xdr_ks_callmsg, msg), call_bytes);
    EXPECT_EQ(encode(xdr_callmsg, msg), call_bytes);
    rpc_msg header = call_message();
    header.rm_direction = REPLY;
    header.rm_call.cb_rpcvers = 7;
    EXPECT_EQ(encode(xdr_ks_callhdr, header), call_header);
    // In place, from the middle of a buffer with other bytes, the padding is zero too.
    Stream stream(100, XDR_ENCODE);
    std::memset(stream.x_base, '#', 100);
    ASSERT_TRUE(xdr_ks_callmsg(&stream, &msg));
    EXPECT_EQ(std::string(stream.x_base, XDR_GETPOS(&stream)), call_bytes);

    rpc_msg decoded{};
    decode(xdr_ks_callmsg, call_bytes, decoded);
    EXPECT_EQ(encode(xdr_ks_callmsg, decoded), call_bytes);
    std::memset(decoded.rm_call.cb_cred.oa_base, 'x', KS_MAX_AUTH_BYTES); // the room of any body
    release(xdr_ks_callmsg, decoded);
    EXPECT_EQ(decoded.rm_call.cb_cred.oa_base, nullptr);
    char room[KS_MAX_AUTH_BYTES];
    decoded.rm_call.cb_cred.oa_base = room;
    std::string bytes = call_bytes;
    Stream again(bytes, XDR_DECODE);
    ASSERT_TRUE(xdr_ks_callmsg(&again, &decoded));
    EXPECT_EQ(std::string(room, 5), "cred!");
}

TEST(RpcMessages, WhatIsNoCall)
{
    for (const auto &[at, byte] : {std::pair{7, '\1'}, {11, '\3'}, {30, '\2'}, {46, '\2'}}) {
        std::string bytes = call_bytes + std::string(600, 'x');
        bytes[static_cast<std::size_t>(at)] = byte;
        rpc_msg msg{};
        Stream stream(bytes, XDR_DECODE);
        EXPECT_FALSE(xdr_ks_callmsg(&stream, &msg)) << at;
        release(xdr_ks_callmsg, msg);
    }
    rpc_msg long_body = call_message(), reply = call_message(), version = call_message();
    long_body.rm_call.cb_verf.oa_length = KS_MAX_AUTH_BYTES + 1;
    reply.rm_direction = REPLY;
    version.rm_call.cb_rpcvers = 3;
    for (rpc_msg *msg : {&long_body, &reply, &version}) {
        Stream stream(0, XDR_ENCODE);
        EXPECT_FALSE(xdr_ks_callmsg(&stream, msg));
        EXPECT_EQ(XDR_GETPOS(&stream), 0u);
        stream.x_op = XDR_DECODE;
        EXPECT_FALSE(xdr_ks_callhdr(&stream, msg));
    }
}

TEST(RpcMessages, Replies)
{
    u_int result = 0x0A0B0C0D;
    const std::string accepted = "\1\2\3\4"
                                 "\0\0\0\1"
                                 "\0\0\0\0"
                                 "\0\0\0\2"
                                 "\0\0\0\3"
                                 "abc\0"s;
    const std::string denied = "\1\2\3\4"
                               "\0\0\0\1"
                               "\0\0\0\1"s;
    for (const std::string &bytes : {accepted + "\0\0\0\0"
                                                "\x0A\x0B\x0C\x0D"s,
                                     accepted + "\0\0\0\1"s,
                                     accepted + "\0\0\0\2"
                                                "\0\0\0\5"
                                                "\0\0\0\7"s,
                                     accepted + "\0\0\0\5"s, accepted + "\0\0\0\x77"s,
                                     denied + "\0\0\0\0"
                                              "\0\0\0\2"
                                              "\0\0\0\3"s,
                                     denied + "\0\0\0\1"
                                              "\0\0\0\x77"s}) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        rpc_msg msg{};
        msg.acpted_rply.ar_results = {reinterpret_cast<caddr_t>(&result), reinterpret_cast<xdrproc_t>(xdr_u_int)};
        decode(xdr_ks_replymsg, bytes, msg);
        EXPECT_EQ(encode(xdr_ks_replymsg, msg), bytes);
        EXPECT_EQ(encode(xdr_replymsg, msg), bytes);
        EXPECT_EQ(result, 0x0A0B0C0Du);
        release(xdr_ks_replymsg, msg);
    }
    for (std::string bytes : {accepted + "\0\0\0\0"s, denied + "\0\0\0\2"s,
                              "\1\2\3\4"
                              "\0\0\0\1"
                              "\0\0\0\2"s,
                              call_bytes}) {
        rpc_msg msg{};
        Stream stream(bytes, XDR_DECODE);
        EXPECT_FALSE(xdr_ks_replymsg(&stream, &msg)); // the first for want of a routine
        release(xdr_ks_accepted_reply, msg.acpted_rply);
    }
}

TEST(RpcMessages, Credentials)
{
    opaque_auth none{}, short_hand{AUTH_SHORT, const_cast<char *>("abcde"), 5}, decoded{};
    EXPECT_EQ(encode(xdr_ks_opaque_auth, none), std::string(8, '\0'));
    EXPECT_EQ(encode(xdr_ks_opaque_auth, short_hand), encode(xdr_opaque_auth, short_hand));
    decode(xdr_ks_opaque_auth, encode(xdr_ks_opaque_auth, short_hand), decoded);
    release(xdr_ks_opaque_auth, decoded);
    des_block key{.c = {'1', '2', '3', '4', '5', '6', '7', '8'}};
    EXPECT_EQ(encode(xdr_ks_des_block, key), "12345678");

    const std::string name(MAX_MACHINE_NAME + 1, 'n');
    std::vector<gid_t> groups(NGRPS + 1, 7);
    for (const auto &[name_size, count] : {std::pair{0u, 0u}, {5u, 3u}, {255u, 16u}, {256u, 0u}, {0u, 17u}}) {
        SCOPED_TRACE(name_size);
        std::string machine = name.substr(0, name_size);
        authunix_parms parms{0xFEDCBA98, machine.data(), ~0u - 1, 100, count, groups.data()}, back{};
        Stream stream(0, XDR_ENCODE);
        const bool is_admitted = name_size <= MAX_MACHINE_NAME && count <= NGRPS;
        ASSERT_EQ(xdr_ks_authunix_parms(&stream, &parms), is_admitted);
        if (is_admitted) {
            const std::string bytes = encode(xdr_authunix_parms, parms);
            EXPECT_EQ(std::string(stream.x_base, XDR_GETPOS(&stream)), bytes);
            decode(xdr_ks_authunix_parms, bytes, back);
            EXPECT_EQ(encode(xdr_ks_authunix_parms, back), bytes);
            release(xdr_ks_authunix_parms, back);
        }
    }
    for (const auto &[at, value] : {std::pair{4u, 256u}, {16u, 17u}}) { // the counts of an empty name and no groups
        std::string bytes = std::string(20, '\0') + std::string(300, 'x');
        bytes.replace(at, 4, test::wire_word(value));
        Stream stream(bytes, XDR_DECODE);
        authunix_parms parms{};
        EXPECT_FALSE(xdr_ks_authunix_parms(&stream, &parms));
        release(xdr_ks_authunix_parms, parms);
    }
    Stream stream(0, XDR_ENCODE);
    authunix_parms nameless{};
    EXPECT_FALSE(xdr_ks_authunix_parms(&stream, &nameless));
}

} // namespace
