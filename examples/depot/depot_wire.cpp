#include "depot_wire.h"

#include <cstring>
#include <iterator>

namespace depot {

namespace {

// A failure's number on the wire is its place here, so that this only ever grows, at its end.
constexpr Msg failures[] = {msg_none,
                            msg_no_depot,
                            msg_cannot_read,
                            msg_cannot_write,
                            msg_cannot_remove,
                            msg_no_memory,
                            msg_not_synced,
                            msg_entry_exists,
                            msg_removal_not_synced,
                            msg_no_entry,
                            msg_not_an_entry,
                            msg_unknown_version,
                            msg_bad_header,
                            msg_bad_size,
                            msg_bad_block,
                            msg_bad_content,
                            msg_bad_name,
                            msg_bad_transfer,
                            msg_put_unknown,
                            msg_put_out_of_order,
                            msg_too_many_puts,
                            msg_needs_connection,
                            msg_replaced,
                            msg_busy,
                            msg_not_owner,
                            msg_no_identity};

bool code(XDR *xdrs, std::uint32_t &number)
{
    return xdr_ks_uint32_t(xdrs, &number) != FALSE;
}

bool code(XDR *xdrs, std::uint64_t &number)
{
    return xdr_ks_uint64_t(xdrs, &number) != FALSE;
}

bool code(XDR *xdrs, timespec &time)
{
    constexpr std::uint32_t nanoseconds_max = 999999999;
    std::int64_t seconds = time.tv_sec;
    auto nanoseconds = static_cast<std::uint32_t>(time.tv_nsec);
    if (xdr_ks_int64_t(xdrs, &seconds) == FALSE || !code(xdrs, nanoseconds) || nanoseconds > nanoseconds_max)
        return false;
    time = {seconds, static_cast<long>(nanoseconds)};
    return true;
}

// Bytes, and zeros up to a multiple of 4.
bool code_bytes(XDR *xdrs, void *bytes, std::uint32_t size)
{
    char padding[4] = {};
    const std::uint32_t padding_bytes = (4 - size % 4) % 4;
    auto *const text = static_cast<char *>(bytes);
    if (xdrs->x_op == XDR_ENCODE)
        return XDR_PUTBYTES(xdrs, text, size) != FALSE && XDR_PUTBYTES(xdrs, padding, padding_bytes) != FALSE;
    return xdrs->x_op == XDR_FREE ||
           (XDR_GETBYTES(xdrs, text, size) != FALSE && XDR_GETBYTES(xdrs, padding, padding_bytes) != FALSE);
}

template <std::size_t room> bool code(XDR *xdrs, char (&text)[room])
{
    auto size = xdrs->x_op == XDR_ENCODE ? static_cast<std::uint32_t>(std::strlen(text)) : 0;
    if (!code(xdrs, size) || size >= room || !code_bytes(xdrs, text, size))
        return false;
    if (xdrs->x_op == XDR_DECODE)
        text[size] = '\0';
    return xdrs->x_op != XDR_DECODE || std::strlen(text) == size;
}

bool code(XDR *xdrs, CallNumber &call)
{
    return code(xdrs, call.client) && code(xdrs, call.number);
}

std::uint32_t number_of(Msg message)
{
    for (std::uint32_t i = 0; i < std::size(failures); ++i)
        if (failures[i] == message)
            return i;
    return std::size(failures);
}

template <std::size_t room> void copy(std::string_view from, char (&to)[room])
{
    to[from.copy(to, room - 1)] = '\0';
}

} // namespace

bool_t xdr_name(XDR *xdrs, WireName *name)
{
    return code(xdrs, name->text);
}

bool_t xdr_name_question(XDR *xdrs, NameQuestion *question)
{
    return code(xdrs, question->call) && xdr_name(xdrs, &question->name);
}

bool_t xdr_failure(XDR *xdrs, Failure *failure)
{
    std::uint32_t number = number_of(failure->number);
    auto error = static_cast<std::uint32_t>(failure->error);
    if (!code(xdrs, number))
        return FALSE;
    failure->number = number < std::size(failures) ? failures[number] : msg_unknown_failure;
    if (number == 0)
        return TRUE;
    if (!code(xdrs, error) || !code(xdrs, failure->name))
        return FALSE;
    failure->error = static_cast<int>(error);
    return TRUE;
}

void WireEntry::set(const Entry &from, std::uint32_t new_mode)
{
    entry = from;
    mode = new_mode;
    copy(from.owner, owner);
    copy(from.comment, comment);
}

bool_t xdr_entry(XDR *xdrs, WireEntry *wire)
{
    constexpr std::uint32_t permissions_max = 0777;
    Entry &entry = wire->entry;
    std::uint32_t permissions = entry.permissions;
    if (!code(xdrs, entry.checksum) || !code(xdrs, entry.length) || !code(xdrs, entry.stored_length) ||
        !code(xdrs, entry.changed) || !code(xdrs, entry.stored) || !code(xdrs, permissions) ||
        !code(xdrs, wire->mode) || !code(xdrs, wire->owner) || !code(xdrs, wire->comment))
        return FALSE;
    entry.permissions = permissions;
    entry.owner = wire->owner;
    entry.comment = wire->comment;
    return permissions <= permissions_max && wire->mode <= permissions_max;
}

bool_t xdr_list_question(XDR *xdrs, ListQuestion *question)
{
    return xdr_name(xdrs, &question->name) && code(xdrs, question->heads) && code(xdrs, question->after_kind) &&
           code(xdrs, question->after);
}

bool_t xdr_list_item(XDR *xdrs, ListItem *item)
{
    if (!code(xdrs, item->kind) || item->kind > item_more)
        return FALSE;
    if (item->kind == item_end || item->kind == item_more)
        return TRUE;
    if (!code(xdrs, item->name))
        return FALSE;
    if (item->kind != item_headed)
        return TRUE;
    return xdr_failure(xdrs, &item->failure) && (item->failure.number != msg_none || xdr_entry(xdrs, &item->entry));
}

bool_t xdr_piece(XDR *xdrs, Piece *piece)
{
    if (!code(xdrs, piece->size) || piece->size > piece_bytes_max)
        return FALSE;
    if (piece->size == 0)
        return xdr_failure(xdrs, &piece->failure);
    return code(xdrs, piece->checksum) && code_bytes(xdrs, piece->bytes, piece->size);
}

bool is_whole(const Piece &piece)
{
    return fileutl_crc_buffer(piece.bytes, piece.size, nullptr) == piece.checksum;
}

bool_t xdr_place(XDR *xdrs, Place *place)
{
    return code(xdrs, place->given) && code(xdrs, place->stored) && code(xdrs, place->file) && code(xdrs, place->sum) &&
           code(xdrs, place->counter);
}

bool_t xdr_get_question(XDR *xdrs, GetQuestion *question)
{
    return xdr_name(xdrs, &question->name) && xdr_place(xdrs, &question->place);
}

bool_t xdr_put_begin(XDR *xdrs, PutBegin *begin)
{
    return code(xdrs, begin->handle) && begin->handle != 0 && xdr_name(xdrs, &begin->name) &&
           code(xdrs, begin->may_replace) && xdr_entry(xdrs, &begin->entry);
}

bool_t xdr_put_piece(XDR *xdrs, PutPiece *piece)
{
    return code(xdrs, piece->handle) && code(xdrs, piece->offset) && xdr_piece(xdrs, &piece->piece) &&
           piece->piece.size > 0;
}

bool_t xdr_put_finish(XDR *xdrs, PutFinish *finish)
{
    return code(xdrs, finish->call) && code(xdrs, finish->handle) && code(xdrs, finish->length) &&
           code(xdrs, finish->checksum);
}

bool_t xdr_put_handle(XDR *xdrs, std::uint64_t *handle)
{
    return code(xdrs, *handle);
}

bool_t xdr_put_answer(XDR *xdrs, PutAnswer *answer)
{
    if (!xdr_failure(xdrs, &answer->failure))
        return FALSE;
    return answer->failure.number != msg_none || code(xdrs, answer->number);
}

bool_t xdr_who_answer(XDR *xdrs, WhoAnswer *answer)
{
    if (!xdr_failure(xdrs, &answer->failure))
        return FALSE;
    Identity &identity = answer->identity;
    return answer->failure.number != msg_none ||
           (code(xdrs, identity.user) && code(xdrs, identity.group) && code(xdrs, identity.groups) &&
            code(xdrs, identity.domain) && code(xdrs, identity.host) && code(xdrs, identity.claim) &&
            code(xdrs, identity.is_believed));
}

bool_t xdr_counters(XDR *xdrs, Counters *counters)
{
    constexpr std::uint32_t most = 1000;
    std::uint32_t count = counter_count;
    if (!code(xdrs, count) || count > most)
        return FALSE;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint64_t newer = 0;
        if (!code(xdrs, i < counter_count ? counters->values[i] : newer))
            return FALSE;
    }
    return TRUE;
}

} // namespace depot
