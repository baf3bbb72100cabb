// The identity of the process: read, changed, and asked about.
//
// What is printed about a failure is printed when nothing is owned any more, since printing may jump away.
#include <korvaks/credutl.h>

#include "base/msg_port.h"
#include "identity/credutl_impl.h"
#include "identity/credutl_msg.h"

#include <korvaks/imsg.h>

#include <array>
#include <cstdlib>

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

using ks::credutl::held_groups;
using ks::credutl::here;

constexpr int groups_max = CREDUTL_GROUPS_MAX;

template <typename Id> Id *make_list(int count)
{
    auto *list = static_cast<Id *>(std::malloc((static_cast<std::size_t>(count) + 1) * sizeof(Id))); // never of 0 bytes
    if (list == nullptr)
        errno = ENOMEM;
    return list;
}

// --- Reading ---

// All groups of the process, in a block of their own; NULL, with errno, when the system does not tell.
gid_t *read_groups(int &out_count)
{
    const int count = getgroups(0, nullptr);
    gid_t *list = count >= 0 ? make_list<gid_t>(count) : nullptr;
    if (list == nullptr)
        return nullptr;
    out_count = getgroups(count + 1, list);
    if (out_count >= 0)
        return list;
    const ks::ErrnoSaver saver;
    std::free(list);
    return nullptr;
}

// The first groups of the process, as many as a record holds; their count, or -1.
int read_first_groups(std::array<credutl_gid_t, groups_max> &out_groups)
{
    int count = 0;
    gid_t *list = read_groups(count);
    if (list == nullptr)
        return -1;
    count = std::min(count, groups_max);
    std::copy_n(list, count, out_groups.begin());
    std::free(list);
    return count;
}

// --- Changing ---

// What the system refused, and why; nothing with an error of 0.
struct Refusal {
    credutl_msg message;
    int id;
    int error;
};

struct IdCalls {
    int (*set_group)(gid_t);
    int (*set_user)(uid_t);
};

bool change_id(unsigned long id, int (*set)(unsigned))
{
    errno = EINVAL;
    const bool is_changed = ks::credutl::is_system_id(id) && set(static_cast<unsigned>(id)) == 0;
    const ks::ErrnoSaver saver;
    // A change of identity takes it away, and with it core files and debuggers. What could fail here is not documented.
    (void)prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
    return is_changed;
}

// Groups first, the user last: who is no longer privileged cannot change the others.
Refusal change_identity(const credutl_credentials_t &to, const gid_t *groups, int count, const IdCalls &calls)
{
    if (setgroups(static_cast<std::size_t>(count), groups) != 0)
        return {credutl_msg_setgroups_failed, 0, errno};
    if (!change_id(to.gid, calls.set_group))
        return {credutl_msg_setgid_failed, static_cast<int>(to.gid), errno};
    if (!change_id(to.uid, calls.set_user))
        return {credutl_msg_setuid_failed, static_cast<int>(to.uid), errno};
    return {};
}

Refusal change_with_list(const credutl_credentials_t &to, gid_t *list, int count, const IdCalls &calls)
{
    const credutl_gid_t *end = to.groups + count;
    if (!std::all_of(to.groups, end, ks::credutl::is_system_id))
        return {credutl_msg_setgroups_failed, 0, EINVAL};
    std::transform(to.groups, end, list, [](credutl_gid_t gid) { return static_cast<gid_t>(gid); });
    return change_identity(to, list, count, calls);
}

// With errno behind it, as printing keeps it.
int report(const Refusal &refusal)
{
    if (refusal.error == 0)
        return 0;
    errno = refusal.error;
    const char *reason = imsg_strerror(refusal.error);
    if (refusal.message == credutl_msg_setgroups_failed)
        (void)imsg_print(ks::msg_error, &_credutl_ks_msg_table, refusal.message, reason); // the result says it too
    else
        (void)imsg_print(ks::msg_error, &_credutl_ks_msg_table, refusal.message, refusal.id, reason); // the same
    return 1;
}

int report_unread_groups()
{
    (void)imsg_print(ks::msg_error, &_credutl_ks_msg_table, credutl_msg_getgroups_failed,
                     imsg_strerror(errno)); // the result says it too
    return 1;
}

} // namespace

extern "C" {

int credutl_init_credentials_throttled(int maxgroups, credutl_uid_t uid, credutl_gid_t gid, int ngroup,
                                       const credutl_gid_t *groups, credutl_uid_t *uid_out, credutl_gid_t *gid_out,
                                       int *ngroups_out, credutl_gid_t *groups_out)
{
    here.require(ngroup >= 0, "ngroup >= 0");
    const int count = maxgroups >= 0 ? std::min(maxgroups, ngroup) : ngroup;
    auto *scratch = make_list<credutl_gid_t>(count);
    if (scratch == nullptr)
        return 1;
    *uid_out = uid;
    *gid_out = gid;
    here.require(maxgroups < 0 || ngroup <= maxgroups, "ngroup <= maxgroups");
    credutl_gid_t *end = std::remove_copy(groups, groups + count, scratch, gid);
    std::sort(scratch, end);
    *ngroups_out = static_cast<int>(std::unique_copy(scratch, end, groups_out) - groups_out);
    std::free(scratch);
    return 0;
}

int credutl_get_credentials(credutl_credentials_t *creds)
{
    std::array<credutl_gid_t, groups_max> groups{};
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    const int count = read_first_groups(groups);
    if (count < 0)
        return report_unread_groups();
    return credutl_init_credentials_throttled(groups_max, uid, gid, count, groups.data(), &creds->uid, &creds->gid,
                                              &creds->ngroups, creds->groups);
}

int credutl_set_credentials(const credutl_credentials_t *creds)
{
    const int count = held_groups(creds->ngroups);
    auto *list = make_list<gid_t>(count);
    if (list == nullptr)
        return 1;
    const Refusal refusal = change_with_list(*creds, list, count, {setgid, setuid});
    std::free(list);
    return report(refusal);
}

int credutl_set_effective_credentials(credutl_credentials_t *creds)
{
    // Kept exactly: too large a count is cut in the caller's record here, and only here.
    creds->ngroups = std::min(creds->ngroups, groups_max);
    std::array<gid_t, groups_max> list{};
    return report(change_with_list(*creds, list.data(), held_groups(creds->ngroups), {setegid, seteuid}));
}

int credutl_has_group(credutl_gid_t gid, const credutl_credentials_t *creds)
{
    const credutl_gid_t *end = creds->groups + held_groups(creds->ngroups);
    return creds->gid == gid || std::find(creds->groups, end, gid) != end ? 1 : 0;
}

int credutl_has_group_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *creds)
{
    const auto is_same = [sid](const credutl_sid_t &group) { return credutl_sid_eq(sid, &group) != 0; };
    const credutl_sid_t *end = creds->group_sids + held_groups(creds->ngroups);
    return is_same(creds->group_sid) || std::any_of(creds->group_sids, end, is_same) ? 1 : 0;
}

int credutl_is_root(void)
{
    return geteuid() == 0 ? 1 : 0;
}

int credutl_is_privileged(void)
{
    return credutl_is_root();
}

int credutl_is_privileged_sid(const credutl_sid_t *sid)
{
    return credutl_sid_to_uid(sid) == 0 ? 1 : 0;
}

int credutl_running_setuid(void)
{
    return geteuid() != getuid() ? 1 : 0;
}
}
