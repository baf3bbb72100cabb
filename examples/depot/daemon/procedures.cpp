// Every call has a depot handle of its own, and what fails is written down and sent. Raises are held off, so that
// objects with destructors may be alive anywhere.
#include "daemon/procedures.h"

#include "daemon/changes.h"
#include "daemon/once.h"
#include "daemon/puts.h"
#include "depot_names.h"
#include "depot_process.h"
#include "depot_program.h"
#include "depot_wire.h"

#include <korvaks/nirpc.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <netconfig.h>
#include <sys/stat.h>
#include <unistd.h>

namespace depot {

namespace {

constinit const char *depot_path = nullptr;
constinit std::int64_t start_ms = 0;

struct Call {
    SVCXPRT *transport;
    const Caller &caller;
};

bool is_datagram(const Call &call)
{
    return reinterpret_cast<const ks_svcxprt *>(call.transport)->semantics == NC_TPI_CLTS;
}

template <typename Question> bool take(const Call &call, bool_t (*routine)(XDR *, Question *), Question &out_question)
{
    if (svc_getargs(call.transport, as_xdrproc(routine), &out_question))
        return true;
    ks_svcerr_decode(call.transport);
    return false;
}

// A client that is gone gets no answer, and there is nobody else to tell.
template <typename Answer> void reply(const Call &call, bool_t (*routine)(XDR *, Answer *), Answer &answer)
{
    (void)ks_svc_sendreply(call.transport, as_xdrproc(routine), &answer);
}

// Does some work, whose failure is written down.
template <typename Work> bool attempt(Failure &failure, const Work &work)
{
    const FailureNote note(failure);
    if (!work() && failure.number == msg_none)
        (void)fail(msg_no_memory, depot_path); // which the memory module has told of
    return failure.number == msg_none;
}

// The depot's handle of one call.
class CallDepot {
  public:
    CallDepot() = default;
    ~CallDepot() { close_depot(depot_); }
    CallDepot(const CallDepot &) = delete;
    CallDepot &operator=(const CallDepot &) = delete;

    bool open() { return open_depot(depot_path, false, depot_); }
    Depot &get() { return depot_; }

  private:
    Depot depot_;
};

class CallArea {
  public:
    CallArea() : area_(stg_create_area(16384)) {}
    ~CallArea()
    {
        if (area_ != STG_AREA_NULL)
            stg_delete_area(&area_);
    }
    CallArea(const CallArea &) = delete;
    CallArea &operator=(const CallArea &) = delete;

    stg_area *get() const { return area_; }

  private:
    stg_area *area_;
};

void refuse(const Call &call, Msg why, const char *name)
{
    Failure failure;
    (void)attempt(failure, [&] { return fail(why, name); });
    reply(call, xdr_failure, failure);
}

// Long replies may have to wait until their client has read what is before. So many may at once that one thread is left
// which needs not; who comes then is told to come again.
constinit std::atomic<long> streams{0};
constinit long streams_max = 1;

class StreamTurn {
  public:
    StreamTurn() : is_granted_(streams.fetch_add(1) < streams_max) {}
    ~StreamTurn() { --streams; }
    StreamTurn(const StreamTurn &) = delete;
    StreamTurn &operator=(const StreamTurn &) = delete;

    bool is_granted() const { return is_granted_; }

  private:
    bool is_granted_;
};

// --- List ---

// The items of one answer, and how much they are by now.
struct ListReply {
    XDR *xdrs;
    std::size_t bytes;
    ListItem item;
};

bool is_full(const ListReply &reply)
{
    constexpr std::size_t enough = 1 << 19;
    return reply.bytes > enough;
}

bool send(ListReply &reply, std::uint32_t kind, const char *name)
{
    constexpr std::size_t bytes_beside_texts = 80;
    ListItem &item = reply.item;
    item.kind = kind;
    item.name[std::string_view(name).copy(item.name, item_name_bytes_max)] = '\0';
    reply.bytes += bytes_beside_texts + std::strlen(item.name);
    if (kind == item_headed)
        reply.bytes += item.entry.entry.owner.size() + item.entry.entry.comment.size() + std::strlen(item.failure.name);
    return xdr_list_item(reply.xdrs, &item) != FALSE;
}

bool send_entry(ListReply &reply, Depot &depot, const char *name, bool with_head)
{
    if (!with_head)
        return send(reply, item_entry, name);
    ListItem &item = reply.item;
    item.failure = {};
    (void)attempt(item.failure, [&] {
        Entry entry;
        mode_t mode = 0;
        const bool is_read = open_entry(depot, name, entry, mode);
        if (is_read)
            item.entry.set(entry, mode);
        end_transfer(depot.transfer);
        return is_read;
    });
    return send(reply, item_headed, name);
}

void drop_up_to(Names &names, const char *last)
{
    const auto is_behind = [&](const char *name) { return std::strcmp(name, last) > 0; };
    const char **const end = names.items + names.count;
    const char **const first = std::find_if(names.items, end, is_behind);
    names = {first, static_cast<std::size_t>(end - first)};
}

// Names are found before the reply begins: behind its head no failure of that can be told.
bool find(const ListQuestion &question, Depot &depot, stg_area *area, Names &out_names, Names &out_others)
{
    const char *const name = question.name.text;
    if (area == STG_AREA_NULL)
        return false;
    if (*name != '\0')
        return check_name(name, name) && (!has_entry(depot, name) || add_name(area, name, out_names));
    if (!read_names(depot, area, out_names, out_others))
        return false;
    sort(out_names);
    sort(out_others);
    if (question.after_kind == item_foreign)
        drop_up_to(out_others, question.after);
    if (question.after_kind == item_entry || question.after_kind == item_headed) {
        out_others = {};
        drop_up_to(out_names, question.after);
    }
    return true;
}

// False when there is nobody who reads it. `out_end` is the kind of the last item, which is to be sent.
bool send_items(ListReply &reply, const ListQuestion &question, Depot &depot, const Names &names, const Names &others,
                std::uint32_t &out_end)
{
    out_end = item_more;
    for (std::size_t i = 0; i < others.count; ++i) {
        if (is_full(reply))
            return true;
        if (!send(reply, item_foreign, others.items[i]))
            return false;
    }
    for (std::size_t i = 0; i < names.count; ++i) {
        if (is_full(reply))
            return true;
        if (!send_entry(reply, depot, names.items[i], question.heads != 0))
            return false;
    }
    out_end = item_end;
    return true;
}

void list(const Call &call)
{
    ListQuestion question;
    if (!take(call, xdr_list_question, question))
        return;
    const bool is_long = question.name.text[0] == '\0';
    if (is_long && is_datagram(call))
        return refuse(call, msg_needs_connection, depot_path);
    const StreamTurn turn;
    if (is_long && !turn.is_granted())
        return refuse(call, msg_busy, depot_path);
    const CallArea area;
    CallDepot depot;
    Names names;
    Names others;
    Failure failure;
    if (!attempt(failure, [&] { return depot.open() && find(question, depot.get(), area.get(), names, others); }))
        return reply(call, xdr_failure, failure);
    if (!ks_svc_sendreply_start(call.transport, as_xdrproc(xdr_failure), &failure))
        return;
    ListReply items = {ks_svc_sendreply_get_xdrs(call.transport), 0, {}};
    std::uint32_t end = item_end;
    if (!send_items(items, question, depot.get(), names, others, end))
        return;
    items.item.kind = end;
    (void)ks_svc_sendreply_finish(call.transport, as_xdrproc(xdr_list_item), &items.item);
}

// --- Get ---

struct GetAnswer {
    Failure failure;
    WireEntry entry;
};

bool_t xdr_get_head(XDR *xdrs, GetAnswer *answer)
{
    return xdr_failure(xdrs, &answer->failure) &&
           (answer->failure.number != msg_none || xdr_entry(xdrs, &answer->entry));
}

// A sink: content becomes pieces of the reply. EPIPE: there is nobody who reads it.
int to_wire(Transfer &transfer, const unsigned char *data, std::size_t size)
{
    auto *const xdrs = static_cast<XDR *>(transfer.sink_argument);
    Piece piece;
    while (size > 0) {
        piece.size = static_cast<std::uint32_t>(std::min<std::size_t>(size, piece_bytes_max));
        std::copy_n(data, piece.size, piece.bytes);
        piece.checksum = fileutl_crc_buffer(data, piece.size, nullptr);
        if (!xdr_piece(xdrs, &piece))
            return EPIPE;
        data += piece.size;
        size -= piece.size;
    }
    return 0;
}

// The end of a reply: how it went, and where to go on.
struct GetEnd {
    Piece piece;
    Place place;
};

bool_t xdr_get_end(XDR *xdrs, GetEnd *end)
{
    return xdr_piece(xdrs, &end->piece) && xdr_place(xdrs, &end->place);
}

// Opens an entry and goes to a place in it. What a client makes up is read as it is and then not found sound.
bool open_at(Depot &depot, const GetQuestion &question, Entry &out_entry, mode_t &out_mode, Place &out_place)
{
    const char *const name = question.name.text;
    if (!open_entry(depot, name, out_entry, out_mode))
        return false;
    const int fd = depot.transfer.source;
    struct stat status;
    if (fstat(fd, &status) != 0)
        return fail(msg_cannot_read, name, errno);
    out_place = question.place;
    out_place.file = status.st_ino;
    if (out_place.given == 0)
        return true;
    if (out_place.file != question.place.file || out_place.given >= out_entry.length ||
        out_place.stored > out_entry.stored_length)
        return fail(msg_replaced, name);
    return lseek(fd, static_cast<off_t>(out_place.stored), SEEK_CUR) >= 0 || fail(msg_cannot_read, name, errno);
}

void get(const Call &call)
{
    GetQuestion question;
    if (!take(call, xdr_get_question, question))
        return;
    if (is_datagram(call))
        return refuse(call, msg_needs_connection, question.name.text);
    const StreamTurn turn;
    if (!turn.is_granted())
        return refuse(call, msg_busy, question.name.text);
    CallDepot depot;
    Entry entry;
    mode_t mode = 0;
    GetAnswer answer;
    GetEnd end;
    Transfer &transfer = depot.get().transfer;
    if (!attempt(answer.failure,
                 [&] { return depot.open() && open_at(depot.get(), question, entry, mode, end.place); }))
        return reply(call, xdr_get_head, answer);
    answer.entry.set(entry, mode);
    if (!ks_svc_sendreply_start(call.transport, as_xdrproc(xdr_get_head), &answer))
        return;
    transfer.sink_argument = ks_svc_sendreply_get_xdrs(call.transport);
    Position position = {end.place.given, end.place.stored, Checksum(end.place.sum, end.place.counter), {}};
    end.piece.size = 0;
    const FailureNote note(end.piece.failure);
    if (!unpack_next(transfer, entry, position, to_wire) && end.piece.failure.number == msg_none)
        return; // there is nobody who reads it
    end.place = {position.given, position.stored, end.place.file, position.stored_sum.value(),
                 position.stored_sum.counter()};
    (void)ks_svc_sendreply_finish(call.transport, as_xdrproc(xdr_get_end), &end);
}

// --- Put ---

constexpr auto say_nothing = [](const auto &, const Failure &) {};

// What came of it is told to `note`.
template <typename Question, typename Step, typename Note = decltype(say_nothing)> void
step_of_put(const Call &call, bool_t (*routine)(XDR *, Question *), const Step &step, const Note &note = say_nothing)
{
    Question question;
    if (!take(call, routine, question))
        return;
    PutAnswer answer;
    (void)attempt(answer.failure, [&] { return step(question, answer.number); });
    note(question, answer.failure);
    reply(call, xdr_put_answer, answer);
}

void begin(const Call &call)
{
    step_of_put(
        call, xdr_put_begin,
        [&](const PutBegin &question, std::uint64_t &) { return begin_put(depot_path, call.caller, question); },
        [&](const PutBegin &question, const Failure &failure) {
            if (failure.number != msg_none)
                log_change(call.caller, question.name.text, failure, msg_daemon_stored, msg_daemon_not_stored);
        });
}

void add_piece(const Call &call)
{
    step_of_put(call, xdr_put_piece, [&](const PutPiece &question, std::uint64_t &out_number) {
        return put_piece(call.caller.user, question, out_number);
    });
}

void finish(const Call &call)
{
    PutFinish question;
    if (!take(call, xdr_put_finish, question) || !begin_once(call.transport, question.call))
        return;
    PutAnswer answer;
    WireName name = {};
    (void)attempt(answer.failure, [&] { return finish_put(call.caller, question, name, answer.number); });
    log_change(call.caller, name.text, answer.failure, msg_daemon_stored, msg_daemon_not_stored);
    end_once(call.transport, question.call, as_xdrproc(xdr_put_answer), &answer);
}

void cancel(const Call &call)
{
    step_of_put(call, xdr_put_handle,
                [&](const std::uint64_t &handle, std::uint64_t &) { return cancel_put(call.caller.user, handle); });
}

// --- The rest ---

// Works on an entry, once. What came of it is told to `note`.
template <typename Work, typename Note> void with_entry(const Call &call, const Work &work, const Note &note)
{
    NameQuestion question;
    if (!take(call, xdr_name_question, question) || !begin_once(call.transport, question.call))
        return;
    const char *const name = question.name.text;
    CallDepot depot;
    Failure failure;
    (void)attempt(failure, [&] { return depot.open() && work(depot.get(), name); });
    note(name, failure);
    end_once(call.transport, question.call, as_xdrproc(xdr_failure), &failure);
}

void verify(const Call &call)
{
    with_entry(call, verify_entry, say_nothing);
}

void remove(const Call &call)
{
    with_entry(
        call,
        [&](Depot &depot, const char *name) {
            const ChangeTurn turn(name);
            return check_name(name, name) && check_owner(depot, call.caller, name) && remove_entry(depot, name);
        },
        [&](const char *name, const Failure &failure) {
            log_change(call.caller, name, failure, msg_daemon_removed, msg_daemon_not_removed);
        });
}

void whoami(const Call &call)
{
    WhoAnswer answer;
    (void)attempt(answer.failure, [&] { return describe(call.caller, answer.identity); });
    reply(call, xdr_who_answer, answer);
}

void status(const Call &call)
{
    ks_svc_counters from;
    nirpc_counters once;
    ks_svc_get_counters(&from);
    nirpc_get_counters(&once);
    const auto uptime_s = static_cast<std::uint64_t>((now_ms() - start_ms) / 1000);
    Counters counters = {{uptime_s,
                          from.connections_open,
                          from.connections_accepted,
                          from.connections_refused,
                          from.connections_idled,
                          from.accept_pauses,
                          from.dead_peers,
                          from.bad_records,
                          from.calls,
                          from.calls_succeeded,
                          from.calls_no_program,
                          from.calls_bad_version,
                          from.calls_no_procedure,
                          from.calls_bad_arguments,
                          from.calls_failed,
                          from.calls_denied,
                          from.calls_abandoned,
                          from.queued,
                          from.workers,
                          from.workers_busy,
                          count_puts(),
                          once.fetched_duplicate,
                          once.fetched_stale + once.fetched_in_progress,
                          once.entries}};
    reply(call, xdr_counters, counters);
}

// By number, from 1.
constexpr void (*procedures[])(const Call &) = {list,   get,    begin,  add_piece, finish,
                                                cancel, verify, remove, status,    whoami};
static_assert(std::size(procedures) == procedure_count - 1);

} // namespace

void set_served_depot(const char *path, long threads)
{
    depot_path = path;
    streams_max = std::max(threads - 1, 1L);
    start_ms = now_ms();
}

extern "C" void serve_call(svc_req *request, SVCXPRT *transport)
{
    Caller caller;
    if (request->rq_proc == procedure_null)
        (void)ks_svc_sendreply(transport, nullptr, nullptr);
    else if (!identify(request, transport, caller))
        return;
    else if (request->rq_proc >= procedure_count)
        ks_svcerr_noproc(transport);
    else
        procedures[request->rq_proc - 1]({transport, caller});
}

} // namespace depot
