// Who calls, as the server sees it: the credential of a call in the product's own flavour and in AUTH_UNIX, and what of
// it is believed.
//
// All of it is a stranger's claim. A body is looked at without a name service and without memory, since checkers run
// under the lock of their registry; names are looked up when a dispatch routine asks who calls.
#include <korvaks/credutl.h>

#include "identity/credutl_impl.h"
#include "rpc/wire/xdr_fields.h"
#include "rpc/wire/xdr_memory.h"

#include <korvaks/auth.h>
#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

#include <cstdio>
#include <cstring>

#include <ifaddrs.h>
#include <netinet/in.h>

namespace {

using ks::credutl::here;

// --- The record of a call ---

constexpr int name_max = 1023;

// What a call's record becomes, in the room that `rq_clntcred` points to. A text and its NUL take no more than the
// length and the padded bytes that they come from.
struct CallRecord {
    uint32_t kind;
    uint32_t ngroups;
    char texts[KS_SVC_CREDENTIAL_SIZE - 2 * sizeof(uint32_t)]; // behind each other, each with its NUL
};
static_assert(sizeof(CallRecord) <= KS_SVC_CREDENTIAL_SIZE && KS_MAX_AUTH_BYTES <= KS_SVC_CREDENTIAL_SIZE);

// The texts of a record, as they are read.
struct Reader {
    XDR xdrs;
    CallRecord &out;
    std::size_t used;
};

// A NUL within would make another name of it.
bool read_text(Reader &reader, uint32_t size_max)
{
    uint32_t length = 0;
    if (!ks::xdr::get_word(&reader.xdrs, length) || length > size_max)
        return false;
    char *text = reader.out.texts + reader.used;
    if (reader.used + length >= sizeof reader.out.texts || !ks::xdr::get_opaque(&reader.xdrs, text, length) ||
        std::memchr(text, '\0', length) != nullptr)
        return false;
    text[length] = '\0';
    reader.used += length + 1;
    return true;
}

bool read_credentials(Reader &reader)
{
    if (!read_text(reader, name_max) || !read_text(reader, name_max) ||
        !ks::xdr::get_word(&reader.xdrs, reader.out.ngroups) || reader.out.ngroups > CREDUTL_GROUPS_MAX)
        return false;
    for (uint32_t i = 0; i < reader.out.ngroups; ++i)
        if (!read_text(reader, name_max))
            return false;
    return true;
}

// The whole of a body, and nothing behind it.
bool read_record(CallRecord &out, const opaque_auth &credential)
{
    Reader reader{{}, out, 0};
    ks::make_memory_stream(reader.xdrs, credential.oa_base, credential.oa_length, XDR_DECODE);
    uint32_t family = 0;
    out.ngroups = 0;
    if (!ks::xdr::get_word(&reader.xdrs, family) || family != CREDUTL_AUTH_FAMILY_VELLUM ||
        !ks::xdr::get_word(&reader.xdrs, out.kind) || out.kind > CREDUTL_AUTH_VELLUM_CREDENTIALS ||
        !read_text(reader, CREDUTL_NAME_SIZE - 1) || !read_text(reader, CREDUTL_NAME_SIZE - 1))
        return false;
    if (out.kind == CREDUTL_AUTH_VELLUM_CREDENTIALS && !read_credentials(reader))
        return false;
    return XDR_GETPOS(&reader.xdrs) == credential.oa_length;
}

extern "C" auth_stat vellum_check(svc_req *request, rpc_msg *)
{
    here.require(request->rq_clntcred != nullptr, "request->rq_clntcred != NULL");
    auto &record = *static_cast<CallRecord *>(request->rq_clntcred);
    return read_record(record, request->rq_cred) ? AUTH_OK : AUTH_BADCRED;
}

// The names again, one after the other.
struct Names {
    const char *at;
    char *next()
    {
        const char *name = at;
        at += std::strlen(at) + 1;
        return const_cast<char *>(name); // records have names that may be written; nobody does
    }
};

// --- What is believed ---

char ascii_lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// As host names are compared, whatever the locale is.
bool is_same_host(const char *a, const char *b)
{
    while (*a != '\0' && ascii_lower(*a) == ascii_lower(*b)) {
        ++a;
        ++b;
    }
    return ascii_lower(*a) == ascii_lower(*b);
}

bool is_own_host_name(const char *host)
{
    char own[CREDUTL_NAME_SIZE];
    return sysutl_myhostname(own, sizeof own) == 0 && is_same_host(host, own);
}

// An IPv4 address in the form of IPv6 as what it is.
sockaddr_storage plain_address(const sockaddr *addr)
{
    sockaddr_storage plain{};
    auto *copy = reinterpret_cast<sockaddr *>(&plain);
    if (sysutl_is_addr_v4mapped(addr) == 0) {
        (void)sysutl_copy_sockaddr(copy, addr); // of a family that is not known nothing is copied
        return plain;
    }
    sockaddr_in in4{};
    in4.sin_family = AF_INET;
    uint8_t host[4];
    (void)sysutl_get_v4mapped_addr(addr, host); // it is one
    std::memcpy(&in4.sin_addr, host, sizeof host);
    std::memcpy(&plain, &in4, sizeof in4);
    return plain;
}

bool is_loopback(const sockaddr_storage &addr)
{
    constexpr unsigned loopback_net = 127;
    constexpr unsigned host_bits = 24;
    if (addr.ss_family == AF_INET)
        return ntohl(reinterpret_cast<const sockaddr_in &>(addr).sin_addr.s_addr) >> host_bits == loopback_net;
    return addr.ss_family == AF_INET6 &&
           IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6 &>(addr).sin6_addr) != 0;
}

// Addresses that are valid on one link only are the same only on the same link.
bool is_same_scope(const sockaddr *a, const sockaddr *b)
{
    return a->sa_family != AF_INET6 || reinterpret_cast<const sockaddr_in6 *>(a)->sin6_scope_id ==
                                           reinterpret_cast<const sockaddr_in6 *>(b)->sin6_scope_id;
}

bool is_of_an_interface(const sockaddr *addr)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    const ifaddrs *at = list;
    while (at != nullptr && !(at->ifa_addr != nullptr && sysutl_sockaddr_host_equal(at->ifa_addr, addr) != 0 &&
                              is_same_scope(at->ifa_addr, addr)))
        at = at->ifa_next;
    freeifaddrs(list);
    return at != nullptr;
}

bool comes_from_own_address(const svc_req &request)
{
    const netbuf &remote = request.rq_xprt->xp_rtaddr;
    const auto *addr = static_cast<const sockaddr *>(remote.buf);
    if (addr == nullptr || remote.len < sizeof(sa_family_t))
        return false;
    const std::size_t size = sysutl_sockaddr_size(addr);
    return size != 0 && remote.len >= size && credutl_is_own_address(addr) != 0;
}

// --- AUTH_UNIX ---

struct Place {
    char domain[CREDUTL_NAME_SIZE];
    char host[CREDUTL_NAME_SIZE];
};

const authunix_parms &parms_of(const svc_req &request)
{
    return *static_cast<const authunix_parms *>(request.rq_clntcred);
}

void crack_place(const svc_req &request, Place &out)
{
    credutl_crack_authunix_machname(parms_of(request).aup_machname, out.domain, sizeof out.domain, out.host,
                                    sizeof out.host);
}

// Kept exactly: by its name alone; whoever calls chooses that name.
bool is_trusted_by_name(uid_t uid, const Place &place)
{
    return uid != 0 || is_own_host_name(place.host);
}

int status_of_flavour(int flavour)
{
    if (flavour == AUTH_UNIX)
        return CREDUTL_CALLER_TOLD;
    return flavour == AUTH_NONE ? CREDUTL_CALLER_UNTOLD : CREDUTL_CALLER_UNKNOWN_FLAVOUR;
}

// Users and groups of AUTH_UNIX by their numbers; 16 groups at most.
void take_numbers(const authunix_parms &parms, credutl_sid_credentials_t &out)
{
    static_assert(NGRPS <= CREDUTL_GROUPS_MAX);
    credutl_uid_to_sid(parms.aup_uid, &out.user_sid);
    credutl_gid_to_sid(parms.aup_gid, &out.group_sid);
    out.ngroups = static_cast<int>(std::min<u_int>(parms.aup_len, NGRPS));
    for (int i = 0; i < out.ngroups; ++i)
        credutl_gid_to_sid(parms.aup_gids[i], &out.group_sids[i]);
}

void crack_unix(const svc_req &request, credutl_sid_credentials_t &out, Place &place)
{
    const authunix_parms &parms = parms_of(request);
    crack_place(request, place);
    credutl_sid_credentials_t told = ks::credutl::nobody();
    if (is_trusted_by_name(parms.aup_uid, place) && credutl_interpret_client_uid(parms.aup_uid, &told) == 0)
        take_numbers(parms, told);
    out = told;
}

void give_name(const char *name, char *buf, std::size_t size)
{
    if (buf != nullptr)
        (void)strutl_cpy_buf(buf, name, size); // cut to the room
}

// --- Both flavours ---

// Texts from outside end in logs and on terminals, where they must not begin a line or a command of their own.
void make_printable(char *text)
{
    constexpr unsigned char first_printable = 0x20;
    constexpr char delete_char = 0x7F;
    for (; *text != '\0'; ++text)
        if (static_cast<unsigned char>(*text) < first_printable || *text == delete_char)
            *text = '?';
}

void set_place(const char *domain, const char *host, credutl_caller_t &out)
{
    // The longest name fits.
    (void)strutl_cpy_buf(out.domain_name, domain, sizeof out.domain_name);
    (void)strutl_cpy_buf(out.host_name, host, sizeof out.host_name);
    make_printable(out.domain_name);
    make_printable(out.host_name);
}

void set_claim(const char *claim, credutl_caller_t &out)
{
    (void)strutl_cpy_buf(out.claimed_user, claim, sizeof out.claimed_user); // one that does not fit is nobody's name
    make_printable(out.claimed_user);
}

// What a user is taken for who is none, or who may not be root from where the call comes.
void believe(const svc_req &request, const Place &place, const credutl_sid_credentials_t &told, credutl_caller_t &out)
{
    if (!ks::credutl::is_unix_sid(told.user_sid, CREDUTL_SID_UNIX_UID))
        return;
    if (credutl_is_privileged_sid(&told.user_sid) != 0 &&
        !(is_own_host_name(place.host) && comes_from_own_address(request)))
        return;
    out.credentials = told;
}

int identify_unix(const svc_req &request, credutl_caller_t &out)
{
    Place place;
    credutl_sid_credentials_t told;
    crack_unix(request, told, place);
    believe(request, place, told, out);
    char claim[CREDUTL_SID_STR_SIZE];
    (void)std::snprintf(claim, sizeof claim, "UNIX:UID-%d", static_cast<int>(parms_of(request).aup_uid)); // it fits
    set_place(place.domain, place.host, out);
    set_claim(claim, out);
    return CREDUTL_CALLER_TOLD;
}

int identify_vellum(const svc_req &request, credutl_caller_t &out)
{
    const auto &record = *static_cast<const CallRecord *>(request.rq_clntcred);
    Names names{record.texts};
    Place place;
    (void)strutl_cpy_buf(place.domain, names.next(), sizeof place.domain); // the checker has seen that it fits
    (void)strutl_cpy_buf(place.host, names.next(), sizeof place.host);     // the same
    set_place(place.domain, place.host, out);
    if (record.kind == CREDUTL_AUTH_VELLUM_HOST)
        return CREDUTL_CALLER_UNTOLD;
    credutl_string_credentials_t strings{names.next(), names.next(), static_cast<int>(record.ngroups), {}};
    for (uint32_t i = 0; i < record.ngroups; ++i)
        strings.group_names[i] = names.next();
    set_claim(strings.user_name, out);
    credutl_sid_credentials_t told;
    if (credutl_string_credentials_to_sid_credentials(&strings, &told) != 0)
        return CREDUTL_CALLER_ERROR;
    believe(request, place, told, out);
    return CREDUTL_CALLER_TOLD;
}

} // namespace

extern "C" {

int credutl_interpret_client_uid(credutl_uid_t uid, credutl_sid_credentials_t *out_creds)
{
    const auto number = static_cast<uint32_t>(uid);
    if (number != ks::credutl::nobody_id && number != ks::credutl::dontcare_id && ks::credutl::is_system_id(uid))
        return 0;
    *out_creds = ks::credutl::nobody();
    return 1;
}

int credutl_crack_rpc_auth(const svc_req *request, credutl_sid_credentials_t *out_creds, char *domain,
                           std::size_t domain_size, char *host, std::size_t host_size)
{
    Place place{};
    *out_creds = ks::credutl::nobody();
    const int status = status_of_flavour(request->rq_cred.oa_flavor);
    if (status == CREDUTL_CALLER_TOLD)
        crack_unix(*request, *out_creds, place);
    give_name(place.domain, domain, domain_size);
    give_name(place.host, host, host_size);
    return status;
}

int credutl_crack_whole_rpc_auth(const svc_req *request, stg_area *area, credutl_whole_credentials_t *out_creds,
                                 char *domain, std::size_t domain_size, char *host, std::size_t host_size)
{
    credutl_sid_credentials_t told;
    const int status = credutl_crack_rpc_auth(request, &told, domain, domain_size, host, host_size);
    if (credutl_sid_credentials_to_whole_credentials(&told, area, out_creds) == 0)
        return status;
    const credutl_sid_credentials_t nobody = ks::credutl::nobody();
    *out_creds = {nobody.user_sid, nobody.group_sid, 0, nullptr};
    return CREDUTL_CALLER_ERROR;
}

int credutl_is_own_address(const sockaddr *addr)
{
    const sockaddr_storage plain = plain_address(addr);
    return is_loopback(plain) || is_of_an_interface(reinterpret_cast<const sockaddr *>(&plain)) ? 1 : 0;
}

int credutl_svc_auth_register(void)
{
    return ks_svc_auth_reg(CREDUTL_AUTH_FLAVOUR, vellum_check);
}

int credutl_identify_caller(const svc_req *request, credutl_caller_t *out_caller)
{
    *out_caller = {};
    out_caller->credentials = ks::credutl::nobody();
    const int flavour = request->rq_cred.oa_flavor;
    if (flavour == AUTH_UNIX)
        return identify_unix(*request, *out_caller);
    return flavour == CREDUTL_AUTH_FLAVOUR ? identify_vellum(*request, *out_caller) : status_of_flavour(flavour);
}
}
