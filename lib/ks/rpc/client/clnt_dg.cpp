// Calls in datagrams: sent again until a reply comes or the time is over.
#include "rpc/client/clnt_dg_errors.h"
#include "rpc/client/clnt_impl.h"

#include "rpc/wire/xdr_memory.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using ks::clnt::Client;
using ks::clnt::Moment;
using ks::clnt::Reply;
using ks::clnt::Results;
using ks::clnt::Waited;

constexpr timeval first_interval{15, 0};
constexpr timeval longest_interval{30, 0}; // one that long is not doubled any more
constexpr timeval not_set{-1, -1};

// The buffers lie behind it in the same block. The head of calls stands at the start of the send buffer.
struct Datagrams : Client {
    timeval interval;
    timeval total; // of control request 1, or not_set
    XDR stream;    // over the send buffer
    char *out;
    char *in;
    u_int out_size;
    u_int in_size;
    bool keeps_errors; // the socket does: clnt_dg_errors.h
    ks_clnt_dg_strays strays;
};

Datagrams &datagrams_of(CLIENT *client);

uint32_t first_word(const char *bytes)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

void set_first_word(Datagrams &datagrams, uint32_t word)
{
    std::memcpy(datagrams.out, &word, sizeof word);
}

clnt_stat encode(Datagrams &datagrams, rpcproc_t proc, xdrproc_t xdr_args, void *args)
{
    datagrams.error = {};
    XDR &stream = datagrams.stream;
    ks::make_memory_stream(stream, datagrams.out, datagrams.out_size, XDR_ENCODE);
    (void)XDR_SETPOS(&stream, datagrams.header_size); // the buffer has room for it
    // Kept exactly: counted as this machine's word, so that ids differ in what travels first.
    set_first_word(datagrams, first_word(datagrams.out) + 1);
    if (!ks::clnt::put_call(datagrams, stream, proc, xdr_args, args))
        return ks::clnt::fail(datagrams, RPC_CANTENCODEARGS);
    return RPC_SUCCESS;
}

ssize_t send_datagram(const Datagrams &datagrams, std::size_t size)
{
    const auto *address = reinterpret_cast<const sockaddr *>(&datagrams.address);
    ssize_t sent = 0;
    do
        sent = sendto(datagrams.fd, datagrams.out, size, MSG_NOSIGNAL, address, datagrams.address_size);
    while (sent < 0 && errno == EINTR);
    return sent;
}

// Errors that calls before this one have left at the socket are not this one's.
bool send_once(Datagrams &datagrams, std::size_t size)
{
    constexpr int tries = 64; // they may come as fast as it is tried
    for (int i = 0; i < tries; ++i) {
        const ssize_t sent = send_datagram(datagrams, size);
        if (sent == static_cast<ssize_t>(size))
            return true;
        const int error = sent < 0 ? errno : EMSGSIZE;
        const bool is_old = ks::clnt::take_network_errors(datagrams.fd, datagrams.strays.error);
        errno = error;
        if (!is_old && error != ECONNREFUSED) // which sending itself never gives
            return false;
    }
    return false;
}

// How long a call may take in all, and how long it waits before it is sent again.
class Schedule {
  public:
    Schedule(const timeval &total, const timeval &interval) : interval_(interval)
    {
        end_ = ks::clnt::after(ks::clnt::now(), total);
    }

    void start_interval()
    {
        const Moment start = ks::clnt::now();
        interval_end_ = std::min(std::max(ks::clnt::after(start, interval_), ks::clnt::after(start, shortest)), end_);
    }
    Moment interval_end() const { return interval_end_; }
    bool is_over() const { return interval_end_ >= end_; }

    void lengthen_interval()
    {
        if (ks::clnt::after(0, interval_) >= ks::clnt::after(0, longest_interval))
            return;
        interval_.tv_sec *= 2;
        interval_.tv_usec *= 2;
    }

    // Whether the call may be sent again at once, since the network wants it in smaller pieces, which the system sees
    // to from then on. A path has few narrow places; who names more is not believed.
    bool may_send_smaller() { return ++smaller_ <= 8; }

  private:
    static constexpr timeval shortest{0, 10'000}; // none at all would flood the server

    timeval interval_;
    Moment end_;
    Moment interval_end_ = 0;
    int smaller_ = 0;
};

enum class Wakeup { reply, send_again, interval_over, failed };

// What the network says of this call, `told` by the socket or kept there; 0 for nothing. What a socket that keeps
// errors tells is the last of them, of whichever call.
int network_error(Datagrams &datagrams, int told)
{
    return ks::clnt::find_network_error(datagrams.fd, datagrams.keeps_errors ? 0 : told, first_word(datagrams.out),
                                        datagrams.strays.error);
}

bool is_reply(Datagrams &datagrams, std::size_t size)
{
    if (size < sizeof(uint32_t)) {
        ++datagrams.strays.runt;
        return false;
    }
    if (first_word(datagrams.in) != first_word(datagrams.out)) {
        ++datagrams.strays.foreign;
        return false;
    }
    return true;
}

// Takes one datagram: a reply stands in the buffer with its size, something else is passed over. 0, or an error that
// concerns the call.
int take_datagram(Datagrams &datagrams, std::size_t &out_size)
{
    const ssize_t size = recvfrom(datagrams.fd, datagrams.in, datagrams.in_size, MSG_DONTWAIT, nullptr, nullptr);
    if (size >= 0) {
        out_size = is_reply(datagrams, static_cast<std::size_t>(size)) ? static_cast<std::size_t>(size) : 0;
        return 0;
    }
    const int error = errno;
    if (error == EINTR || error == EAGAIN || error == EWOULDBLOCK)
        return 0;
    return ks::clnt::is_network_error(error) ? network_error(datagrams, error) : error;
}

Wakeup fail_waiting(Datagrams &datagrams, Waited waited)
{
    if (waited == Waited::timed_out)
        return Wakeup::interval_over;
    (void)ks::clnt::fail(datagrams, RPC_CANTRECV, waited == Waited::interrupted ? EINTR : errno);
    return Wakeup::failed;
}

// What has come of a socket that is ready: 0, or an error that concerns the call.
int take_what_is_there(Datagrams &datagrams, short events, std::size_t &out_size)
{
    if ((events & POLLNVAL) != 0)
        return EBADF;
    const int error = (events & POLLERR) != 0 ? network_error(datagrams, 0) : 0;
    return error != 0 ? error : take_datagram(datagrams, out_size);
}

Wakeup wait_for_reply(Datagrams &datagrams, Schedule &schedule, std::size_t &out_size)
{
    for (out_size = 0; out_size == 0;) {
        short events = 0;
        const Waited waited = ks::clnt::wait_for(datagrams.fd, POLLIN, schedule.interval_end(), &events);
        if (waited != Waited::ready)
            return fail_waiting(datagrams, waited);
        const int error = take_what_is_there(datagrams, events, out_size);
        if (error == EMSGSIZE && schedule.may_send_smaller())
            return Wakeup::send_again;
        if (error != 0 && error != EMSGSIZE) {
            (void)ks::clnt::fail(datagrams, error == ECONNRESET ? RPC_UDERROR : RPC_CANTRECV, error);
            return Wakeup::failed;
        }
    }
    return Wakeup::reply;
}

// True when the call is over, false to make it again.
bool take_reply(Datagrams &datagrams, std::size_t size, Results &wanted)
{
    XDR stream;
    ks::make_memory_stream(stream, datagrams.in, static_cast<u_int>(size), XDR_DECODE);
    Reply reply;
    if (xdr_ks_replymsg(&stream, &reply.message) == FALSE) {
        (void)ks::clnt::fail(datagrams, RPC_CANTDECODERES);
        return true;
    }
    return ks::clnt::settle(datagrams, stream, reply, wanted);
}

// Sends a call until its reply has come, or the time is over. True when the call is over, false to make it again.
bool exchange(Datagrams &datagrams, Schedule &schedule, Results &wanted)
{
    const std::size_t size = XDR_GETPOS(&datagrams.stream);
    for (;;) {
        if (!send_once(datagrams, size)) {
            (void)ks::clnt::fail(datagrams, RPC_CANTSEND, errno);
            return true;
        }
        schedule.start_interval();
        std::size_t reply_size = 0;
        const Wakeup wakeup = wait_for_reply(datagrams, schedule, reply_size);
        if (wakeup == Wakeup::reply)
            return take_reply(datagrams, reply_size, wanted);
        if (wakeup == Wakeup::failed)
            return true;
        if (wakeup == Wakeup::send_again)
            continue;
        if (schedule.is_over()) {
            (void)ks::clnt::fail(datagrams, RPC_TIMEDOUT);
            return true;
        }
        schedule.lengthen_interval();
    }
}

// A time-out that makes no sense is none.
timeval total_time(const Datagrams &datagrams, const timeval &timeout)
{
    if (datagrams.total.tv_sec != not_set.tv_sec || datagrams.total.tv_usec != not_set.tv_usec)
        return datagrams.total;
    return ks::clnt::is_valid(timeout) ? timeout : timeval{};
}

extern "C" clnt_stat ks_clnt_dg_call(CLIENT *client, rpcproc_t proc, xdrproc_t xdr_args, void *args,
                                     xdrproc_t xdr_results, void *results, timeval timeout)
{
    Datagrams &datagrams = datagrams_of(client);
    const ks::RenewedGuard lock(datagrams.lock);
    ks::clnt::here.require(datagrams.lock.mutex.recursion_count == 1, "cu->cu_mutex.recursion_count == 1");
    const timeval total = total_time(datagrams, timeout);
    Schedule schedule(total, datagrams.interval);
    Results wanted{xdr_results, results};
    do {
        if (encode(datagrams, proc, xdr_args, args) != RPC_SUCCESS)
            return datagrams.error.re_status;
        if (ks::clnt::is_zero(total))
            return send_once(datagrams, XDR_GETPOS(&datagrams.stream)) ? ks::clnt::fail(datagrams, RPC_TIMEDOUT)
                                                                       : ks::clnt::fail(datagrams, RPC_CANTSEND, errno);
    } while (!exchange(datagrams, schedule, wanted));
    return datagrams.error.re_status;
}

extern "C" void ks_clnt_dg_abort(CLIENT *) {}

extern "C" void ks_clnt_dg_geterr(CLIENT *client, rpc_err *error)
{
    ks::clnt::give_error(datagrams_of(client), error);
}

extern "C" bool_t ks_clnt_dg_freeres(CLIENT *client, xdrproc_t xdr_results, void *results)
{
    Datagrams &datagrams = datagrams_of(client);
    return ks::clnt::free_results(datagrams, datagrams.stream, xdr_results, results);
}

extern "C" void ks_clnt_dg_destroy(CLIENT *client)
{
    const ks::CancelHold hold;
    Datagrams &datagrams = datagrams_of(client);
    ks::clnt::end_client(datagrams);
    std::free(&datagrams);
}

// The next call counts one up in its own way before it is sent.
bool_t set_next_xid(Datagrams &datagrams, const void *info)
{
    if (info == nullptr)
        return FALSE;
    set_first_word(datagrams, __builtin_bswap32(*static_cast<const uint32_t *>(info)) - 1);
    return TRUE;
}

extern "C" bool_t ks_clnt_dg_control(CLIENT *client, u_int request, void *info)
{
    Datagrams &datagrams = datagrams_of(client);
    const ks::RenewedGuard lock(datagrams.lock);
    switch (request) {
    case CLSET_TIMEOUT:
        return ks::clnt::take_span(info, datagrams.total);
    case CLGET_TIMEOUT:
        return ks::clnt::give(info, datagrams.total);
    case CLSET_RETRY_TIMEOUT:
        return ks::clnt::take_span(info, datagrams.interval);
    case CLGET_RETRY_TIMEOUT:
        return ks::clnt::give(info, datagrams.interval);
    case CLSET_XID:
        return set_next_xid(datagrams, info);
    default:
        return ks::clnt::common_control(datagrams, request, info) > 0 ? TRUE : FALSE;
    }
}

constinit CLIENT::clnt_ops datagram_ops = {ks_clnt_dg_call,    ks_clnt_dg_abort,   ks_clnt_dg_geterr,
                                           ks_clnt_dg_freeres, ks_clnt_dg_destroy, ks_clnt_dg_control};

Datagrams &datagrams_of(CLIENT *client)
{
    ks::clnt::here.require(client->cl_ops == &datagram_ops, "client->cl_ops == &ks_clnt_dg_ops");
    return *static_cast<Datagrams *>(client->cl_private);
}

uint32_t first_xid()
{
    timeval now{};
    (void)gettimeofday(&now, nullptr); // cannot fail for a valid address
    return static_cast<uint32_t>(getpid()) ^ static_cast<uint32_t>(now.tv_sec) ^ static_cast<uint32_t>(now.tv_usec);
}

u_int whole_words(u_int size)
{
    return (size + BYTES_PER_XDR_UNIT - 1) / BYTES_PER_XDR_UNIT * BYTES_PER_XDR_UNIT;
}

// A send buffer holds the head at least.
Datagrams *allocate(int fd, u_int sendsize, u_int recvsize)
{
    const std::size_t out_size = std::max<std::size_t>(whole_words(sendsize), ks::clnt::header_max);
    const std::size_t in_size = whole_words(recvsize);
    auto *datagrams = static_cast<Datagrams *>(std::calloc(1, sizeof(Datagrams) + out_size + in_size));
    if (datagrams == nullptr)
        return nullptr;
    datagrams->fd = fd;
    datagrams->out = reinterpret_cast<char *>(datagrams + 1);
    datagrams->in = datagrams->out + out_size;
    datagrams->out_size = static_cast<u_int>(out_size);
    datagrams->in_size = static_cast<u_int>(in_size);
    datagrams->interval = first_interval;
    datagrams->total = not_set;
    return datagrams;
}

// False with errno.
bool set_up(Datagrams &datagrams, const netbuf *address, const rpc_msg &call)
{
    int on = 1;
    if (ioctl(datagrams.fd, FIONBIO, &on) != 0)
        return false;
    datagrams.keeps_errors = ks::clnt::ask_for_network_errors(datagrams.fd);
    return ks::clnt::begin_client(datagrams, datagram_ops, address, datagrams.out, call);
}

} // namespace

CLIENT *ks_clnt_dg_create(int fd, const struct netbuf *svcaddr, rpcprog_t prog, rpcvers_t vers, u_int sendsize,
                          u_int recvsize)
{
    const ks::CancelHold hold;
    __rpc_sockinfo info{};
    if (__ks_rpc_fd2sockinfo(fd, &info) == 0) {
        ks::clnt::set_createerr(RPC_TLIERROR, errno);
        return nullptr;
    }
    Datagrams *datagrams = allocate(fd, ks::clnt::buffer_size(info, sendsize), ks::clnt::buffer_size(info, recvsize));
    if (datagrams == nullptr) {
        ks::clnt::fail_creation("ks_clnt_dg_create", ENOMEM);
        return nullptr;
    }
    if (!set_up(*datagrams, svcaddr, ks::clnt::call_template(first_xid(), prog, vers))) {
        ks::clnt::fail_creation("ks_clnt_dg_create", errno);
        std::free(datagrams);
        return nullptr;
    }
    return &datagrams->handle;
}

void ks_clnt_dg_get_strays(CLIENT *client, struct ks_clnt_dg_strays *out)
{
    Datagrams &datagrams = datagrams_of(client);
    const ks::RenewedGuard lock(datagrams.lock);
    *out = datagrams.strays;
}
