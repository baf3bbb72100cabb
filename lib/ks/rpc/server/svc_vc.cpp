// Connections: a transport for each, calls and replies as records.
//
// One with a record limit never blocks: what has arrived is read ahead into a small buffer, from which records are
// assembled, and a turn ends when nothing more is there. One without a limit waits for its peer wherever it has to.
#include "rpc/server/svc_impl.h"

#include "rpc/wire/rpc_wait.h"
#include "rpc/wire/xdr_fields.h"

#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <poll.h>

namespace ks::svc {

namespace {

constexpr time_t patience_s = 35;
constexpr std::size_t ahead_bytes = 4096;

struct Connection : Transport {
    XDR stream;
    uint32_t xid; // of the call that is being served
    xprt_stat status;
    bool is_limited;    // has a record limit, and does not block
    bool has_failed;    // reading or writing has, or the peer has ended it
    bool may_have_more; // the last look has not shown that everything was read
    int64_t last_read_us;
    Backlog backlog;         // of one with a record limit, and without workers
    std::size_t ahead_begin; // what was read ahead and is not assembled yet
    std::size_t ahead_end;
    char ahead[]; // of a connection with a record limit
};

Connection &connection_of(SVCXPRT *xprt)
{
    return reinterpret_cast<Connection &>(transport_of(xprt));
}

int fail(Connection &connection)
{
    connection.has_failed = true;
    connection.status = XPRT_DIED;
    return -1;
}

int die_of_silence(Connection &connection)
{
    count(counters.dead_peers);
    return fail(connection);
}

bool is_passing(int error)
{
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

// --- Reading ---

// recv() that goes on after interruptions: -1 with errno.
ssize_t receive(Connection &connection, void *to, std::size_t room)
{
    for (;;) {
        const ssize_t count = recv(fd_of(connection), to, room, MSG_DONTWAIT);
        if (count > 0)
            connection.last_read_us = now_us();
        if (count >= 0 || errno != EINTR)
            return count;
    }
}

// Nothing there yet is told apart from the end of the connection.
int read_limited(Connection &connection, char *to, std::size_t wanted)
{
    if (connection.ahead_begin == connection.ahead_end) {
        const bool is_direct = wanted >= ahead_bytes;
        const std::size_t room = is_direct ? wanted : ahead_bytes;
        const ssize_t count = receive(connection, is_direct ? to : connection.ahead, room);
        connection.may_have_more = count == static_cast<ssize_t>(room);
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            return fail(connection);
        connection.has_failed = count == 0;
        if (count <= 0 || is_direct)
            return static_cast<int>(count);
        connection.ahead_begin = 0;
        connection.ahead_end = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(wanted, connection.ahead_end - connection.ahead_begin);
    std::memcpy(to, connection.ahead + connection.ahead_begin, count);
    connection.ahead_begin += count;
    return static_cast<int>(count);
}

int read_blocking(Connection &connection, char *to, std::size_t wanted)
{
    ssize_t count = receive(connection, to, wanted);
    if (count < 0 && is_passing(errno)) {
        // What was answered must not wait for what is asked next.
        if (!send_held_replies(connection))
            return -1;
        const ks::rpc::Moment end = ks::rpc::seconds_after(ks::rpc::now(), patience_s);
        do {
            const ks::rpc::Waited waited = ks::rpc::wait_for(fd_of(connection), POLLIN, end);
            if (waited != ks::rpc::Waited::ready)
                return waited == ks::rpc::Waited::timed_out ? die_of_silence(connection) : fail(connection);
            count = receive(connection, to, wanted);
        } while (count < 0 && is_passing(errno));
    }
    return count > 0 ? static_cast<int>(count) : fail(connection);
}

int ks_read_vc(void *handle, void *buffer, int size)
{
    auto &connection = *static_cast<Connection *>(handle);
    auto *to = static_cast<char *>(buffer);
    const auto wanted = static_cast<std::size_t>(size);
    return connection.is_limited ? read_limited(connection, to, wanted) : read_blocking(connection, to, wanted);
}

// --- Writing ---

// When a peer that does not read is given up. With a record limit: once the clock's seconds have moved on by more than
// one.
ks::rpc::Moment write_end(const Connection &connection)
{
    if (!connection.is_limited)
        return ks::rpc::seconds_after(ks::rpc::now(), patience_s);
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    return ks::rpc::after(0, timeval{now.tv_sec + 2, 0});
}

// Whoever has no seat to wait on lets the peer take something soon, or gives it up.
bool wait_to_write(Connection &connection, ks::rpc::Moment &end)
{
    constexpr timeval grace{0, 250'000};
    if (end == 0)
        end = write_end(connection);
    const WaitingSeat seat;
    const ks::rpc::Moment latest = seat.is_granted() ? end : std::min(end, ks::rpc::after(ks::rpc::now(), grace));
    return ks::rpc::wait_for(fd_of(connection), POLLOUT, latest) == ks::rpc::Waited::ready;
}

// Sends what the socket takes at once; what is left stays in `bytes`. False when the connection is dead.
bool send_now(Connection &connection, std::string_view &bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = send(fd_of(connection), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (!is_passing(errno)) {
            (void)fail(connection);
            return false;
        } else if (errno != EINTR) {
            return true;
        }
    }
    return true;
}

bool write_waiting(Connection &connection, std::string_view bytes)
{
    ks::rpc::Moment end = 0; // of patience, which begins with the first wait
    while (send_now(connection, bytes)) {
        if (bytes.empty())
            return true;
        if (!wait_to_write(connection, end)) {
            (void)die_of_silence(connection);
            return false;
        }
    }
    return false;
}

// Waits until the peer has taken what was kept for it, which has become too much; as long as it goes on taking.
bool write_backlog(Connection &connection)
{
    constexpr std::size_t step = 8192;
    Backlog backlog;
    take_backlog(connection, backlog);
    bool is_sent = true;
    for (std::string_view rest(backlog.bytes + backlog.begin, backlog.end - backlog.begin); is_sent && !rest.empty();) {
        const std::size_t size = std::min(step, rest.size());
        is_sent = write_waiting(connection, {rest.data(), size});
        rest.remove_prefix(size);
    }
    std::free(backlog.bytes);
    return is_sent;
}

bool write_or_keep(Connection &connection, std::string_view bytes)
{
    if (is_stuck(connection)) { // what is kept goes first
        if (keep_unsent(connection, bytes.data(), bytes.size()))
            return true;
        if (!write_backlog(connection))
            return false;
    }
    if (!send_now(connection, bytes))
        return false;
    if (bytes.empty() || (connection.is_limited && keep_unsent(connection, bytes.data(), bytes.size())))
        return true;
    return write_waiting(connection, bytes);
}

int ks_write_vc(void *handle, void *buffer, int size)
{
    auto &connection = *static_cast<Connection *>(handle);
    return write_or_keep(connection, {static_cast<const char *>(buffer), static_cast<std::size_t>(size)}) ? size : -1;
}

// --- Calls ---

bool assemble(Connection &connection)
{
    xprt_stat status = XPRT_IDLE;
    const bool is_whole = __ks_xdrrec_getrec(&connection.stream, &status, TRUE) != FALSE;
    if (status == XPRT_DIED)
        connection.status = XPRT_DIED;
    // A look that found nothing, or not all that there was room for, has shown that there is no more.
    if (status != XPRT_MOREREQS)
        connection.may_have_more = false;
    return is_whole;
}

// A peer that goes away has sent nothing bad.
void note_bad_record(const Connection &connection)
{
    if (connection.status == XPRT_DIED && !connection.has_failed)
        count(counters.bad_records);
}

bool find_record(Connection &connection)
{
    if (connection.is_limited)
        return assemble(connection);
    if (ks_xdrrec_skiprecord(&connection.stream) != FALSE)
        return true;
    connection.status = XPRT_DIED;
    return false;
}

extern "C" bool_t ks_svc_vc_recv(SVCXPRT *xprt, rpc_msg *msg)
{
    Connection &connection = connection_of(xprt);
    connection.stream.x_op = XDR_DECODE;
    if (!find_record(connection)) {
        note_bad_record(connection);
        return FALSE;
    }
    if (xdr_ks_callmsg(&connection.stream, msg) == FALSE) {
        connection.status = XPRT_DIED;
        note_bad_record(connection);
        return FALSE;
    }
    connection.xid = msg->rm_xid;
    return TRUE;
}

bool has_more(Connection &connection)
{
    if (is_stuck(connection))
        return false;
    if (connection.is_limited)
        return connection.may_have_more || connection.ahead_begin != connection.ahead_end;
    return ks_xdrrec_eof(&connection.stream) == FALSE;
}

extern "C" xprt_stat ks_svc_vc_stat(SVCXPRT *xprt)
{
    Connection &connection = connection_of(xprt);
    if (connection.status == XPRT_DIED)
        return XPRT_DIED;
    const bool more = has_more(connection);
    if (connection.status == XPRT_DIED) // while it read over the rest of a record
        return XPRT_DIED;
    return more ? XPRT_MOREREQS : XPRT_IDLE;
}

extern "C" bool_t ks_svc_vc_getargs(SVCXPRT *xprt, xdrproc_t xdr_args, void *args)
{
    Connection &connection = connection_of(xprt);
    connection.stream.x_op = XDR_DECODE;
    return xdr_args(&connection.stream, args) != 0 ? TRUE : FALSE;
}

extern "C" bool_t ks_svc_vc_freeargs(SVCXPRT *xprt, xdrproc_t xdr_args, void *args)
{
    Connection &connection = connection_of(xprt);
    connection.stream.x_op = XDR_FREE;
    return xdr_args(&connection.stream, args) != 0 ? TRUE : FALSE;
}

// --- Replies ---

// Whether the next call is in memory as a whole: then the reply to this one may leave with that to the next.
bool holds_next_call(const Connection &connection)
{
    if (connection.is_limited)
        return ks::xdr::is_whole_record(connection.ahead + connection.ahead_begin,
                                        connection.ahead_end - connection.ahead_begin);
    return ks::xdr::holds_next_record(&connection.stream);
}

bool end_reply(Connection &connection)
{
    return ks_xdrrec_endofrecord(&connection.stream, holds_next_call(connection) ? FALSE : TRUE) != FALSE;
}

extern "C" bool_t ks_svc_vc_reply(SVCXPRT *xprt, rpc_msg *msg)
{
    Connection &connection = connection_of(xprt);
    connection.stream.x_op = XDR_ENCODE;
    msg->rm_xid = connection.xid;
    if (xdr_ks_replymsg(&connection.stream, msg) == FALSE) {
        drop_reply(connection);
        return FALSE;
    }
    return connection.handle.reply_in_progress != 0 || end_reply(connection) ? TRUE : FALSE;
}

extern "C" XDR *ks_svc_vc_reply_get_xdrs(SVCXPRT *xprt)
{
    Connection &connection = connection_of(xprt);
    connection.stream.x_op = XDR_ENCODE;
    return &connection.stream;
}

extern "C" bool_t ks_svc_vc_reply_finish(SVCXPRT *xprt)
{
    Connection &connection = connection_of(xprt);
    if (connection.handle.reply_in_progress == 0)
        return FALSE;
    connection.handle.reply_in_progress = 0;
    return end_reply(connection) ? TRUE : FALSE;
}

// --- Life ---

extern "C" bool_t ks_svc_vc_control(SVCXPRT *, u_int, void *)
{
    return FALSE;
}

void dispose_connection(Transport &transport)
{
    auto &connection = static_cast<Connection &>(transport);
    close_socket(connection);
    std::free(connection.backlog.bytes);
    XDR_DESTROY(&connection.stream);
    std::free(&connection);
}

constexpr Kind connection_kind =
    kind_of({ks_svc_vc_recv, ks_svc_vc_stat, ks_svc_vc_getargs, ks_svc_vc_reply, ks_svc_vc_reply_get_xdrs,
             ks_svc_vc_reply_finish, ks_svc_vc_freeargs, ks_svc_vc_destroy, ks_svc_vc_control},
            Serving::by_worker, true, dispose_connection);

} // namespace

Transport *make_connection(int fd, u_int sendsize, u_int recvsize)
{
    auto *connection = static_cast<Connection *>(std::calloc(1, sizeof(Connection) + ahead_bytes));
    if (connection == nullptr) {
        (void)ks_warnx("svc_vc: ks_makefd_xprt: out of memory");
        return nullptr;
    }
    ks_xdrrec_create(&connection->stream, sendsize, recvsize, connection, ks_read_vc, ks_write_vc);
    if (connection->stream.x_private == nullptr) {
        (void)ks_warnx("svc_tcp: ks_makefd_xprt: out of memory");
        std::free(connection);
        return nullptr;
    }
    connection->status = XPRT_IDLE;
    connection->last_read_us = now_us();
    begin_transport(*connection, fd, connection_kind, SOCK_STREAM);
    return connection;
}

void limit_records(Transport &transport, int limit)
{
    auto &connection = static_cast<Connection &>(transport);
    connection.is_limited = true;
    (void)__ks_xdrrec_setnonblock(&connection.stream, limit); // always TRUE
}

bool send_held_replies(Transport &transport)
{
    return ks::xdr::send_ended_records(&static_cast<Connection &>(transport).stream);
}

bool has_input_in_memory(const Transport &transport)
{
    const auto &connection = static_cast<const Connection &>(transport);
    if (is_stuck(connection))
        return false;
    return connection.is_limited ? connection.ahead_begin != connection.ahead_end
                                 : ks::xdr::holds_next_record(&connection.stream);
}

void drop_reply(Transport &transport)
{
    auto &connection = static_cast<Connection &>(transport);
    connection.handle.reply_in_progress = 0;
    if (!ks::xdr::drop_record(&connection.stream))
        connection.status = XPRT_DIED; // what was sent of it would be taken for a part of the next
}

Backlog &backlog_of(Transport &transport)
{
    return static_cast<Connection &>(transport).backlog;
}

const Backlog &backlog_of(const Transport &transport)
{
    return static_cast<const Connection &>(transport).backlog;
}

Idleness idleness_of(const Transport &transport)
{
    const auto &connection = static_cast<const Connection &>(transport);
    return {connection.is_limited, connection.last_read_us};
}

int64_t now_us()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now); // cannot fail for this clock and a valid address
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
}

} // namespace ks::svc
