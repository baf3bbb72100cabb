#include "depot_who.h"

#include "depot_report.h"

#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

#include <cerrno>
#include <cstdlib>

namespace depot {

namespace {

bool find_own_identity(Identity &out_identity)
{
    credutl_sid_credentials_t credentials;
    if (credutl_get_sid_credentials(&credentials) != 0)
        return fail(msg_no_identity, "this process", errno);
    if (!name_all(credentials, out_identity))
        return false;
    (void)strutl_cpy_buf(out_identity.domain, credutl_get_domain(), sizeof out_identity.domain);
    return sysutl_myhostname(out_identity.host, sizeof out_identity.host) == 0 ||
           fail(msg_no_identity, "this host", errno);
}

void show(const Identity &identity)
{
    report(IMSG_OUTPUT, msg_who_user, shown(identity.user));
    report(IMSG_OUTPUT, msg_who_group, shown(identity.group));
    report(IMSG_OUTPUT, msg_who_groups, identity.groups[0] == '\0' ? text_of(msg_unknown) : shown(identity.groups));
    report(IMSG_OUTPUT, msg_who_host, shown(identity.domain), shown(identity.host));
}

Status show_own_identity()
{
    Identity identity;
    if (!find_own_identity(identity))
        return Status::failed;
    show(identity);
    return Status::done;
}

} // namespace

bool name_sid(const credutl_sid_t &sid, char (&out_name)[owner_bytes_max + 1])
{
    char *const name = credutl_sid_to_name(&sid);
    if (name == nullptr)
        return fail(msg_no_identity, "the user", errno);
    const bool is_whole = strutl_cpy_buf(out_name, name, sizeof out_name) == 0;
    std::free(name);
    if (!is_whole) // what is cut might be another's
        (void)credutl_sid_to_str(&sid, sizeof out_name, out_name);
    return true;
}

bool name_all(const credutl_sid_credentials_t &credentials, Identity &out_identity)
{
    if (!name_sid(credentials.user_sid, out_identity.user) || !name_sid(credentials.group_sid, out_identity.group))
        return false;
    char *end = out_identity.groups;
    std::size_t left = sizeof out_identity.groups;
    *end = '\0';
    for (int i = 0; i < credentials.ngroups; ++i) {
        char name[owner_bytes_max + 1];
        if (!name_sid(credentials.group_sids[i], name))
            return false;
        (void)strutl_cpy_and_advance(&end, &left, i == 0 ? "" : " ");
        (void)strutl_cpy_and_advance(&end, &left, name);
    }
    return true;
}

Status show_identity(Job &job)
{
    if (!names_server(job) && !job.line.has(flag_udp))
        return show_own_identity();
    if (const Status status = open_server(job); status != Status::done)
        return status;
    Identity identity;
    if (!job.remote.read_identity(identity))
        return Status::failed;
    show(identity);
    report(IMSG_OUTPUT, identity.is_believed != 0 ? msg_who_believed : msg_who_not_believed, shown(identity.claim));
    return Status::done;
}

} // namespace depot
