// The layout of security identifiers and their text.
#include <korvaks/credutl.h>

#include "identity/credutl_impl.h"

#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

using ks::credutl::here;

// Of a UNIX identity.
constexpr int unix_length = 7;
constexpr std::size_t type_place = 4;

static_assert(std::is_standard_layout_v<credutl_sid_t> && std::is_trivially_copyable_v<credutl_sid_t>);
static_assert(sizeof(credutl_sid_t) == 34 && offsetof(credutl_sid_t, length) == 0 &&
              offsetof(credutl_sid_t, kind) == 1 && offsetof(credutl_sid_t, body) == 2);

uint32_t unix_number(const credutl_sid_t &sid)
{
    uint32_t number;
    std::memcpy(&number, sid.body, sizeof number);
    return __builtin_bswap32(number);
}

credutl_sid_t bodiless_sid(int kind)
{
    return {CREDUTL_SID_LENGTH_MIN, static_cast<ks_char_t>(kind), {}};
}

credutl_sid_t sid_of(unsigned long id, int type)
{
    const auto number = static_cast<uint32_t>(id);
    if (number == ks::credutl::nobody_id || !ks::credutl::is_system_id(id))
        return bodiless_sid(CREDUTL_SID_NOBODY);
    if (number == ks::credutl::dontcare_id)
        return bodiless_sid(CREDUTL_SID_DONTCARE);
    credutl_sid_t sid{unix_length, CREDUTL_SID_UNIX, {}};
    const uint32_t in_order = __builtin_bswap32(number);
    std::memcpy(sid.body, &in_order, sizeof in_order);
    sid.body[type_place] = static_cast<unsigned char>(type);
    return sid;
}

unsigned long id_of(const credutl_sid_t &sid, int type)
{
    if (sid.length != 0 && sid.kind == CREDUTL_SID_DONTCARE)
        return ks::credutl::dontcare_id;
    return ks::credutl::is_unix_sid(sid, type) ? unix_number(sid) : ks::credutl::nobody_id;
}

const char *unix_type_name(const credutl_sid_t &sid)
{
    const int type = sid.body[type_place];
    // Kept exactly: an identity of another type, which a stranger may have sent, ends the process here.
    here.require(type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID,
                 "type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID");
    return type == CREDUTL_SID_UNIX_UID ? "UID" : "GID";
}

// A length that no decoder lets through is cut to what there is.
std::size_t body_size(const credutl_sid_t &sid)
{
    constexpr int body_max = CREDUTL_SID_BODY_MAX;
    return static_cast<std::size_t>(std::clamp(sid.length - 2, 0, body_max));
}

int write_foreign(const credutl_sid_t &sid, char (&text)[CREDUTL_SID_STR_SIZE])
{
    constexpr int digits_per_byte = 2;
    int length = std::snprintf(text, sizeof text, "SID:%d.", sid.kind);
    for (std::size_t i = 0; i < body_size(sid); ++i, length += digits_per_byte)
        (void)std::snprintf(text + length, digits_per_byte + 1, "%02x", static_cast<unsigned>(sid.body[i])); // it fits
    return length;
}

// "-128" and all of a body, which is far from the 184 characters that are promised.
static_assert(sizeof "SID:-128." + std::size_t{2} * CREDUTL_SID_BODY_MAX <= CREDUTL_SID_STR_SIZE);

int write_text(const credutl_sid_t &sid, char (&text)[CREDUTL_SID_STR_SIZE])
{
    if (sid.kind == CREDUTL_SID_NOBODY)
        return std::snprintf(text, sizeof text, "NOBODY");
    if (sid.kind == CREDUTL_SID_DONTCARE)
        return std::snprintf(text, sizeof text, "DONTCARE");
    if (sid.kind == CREDUTL_SID_UNIX && sid.length == unix_length)
        return std::snprintf(text, sizeof text, "%s%s-%d", "UNIX:", unix_type_name(sid),
                             static_cast<int32_t>(unix_number(sid)));
    return write_foreign(sid, text);
}

} // namespace

namespace ks::credutl {

bool is_unix_sid(const credutl_sid_t &sid, int type)
{
    return sid.kind == CREDUTL_SID_UNIX && sid.length == unix_length && sid.body[type_place] == type;
}

credutl_sid_credentials_t nobody()
{
    return {bodiless_sid(CREDUTL_SID_NOBODY), bodiless_sid(CREDUTL_SID_NOBODY), 0, {}};
}

} // namespace ks::credutl

extern "C" {

char *credutl_sid_to_str(const credutl_sid_t *sid, std::size_t size, char *buf)
{
    char text[CREDUTL_SID_STR_SIZE];
    const auto text_size = static_cast<std::size_t>(write_text(*sid, text)) + 1;
    if (text_size <= size)
        std::memcpy(buf, text, text_size);
    else if (size > 0)
        buf[0] = '\0';
    return buf;
}

int credutl_sid_eq(const credutl_sid_t *a, const credutl_sid_t *b)
{
    if (a->length != b->length)
        return 0;
    return a->length == 0 || (a->kind == b->kind && std::memcmp(a->body, b->body, body_size(*a)) == 0) ? 1 : 0;
}

void credutl_uid_to_sid(credutl_uid_t uid, credutl_sid_t *out_sid)
{
    *out_sid = sid_of(uid, CREDUTL_SID_UNIX_UID);
}

void credutl_gid_to_sid(credutl_gid_t gid, credutl_sid_t *out_sid)
{
    *out_sid = sid_of(gid, CREDUTL_SID_UNIX_GID);
}

credutl_uid_t credutl_sid_to_uid(const credutl_sid_t *sid)
{
    return id_of(*sid, CREDUTL_SID_UNIX_UID);
}

credutl_gid_t credutl_sid_to_gid(const credutl_sid_t *sid)
{
    return id_of(*sid, CREDUTL_SID_UNIX_GID);
}
}
