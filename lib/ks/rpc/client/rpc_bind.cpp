// Where a program is served, asked of its host's binder: rpcbind, versions 4 and 3, and the port mapper, which is
// version 2 of the same program (RFC 1833).
//
// It is asked with a client of this library, so that the wait ends at its own time and for a raise. What the binder
// says is a stranger's: only a port is taken of it, and anything that is none is a reply that cannot be decoded.
#include <korvaks/rpc.h>

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "rpc/client/rpc_bind_impl.h"
#include "rpc/wire/xdr_fields.h"

#include <korvaks/clnt.h>
#include <korvaks/sysutl.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

#include <netdb.h>

namespace ks::rpc {

namespace {

constexpr rpcprog_t binder_program = 100000;
constexpr Binder standard_binder{111, {25, 0}, {3, 0}};

// --- What is asked and what is answered ---

struct Question {
    uint32_t prog;
    uint32_t vers;
    const char *netid;
    uint32_t protocol;
};

// To rpcbind: the transport by its name, then an address of the binder and an owner, which need not be told.
extern "C" bool_t encode_question(XDR *xdrs, Question *asked)
{
    if (xdrs->x_op != XDR_ENCODE)
        return TRUE;
    char none[] = "";
    char *address = none;
    char *owner = none;
    char *netid = const_cast<char *>(asked->netid);
    const bool is_passed = xdr::pass(xdrs, asked->prog) != FALSE && xdr::pass(xdrs, asked->vers) != FALSE &&
                           xdr::pass_string(xdrs, netid, UINT32_MAX) && xdr::pass_string(xdrs, address, 0) &&
                           xdr::pass_string(xdrs, owner, 0);
    return is_passed ? TRUE : FALSE;
}

// To the port mapper: the transport by its protocol, and a port that is not looked at.
extern "C" bool_t encode_mapping(XDR *xdrs, Question *asked)
{
    uint32_t port = 0;
    const bool is_passed = xdr::pass(xdrs, asked->prog) != FALSE && xdr::pass(xdrs, asked->vers) != FALSE &&
                           xdr::pass(xdrs, asked->protocol) != FALSE && xdr::pass(xdrs, port) != FALSE;
    return is_passed ? TRUE : FALSE;
}

// Cuts ".N" off the end of a text.
bool take_last_byte(std::string_view &text, uint8_t &out_byte)
{
    const std::size_t dot = text.rfind('.');
    if (dot == std::string_view::npos)
        return false;
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + dot + 1, end, out_byte);
    text = part_of(text, 0, dot);
    return read.ec == std::errc{} && read.ptr == end;
}

// A universal address is that of the host, then the port in two bytes: "192.0.2.1.3.253", "2001:db8::1.3.253". An empty
// one says that the program is not registered, which the port mapper says with a port of 0.
bool read_port(std::string_view address, uint32_t &out_port)
{
    uint8_t high = 0;
    uint8_t low = 0;
    if (!address.empty() && (!take_last_byte(address, low) || !take_last_byte(address, high) || address.empty()))
        return false;
    out_port = static_cast<uint32_t>(high << 8 | low);
    return true;
}

extern "C" bool_t decode_address(XDR *xdrs, uint32_t *port)
{
    if (xdrs->x_op != XDR_DECODE)
        return TRUE;
    constexpr u_int length_max = 255;
    char room[length_max + 1];
    char *text = room;
    return xdr::pass_string(xdrs, text, length_max) && read_port(text, *port) ? TRUE : FALSE;
}

extern "C" bool_t decode_port(XDR *xdrs, uint32_t *port)
{
    if (xdrs->x_op != XDR_DECODE)
        return TRUE;
    return xdr::pass(xdrs, *port) != FALSE && *port <= UINT16_MAX ? TRUE : FALSE;
}

// --- Asking ---

// How a version of the binder is asked. The procedure is 3 in all of them: RPCBPROC_GETADDR, PMAPPROC_GETPORT.
struct Dialect {
    rpcvers_t version;
    bool_t (*question)(XDR *, Question *);
    bool_t (*answer)(XDR *, uint32_t *);
    bool is_for_ipv4_only;
};

constexpr rpcproc_t find_procedure = 3;
constexpr Dialect dialects[] = {
    {4, encode_question, decode_address, false},
    {3, encode_question, decode_address, false},
    {2, encode_mapping, decode_port, true},
};

// Whether an older version may be served.
bool is_unserved(clnt_stat stat)
{
    return stat == RPC_VERSMISMATCH || stat == RPC_PROGVERSMISMATCH || stat == RPC_PROGUNAVAIL ||
           stat == RPC_PROCUNAVAIL;
}

timeval monotonic_clock()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    return {now.tv_sec, now.tv_nsec / 1000};
}

timeval time_left(const timeval &deadline)
{
    const timeval left = time_difference(deadline, monotonic_clock());
    return left.tv_sec < 0 ? timeval{} : left;
}

// All versions share one deadline.
clnt_stat ask(CLIENT *client, Question asked, bool is_ipv4, const timeval &deadline, uint32_t &out_port)
{
    clnt_stat stat = RPC_FAILED;
    for (const Dialect &dialect : dialects) {
        if (dialect.is_for_ipv4_only && !is_ipv4)
            break;
        rpcvers_t version = dialect.version;
        (void)clnt_control(client, CLSET_VERS, &version); // known to all clients
        stat = clnt_call(client, find_procedure, reinterpret_cast<xdrproc_t>(dialect.question), &asked,
                         reinterpret_cast<xdrproc_t>(dialect.answer), &out_port, time_left(deadline));
        if (!is_unserved(stat))
            break;
    }
    return stat;
}

// --- One address ---

// What asking one address came to; success leaves the port.
struct Outcome {
    clnt_stat stat = RPC_N2AXLATEFAILURE;
    rpc_err error{}; // its status is another one only for a failure of the binder
    uint32_t port = 0;
};

// Whether another address may do better: this one's binder was not reached, or made no sense.
bool may_go_on(const Outcome &outcome)
{
    const clnt_stat detail = outcome.error.re_status;
    const bool has_errno = detail == RPC_CANTSEND || detail == RPC_CANTRECV || detail == RPC_SYSTEMERROR;
    return outcome.stat == RPC_RPCBFAILURE && !(has_errno && outcome.error.re_errno == EINTR);
}

// Want of memory or of a socket is this process's failure, not the binder's.
Outcome without_client()
{
    const auto &why = *ks_rpc_get_createerr();
    Outcome outcome{why.cf_stat, why.cf_error};
    if (why.cf_stat == RPC_TLIERROR || why.cf_error.re_errno == ENOMEM)
        return outcome;
    outcome.stat = RPC_RPCBFAILURE;
    outcome.error.re_status = why.cf_stat;
    return outcome;
}

bool is_ipv4(const netbuf &address)
{
    return static_cast<const sockaddr *>(address.buf)->sa_family == AF_INET;
}

Outcome ask_at(const netbuf &address, const netconfig *nconf, const Question &asked, const Binder &binder)
{
    const timeval deadline = time_sum(monotonic_clock(), binder.time_limit);
    CLIENT *client = ks_clnt_tli_create(-1, nconf, &address, binder_program, dialects[0].version, 0, 0);
    if (client == nullptr)
        return without_client();
    timeval period = binder.resend_period;
    (void)clnt_control(client, CLSET_RETRY_TIMEOUT, &period); // a connection knows no such request
    Outcome outcome;
    outcome.stat = ask(client, asked, is_ipv4(address), deadline, outcome.port);
    if (outcome.stat != RPC_SUCCESS) {
        outcome.stat = RPC_RPCBFAILURE;
        clnt_geterr(client, &outcome.error);
    } else if (outcome.port == 0) {
        outcome.stat = RPC_PROGNOTREGISTERED;
    }
    clnt_destroy(client);
    return outcome;
}

// --- All addresses ---

netbuf *fail(clnt_stat stat, rpc_err error = {})
{
    if (error.re_status == RPC_SUCCESS)
        error.re_status = stat;
    *ks_rpc_get_createerr() = {stat, error};
    return nullptr;
}

netbuf *fail_for_memory()
{
    rpc_err error{};
    error.re_errno = ENOMEM;
    return fail(RPC_SYSTEMERROR, error);
}

// One block, with the address behind its descriptor.
netbuf *make_netbuf(int address_size)
{
    const auto size = static_cast<u_int>(address_size);
    void *block = std::malloc(sizeof(netbuf) + size);
    return block == nullptr ? nullptr : new (block) netbuf{size, size, static_cast<netbuf *>(block) + 1};
}

void set_port(netbuf &address, uint32_t port)
{
    (void)sysutl_sockaddr_set_port(static_cast<sockaddr *>(address.buf), htons(static_cast<uint16_t>(port)));
}

// Asks each address of the family in turn. `room` holds the one that is asked, and at last the server's.
Outcome ask_in_turn(const addrinfo *list, int family, const netconfig *nconf, const Question &asked,
                    const Binder &binder, netbuf &room)
{
    Outcome outcome;
    for (; list != nullptr; list = list->ai_next) {
        if (list->ai_family != family)
            continue;
        std::memcpy(room.buf, list->ai_addr, room.len);
        set_port(room, binder.port);
        outcome = ask_at(room, nconf, asked, binder);
        if (!may_go_on(outcome))
            break;
    }
    set_port(room, outcome.port);
    return outcome;
}

} // namespace

netbuf *find_address(rpcprog_t prog, rpcvers_t vers, const netconfig *nconf, const char *host, const Binder &binder)
{
    const CancelHold hold; // a thread that ended in here would leave memory and a socket behind
    __rpc_sockinfo kind{};
    Question asked{prog, vers, nullptr, 0};
    if (__ks_rpc_nconf2sockinfo(nconf, &kind) == 0 || __ks_rpc_sockinfo2netid(&kind, &asked.netid) == 0)
        return fail(RPC_UNKNOWNPROTO);
    asked.protocol = static_cast<uint32_t>(kind.si_proto);
    if (host == nullptr || *host == '\0')
        return fail(RPC_UNKNOWNHOST);
    addrinfo *list = nullptr;
    const int code = sysutl_host_addr(host, nullptr, kind.si_socktype, &list);
    if (code != 0)
        return code == EAI_MEMORY ? fail_for_memory() : fail(RPC_UNKNOWNHOST);
    netbuf *address = make_netbuf(kind.si_alen);
    if (address == nullptr) {
        freeaddrinfo(list);
        return fail_for_memory();
    }
    const Outcome outcome = ask_in_turn(list, kind.si_af, nconf, asked, binder, *address);
    freeaddrinfo(list);
    if (outcome.stat == RPC_SUCCESS)
        return address;
    std::free(address);
    return fail(outcome.stat, outcome.error);
}

} // namespace ks::rpc

extern "C" netbuf *__ks_rpcb_findaddr(rpcprog_t prog, rpcvers_t vers, const netconfig *nconf, const char *host)
{
    return ks::rpc::find_address(prog, vers, nconf, host, ks::rpc::standard_binder);
}
