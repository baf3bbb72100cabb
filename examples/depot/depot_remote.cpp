// A call is made without a delivery check in its middle: a raise that comes while the server is waited for ends the
// call, and is delivered behind it, when all that the call needs is in its place.
#include "depot_remote.h"

#include "depot_call.h"
#include "depot_process.h"
#include "depot_report.h"
#include "depot_target.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>
#include <korvaks/evutl.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

namespace depot {

// Of all calls that fetch an entry.
struct GetAnswer {
    Failure failure;
    Transfer *transfer = nullptr;
    bool is_spooled = false; // content for a stream waits in a file without a name
    std::uint64_t length = 0;
    Checksum content;
    Place next;
    WireEntry entry;
    Piece piece;
};

namespace {

constexpr long usual_patience_s = 30;
constexpr std::int64_t idle_ms_max = 10000; // a server closes connections that are idle for longer than 30 s
constexpr u_int buffer_bytes = 1 << 17;     // a piece leaves in one write
constexpr std::uint32_t items_max = 1 << 22;
constexpr bool_t (*no_arguments)(XDR *, char *) = nullptr;

// --- List ---

struct ListAnswer {
    Failure failure;
    stg_area *area = nullptr;
    Names names;
    Names others;
    hash_ht *known = nullptr;
    std::uint32_t end = item_end;       // the kind of the last item,
    std::uint32_t last_kind = item_end; // and of the one before
    ListItem item;
};

const Failure *copy(stg_area *area, const Failure &failure)
{
    auto *const copy = static_cast<Failure *>(stg_alloc(area, sizeof failure));
    if (copy != nullptr)
        *copy = failure;
    return copy;
}

bool keep_head(ListAnswer &answer, const char *name)
{
    const ListItem &item = answer.item;
    RemoteStore::Known known = {item.entry.entry, nullptr};
    if (item.failure.number != msg_none) {
        known.failure = copy(answer.area, item.failure);
        if (known.failure == nullptr)
            return false;
    } else if (!copy_text(answer.area, known.entry.owner) || !copy_text(answer.area, known.entry.comment)) {
        return false;
    }
    void *data = nullptr;
    (void)hash_str_enter(answer.known, name, nullptr, &data);
    if (data != nullptr)
        *static_cast<RemoteStore::Known *>(data) = known;
    return data != nullptr;
}

bool keep_item(ListAnswer &answer)
{
    const ListItem &item = answer.item;
    if (item.kind != item_foreign && !is_good_name(item.name))
        return fail(msg_bad_name, item.name);
    const char *const name = stg_area_strdup(answer.area, item.name);
    if (name == nullptr || !add_name(answer.area, name, item.kind == item_foreign ? answer.others : answer.names))
        return fail(msg_no_memory, item.name);
    return item.kind != item_headed || keep_head(answer, name) || fail(msg_no_memory, item.name);
}

bool_t xdr_list_answer(XDR *xdrs, ListAnswer *answer)
{
    if (!xdr_failure(xdrs, &answer->failure))
        return FALSE;
    if (answer->failure.number != msg_none)
        return TRUE;
    for (std::uint32_t i = 0; i < items_max; ++i) {
        if (!xdr_list_item(xdrs, &answer->item))
            return FALSE;
        answer->end = answer->item.kind;
        if (answer->end == item_end || answer->end == item_more)
            return TRUE;
        answer->last_kind = answer->end;
        if (!keep_item(*answer))
            return FALSE;
    }
    return FALSE;
}

// Of names that a stranger chooses, which stay in the area.
hash_ht *make_table()
{
    hash_ht *const table =
        hash_create_ht(0, sizeof(RemoteStore::Known), HASH_KEY_STR, 0, 0, hash_seeded_str_fn, nullptr);
    if (table != nullptr)
        hash_set_dynamic(table, 1);
    return table;
}

// --- Get ---

bool is_complete(const GetAnswer &answer)
{
    return answer.length == answer.entry.entry.length && answer.content.value() == answer.entry.entry.checksum;
}

bool take_piece(GetAnswer &answer)
{
    Transfer &transfer = *answer.transfer;
    const Piece &piece = answer.piece;
    answer.length += piece.size;
    if (!is_whole(piece) || answer.length > answer.entry.entry.length)
        return fail(msg_bad_transfer, transfer.source_name);
    answer.content.add(piece.bytes, piece.size);
    const int failure = answer.is_spooled ? write_file(transfer.source, piece.bytes, piece.size)
                                          : write_aside(transfer.aside, piece.bytes, piece.size);
    if (failure != 0)
        return fail(msg_cannot_write, transfer.target_name, failure);
    show_progress(transfer.source_name, answer.length);
    return vlthread_pending_raise(nullptr) == 0;
}

// Decodes straight into the file that is written aside.
bool_t xdr_get_answer(XDR *xdrs, GetAnswer *answer)
{
    if (!xdr_failure(xdrs, &answer->failure))
        return FALSE;
    if (answer->failure.number != msg_none)
        return TRUE;
    if (!xdr_entry(xdrs, &answer->entry))
        return FALSE;
    const bool is_begun = answer->is_spooled || answer->transfer->aside.fd >= 0;
    if (!is_begun && !begin_target(*answer->transfer, answer->entry.mode))
        return FALSE;
    while (xdr_piece(xdrs, &answer->piece)) {
        if (answer->piece.size == 0) {
            answer->failure = answer->piece.failure;
            return xdr_place(xdrs, &answer->next);
        }
        if (!take_piece(*answer))
            return FALSE;
    }
    return FALSE;
}

// A stream may be read slowly, or not at all for a while; the server does not wait for that.
bool open_spool(Transfer &transfer)
{
    constexpr unsigned how = EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_WHOLE | EVUTL_GETENV_SECURE;
    char buffer[PATH_MAX];
    const char *directory = getenv_safe("TMPDIR", buffer, sizeof buffer, how);
    if (directory == nullptr)
        directory = "/tmp";
    transfer.source = ::open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    return transfer.source >= 0 || fail(msg_cannot_write, directory, errno);
}

bool copy_spool(Transfer &transfer, Piece &piece)
{
    if (lseek(transfer.source, 0, SEEK_SET) != 0)
        return fail(msg_cannot_read, transfer.source_name, errno);
    for (std::size_t count = sizeof piece.bytes; count == sizeof piece.bytes;) {
        if (const int failure = read_fully(transfer.source, piece.bytes, sizeof piece.bytes, count); failure != 0)
            return fail(msg_cannot_read, transfer.source_name, failure);
        const int failure = write_to_stream(STDOUT_FILENO, piece.bytes, count);
        if (failure != 0)
            return failure != EPIPE && fail(msg_cannot_write, transfer.target_name, failure); // EPIPE: it saw enough
    }
    return true;
}

void name(WireName &to, const char *from)
{
    (void)strutl_cpy_buf(to.text, from, sizeof to.text); // a good name fits
}

// Reports what a server has answered, if it is a failure. Of a put that it does not know it cannot tell the name.
bool is_refused(Failure &failure, const char *about)
{
    if (failure.number == msg_none)
        return false;
    if (failure.name[0] == '\0')
        (void)strutl_snprintf(failure.name, sizeof failure.name, "%s", about);
    tell(failure);
    return true;
}

} // namespace

// --- The connection ---

void RemoteStore::open(stg_area *area, const char *server, const Addresses &addresses, bool is_datagram)
{
    is_datagram_ = is_datagram;
    area_ = area;
    server_ = server;
    addresses_ = addresses;
}

CLIENT *RemoteStore::make_client(int fd, const Address &address) const
{
    sockaddr_storage bytes = address.bytes;
    const netbuf to = {address.size, address.size, &bytes};
    if (!is_datagram_)
        return ks_clnt_vc_create(fd, &to, program_number, program_version, buffer_bytes, buffer_bytes);
    CLIENT *const client = ks_clnt_dg_create(fd, &to, program_number, program_version, 0, 0);
    timeval again = {0, 100000}; // at first
    if (client != nullptr)
        (void)clnt_control(client, CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&again));
    return client;
}

// Of several addresses, one at which somebody answers: datagrams tell of nobody who connects.
bool RemoteStore::is_answering()
{
    return !is_datagram_ || addresses_.count == 1 ||
           clnt_call(client_, procedure_null, nullptr, nullptr, nullptr, nullptr, (timeval{5, 0})) == RPC_SUCCESS;
}

// 0, or why there is no connection.
int RemoteStore::connect_to(const Address &address)
{
    const int type = is_datagram_ ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(address.bytes.ss_family, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    client_ = make_client(fd, address);
    if (client_ == nullptr) {
        const int failure = ks_rpc_get_createerr()->cf_error.re_errno;
        (void)::close(fd);
        return failure;
    }
    (void)clnt_control(client_, CLSET_FD_CLOSE, nullptr);
    client_->cl_auth = auth_;
    if (is_answering())
        return 0;
    rpc_err error = {};
    clnt_geterr(client_, &error);
    disconnect();
    return error.re_status == RPC_CANTSEND || error.re_status == RPC_CANTRECV ? error.re_errno : ETIMEDOUT;
}

bool RemoteStore::connect()
{
    if (client_ != nullptr && now_ms() - used_ms_ > idle_ms_max)
        disconnect();
    if (client_ != nullptr || is_out_of_reach_)
        return !is_out_of_reach_;
    if (auth_ == nullptr)
        auth_ = credutl_auth_create();
    int failure = auth_ == nullptr ? errno : 0;
    for (std::size_t i = 0; auth_ != nullptr && i < addresses_.count; ++i) {
        failure = connect_to(addresses_.items[i]);
        if (failure == 0)
            return true;
        pfm_test_raise(nullptr);
    }
    is_out_of_reach_ = true;
    return fail(msg_cannot_reach, server_, failure);
}

void RemoteStore::disconnect()
{
    if (client_ != nullptr)
        clnt_destroy(client_);
    client_ = nullptr;
}

// One call. What its answer's routine has failed with, it has written down.
template <typename Question, typename Answer>
bool RemoteStore::call(Procedure procedure, bool_t (*xdr_question)(XDR *, Question *), Question &question,
                       bool_t (*xdr_answer)(XDR *, Answer *), Answer &answer, long patience_s)
{
    pfm_test_raise(nullptr);
    if (!connect())
        return false;
    Failure failure;
    clnt_stat status = RPC_SUCCESS;
    {
        const FailureNote note(failure);
        status = clnt_call(client_, procedure, as_xdrproc(xdr_question), &question, as_xdrproc(xdr_answer), &answer,
                           (timeval{patience_s, 0}));
    }
    used_ms_ = now_ms();
    if (status == RPC_SUCCESS)
        return true;
    rpc_err error = {};
    clnt_geterr(client_, &error);
    pfm_test_raise(nullptr); // one that has ended the call leaves the connection good for the end of a put
    disconnect();            // there may be the rest of an answer on its way
    if (failure.number != msg_none)
        tell(failure);
    else
        report(IMSG_ERROR, msg_cannot_ask, shown(server_), failure_text(error));
    return false;
}

// A server may be too busy for long answers, for a moment.
template <typename Question, typename Answer>
bool RemoteStore::call_when_granted(Procedure procedure, bool_t (*xdr_question)(XDR *, Question *), Question &question,
                                    bool_t (*xdr_answer)(XDR *, Answer *), Answer &answer)
{
    constexpr int pause_ms = 20;
    const std::int64_t deadline_ms = now_ms() + usual_patience_s * 1000;
    for (;;) {
        if (!call(procedure, xdr_question, question, xdr_answer, answer))
            return false;
        if (answer.failure.number != msg_busy || now_ms() > deadline_ms)
            return true;
        (void)poll(nullptr, 0, pause_ms);
    }
}

// For the next call that runs once. The process is known by its start: those before it at the same port had other times
// and other random bits.
bool RemoteStore::number_call(CallNumber &out_number)
{
    if (last_call_.number == 0) {
        std::uint64_t random = 0;
        if (const int failure = make_random(random); failure != 0)
            return fail(msg_cannot_ask, server_, failure);
        timespec now = {};
        (void)clock_gettime(CLOCK_REALTIME, &now);
        last_call_.client = static_cast<std::uint64_t>(now.tv_sec) << 32 | (random & UINT32_MAX);
    }
    ++last_call_.number;
    out_number = last_call_;
    return true;
}

// A call whose answer is nothing but a failure.
bool RemoteStore::call_about(Procedure procedure, const char *about)
{
    NameQuestion question;
    Failure failure;
    if (!number_call(question.call))
        return false;
    const long patience_s = procedure == procedure_verify ? patience_for(about) : usual_patience_s;
    name(question.name, about);
    return call(procedure, xdr_name_question, question, xdr_failure, failure, patience_s) &&
           !is_refused(failure, about);
}

bool RemoteStore::ended(bool is_done)
{
    cancel_put();
    end_transfer(transfer_);
    return is_done;
}

void RemoteStore::close()
{
    (void)ended(false);
    release(transfer_);
    disconnect();
    if (auth_ != nullptr)
        auth_destroy(auth_);
    auth_ = nullptr;
    if (known_ != nullptr)
        hash_delete_ht(&known_);
}

// --- Names ---

bool RemoteStore::list(stg_area *area, const char *one, Names &out_names, Names &out_others)
{
    if (known_ == nullptr)
        known_ = make_table();
    if (known_ == nullptr)
        return fail(msg_no_memory, server_);
    ListQuestion question;
    name(question.name, one);
    question.heads = 1;
    question.after_kind = item_end;
    question.after[0] = '\0';
    ListAnswer answer;
    answer.area = area;
    answer.known = known_;
    do {
        answer.last_kind = item_end;
        if (!call_when_granted(procedure_list, xdr_list_question, question, xdr_list_answer, answer) ||
            is_refused(answer.failure, server_))
            return false;
        question.after_kind = answer.last_kind;
        (void)strutl_cpy_buf(question.after, answer.item.name, sizeof question.after);
    } while (answer.end == item_more && answer.last_kind != item_end && answer.names.count < items_max);
    out_names = answer.names;
    out_others = answer.others;
    return true;
}

bool RemoteStore::look_up(const char *one, bool &out_is_there)
{
    Names names;
    Names others;
    out_is_there = false;
    if (!is_good_name(one))
        return true;
    if (!list(area_, one, names, others))
        return false;
    out_is_there = names.count > 0;
    return true;
}

bool RemoteStore::read_names(stg_area *area, Names &out_names, Names &out_others)
{
    return list(area, "", out_names, out_others);
}

bool RemoteStore::read(stg_area *, const char *one, Entry &out_entry)
{
    void *data = nullptr;
    if (known_ != nullptr)
        (void)hash_str_lookup(known_, one, nullptr, &data);
    if (data == nullptr)
        return fail(msg_no_entry, one); // commands read what they have found
    const Known &known = *static_cast<Known *>(data);
    if (known.failure != nullptr)
        tell(*known.failure);
    out_entry = known.entry;
    return known.failure == nullptr;
}

// How long a call that moves an entry may take: a second more for each MiB.
long RemoteStore::patience_for(const char *one)
{
    void *data = nullptr;
    if (known_ != nullptr)
        (void)hash_str_lookup(known_, one, nullptr, &data);
    constexpr std::uint64_t most_s = 10000000;
    const std::uint64_t more_s = data == nullptr ? 0 : static_cast<Known *>(data)->entry.length >> 20;
    return usual_patience_s + static_cast<long>(std::min(more_s, most_s));
}

// --- Storing ---

bool RemoteStore::put_pieces(PutFinish &out_finish)
{
    Checksum content;
    PutPiece step;
    step.handle = put_handle_;
    step.offset = 0;
    for (std::size_t count = piece_bytes_max; count == piece_bytes_max;) {
        Piece &piece = step.piece;
        if (const int failure = read_fully(transfer_.source, piece.bytes, piece_bytes_max, count); failure != 0)
            return fail(msg_cannot_read, transfer_.source_name, failure);
        if (count == 0)
            break;
        piece.size = static_cast<std::uint32_t>(count);
        piece.checksum = fileutl_crc_buffer(piece.bytes, count, nullptr);
        content.add(piece.bytes, count);
        PutAnswer answer;
        if (!call(procedure_put_piece, xdr_put_piece, step, xdr_put_answer, answer) ||
            is_refused(answer.failure, transfer_.target_name))
            return false;
        step.offset += count;
        show_progress(transfer_.source_name, step.offset);
    }
    out_finish = {{}, put_handle_, step.offset, content.value()};
    return number_call(out_finish.call);
}

bool RemoteStore::put_source(const char *path, const Label &label)
{
    struct stat status;
    const char *entry_name = nullptr;
    if (!name_entry(path, label, entry_name) || !open_source(transfer_, path, status))
        return false;
    transfer_.target_name = entry_name;
    Entry entry = describe(status, label);
    PutBegin begin;
    if (const int failure = make_random(put_handle_); failure != 0)
        return fail(msg_cannot_write, entry_name, failure);
    put_handle_ |= 1; // never 0
    begin.handle = put_handle_;
    name(begin.name, entry_name);
    begin.may_replace = label.may_replace ? 1 : 0;
    begin.entry.set(entry, 0);
    PutAnswer begun;
    if (!call(procedure_begin_put, xdr_put_begin, begin, xdr_put_answer, begun) ||
        is_refused(begun.failure, entry_name))
        return false;
    PutFinish finish;
    PutAnswer finished;
    if (!put_pieces(finish) || !check_unchanged(transfer_, status) ||
        !call(procedure_finish_put, xdr_put_finish, finish, xdr_put_answer, finished) ||
        is_refused(finished.failure, entry_name))
        return false;
    put_handle_ = 0;
    entry.length = finish.length;
    entry.stored_length = finished.number;
    report_stored(entry_name, entry);
    return true;
}

bool RemoteStore::put(const char *path, const Label &label)
{
    return ended(put_source(path, label));
}

// What was begun in vain takes no room at the server. Where nobody is there any more nothing is told.
void RemoteStore::cancel_put()
{
    if (put_handle_ != 0 && client_ != nullptr) {
        PutAnswer answer;
        (void)clnt_call(client_, procedure_cancel_put, as_xdrproc(xdr_put_handle), &put_handle_,
                        as_xdrproc(xdr_put_answer), &answer, (timeval{2, 0}));
    }
    put_handle_ = 0;
}

// --- Fetching ---

// Asks for a block after the other, until all is there.
bool RemoteStore::get_content(GetQuestion &question, GetAnswer &answer)
{
    const char *const about = question.name.text;
    std::uint64_t before = 0;
    do {
        before = answer.length;
        if (!call_when_granted(procedure_get, xdr_get_question, question, xdr_get_answer, answer) ||
            is_refused(answer.failure, about))
            return false;
        question.place = answer.next;
    } while (answer.length < answer.entry.entry.length && answer.length > before);
    return is_complete(answer) || fail(msg_bad_transfer, about);
}

bool RemoteStore::get_entry(const char *entry_name, const char *target, bool replace)
{
    GetQuestion question;
    name(question.name, entry_name);
    GetAnswer answer;
    answer.transfer = &transfer_;
    answer.is_spooled = is_stream(target);
    transfer_.source_name = entry_name;
    transfer_.target_name = target;
    if (!(answer.is_spooled ? open_spool(transfer_) : open_target(transfer_, target, replace)) ||
        !get_content(question, answer))
        return false;
    return answer.is_spooled ? copy_spool(transfer_, answer.piece)
                             : finish_target(transfer_, answer.entry.entry.changed, replace);
}

bool RemoteStore::get(const char *entry_name, const char *target, bool replace)
{
    return ended(get_entry(entry_name, target == nullptr ? entry_name : target, replace));
}

// --- The rest ---

bool RemoteStore::verify(const char *entry_name)
{
    return call_about(procedure_verify, entry_name);
}

bool RemoteStore::remove(const char *entry_name)
{
    return check_name(entry_name, entry_name) && call_about(procedure_remove, entry_name);
}

bool RemoteStore::read_counters(Counters &out_counters)
{
    char nothing = 0;
    return call(procedure_status, no_arguments, nothing, xdr_counters, out_counters);
}

bool RemoteStore::read_identity(Identity &out_identity)
{
    char nothing = 0;
    WhoAnswer answer;
    if (!call(procedure_whoami, no_arguments, nothing, xdr_who_answer, answer) || is_refused(answer.failure, server_))
        return false;
    out_identity = answer.identity;
    return true;
}

} // namespace depot
