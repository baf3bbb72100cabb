// RPC messages in the layout of RFC 5531, sections 8 to 10 and appendix A.
#include "rpc/wire/xdr_fields.h"

#include <korvaks/xdr.h>

namespace {

using ks::xdr::get_body;
using ks::xdr::Limits;
using ks::xdr::padding_of;
using ks::xdr::pass;
using ks::xdr::pass_bytes;
using ks::xdr::word_of;

constexpr u_int name_max = MAX_MACHINE_NAME;
constexpr u_int groups_max = NGRPS;

// A body on its own is given room of its size, one of a call the room that any has, which outlives the call.
constexpr Limits body_limits{KS_MAX_AUTH_BYTES, 0};
constexpr Limits call_body_limits{KS_MAX_AUTH_BYTES, KS_MAX_AUTH_BYTES};

bool pass_auth(XDR *xdrs, opaque_auth &auth, const Limits &limits)
{
    return pass(xdrs, auth.oa_flavor) && pass_bytes(xdrs, auth.oa_base, auth.oa_length, limits);
}

// Fields that lie one behind the other in the stream's own buffer.
class Fields {
  public:
    explicit Fields(int32_t *at) : at_(reinterpret_cast<char *>(at)) {}

    void put(uint32_t word)
    {
        word = htonl(word);
        std::memcpy(at_, &word, sizeof word);
        at_ += sizeof word;
    }

    void put(const opaque_auth &auth)
    {
        put(static_cast<uint32_t>(auth.oa_flavor));
        put(auth.oa_length);
        if (auth.oa_length == 0)
            return;
        std::memcpy(at_, auth.oa_base, auth.oa_length);
        at_ += auth.oa_length;
        std::memset(at_, 0, padding_of(auth.oa_length));
        at_ += padding_of(auth.oa_length);
    }

    uint32_t take()
    {
        uint32_t word;
        std::memcpy(&word, at_, sizeof word);
        at_ += sizeof word;
        return ntohl(word);
    }

  private:
    char *at_;
};

// What stands before the bodies, in place or word by word.
template <std::size_t Count> bool get_words(XDR *xdrs, uint32_t (&out_words)[Count])
{
    int32_t *there = XDR_INLINE(xdrs, sizeof out_words);
    if (there == nullptr) {
        for (uint32_t &word : out_words)
            if (!ks::xdr::get_word(xdrs, word))
                return false;
        return true;
    }
    Fields fields(there);
    for (uint32_t &word : out_words)
        word = fields.take();
    return true;
}

bool is_call(const rpc_msg &msg)
{
    return word_of(msg.rm_direction) == CALL && msg.rm_call.cb_rpcvers == RPC_MSG_VERSION;
}

u_int size_of(const opaque_auth &auth)
{
    constexpr u_int fixed = 2 * BYTES_PER_XDR_UNIT;
    return fixed + auth.oa_length + padding_of(auth.oa_length);
}

bool encode_call(XDR *xdrs, rpc_msg &msg)
{
    call_body &call = msg.rm_call;
    const uint32_t words[] = {msg.rm_xid,  word_of(msg.rm_direction), call.cb_rpcvers, call.cb_prog, call.cb_vers,
                              call.cb_proc};
    if (call.cb_cred.oa_length > KS_MAX_AUTH_BYTES || call.cb_verf.oa_length > KS_MAX_AUTH_BYTES)
        return false;
    int32_t *there = XDR_INLINE(xdrs, static_cast<u_int>(sizeof words) + size_of(call.cb_cred) + size_of(call.cb_verf));
    if (there == nullptr) {
        for (const uint32_t word : words)
            if (!ks::xdr::put_word(xdrs, word))
                return false;
        return pass_auth(xdrs, call.cb_cred, call_body_limits) && pass_auth(xdrs, call.cb_verf, call_body_limits);
    }
    Fields fields(there);
    for (const uint32_t word : words)
        fields.put(word);
    fields.put(call.cb_cred);
    fields.put(call.cb_verf);
    return true;
}

bool decode_auth(XDR *xdrs, opaque_auth &auth, uint32_t flavor, uint32_t length)
{
    auth.oa_flavor = static_cast<enum_t>(flavor);
    auth.oa_length = length;
    return get_body(xdrs, auth.oa_base, length, call_body_limits);
}

bool decode_call(XDR *xdrs, rpc_msg &msg)
{
    uint32_t words[8]; // the last two are the credential's
    uint32_t verifier[2];
    if (!get_words(xdrs, words))
        return false;
    call_body &call = msg.rm_call;
    msg.rm_xid = words[0];
    std::memcpy(&msg.rm_direction, &words[1], sizeof msg.rm_direction); // any number
    call.cb_rpcvers = words[2];
    call.cb_prog = words[3];
    call.cb_vers = words[4];
    call.cb_proc = words[5];
    return is_call(msg) && decode_auth(xdrs, call.cb_cred, words[6], words[7]) && get_words(xdrs, verifier) &&
           decode_auth(xdrs, call.cb_verf, verifier[0], verifier[1]);
}

// An array of ints, as a count and words.
bool decode_groups(XDR *xdrs, authunix_parms &parms)
{
    if (!pass(xdrs, parms.aup_len) || parms.aup_len > groups_max)
        return false;
    if (parms.aup_gids == nullptr && parms.aup_len > 0)
        parms.aup_gids = static_cast<gid_t *>(std::malloc(parms.aup_len * sizeof(gid_t)));
    return parms.aup_gids != nullptr || parms.aup_len == 0;
}

bool pass_groups(XDR *xdrs, authunix_parms &parms)
{
    if (xdrs->x_op == XDR_FREE) {
        ks::xdr::release(parms.aup_gids);
        return true;
    }
    const bool has_count = xdrs->x_op == XDR_DECODE ? decode_groups(xdrs, parms)
                                                    : parms.aup_len <= groups_max && pass(xdrs, parms.aup_len);
    if (!has_count)
        return false;
    for (u_int i = 0; i < parms.aup_len; ++i)
        if (!pass(xdrs, parms.aup_gids[i]))
            return false;
    return true;
}

bool pass_stamp(XDR *xdrs, u_long &stamp)
{
    // A long of the stream, which decides about its upper half.
    auto *value = reinterpret_cast<long *>(&stamp);
    if (xdrs->x_op == XDR_ENCODE)
        return XDR_PUTLONG(xdrs, value) != FALSE;
    return xdrs->x_op != XDR_DECODE || XDR_GETLONG(xdrs, value) != FALSE;
}

} // namespace

extern "C" {

bool_t xdr_ks_opaque_auth(XDR *xdrs, struct opaque_auth *auth)
{
    return pass_auth(xdrs, *auth, body_limits) ? TRUE : FALSE;
}

bool_t xdr_ks_des_block(XDR *xdrs, des_block *block)
{
    return ks::xdr::pass_opaque(xdrs, block, sizeof *block) ? TRUE : FALSE;
}

bool_t xdr_ks_callhdr(XDR *xdrs, struct rpc_msg *msg)
{
    if (xdrs->x_op != XDR_ENCODE)
        return FALSE;
    msg->rm_direction = CALL;
    msg->rm_call.cb_rpcvers = RPC_MSG_VERSION;
    const bool is_put = pass(xdrs, msg->rm_xid) && pass(xdrs, msg->rm_direction) &&
                        pass(xdrs, msg->rm_call.cb_rpcvers) && pass(xdrs, msg->rm_call.cb_prog) &&
                        pass(xdrs, msg->rm_call.cb_vers);
    return is_put ? TRUE : FALSE;
}

bool_t xdr_ks_callmsg(XDR *xdrs, struct rpc_msg *msg)
{
    if (xdrs->x_op == XDR_DECODE)
        return decode_call(xdrs, *msg) ? TRUE : FALSE;
    if (!is_call(*msg))
        return FALSE;
    if (xdrs->x_op == XDR_ENCODE)
        return encode_call(xdrs, *msg) ? TRUE : FALSE;
    ks::xdr::release(msg->rm_call.cb_cred.oa_base);
    ks::xdr::release(msg->rm_call.cb_verf.oa_base);
    return TRUE;
}

bool_t xdr_ks_replymsg(XDR *xdrs, struct rpc_msg *msg)
{
    reply_body &reply = msg->rm_reply;
    if (!pass(xdrs, msg->rm_xid) || !pass(xdrs, msg->rm_direction) || word_of(msg->rm_direction) != REPLY ||
        !pass(xdrs, reply.rp_stat))
        return FALSE;
    switch (word_of(reply.rp_stat)) {
    case MSG_ACCEPTED:
        return xdr_ks_accepted_reply(xdrs, &reply.rp_acpt);
    case MSG_DENIED:
        return xdr_ks_rejected_reply(xdrs, &reply.rp_rjct);
    default:
        return FALSE;
    }
}

bool_t xdr_ks_accepted_reply(XDR *xdrs, struct accepted_reply *reply)
{
    if (!pass_auth(xdrs, reply->ar_verf, body_limits) || !pass(xdrs, reply->ar_stat))
        return FALSE;
    switch (word_of(reply->ar_stat)) {
    case SUCCESS:
        if (reply->ar_results.proc == nullptr)
            return FALSE;
        return reply->ar_results.proc(xdrs, reply->ar_results.where);
    case PROG_MISMATCH:
        return pass(xdrs, reply->ar_vers.low) && pass(xdrs, reply->ar_vers.high) ? TRUE : FALSE;
    default:
        return TRUE;
    }
}

bool_t xdr_ks_rejected_reply(XDR *xdrs, struct rejected_reply *reply)
{
    if (!pass(xdrs, reply->rj_stat))
        return FALSE;
    switch (word_of(reply->rj_stat)) {
    case RPC_MISMATCH:
        return pass(xdrs, reply->rj_vers.low) && pass(xdrs, reply->rj_vers.high) ? TRUE : FALSE;
    case AUTH_ERROR:
        return pass(xdrs, reply->rj_why);
    default:
        return FALSE;
    }
}

bool_t xdr_ks_authunix_parms(XDR *xdrs, struct authunix_parms *parms)
{
    const bool is_passed = pass_stamp(xdrs, parms->aup_time) &&
                           ks::xdr::pass_string(xdrs, parms->aup_machname, name_max) && pass(xdrs, parms->aup_uid) &&
                           pass(xdrs, parms->aup_gid) && pass_groups(xdrs, *parms);
    return is_passed ? TRUE : FALSE;
}
}
