// Credentials from one shape into another: by number, by SID, by name.
//
// Whatever comes of it has its groups sorted, each once, and without the primary one, where it is not stated otherwise.
#include <korvaks/credutl.h>

#include "identity/credutl_impl.h"

#include <array>
#include <cstring>

namespace {

using ks::credutl::held_groups;

constexpr int groups_max = CREDUTL_GROUPS_MAX;
using GroupIds = std::array<credutl_gid_t, groups_max>;

int refuse(int error)
{
    errno = error;
    return 1;
}

// The names of a record, as far as there is memory and the database answers; 0 or an error.
int name_all(const credutl_sid_credentials_t &from, credutl_string_credentials_t &out)
{
    const int ngroups = held_groups(from.ngroups);
    out.user_name = credutl_sid_to_name(&from.user_sid);
    if (out.user_name == nullptr)
        return errno;
    out.group_name = credutl_sid_to_name(&from.group_sid);
    if (out.group_name == nullptr)
        return errno;
    for (; out.ngroups < ngroups; ++out.ngroups) {
        out.group_names[out.ngroups] = credutl_sid_to_name(&from.group_sids[out.ngroups]);
        if (out.group_names[out.ngroups] == nullptr)
            return errno;
    }
    return 0;
}

// The database was asked, and has answered: there is none such, or here it is.
bool is_answered(int status)
{
    return status == 0 || errno == ENOENT;
}

// A group that this host does not know gives no right here.
void add_group(const credutl_sid_t &sid, GroupIds &groups, int &count)
{
    if (ks::credutl::is_unix_sid(sid, CREDUTL_SID_UNIX_GID))
        groups[static_cast<std::size_t>(count++)] = credutl_sid_to_gid(&sid);
}

int normalise(const credutl_sid_t &user, const credutl_sid_t &group, int count, const GroupIds &groups,
              credutl_credentials_t &out)
{
    return credutl_init_credentials_throttled(groups_max, credutl_sid_to_uid(&user), credutl_sid_to_gid(&group), count,
                                              groups.data(), &out.uid, &out.gid, &out.ngroups, out.groups);
}

} // namespace

extern "C" {

void credutl_credentials_to_sid_credentials(const credutl_credentials_t *creds, credutl_sid_credentials_t *out_creds)
{
    credutl_sid_credentials_t made{};
    credutl_uid_to_sid(creds->uid, &made.user_sid);
    credutl_gid_to_sid(creds->gid, &made.group_sid);
    made.ngroups = held_groups(creds->ngroups);
    for (int i = 0; i < made.ngroups; ++i)
        credutl_gid_to_sid(creds->groups[i], &made.group_sids[i]);
    *out_creds = made;
}

int credutl_sid_credentials_to_credentials(const credutl_sid_credentials_t *creds, credutl_credentials_t *out_creds)
{
    GroupIds groups;
    int count = 0;
    for (int i = 0; i < held_groups(creds->ngroups); ++i)
        add_group(creds->group_sids[i], groups, count);
    return normalise(creds->user_sid, creds->group_sid, count, groups, *out_creds);
}

int credutl_get_sid_credentials(credutl_sid_credentials_t *creds)
{
    credutl_credentials_t own{};
    if (credutl_get_credentials(&own) != 0)
        return 1;
    credutl_credentials_to_sid_credentials(&own, creds);
    return 0;
}

int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *creds,
                                                  credutl_string_credentials_t *out_creds)
{
    credutl_string_credentials_t made{};
    const int error = name_all(*creds, made);
    if (error != 0) {
        credutl_free_string_credentials(&made);
        return refuse(error);
    }
    *out_creds = made;
    return 0;
}

int credutl_string_credentials_to_sid_credentials(const credutl_string_credentials_t *creds,
                                                  credutl_sid_credentials_t *out_creds)
{
    credutl_sid_t user;
    credutl_sid_t group;
    if (!is_answered(credutl_user_name_to_sid(creds->user_name, &user)) ||
        !is_answered(credutl_group_name_to_sid(creds->group_name, &group)))
        return 1;
    GroupIds groups;
    int count = 0;
    for (int i = 0; i < held_groups(creds->ngroups); ++i) {
        credutl_sid_t sid;
        if (!is_answered(credutl_group_name_to_sid(creds->group_names[i], &sid)))
            return 1;
        add_group(sid, groups, count);
    }
    credutl_credentials_t numbers{};
    if (normalise(user, group, count, groups, numbers) != 0)
        return 1;
    credutl_credentials_to_sid_credentials(&numbers, out_creds);
    return 0;
}

int credutl_sid_credentials_to_whole_credentials(const credutl_sid_credentials_t *creds, stg_area *area,
                                                 credutl_whole_credentials_t *out_creds)
{
    const int ngroups = held_groups(creds->ngroups);
    const std::size_t size = static_cast<std::size_t>(ngroups) * sizeof(credutl_sid_t);
    auto *sids = ngroups > 0 ? static_cast<credutl_sid_t *>(stg_alloc(area, size)) : nullptr;
    if (ngroups > 0 && sids == nullptr)
        return refuse(ENOMEM);
    std::copy_n(creds->group_sids, ngroups, sids);
    *out_creds = {creds->user_sid, creds->group_sid, ngroups, sids};
    return 0;
}

int credutl_whole_credentials_to_sid_credentials(const credutl_whole_credentials_t *creds,
                                                 credutl_sid_credentials_t *out_creds)
{
    if (creds->ngroups < 0 || creds->ngroups > groups_max)
        return refuse(EOVERFLOW);
    credutl_sid_credentials_t made{creds->user_sid, creds->group_sid, creds->ngroups, {}};
    std::copy_n(creds->group_sids, creds->ngroups, made.group_sids);
    *out_creds = made;
    return 0;
}

void credutl_free_string_credentials(credutl_string_credentials_t *creds)
{
    creds->ngroups = held_groups(creds->ngroups);
    XDR release{};
    release.x_op = XDR_FREE;
    (void)xdr_credutl_string_credentials_t(&release, creds); // releasing does not fail
    *creds = {};
}
}
