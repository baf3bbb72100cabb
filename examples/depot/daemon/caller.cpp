#include "daemon/caller.h"

#include "daemon/daemon_msg.h"
#include "depot_who.h"

#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

namespace depot {

bool identify(const svc_req *request, SVCXPRT *transport, Caller &out_caller)
{
    const int told = credutl_identify_caller(request, &out_caller.told);
    const credutl_sid_t &sid = out_caller.told.credentials.user_sid;
    out_caller.user = static_cast<uid_t>(credutl_sid_to_uid(&sid));
    out_caller.is_privileged = credutl_is_privileged_sid(&sid) != 0;
    out_caller.address = svc_getrpccaller(transport);
    if (told == CREDUTL_CALLER_ERROR)
        ks_svcerr_systemerr(transport);
    else if (told != CREDUTL_CALLER_TOLD)
        ks_svcerr_weakauth(transport);
    return told == CREDUTL_CALLER_TOLD;
}

bool name_user(const Caller &caller, UserName &out_name)
{
    return name_sid(caller.told.credentials.user_sid, out_name);
}

bool describe(const Caller &caller, Identity &out_identity)
{
    const credutl_caller_t &told = caller.told;
    if (!name_all(told.credentials, out_identity))
        return false;
    (void)strutl_cpy_buf(out_identity.domain, told.domain_name, sizeof out_identity.domain); // they are of one size
    (void)strutl_cpy_buf(out_identity.host, told.host_name, sizeof out_identity.host);
    (void)strutl_cpy_buf(out_identity.claim, told.claimed_user, sizeof out_identity.claim);
    out_identity.is_believed = told.credentials.user_sid.kind == CREDUTL_SID_NOBODY ? 0 : 1;
    return true;
}

void describe(const Caller &caller, CallerText &out_text)
{
    UserName user;
    char address[SYSUTL_ADDR_TEXT_SIZE];
    const credutl_caller_t &told = caller.told;
    if (!name_user(caller, user))
        (void)credutl_sid_to_str(&told.credentials.user_sid, sizeof user, user);
    (void)sysutl_sockaddr_to_str(static_cast<const sockaddr *>(caller.address->buf), sizeof address, address);
    (void)imsg_snprintf(out_text, sizeof out_text, daemon_messages, msg_daemon_caller, user, told.claimed_user,
                        told.domain_name, told.host_name, address);
}

} // namespace depot
