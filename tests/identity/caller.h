// A call with a credential, as a server sees it before it is served.
#pragma once

#include "rpc/wire/connection.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>

#include <cstdint>
#include <memory>
#include <string>

#include <netdb.h>

namespace test {

struct Answer {
    auth_stat checked;
    int status, cracked_status;
    std::string user, cracked; // with their groups
    std::string claim;
};

template <typename Credentials> std::string text_of(const Credentials &who)
{
    char text[512];
    return credutl_creds_to_str(&who.user_sid, &who.group_sid, who.ngroups, who.group_sids, sizeof text, text);
}

inline Answer call(int flavour, const std::string &body, const std::string &address = "127.0.0.1")
{
    const std::unique_ptr<uint64_t[]> cooked(new uint64_t[KS_SVC_CREDENTIAL_SIZE / 8]), sent(new uint64_t[100]);
    auto *place = reinterpret_cast<char *>(sent.get() + 100) - (body.size() + 3) / 4 * 4; // which ends with the block
    body.copy(place, body.size());
    addrinfo *remote = nullptr, hints{AI_NUMERICHOST, 0, 0, 0, 0, nullptr, nullptr, nullptr};
    if (getaddrinfo(address.c_str(), nullptr, &hints, &remote) != 0)
        return {AUTH_FAILED, 0, 0, address, "", ""};
    SVCXPRT transport{};
    transport.xp_rtaddr = {remote->ai_addrlen, remote->ai_addrlen, remote->ai_addr};
    svc_req request{0, 0, 0, {}, cooked.get(), &transport, nullptr, nullptr};
    rpc_msg message{};
    message.rm_call.cb_cred = {flavour, place, u_int(body.size())};
    Answer result{_ks_authenticate(&request, &message), 0, 0, "", "", ""};
    credutl_caller_t caller;
    credutl_whole_credentials_t whole{};
    credutl_sid_credentials_t cracked{};
    if (result.checked == AUTH_OK) {
        result.status = credutl_identify_caller(&request, &caller);
        result.user = text_of(caller.credentials);
        result.claim = caller.claimed_user + std::string("@") + caller.domain_name + "/" + caller.host_name;
        result.cracked_status = credutl_crack_whole_rpc_auth(&request, STG_AREA_HEAP, &whole, nullptr, 0, nullptr, 0);
        (void)credutl_whole_credentials_to_sid_credentials(&whole, &cracked);
        result.cracked = text_of(cracked);
        stg_free(whole.group_sids);
    }
    freeaddrinfo(remote);
    return result;
}

} // namespace test
