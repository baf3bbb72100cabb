// The server's half of authentication: a call's credential is checked by its flavour.
//
// All lengths of a credential come from outside; each is held against what is left of the body before anything is read.
#include <korvaks/auth.h>

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "rpc/wire/xdr_memory.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr ks::AssertPath here{"lib/ks/rpc/svc_auth"};

constexpr u_int groups_max = 16;

// What a call's AUTH_UNIX credential becomes, in the room that `rq_clntcred` points to.
struct UnixCredential {
    authunix_parms parms;
    char name[MAX_MACHINE_NAME + 1];
    gid_t groups[groups_max];
};
static_assert(sizeof(UnixCredential) <= KS_SVC_CREDENTIAL_SIZE);

// --- Credentials that are refused ---

// Strangers can have as many refused as they like. All are counted; of the lines about them each minute prints some, as
// standard output may well be a log.
constexpr std::uint64_t lines_per_window = 32;
constexpr std::int64_t window_s = 60;

constinit std::atomic<std::uint64_t> refused{0};
constinit std::atomic<std::int64_t> window_start_s{0}; // CLOCK_MONOTONIC
constinit std::atomic<std::uint64_t> lines_in_window{0};

std::int64_t monotonic_s()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    return now.tv_sec;
}

// Whoever finds the window over begins the next one, and tells what the last one held back.
void begin_window_if_over()
{
    std::int64_t start = window_start_s.load();
    const std::int64_t now = monotonic_s();
    if (now - start < window_s || !window_start_s.compare_exchange_strong(start, now))
        return;
    const std::uint64_t lines = lines_in_window.exchange(0);
    if (lines > lines_per_window)
        std::printf("bad auth_len: %llu more were held back\n",
                    static_cast<unsigned long long>(lines - lines_per_window));
}

// The line "bad auth_len ...", of which standard output takes what it can; nobody could be told.
void report_bad_length(u_int group_count, u_int name_bytes, u_int body_bytes)
{
    begin_window_if_over();
    if (lines_in_window.fetch_add(1) < lines_per_window)
        std::printf("bad auth_len gid %d str %ld auth %u\n", static_cast<int>(group_count),
                    static_cast<long>(name_bytes), body_bytes);
}

auth_stat refuse()
{
    ++refused;
    return AUTH_BADCRED;
}

// --- AUTH_UNIX ---

constexpr u_int fixed_bytes = 5 * BYTES_PER_XDR_UNIT; // stamp, length of the name, uid, gid, number of groups

uint32_t word_at(const int32_t *body, u_int index)
{
    return ntohl(static_cast<uint32_t>(body[index]));
}

// Reads a body that lies in place.
auth_stat check_in_place(UnixCredential &out, const int32_t *body, u_int body_bytes)
{
    const u_int name_length = body_bytes >= 2 * BYTES_PER_XDR_UNIT ? word_at(body, 1) : 0;
    if (name_length > MAX_MACHINE_NAME)
        return refuse();
    const u_int name_bytes = RNDUP(name_length);
    const u_int behind_name = 2 + name_bytes / BYTES_PER_XDR_UNIT; // where uid, gid and the groups stand
    const bool has_count = fixed_bytes + name_bytes <= body_bytes;
    const u_int group_count = has_count ? word_at(body, behind_name + 2) : 0;
    if (group_count > groups_max)
        return refuse();
    if (fixed_bytes + group_count * BYTES_PER_XDR_UNIT + name_bytes > body_bytes) {
        report_bad_length(group_count, name_bytes, body_bytes);
        return refuse();
    }
    out.parms.aup_time = word_at(body, 0);
    std::memcpy(out.name, body + 2, name_length);
    out.name[name_length] = '\0';
    out.parms.aup_uid = word_at(body, behind_name);
    out.parms.aup_gid = word_at(body, behind_name + 1);
    out.parms.aup_len = group_count;
    for (u_int i = 0; i < group_count; ++i)
        out.groups[i] = word_at(body, behind_name + 3 + i);
    return AUTH_OK;
}

// Everything is decoded into the caller's room, so that a failure leaves nothing to free.
auth_stat check_by_fields(UnixCredential &out, XDR &xdrs)
{
    if (xdr_ks_authunix_parms(&xdrs, &out.parms) == FALSE)
        return refuse();
    out.parms.aup_time = static_cast<uint32_t>(out.parms.aup_time);
    return AUTH_OK;
}

auth_stat check_unix(svc_req &request, const opaque_auth &credential)
{
    here.require(request.rq_clntcred != nullptr, "request->rq_clntcred != NULL");
    auto &out = *static_cast<UnixCredential *>(request.rq_clntcred);
    out.parms.aup_machname = out.name;
    out.parms.aup_gids = out.groups;
    XDR xdrs;
    ks::make_memory_stream(xdrs, credential.oa_base, credential.oa_length, XDR_DECODE);
    const int32_t *body = XDR_INLINE(&xdrs, credential.oa_length);
    return body != nullptr ? check_in_place(out, body, credential.oa_length) : check_by_fields(out, xdrs);
}

// --- Further flavours ---

struct Flavour {
    int number;
    ks_svc_auth_checker checker;
    Flavour *next;
};

constinit Flavour *ks_Auths = nullptr; // newest first; guarded by ks_authsvc_lock

const Flavour *find_flavour(int number)
{
    const Flavour *at = ks_Auths;
    while (at != nullptr && at->number != number)
        at = at->next;
    return at;
}

auth_stat check_further(svc_req *request, rpc_msg *message)
{
    const ks::IoLockGuard lock(ks::ks_authsvc_lock); // the checker may read and wait
    const Flavour *flavour = find_flavour(request->rq_cred.oa_flavor);
    // Kept exactly: the checker runs under the lock, so that no two run at once.
    return flavour != nullptr ? flavour->checker(request, message) : AUTH_REJECTEDCRED;
}

bool is_built_in(int number)
{
    return number >= AUTH_NONE && number <= AUTH_SHORT;
}

} // namespace

extern "C" {

auth_stat _ks_authenticate(svc_req *request, rpc_msg *message)
{
    request->rq_cred = message->rm_call.cb_cred;
    request->rq_xprt->xp_verf.oa_flavor = AUTH_NONE;
    request->rq_xprt->xp_verf.oa_length = 0;
    switch (request->rq_cred.oa_flavor) {
    case AUTH_NONE:
        return AUTH_OK;
    case AUTH_UNIX:
        return check_unix(*request, request->rq_cred);
    case AUTH_SHORT:
        return AUTH_REJECTEDCRED; // none was ever given out
    default:
        return check_further(request, message);
    }
}

int ks_svc_auth_reg(int flavour, ks_svc_auth_checker checker)
{
    here.require(checker != nullptr, "checker != NULL");
    if (is_built_in(flavour))
        return 1;
    auto *added = static_cast<Flavour *>(std::malloc(sizeof(Flavour)));
    const ks::LockGuard lock(ks::ks_authsvc_lock);
    if (find_flavour(flavour) != nullptr) {
        std::free(added);
        return 1;
    }
    if (added == nullptr)
        return -1;
    *added = {flavour, checker, ks_Auths};
    ks_Auths = added;
    return 0;
}

uint64_t ks_svc_auth_refused(void)
{
    return refused.load();
}
}
