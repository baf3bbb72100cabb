#include "daemon/puts.h"

#include "daemon/changes.h"
#include "depot_process.h"

#include <korvaks/korvaks.hpp>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace depot {

namespace {

struct Put {
    // Guarded by puts_crit.
    std::uint64_t handle; // 0: this place is free
    uid_t user;
    bool is_busy; // a thread works on it: the rest is that thread's
    std::int64_t used_ms;

    Depot depot;
    PutBegin begin;
    Packing packing;
    std::uint64_t received;
    std::uint64_t last_offset; // of the last piece, which may be sent again
};

constinit Put puts[puts_max] = {};
constinit vlthread_mutex_t puts_crit = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_cond_t put_given_back = VLTHREAD_COND_INITIALIZER;

// Those that follow hold puts_crit.

Put *find(uid_t user, std::uint64_t handle)
{
    Put *const put = std::ranges::find_if(
        puts, [&](const Put &one) { return handle != 0 && one.handle == handle && one.user == user; });
    return put == std::end(puts) ? nullptr : put;
}

// NULL: there is no room for one more.
Put *find_room(uid_t user)
{
    const auto of_user =
        std::ranges::count_if(puts, [&](const Put &one) { return one.handle != 0 && one.user == user; });
    Put *const put = std::ranges::find(puts, 0U, &Put::handle);
    return of_user >= puts_of_user_max || put == std::end(puts) ? nullptr : put;
}

// The others.

// A put with nothing in it, for the caller to work on; NULL: there is no room for it.
Put *make_put(uid_t user, std::uint64_t handle)
{
    const korvaks::Lock lock(puts_crit);
    Put *const put = find_room(user);
    if (put == nullptr || find(user, handle) != nullptr) // another thread may have had the same call meanwhile
        return nullptr;
    put->handle = handle;
    put->user = user;
    put->is_busy = true;
    put->depot = {};
    put->packing = {};
    put->received = put->last_offset = 0;
    return put;
}

// The put for the caller to work on, once nobody else does.
Put *take(uid_t user, std::uint64_t handle)
{
    const korvaks::Lock lock(puts_crit);
    Put *put = find(user, handle);
    while (put != nullptr && put->is_busy) {
        (void)vlthread_cond_wait(&put_given_back, &puts_crit);
        put = find(user, handle);
    }
    if (put != nullptr)
        put->is_busy = true;
    return put;
}

void give_back(Put &put)
{
    const korvaks::Lock lock(puts_crit);
    put.is_busy = false;
    put.used_ms = now_ms();
    (void)pthread_cond_broadcast(&put_given_back);
}

// What the put has written aside goes, unless it is an entry by now.
void end(Put &put)
{
    close_depot(put.depot);
    const korvaks::Lock lock(puts_crit);
    put.is_busy = false;
    put.handle = 0;
    (void)pthread_cond_broadcast(&put_given_back);
}

// The put goes on, or ends when it failed for good.
bool given_back(Put &put, bool is_done)
{
    if (is_done)
        give_back(put);
    else
        end(put);
    return is_done;
}

// Who may not replace the entry is told at once.
bool begin(Put &put, const char *depot_path, const Caller &caller)
{
    const char *const name = put.begin.name.text;
    const bool may_replace = put.begin.may_replace != 0;
    Entry &entry = put.begin.entry.entry;
    if (!name_user(caller, put.begin.entry.owner))
        return false;
    entry.owner = put.begin.entry.owner;
    entry.comment = put.begin.entry.comment;
    entry.length = entry.stored_length = 0;
    entry.permissions |= 0400; // what the daemon has stored it can read
    return open_depot(depot_path, false, put.depot) && (!may_replace || check_owner(put.depot, caller, name)) &&
           begin_entry(put.depot, name, may_replace, entry);
}

// Content that was there before is not taken again.
bool add(Put &put, const PutPiece &piece)
{
    put.last_offset = put.received;
    put.received += piece.piece.size;
    return add_content(put.depot.transfer, put.packing, put.begin.entry.entry, piece.piece.bytes, piece.piece.size);
}

bool finish(Put &put, const Caller &caller, const PutFinish &finish)
{
    const char *const name = put.begin.name.text;
    const bool may_replace = put.begin.may_replace != 0;
    Entry &entry = put.begin.entry.entry;
    if (!end_content(put.depot.transfer, put.packing, entry))
        return false;
    if (entry.length != finish.length || entry.checksum != finish.checksum)
        return fail(msg_bad_transfer, name);
    const ChangeTurn turn(name);
    return (!may_replace || check_owner(put.depot, caller, name)) && finish_entry(put.depot, name, may_replace, entry);
}

} // namespace

bool begin_put(const char *depot_path, const Caller &caller, const PutBegin &question)
{
    const char *const name = question.name.text;
    if (!check_name(name, name))
        return false;
    if (Put *const begun = take(caller.user, question.handle); begun != nullptr) {
        const bool is_same = std::strcmp(begun->begin.name.text, name) == 0;
        give_back(*begun);
        return is_same || fail(msg_put_out_of_order, name);
    }
    Put *const put = make_put(caller.user, question.handle);
    if (put == nullptr)
        return fail(msg_too_many_puts, name);
    put->begin = question;
    return given_back(*put, begin(*put, depot_path, caller));
}

bool put_piece(uid_t user, const PutPiece &piece, std::uint64_t &out_length)
{
    Put *const put = take(user, piece.handle);
    if (put == nullptr)
        return fail(msg_put_unknown, "");
    const std::uint64_t size = piece.piece.size;
    const bool is_there = piece.offset <= put->last_offset && size <= put->received - piece.offset;
    const bool is_next = piece.offset == put->received;
    const bool is_sound = is_whole(piece.piece);
    if (!is_sound || !(is_next || is_there)) {
        (void)fail(is_sound ? msg_put_out_of_order : msg_bad_transfer, put->begin.name.text);
        give_back(*put);
        return false;
    }
    out_length = piece.offset + size;
    return given_back(*put, !is_next || add(*put, piece));
}

bool finish_put(const Caller &caller, const PutFinish &question, WireName &out_name, std::uint64_t &out_stored_length)
{
    Put *const put = take(caller.user, question.handle);
    if (put == nullptr)
        return fail(msg_put_unknown, "");
    out_name = put->begin.name;
    const bool is_done = finish(*put, caller, question);
    out_stored_length = put->begin.entry.entry.stored_length;
    end(*put);
    return is_done;
}

bool cancel_put(uid_t user, std::uint64_t handle)
{
    Put *const put = take(user, handle);
    if (put == nullptr)
        return fail(msg_put_unknown, "");
    end(*put);
    return true;
}

unsigned count_puts()
{
    const korvaks::Lock lock(puts_crit);
    return static_cast<unsigned>(std::ranges::count_if(puts, [](const Put &put) { return put.handle != 0; }));
}

void end_puts(std::int64_t silent_ms)
{
    const std::int64_t now = now_ms();
    for (Put &put : puts) {
        {
            const korvaks::Lock lock(puts_crit);
            if (put.handle == 0 || put.is_busy || now - put.used_ms < silent_ms)
                continue;
            put.is_busy = true;
        }
        end(put);
    }
}

} // namespace depot
