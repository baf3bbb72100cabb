// The wire forms of identities, byte for byte, their limits, and the text of SIDs.
#include "harness/misuse.h"
#include "rpc/wire/connection.h"

#include <korvaks/credutl.h>

#include <malloc.h>

namespace {

using test::hex;
using test::Stream;
using test::wire_word;

const std::string uid_1234 = hex("00000007 00000002 000004D2 01000000");
const std::string sids = uid_1234 + hex("00000007 00000002 00000064 02000000");
const std::string ali = hex("00000003 616C6900"), empty = hex("00000000"), names = ali + empty;
constexpr credutl_sid_t none{}, user{7, 2, {0, 0, 4, 0xD2, 1}}, group{7, 2, {0, 0, 0, 100, 2}};
char name[] = "ali";

// Decoding overwrites whatever was in the record, all of it.
template <typename Object> void expect_wire(bool_t (*routine)(XDR *, Object *), Object value, const std::string &bytes)
{
    Object back;
    std::memset(&back, std::is_class_v<Object> ? '#' : 0, sizeof back);
    EXPECT_EQ(test::encode(routine, value), bytes);
    EXPECT_TRUE(test::decode(routine, bytes, back));
    EXPECT_EQ(std::string_view(reinterpret_cast<char *>(&back), sizeof back).find("####"), std::string_view::npos);
    EXPECT_EQ(test::encode(routine, back), bytes);
    test::release(routine, back);
}

// What is not admitted is seen before any of it is written.
template <typename Object> void expect_refused(bool_t (*routine)(XDR *, Object *), Object value, std::string bytes)
{
    Stream out(0, XDR_ENCODE), in(bytes.append(2000, '\0'), XDR_DECODE);
    EXPECT_TRUE(!routine(&out, &value) && XDR_GETPOS(&out) == 0) << bytes.size();
    EXPECT_FALSE(routine(&in, &value)) << bytes.size();
    test::release(routine, value);
}

TEST(Identities, HaveTheirWireForms)
{
    expect_wire(xdr_credutl_uid_t, credutl_uid_t{0x1FFFFFFFE}, hex("FFFFFFFE"));
    expect_wire(xdr_credutl_sid_t, {2, 1, {}}, hex("00000002 00000001"));
    expect_wire(xdr_credutl_credentials_t, {1, 2, 40, {3}}, hex("00000001 00000002 00000028 00000003").append(124, 0));
    expect_wire(xdr_credutl_sid_credentials_t, {user, group, 2, {{}, user}}, sids + wire_word(2) + empty + uid_1234);
    credutl_sid_t many[99]{};
    expect_wire(xdr_credutl_whole_credentials_t, {user, group, 99, many}, (sids + wire_word(99)).append(396, 0));
    const credutl_string_credentials_t strings{name, nullptr, 2, {nullptr, name}};
    expect_wire(xdr_credutl_string_credentials_t, strings, names + wire_word(2) + empty + ali);
    char *list[] = {name, name};
    expect_wire(xdr_credutl_whole_string_credentials_t, {name, name, 2, list}, ali + ali + wire_word(2) + ali + ali);
    expect_wire(xdr_credutl_user_sid_t, {nullptr, 5, user}, empty + wire_word(5) + uid_1234);
    expect_wire(xdr_credutl_passwd_sid_t, {{nullptr, 5, user}, {name, 6, none}, name, nullptr},
                empty + wire_word(5) + uid_1234 + ali + wire_word(6) + empty + names);
    credutl_auth_vellum_t vellum{CREDUTL_AUTH_VELLUM_HOST, "ali", "", strings};
    expect_wire(xdr_credutl_auth_vellum_t, vellum, wire_word(0) + names);
    expect_wire(xdr_credutl_auth_vellum_p_t, &vellum, wire_word(1) + wire_word(0) + names);
    expect_wire(xdr_credutl_auth_vellum_p_t, credutl_auth_vellum_p_t{}, empty);
    vellum.kind = CREDUTL_AUTH_VELLUM_CREDENTIALS;
    expect_wire(xdr_credutl_client_t, {CREDUTL_AUTH_FAMILY_VELLUM, &vellum},
                wire_word(1) + wire_word(1) + names + names + wire_word(2) + empty + ali);
}

TEST(Identities, LengthsCountsAndKindsHaveLimits)
{
    expect_wire(xdr_credutl_sid_t, {34, -9, {}}, (wire_word(34) + hex("FFFFFFF7")).append(32, 0));
    for (const int length : {1, 35, 127, 128, 255, -1})
        expect_refused(xdr_credutl_sid_t, {ks_char_t(length), 9, {}}, wire_word(uint32_t(length)));
    for (const int count : {-1, 33, INT_MAX, INT_MIN}) {
        expect_refused(xdr_credutl_sid_credentials_t, {user, group, count, {}}, sids + wire_word(uint32_t(count)));
        expect_refused(xdr_credutl_string_credentials_t, {{}, {}, count, {}}, names + wire_word(uint32_t(count)));
    }
    expect_wire(xdr_credutl_sid_credentials_t, {user, group, 32, {}}, (sids + wire_word(32)).append(128, 0));
    expect_refused(xdr_credutl_whole_string_credentials_t, {nullptr, name, 0, nullptr}, wire_word(1024));
    credutl_auth_vellum_t vellum{};
    expect_refused(xdr_credutl_client_t, {CREDUTL_AUTH_FAMILY_VELLUM, nullptr}, wire_word(1) + empty + wire_word(256));
    expect_refused(xdr_credutl_client_t, {credutl_auth_family_t(0), &vellum}, empty);
    std::memset(&vellum.kind, 2, sizeof vellum.kind); // not a value of its type
    expect_refused(xdr_credutl_auth_vellum_t, vellum, wire_word(2));
    // A list's count is bounded by what has arrived.
    credutl_whole_credentials_t whole;
    std::string lie = (sids + wire_word(INT_MAX)).append(160, 0);
    Stream stream(lie, XDR_DECODE);
    EXPECT_TRUE(!xdr_credutl_whole_credentials_t(&stream, &whole) && whole.ngroups == 41 &&
                malloc_usable_size(whole.group_sids) < 4096);
    test::release(xdr_credutl_whole_credentials_t, whole);
    // Of texts it is the type; all others are compared in fuzz/sid_text_fuzz.cpp.
    const credutl_sid_t strange{7, 2, {0, 0, 0, 1, 3}};
    test::expect_misuse({{[&] { credutl_sid_to_str(&strange, 0, nullptr); },
                          "(type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID) failed: 'lib/ks/credutl'"}});
}

TEST(Identities, HaveNamesOf1023Bytes)
{
    const std::string longest = wire_word(1023) + std::string(1023, 'n') + '\0';
    for (const unsigned count : {0u, 27u, 32u}) {
        credutl_string_credentials_t strings;
        std::string bytes = longest + longest + wire_word(count);
        for (unsigned i = 0; i < count; ++i)
            bytes += longest;
        Stream in(bytes, XDR_DECODE);
        EXPECT_TRUE(xdr_credutl_string_credentials_t(&in, &strings));
        EXPECT_EQ(test::encode(xdr_credutl_string_credentials_t, strings), bytes);
        test::release(xdr_credutl_string_credentials_t, strings);
    }
}

} // namespace
