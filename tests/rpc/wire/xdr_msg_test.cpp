// RPC messages against the layouts of RFC 5531, and against the platform's routines.
#include "rpc/wire/connection.h"

#include <gtest/gtest.h>

namespace {

using test::decode;
using test::encode;
using test::hex;
using test::release;
using test::Stream;
using namespace std::string_literals;

rpc_msg call_message()
{
    rpc_msg msg{};
    msg.rm_xid = 0x01020304;
    msg.rm_direction = CALL;
    msg.rm_call = {2, 0x20000001, 3, 4, {AUTH_UNIX, const_cast<char *>("cred!"), 5}, {AUTH_NONE, nullptr, 0}};
    return msg;
}

const std::string call_header = hex("01020304 00000000 00000002 20000001 00000003");
const std::string call_bytes = call_header + hex("00000004 00000001 00000005 6372656421 000000 00000000 00000000");

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
    EXPECT_TRUE(decode(xdr_ks_callmsg, call_bytes, decoded));
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

// What is refused when it is decoded is compared with the platform by the fuzz target.
TEST(RpcMessages, WhatIsNoCallIsNotEncoded)
{
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
    const std::string accepted = "01020304 00000001 00000000 00000002 00000003 61626300 ";
    const std::string denied = "01020304 00000001 00000001 ";
    for (const std::string &text : {accepted + "00000000 0A0B0C0D", accepted + "00000001", accepted + "00000005",
                                    accepted + "00000002 00000005 00000007", accepted + "00000077",
                                    denied + "00000000 00000002 00000003", denied + "00000001 00000077"}) {
        SCOPED_TRACE(text);
        rpc_msg msg{};
        msg.acpted_rply.ar_results = {reinterpret_cast<caddr_t>(&result), reinterpret_cast<xdrproc_t>(xdr_u_int)};
        EXPECT_TRUE(decode(xdr_ks_replymsg, hex(text), msg));
        EXPECT_EQ(encode(xdr_ks_replymsg, msg), hex(text));
        EXPECT_EQ(encode(xdr_replymsg, msg), hex(text));
        EXPECT_EQ(result, 0x0A0B0C0Du);
        release(xdr_ks_replymsg, msg);
    }
    // The first for want of a routine.
    for (const std::string &text :
         {accepted + "00000000", denied + "00000002", "01020304 00000001 00000002"s, "01020304 00000000 00000000"s}) {
        std::string bytes = hex(text);
        rpc_msg msg{};
        Stream stream(bytes, XDR_DECODE);
        EXPECT_FALSE(xdr_ks_replymsg(&stream, &msg)) << text;
        release(xdr_ks_opaque_auth, msg.acpted_rply.ar_verf);
    }
}

TEST(RpcMessages, Credentials)
{
    opaque_auth none{}, short_hand{AUTH_SHORT, const_cast<char *>("abcde"), 5}, decoded{};
    EXPECT_EQ(encode(xdr_ks_opaque_auth, none), std::string(8, '\0'));
    EXPECT_EQ(encode(xdr_ks_opaque_auth, short_hand), encode(xdr_opaque_auth, short_hand));
    EXPECT_TRUE(decode(xdr_ks_opaque_auth, encode(xdr_ks_opaque_auth, short_hand), decoded));
    release(xdr_ks_opaque_auth, decoded);
    des_block key{.c = {'1', '2', '3', '4', '5', '6', '7', '8'}};
    EXPECT_EQ(encode(xdr_ks_des_block, key), "12345678");

    const std::string name(MAX_MACHINE_NAME + 1, 'n');
    std::vector<gid_t> groups(NGRPS + 1, 7);
    for (const auto &[name_size, count] : {std::pair{0u, 0u}, {5u, 3u}, {255u, 16u}, {256u, 0u}, {0u, 17u}}) {
        std::string machine = name.substr(0, name_size);
        authunix_parms parms{0xFEDCBA98, machine.data(), ~0u - 1, 100, count, groups.data()}, back{};
        const std::string bytes = encode(xdr_ks_authunix_parms, parms);
        EXPECT_EQ(bytes, encode(xdr_authunix_parms, parms)) << name_size;
        EXPECT_EQ(!bytes.empty() && decode(xdr_ks_authunix_parms, bytes, back), name_size < 256 && count < 17);
        EXPECT_EQ(encode(xdr_ks_authunix_parms, back), bytes);
        release(xdr_ks_authunix_parms, back);
    }
    // The counts of an empty name and of no groups.
    for (const std::string &text : {"00000000 00000100"s, "00000000 00000000 00000000 00000000 00000011"s}) {
        authunix_parms parms{};
        EXPECT_FALSE(decode(xdr_ks_authunix_parms, hex(text) + name + name, parms));
        EXPECT_EQ(parms.aup_gids, nullptr);
        release(xdr_ks_authunix_parms, parms);
    }
}

} // namespace
