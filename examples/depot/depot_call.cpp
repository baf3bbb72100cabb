#include "depot_call.h"

#include "depot_report.h"

#include <korvaks/imsg.h>

#include <cerrno>
#include <cstring>
#include <iterator>

namespace depot {

const char *denial_text(const rpc_err &error)
{
    constexpr Msg texts[] = {msg_none,           msg_denied_credential, msg_denied_refused, msg_denied_verifier,
                             msg_denied_discard, msg_denied_weak,       msg_denied_reply,   msg_denied_unsaid};
    unsigned number = 0; // of the server's: no value of the enumeration need be it
    static_assert(sizeof number == sizeof error.re_why);
    std::memcpy(&number, &error.re_why, sizeof number);
    return number > 0 && number < std::size(texts) ? text_of(texts[number]) : text_of(msg_denied_number, number);
}

const char *failure_text(const rpc_err &error)
{
    switch (error.re_status) {
    case RPC_AUTHERROR:
        return text_of(msg_call_denied, denial_text(error));
    case RPC_TIMEDOUT:
        return imsg_strerror(ETIMEDOUT);
    case RPC_CANTSEND:
    case RPC_CANTRECV:
        return imsg_strerror(error.re_errno);
    default:
        return ks_clnt_sperrno(error.re_status);
    }
}

} // namespace depot
