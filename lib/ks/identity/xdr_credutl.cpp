// The wire forms of identities.
//
// What is decoded comes from strangers: a count or a length is looked at before it is used, and a list without a bound
// is given room as its elements arrive. Every routine answers TRUE to XDR_FREE as long as anything is left to release
// behind it, so that one failed field never hides the next.
#include <korvaks/credutl.h>

#include "rpc/wire/xdr_fields.h"

#include <korvaks/ezrpc.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace {

using ks::xdr::pass;
using ks::xdr::release;

constexpr u_int name_max = 1023;
constexpr int groups_max = CREDUTL_GROUPS_MAX;

static_assert(sizeof(credutl_credentials_t) == 280 && offsetof(credutl_credentials_t, groups) == 24);
static_assert(sizeof(credutl_sid_credentials_t) == 1160 && offsetof(credutl_sid_credentials_t, group_sids) == 72);
static_assert(sizeof(credutl_whole_credentials_t) == 80 && offsetof(credutl_whole_credentials_t, group_sids) == 72);
static_assert(sizeof(credutl_string_credentials_t) == 280 && offsetof(credutl_string_credentials_t, group_names) == 24);
static_assert(sizeof(credutl_whole_string_credentials_t) == 32);
static_assert(sizeof(credutl_user_sid_t) == 56 && sizeof(credutl_group_sid_t) == 56);
static_assert(sizeof(credutl_passwd_sid_t) == 128 && offsetof(credutl_passwd_sid_t, home_dir) == 120);
static_assert(sizeof(credutl_auth_vellum_t) == 800 && offsetof(credutl_auth_vellum_t, credentials) == 520);
static_assert(std::is_standard_layout_v<credutl_auth_vellum_t> && std::is_trivially_copyable_v<credutl_auth_vellum_t>);
static_assert(sizeof(credutl_client_t) == 16);

bool_t answer(bool is_done)
{
    return is_done ? TRUE : FALSE;
}

bool moves_data(const XDR *xdrs)
{
    return xdrs->x_op == XDR_ENCODE || xdrs->x_op == XDR_DECODE;
}

bool is_operation(const XDR *xdrs)
{
    return moves_data(xdrs) || xdrs->x_op == XDR_FREE;
}

template <typename Record> void clear_when_decoding(const XDR *xdrs, Record &record)
{
    if (xdrs->x_op == XDR_DECODE)
        std::memset(&record, 0, sizeof record);
}

// A number that is checked before it is sent and before it is stored.
bool pass_checked(XDR *xdrs, int &number, bool (*is_admitted)(int))
{
    int passed = number;
    if ((xdrs->x_op != XDR_DECODE && !is_admitted(passed)) || !pass(xdrs, passed) || !is_admitted(passed))
        return false;
    number = passed;
    return true;
}

template <typename Enum> bool pass_checked(XDR *xdrs, Enum &value, bool (*is_admitted)(int))
{
    auto number = static_cast<int>(ks::xdr::word_of(value));
    if (!pass_checked(xdrs, number, is_admitted))
        return false;
    value = static_cast<Enum>(number);
    return true;
}

bool pass_id(XDR *xdrs, unsigned long &id)
{
    return xdr_u_long_as_int(xdrs, &id) != FALSE;
}

// Strings, of which NULL is sent as "": a count of 0.
bool is_sent_empty(const XDR *xdrs, const char *text)
{
    return xdrs->x_op == XDR_ENCODE && text == nullptr;
}

bool pass_name(XDR *xdrs, char *&name)
{
    return is_sent_empty(xdrs, name) ? ks::xdr::put_word(xdrs, 0) : ks::xdr::pass_string(xdrs, name, name_max);
}

bool pass_any_string(XDR *xdrs, char *&text)
{
    return xdr_ez_string8(xdrs, &text) != FALSE;
}

bool pass_text(XDR *xdrs, char *&text)
{
    return is_sent_empty(xdrs, text) ? ks::xdr::put_word(xdrs, 0) : pass_any_string(xdrs, text);
}

bool is_sid_length(int length)
{
    return length == 0 || (length >= CREDUTL_SID_LENGTH_MIN && length <= CREDUTL_SID_LENGTH_MAX);
}

bool pass_sid(XDR *xdrs, credutl_sid_t &sid)
{
    if (!moves_data(xdrs))
        return true;
    clear_when_decoding(xdrs, sid);
    ks_char_t length = sid.length;
    if (!is_sid_length(length) || !ks::xdr::pass_narrow(xdrs, length) || !is_sid_length(length))
        return false;
    sid.length = length;
    return length == 0 || (ks::xdr::pass_narrow(xdrs, sid.kind) &&
                           ks::xdr::pass_opaque(xdrs, sid.body, static_cast<u_int>(length - CREDUTL_SID_LENGTH_MIN)));
}

bool fits_record(int ngroups)
{
    return ngroups >= 0 && ngroups <= groups_max;
}

// More groups than a record holds are refused before anything is sent.
bool may_begin(const XDR *xdrs, int ngroups)
{
    return xdrs->x_op != XDR_ENCODE || fits_record(ngroups);
}

template <typename Element> using PassElement = bool (*)(XDR *, Element &);

// Groups within the record.
template <typename Element>
bool pass_groups(XDR *xdrs, int &ngroups, Element (&groups)[groups_max], PassElement<Element> pass_element)
{
    if (!pass_checked(xdrs, ngroups, fits_record))
        return false;
    for (int i = 0; i < ngroups; ++i)
        if (!pass_element(xdrs, groups[i]))
            return false;
    return true;
}

template <typename Element> bool put_array(XDR *xdrs, Element *elements, int count, PassElement<Element> pass_element)
{
    if (count < 0 || (count > 0 && elements == nullptr) || !ks::xdr::put_word(xdrs, static_cast<uint32_t>(count)))
        return false;
    for (int i = 0; i < count; ++i)
        if (!pass_element(xdrs, elements[i]))
            return false;
    return true;
}

// Room for one more than `count`; the count that is claimed bounds it and no more.
template <typename Element> bool make_room(Element *&elements, uint32_t count, uint32_t &room, uint32_t claimed)
{
    constexpr uint32_t first_room = 32;
    if (count < room)
        return true;
    const uint32_t grown = std::min(std::max(2 * room, first_room), claimed);
    auto *moved = static_cast<Element *>(std::realloc(elements, grown * sizeof(Element)));
    if (moved == nullptr)
        return false;
    elements = moved;
    room = grown;
    return true;
}

// `count` is at all times the number of elements that are there to be released.
template <typename Element> bool get_array(XDR *xdrs, Element *&elements, int &count, PassElement<Element> pass_element)
{
    uint32_t claimed = 0;
    if (!ks::xdr::get_word(xdrs, claimed) || claimed > INT_MAX)
        return false;
    uint32_t room = 0;
    for (uint32_t i = 0; i < claimed; ++i) {
        if (!make_room(elements, i, room, claimed))
            return false;
        elements[i] = {};
        ++count;
        if (!pass_element(xdrs, elements[i]))
            return false;
    }
    return true;
}

// Groups behind a pointer, as many as there are. When decoding, the record was cleared.
template <typename Element>
bool pass_array(XDR *xdrs, Element *&elements, int &count, PassElement<Element> pass_element)
{
    if (xdrs->x_op == XDR_ENCODE)
        return put_array(xdrs, elements, count, pass_element);
    if (xdrs->x_op == XDR_DECODE)
        return get_array(xdrs, elements, count, pass_element);
    for (int i = 0; elements != nullptr && i < count; ++i)
        (void)pass_element(xdrs, elements[i]); // releasing does not fail
    release(elements);
    count = 0;
    return true;
}

bool pass_string_credentials(XDR *xdrs, credutl_string_credentials_t &credentials)
{
    clear_when_decoding(xdrs, credentials);
    return may_begin(xdrs, credentials.ngroups) && pass_name(xdrs, credentials.user_name) &&
           pass_name(xdrs, credentials.group_name) &&
           pass_groups(xdrs, credentials.ngroups, credentials.group_names, pass_name);
}

// A user or a group.
template <typename Account> bool pass_account(XDR *xdrs, Account &account, unsigned long Account::*id)
{
    if (!is_operation(xdrs))
        return true;
    clear_when_decoding(xdrs, account);
    return pass_text(xdrs, account.name) && pass_id(xdrs, account.*id) && pass_sid(xdrs, account.sid);
}

// A string in an array of its own, which must have its end there.
bool pass_held(XDR *xdrs, char (&text)[CREDUTL_NAME_SIZE])
{
    if (xdrs->x_op == XDR_ENCODE && std::memchr(text, '\0', sizeof text) == nullptr)
        return false;
    char *place = text;
    return ks::xdr::pass_string(xdrs, place, sizeof text - 1);
}

bool is_vellum_kind(int kind)
{
    return kind == CREDUTL_AUTH_VELLUM_HOST || kind == CREDUTL_AUTH_VELLUM_CREDENTIALS;
}

bool pass_vellum(XDR *xdrs, credutl_auth_vellum_t &record)
{
    clear_when_decoding(xdrs, record);
    if (!pass_checked(xdrs, record.kind, is_vellum_kind))
        return false;
    if (moves_data(xdrs) && !(pass_held(xdrs, record.domain_name) && pass_held(xdrs, record.host_name)))
        return false;
    return record.kind == CREDUTL_AUTH_VELLUM_HOST ||
           xdr_credutl_string_credentials_t(xdrs, &record.credentials) != FALSE;
}

// A record behind a pointer, made when there is none to decode into.
bool pass_vellum_at(XDR *xdrs, credutl_auth_vellum_t *&record)
{
    if (xdrs->x_op == XDR_DECODE && record == nullptr)
        record = static_cast<credutl_auth_vellum_t *>(std::calloc(1, sizeof *record));
    if (record == nullptr)
        return xdrs->x_op == XDR_FREE;
    const bool is_passed = pass_vellum(xdrs, *record);
    if (xdrs->x_op == XDR_FREE)
        release(record);
    return is_passed;
}

bool is_known_family(int family)
{
    return family == CREDUTL_AUTH_FAMILY_VELLUM;
}

} // namespace

extern "C" {

bool_t xdr_credutl_uid_t(XDR *xdrs, credutl_uid_t *uid)
{
    return xdr_u_long_as_int(xdrs, uid);
}

bool_t xdr_credutl_gid_t(XDR *xdrs, credutl_gid_t *gid)
{
    return xdr_u_long_as_int(xdrs, gid);
}

bool_t xdr_credutl_sid_t(XDR *xdrs, credutl_sid_t *sid)
{
    return answer(pass_sid(xdrs, *sid));
}

bool_t xdr_credutl_credentials_t(XDR *xdrs, credutl_credentials_t *credentials)
{
    clear_when_decoding(xdrs, *credentials);
    // Kept exactly: the number of groups is not looked at, and there are 32 whatever it says.
    if (!pass_id(xdrs, credentials->uid) || !pass_id(xdrs, credentials->gid) || !pass(xdrs, credentials->ngroups))
        return FALSE;
    for (credutl_gid_t &gid : credentials->groups)
        if (!pass_id(xdrs, gid))
            return FALSE;
    return TRUE;
}

bool_t xdr_credutl_sid_credentials_t(XDR *xdrs, credutl_sid_credentials_t *credentials)
{
    if (!moves_data(xdrs))
        return TRUE;
    clear_when_decoding(xdrs, *credentials);
    return answer(may_begin(xdrs, credentials->ngroups) && pass_sid(xdrs, credentials->user_sid) &&
                  pass_sid(xdrs, credentials->group_sid) &&
                  pass_groups(xdrs, credentials->ngroups, credentials->group_sids, pass_sid));
}

bool_t xdr_credutl_whole_credentials_t(XDR *xdrs, credutl_whole_credentials_t *credentials)
{
    if (!is_operation(xdrs))
        return TRUE;
    clear_when_decoding(xdrs, *credentials);
    return answer(pass_sid(xdrs, credentials->user_sid) && pass_sid(xdrs, credentials->group_sid) &&
                  pass_array(xdrs, credentials->group_sids, credentials->ngroups, pass_sid));
}

bool_t xdr_credutl_string_credentials_t(XDR *xdrs, credutl_string_credentials_t *credentials)
{
    return answer(!is_operation(xdrs) || pass_string_credentials(xdrs, *credentials));
}

bool_t xdr_credutl_whole_string_credentials_t(XDR *xdrs, credutl_whole_string_credentials_t *credentials)
{
    if (!is_operation(xdrs))
        return TRUE;
    clear_when_decoding(xdrs, *credentials);
    return answer(ks::xdr::pass_string(xdrs, credentials->user_name, name_max) &&
                  ks::xdr::pass_string(xdrs, credentials->group_name, name_max) &&
                  pass_array(xdrs, credentials->group_names, credentials->ngroups, pass_any_string));
}

bool_t xdr_credutl_user_sid_t(XDR *xdrs, credutl_user_sid_t *user)
{
    return answer(pass_account(xdrs, *user, &credutl_user_sid_t::uid));
}

bool_t xdr_credutl_group_sid_t(XDR *xdrs, credutl_group_sid_t *group)
{
    return answer(pass_account(xdrs, *group, &credutl_group_sid_t::gid));
}

bool_t xdr_credutl_passwd_sid_t(XDR *xdrs, credutl_passwd_sid_t *account)
{
    if (!is_operation(xdrs))
        return TRUE;
    clear_when_decoding(xdrs, *account);
    return answer(xdr_credutl_user_sid_t(xdrs, &account->user) != FALSE &&
                  xdr_credutl_group_sid_t(xdrs, &account->group) != FALSE && pass_text(xdrs, account->info) &&
                  pass_text(xdrs, account->home_dir));
}

bool_t xdr_credutl_auth_vellum_t(XDR *xdrs, credutl_auth_vellum_t *record)
{
    return answer(pass_vellum(xdrs, *record));
}

bool_t xdr_credutl_auth_vellum_p_t(XDR *xdrs, credutl_auth_vellum_p_t *record)
{
    uint32_t is_there = *record != nullptr;
    if (!pass(xdrs, is_there))
        return FALSE;
    if (is_there != 0)
        return answer(pass_vellum_at(xdrs, *record));
    *record = nullptr;
    return TRUE;
}

bool_t xdr_credutl_client_t(XDR *xdrs, credutl_client_t *client)
{
    clear_when_decoding(xdrs, *client);
    if (xdrs->x_op == XDR_ENCODE && client->record == nullptr)
        return FALSE;
    return answer(pass_checked(xdrs, client->auth_family, is_known_family) && pass_vellum_at(xdrs, client->record));
}
}
