// AUTH_UNIX on the client: the caller's identity as a credential, and the short-hand one that a server may give for it.
//
// What is sent with each call is encoded ahead. Nothing is owned across a raise point: the only one is the trace, which
// comes before anything is allocated.
#include <korvaks/auth.h>

#include "base/msg_port.h"
#include "rpc/wire/auth_impl.h"
#include "rpc/wire/xdr_memory.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_warn.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

using ks::auth::here;

constexpr int groups_max = 16;
constexpr std::size_t name_size = MAX_MACHINE_NAME + 1;

// One block; the bodies of both credentials are blocks of their own from std::malloc().
struct UnixAuth {
    AUTH handle;                        // what callers have; its credential is one of the two below
    opaque_auth full;                   // all parameters
    opaque_auth short_hand;             // the server's name for them; all 0: none
    char marshalled[KS_MAX_AUTH_BYTES]; // credential and verifier
    u_int marshalled_size;
    uint32_t refresh_count;
};

// Parameters with room to decode into.
struct Parameters {
    authunix_parms values{};
    std::array<char, name_size> name{};
    std::array<gid_t, groups_max> groups{};
};

extern AUTH::auth_ops unix_ops;

UnixAuth *private_of(AUTH *auth)
{
    here.require(auth != nullptr && auth->ah_ops == &unix_ops, "auth->ah_ops == &ks_authunix_ops");
    return static_cast<UnixAuth *>(auth->ah_private);
}

u_long time_stamp()
{
    return static_cast<u_long>(ks::wall_clock().tv_sec);
}

void drop_body(opaque_auth &auth)
{
    std::free(auth.oa_base);
    auth = {};
}

// The parameters as the body of a credential; its size, or 0 when they are not admitted.
u_int encode_body(authunix_parms &parms, char (&body)[KS_MAX_AUTH_BYTES])
{
    XDR xdrs;
    ks::make_memory_stream(xdrs, body, sizeof body, XDR_ENCODE);
    return xdr_ks_authunix_parms(&xdrs, &parms) != FALSE ? XDR_GETPOS(&xdrs) : 0;
}

// Encodes anew what calls carry. When it has no room, what was encoded before stays.
bool marshal_again(UnixAuth &own)
{
    char marshalled[sizeof own.marshalled];
    const u_int size = ks::auth::marshal(own.handle, marshalled, sizeof marshalled);
    if (size == 0) {
        (void)ks_warnx("auth_none.c - Fatal marshalling problem"); // there is nowhere to report that it was not written
        return false;
    }
    std::memcpy(own.marshalled, marshalled, size);
    own.marshalled_size = size;
    return true;
}

void use_full_credential(UnixAuth &own)
{
    drop_body(own.short_hand);
    own.handle.ah_cred = own.full;
}

void adopt_short_hand(UnixAuth &own, const opaque_auth &verifier)
{
    drop_body(own.short_hand);
    XDR xdrs;
    ks::make_memory_stream(xdrs, verifier.oa_base, verifier.oa_length, XDR_DECODE);
    if (xdr_ks_opaque_auth(&xdrs, &own.short_hand) != FALSE)
        own.handle.ah_cred = own.short_hand;
    else
        use_full_credential(own);
}

bool stamp_anew(UnixAuth &own)
{
    Parameters parms;
    parms.values.aup_machname = parms.name.data();
    parms.values.aup_gids = parms.groups.data();
    XDR xdrs;
    ks::make_memory_stream(xdrs, own.full.oa_base, own.full.oa_length, XDR_DECODE);
    if (xdr_ks_authunix_parms(&xdrs, &parms.values) == FALSE)
        return false;
    parms.values.aup_time = time_stamp();
    char body[KS_MAX_AUTH_BYTES];
    const u_int size = encode_body(parms.values, body);
    if (size != own.full.oa_length)
        return false;
    std::memcpy(own.full.oa_base, body, size);
    return true;
}

extern "C" void ks_authunix_nextverf(AUTH *) {}

extern "C" int refresh(AUTH *auth, void *)
{
    return ks_authunix_refresh(auth);
}

constinit AUTH::auth_ops unix_ops = {
    ks_authunix_nextverf,           ks_authunix_marshal,           ks_authunix_validate, refresh, ks_authunix_destroy,
    ks::auth::ks_auth_pass_through, ks::auth::ks_auth_pass_through};

AUTH *refuse_for_memory()
{
    (void)ks_warnx("ks_authunix_create: out of memory"); // as above
    errno = ENOMEM;
    return nullptr;
}

AUTH *make_handle(const char *body, u_int size)
{
    auto *own = static_cast<UnixAuth *>(std::calloc(1, sizeof(UnixAuth)));
    auto *kept = static_cast<char *>(std::malloc(size));
    if (own == nullptr || kept == nullptr) {
        std::free(own);
        std::free(kept);
        return refuse_for_memory();
    }
    std::memcpy(kept, body, size);
    own->full = {AUTH_UNIX, kept, size};
    own->handle.ah_ops = &unix_ops;
    own->handle.ah_private = own;
    own->handle.ah_cred = own->full;
    here.require(marshal_again(*own), "marshal_again(*own)"); // a body that fits its area fits here
    return &own->handle;
}

void trace_cut(int count)
{
    if (count > groups_max && ks::is_traced("ks/rpc", 1))
        (void)imsg_print_shared(ks::msg_trace, nullptr, "AUTH_UNIX credential: %d of %d groups are sent\n",
                                static_cast<unsigned>(IMSG_RAW_FORMAT), groups_max, count); // nobody could be told
}

// The first groups of a process that is in more than a credential holds; their count, or -1 without memory.
int read_many_groups(std::array<gid_t, groups_max> &out_groups)
{
    for (;;) {
        const int wanted = getgroups(0, nullptr);
        here.require(wanted >= 0, "getgroups(0, NULL) >= 0");
        auto *all = static_cast<gid_t *>(std::calloc(static_cast<std::size_t>(wanted) + 1, sizeof(gid_t)));
        if (all == nullptr)
            return -1;
        const int count = getgroups(wanted + 1, all);
        const auto first = static_cast<std::size_t>(std::clamp(count, 0, groups_max));
        std::copy_n(all, first, out_groups.begin());
        std::free(all);
        if (count >= 0)
            return count;
        here.require(errno == EINVAL, "getgroups(wanted, all) >= 0"); // another thread has joined more meanwhile
    }
}

int read_groups(std::array<gid_t, groups_max> &out_groups)
{
    const int count = getgroups(groups_max, out_groups.data());
    return count >= 0 ? count : read_many_groups(out_groups);
}

} // namespace

extern "C" {

AUTH *ks_authunix_create(const char *machname, uid_t uid, gid_t gid, int len, const gid_t *gids)
{
    here.require(len == 0 || (len > 0 && gids != nullptr), "len == 0 || (len > 0 && gids != NULL)");
    trace_cut(len);
    authunix_parms parms{};
    parms.aup_time = time_stamp();
    parms.aup_machname = const_cast<char *>(machname);
    parms.aup_uid = uid;
    parms.aup_gid = gid;
    parms.aup_len = static_cast<u_int>(std::min(len, groups_max));
    parms.aup_gids = const_cast<gid_t *>(gids);
    char body[KS_MAX_AUTH_BYTES];
    const u_int size = encode_body(parms, body);
    here.require(size != 0, "xdr_ks_authunix_parms(&xdrs, &aup)");
    return make_handle(body, size);
}

AUTH *ks_authunix_create_default(void)
{
    char name[name_size];
    here.require(gethostname(name, sizeof name) == 0, "gethostname(name, sizeof name) == 0");
    name[sizeof name - 1] = '\0';
    std::array<gid_t, groups_max> groups{};
    const int count = read_groups(groups);
    if (count < 0)
        return refuse_for_memory();
    trace_cut(count);
    return ks_authunix_create(name, geteuid(), getegid(), std::min(count, groups_max), groups.data());
}

int ks_authunix_marshal(AUTH *auth, XDR *xdrs)
{
    UnixAuth *own = private_of(auth);
    return XDR_PUTBYTES(xdrs, own->marshalled, own->marshalled_size);
}

int ks_authunix_validate(AUTH *auth, opaque_auth *verifier)
{
    UnixAuth *own = private_of(auth);
    if (verifier->oa_flavor != AUTH_SHORT)
        return TRUE;
    adopt_short_hand(*own, *verifier);
    if (!marshal_again(*own)) {
        use_full_credential(*own);
        (void)marshal_again(*own); // it has been encoded before
    }
    return TRUE;
}

int ks_authunix_refresh(AUTH *auth)
{
    UnixAuth *own = private_of(auth);
    if (own->handle.ah_cred.oa_base == own->full.oa_base)
        return FALSE;
    ++own->refresh_count;
    const bool is_stamped = stamp_anew(*own);
    use_full_credential(*own);
    (void)marshal_again(*own); // said where it fails
    return is_stamped ? TRUE : FALSE;
}

void ks_authunix_destroy(AUTH *auth)
{
    UnixAuth *own = private_of(auth);
    drop_body(own->full);
    drop_body(own->short_hand);
    std::free(own);
}
}
