// Calls over a connection: records with marking, one call after the other.
#include "rpc/client/clnt_impl.h"

#include "rpc/wire/xdr_fields.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

using ks::clnt::Client;
using ks::clnt::Moment;
using ks::clnt::Reply;
using ks::clnt::Results;
using ks::clnt::Waited;

struct Connection : Client {
    timeval wait;     // for replies: of control request 1, else of the last call that had a valid one
    bool is_wait_set; // by control request 1
    bool is_broken;   // a record was cut in the middle of its sending
    Moment read_end;  // of the call that is under way
    Moment write_end;
    XDR stream;
    char head[ks::clnt::header_max];
};

Connection &connection_of(CLIENT *client);

// What a wait that brought nothing means, as the failure of a read or a write.
int fail_waiting(Connection &connection, Waited waited, clnt_stat status)
{
    const int error = waited == Waited::interrupted ? EINTR : errno;
    if (waited == Waited::timed_out)
        (void)ks::clnt::fail(connection, RPC_TIMEDOUT);
    else
        (void)ks::clnt::fail(connection, waited == Waited::interrupted ? RPC_CANTRECV : status, error);
    return -1;
}

bool is_passing(int error)
{
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

int ks_read_vc(void *handle, void *buffer, int size)
{
    auto &connection = *static_cast<Connection *>(handle);
    for (;;) {
        const Waited waited = ks::clnt::wait_for(connection.fd, POLLIN, connection.read_end);
        if (waited != Waited::ready)
            return fail_waiting(connection, waited, RPC_CANTRECV);
        const ssize_t count = recv(connection.fd, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT);
        if (count > 0)
            return static_cast<int>(count);
        if (count < 0 && is_passing(errno))
            continue;
        (void)ks::clnt::fail(connection, RPC_CANTRECV, count == 0 ? ECONNRESET : errno);
        return -1;
    }
}

bool write_all(Connection &connection, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = send(connection.fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            bytes += count;
            size -= static_cast<std::size_t>(count);
            continue;
        }
        if (!is_passing(errno)) {
            (void)ks::clnt::fail(connection, RPC_CANTSEND, errno);
            return false;
        }
        const Waited waited = ks::clnt::wait_for(connection.fd, POLLOUT, connection.write_end);
        if (waited != Waited::ready) {
            (void)fail_waiting(connection, waited, RPC_CANTSEND);
            return false;
        }
    }
    return true;
}

// What is in the buffer is there for good when it cannot be sent, and the next write would send it again.
int ks_write_vc(void *handle, void *buffer, int size)
{
    auto &connection = *static_cast<Connection *>(handle);
    if (write_all(connection, static_cast<const char *>(buffer), static_cast<std::size_t>(size)))
        return size;
    connection.is_broken = true;
    return -1;
}

// Kept exactly: ids count down.
void step_xid(Connection &connection)
{
    ks::clnt::set_header_word(connection, ks::clnt::xid_at, ks::clnt::header_word(connection, ks::clnt::xid_at) - 1);
}

// A record that could not be encoded is ended all the same: its server finds no whole call in it, and the next one
// starts clean.
clnt_stat end_cut_call(Connection &connection)
{
    if (connection.error.re_status == RPC_SUCCESS)
        (void)ks::clnt::fail(connection, RPC_CANTENCODEARGS);
    const rpc_err error = connection.error;
    if (!connection.is_broken)
        (void)ks_xdrrec_endofrecord(&connection.stream, TRUE);
    connection.error = error;
    return error.re_status;
}

struct Call {
    rpcproc_t proc;
    xdrproc_t xdr_args;
    void *args;
    bool is_sent_now;
};

clnt_stat send_call(Connection &connection, const Call &call)
{
    connection.error = {};
    XDR &stream = connection.stream;
    stream.x_op = XDR_ENCODE;
    step_xid(connection);
    if (XDR_PUTBYTES(&stream, connection.header, connection.header_size) == FALSE ||
        !ks::clnt::put_call(connection, stream, call.proc, call.xdr_args, call.args))
        return end_cut_call(connection);
    if (ks_xdrrec_endofrecord(&stream, call.is_sent_now ? TRUE : FALSE) == FALSE)
        return connection.error.re_status;
    return RPC_SUCCESS;
}

// Goes to the next record, unless the call before gave up waiting for just that one.
bool find_record(Connection &connection)
{
    XDR &stream = connection.stream;
    if (ks::xdr::is_record_unbegun(&stream) || ks_xdrrec_skiprecord(&stream) != FALSE)
        return true;
    if (connection.error.re_status == RPC_SUCCESS)
        (void)ks::clnt::fail(connection, RPC_CANTDECODERES);
    return false;
}

enum class Received { ours, foreign, nothing };

// What cannot be decoded is passed over too, unless it says that it is the reply.
Received receive_reply(Connection &connection, Reply &reply)
{
    if (!find_record(connection))
        return Received::nothing;
    reply.message.rm_xid = ~ks::clnt::header_word(connection, ks::clnt::xid_at);
    const bool is_decoded = xdr_ks_replymsg(&connection.stream, &reply.message) != FALSE;
    if (connection.error.re_status != RPC_SUCCESS)
        return Received::nothing;
    if (reply.message.rm_xid != ks::clnt::header_word(connection, ks::clnt::xid_at))
        return Received::foreign;
    if (is_decoded)
        return Received::ours;
    (void)ks::clnt::fail(connection, RPC_CANTDECODERES);
    return Received::nothing;
}

// True when the call is over, false to make it again.
bool wait_for_reply(Connection &connection, Results &wanted)
{
    connection.stream.x_op = XDR_DECODE;
    for (;;) {
        Reply reply;
        const Received received = receive_reply(connection, reply);
        if (received == Received::nothing)
            return true;
        if (received == Received::ours)
            return ks::clnt::settle(connection, connection.stream, reply, wanted);
        if (ks::clnt::now() >= connection.read_end) { // replies of others may come from the buffer without end
            (void)ks::clnt::fail(connection, RPC_TIMEDOUT);
            return true;
        }
    }
}

// The time for replies, and for sending, which has some where nobody waits for a reply.
void set_ends(Connection &connection, const timeval &timeout)
{
    if (!connection.is_wait_set && ks::clnt::is_valid(timeout))
        connection.wait = timeout;
    const Moment start = ks::clnt::now();
    connection.read_end = ks::clnt::after(start, connection.wait);
    connection.write_end = ks::clnt::is_zero(connection.wait) ? ks::clnt::seconds_after(start, ks::clnt::connect_max_s)
                                                              : connection.read_end;
}

extern "C" clnt_stat ks_clnt_vc_call(CLIENT *client, rpcproc_t proc, xdrproc_t xdr_args, void *args,
                                     xdrproc_t xdr_results, void *results, timeval timeout)
{
    Connection &connection = connection_of(client);
    const ks::RenewedGuard lock(connection.lock);
    ks::clnt::here.require(connection.lock.mutex.recursion_count == 1, "ct->ct_mutex.recursion_count == 1");
    if (connection.is_broken)
        return ks::clnt::fail(connection, RPC_CANTSEND, EPIPE);
    set_ends(connection, timeout);
    const bool is_waited_for = !ks::clnt::is_zero(connection.wait);
    const Call call{proc, xdr_args, args, xdr_results != nullptr || is_waited_for};
    Results wanted{xdr_results, results};
    do {
        if (send_call(connection, call) != RPC_SUCCESS || !call.is_sent_now)
            return connection.error.re_status;
        if (!is_waited_for)
            return ks::clnt::fail(connection, RPC_TIMEDOUT);
    } while (!wait_for_reply(connection, wanted));
    return connection.error.re_status;
}

extern "C" void ks_clnt_vc_abort(CLIENT *) {}

extern "C" void ks_clnt_vc_geterr(CLIENT *client, rpc_err *error)
{
    ks::clnt::give_error(connection_of(client), error);
}

extern "C" bool_t ks_clnt_vc_freeres(CLIENT *client, xdrproc_t xdr_results, void *results)
{
    Connection &connection = connection_of(client);
    return ks::clnt::free_results(connection, connection.stream, xdr_results, results);
}

void free_connection(Connection *connection)
{
    if (connection->stream.x_private != nullptr)
        XDR_DESTROY(&connection->stream);
    std::free(connection);
}

extern "C" void ks_clnt_vc_destroy(CLIENT *client)
{
    const ks::CancelHold hold;
    Connection &connection = connection_of(client);
    ks::clnt::end_client(connection);
    free_connection(&connection);
}

// The next call counts one down before it is sent.
bool_t set_next_xid(Connection &connection, const void *info)
{
    if (info == nullptr)
        return FALSE;
    ks::clnt::set_header_word(connection, ks::clnt::xid_at, *static_cast<const uint32_t *>(info) + 1);
    return TRUE;
}

extern "C" bool_t ks_clnt_vc_control(CLIENT *client, u_int request, void *info)
{
    Connection &connection = connection_of(client);
    const ks::RenewedGuard lock(connection.lock);
    switch (request) {
    case CLSET_TIMEOUT:
        if (ks::clnt::take_span(info, connection.wait) == FALSE)
            return FALSE;
        connection.is_wait_set = true;
        return TRUE;
    case CLGET_TIMEOUT:
        return ks::clnt::give(info, connection.wait);
    case CLSET_XID:
        return set_next_xid(connection, info);
    default:
        return ks::clnt::common_control(connection, request, info) > 0 ? TRUE : FALSE;
    }
}

constinit CLIENT::clnt_ops connection_ops = {ks_clnt_vc_call,    ks_clnt_vc_abort,   ks_clnt_vc_geterr,
                                             ks_clnt_vc_freeres, ks_clnt_vc_destroy, ks_clnt_vc_control};

Connection &connection_of(CLIENT *client)
{
    ks::clnt::here.require(client->cl_ops == &connection_ops, "client->cl_ops == &ks_clnt_vc_ops");
    return *static_cast<Connection *>(client->cl_private);
}

constinit std::atomic<uint32_t> clients_made{0};

uint32_t first_xid()
{
    timeval now{};
    (void)gettimeofday(&now, nullptr); // cannot fail for a valid address
    return static_cast<uint32_t>(now.tv_sec) ^ static_cast<uint32_t>(now.tv_usec) ^
           (clients_made.fetch_add(1, std::memory_order_relaxed) + 1) ^ static_cast<uint32_t>(getpid());
}

// The end of a connect(2) that goes on; false with errno.
bool finish_connecting(int fd)
{
    const Moment end = ks::clnt::seconds_after(ks::clnt::now(), ks::clnt::connect_max_s);
    const Waited waited = ks::clnt::wait_for(fd, POLLOUT, end);
    if (waited != Waited::ready) {
        if (waited != Waited::failed)
            errno = waited == Waited::timed_out ? ETIMEDOUT : EINTR;
        return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        return false;
    errno = error;
    return error == 0;
}

bool connect_within_limit(int fd, const netbuf &address)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return false;
    bool is_connected = connect(fd, static_cast<const sockaddr *>(address.buf), address.len) == 0;
    if (!is_connected && (errno == EINPROGRESS || errno == EINTR))
        is_connected = finish_connecting(fd);
    const ks::ErrnoSaver saver;
    (void)fcntl(fd, F_SETFL, flags); // was settable before
    return is_connected;
}

bool has_peer(int fd)
{
    sockaddr_storage peer;
    socklen_t size = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0;
}

// What connection, head and stream are made for.
struct Wanted {
    const netbuf *address;
    rpcprog_t prog;
    rpcvers_t vers;
    u_int sendsize;
    u_int recvsize;
};

// False with errno; the connection is to be freed then.
bool set_up(Connection &connection, const Wanted &wanted)
{
    const rpc_msg call = ks::clnt::call_template(first_xid(), wanted.prog, wanted.vers);
    if (!ks::clnt::begin_client(connection, connection_ops, wanted.address, connection.head, call))
        return false;
    const ks::RenewedGuard lock(connection.lock); // a raise waits for the end of the connecting
    if (!has_peer(connection.fd) &&
        (errno != ENOTCONN || wanted.address == nullptr || !connect_within_limit(connection.fd, *wanted.address)))
        return false;
    __rpc_sockinfo info{};
    (void)__ks_rpc_fd2sockinfo(connection.fd, &info); // of no known kind: the size for others
    ks_xdrrec_create(&connection.stream, ks::clnt::buffer_size(info, wanted.sendsize),
                     ks::clnt::buffer_size(info, wanted.recvsize), &connection, ks_read_vc, ks_write_vc);
    errno = ENOMEM;
    return connection.stream.x_private != nullptr;
}

} // namespace

CLIENT *ks_clnt_vc_create(int fd, const struct netbuf *svcaddr, rpcprog_t prog, rpcvers_t vers, u_int sendsize,
                          u_int recvsize)
{
    const ks::CancelHold hold;
    auto *connection = static_cast<Connection *>(std::calloc(1, sizeof(Connection)));
    if (connection == nullptr) {
        ks::clnt::fail_creation("ks_clnt_vc_create", ENOMEM);
        return nullptr;
    }
    connection->fd = fd;
    if (!set_up(*connection, {svcaddr, prog, vers, sendsize, recvsize})) {
        ks::clnt::fail_creation("ks_clnt_vc_create", errno);
        free_connection(connection);
        return nullptr;
    }
    return &connection->handle;
}
