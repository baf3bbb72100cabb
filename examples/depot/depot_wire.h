// What the procedures of the depot's program take and answer: the types, and their XDR routines.
//
// Each routine encodes or decodes by the stream's operation. Texts and pieces have room of their own in the types, as
// long as they may be: decoding allocates nothing, and refuses what is longer, has a NUL in it, or is no time, so that
// what was decoded may be used as it is. Only names are to be checked still (check_name()).
#pragma once

#include "depot.h"
#include "depot_report.h"

#include <korvaks/xdr.h>

#include <cstddef>
#include <cstdint>

namespace depot {

// Content in one piece, at most.
inline constexpr std::uint32_t piece_bytes_max = 1 << 16;

struct WireName {
    char text[name_bytes_max + 1];
};
bool_t xdr_name(XDR *xdrs, WireName *name);

// A call that runs once, however often it arrives: a number that rises from call to call, and one that is another for
// each client that was started. A client makes one such call at a time.
struct CallNumber {
    std::uint64_t client;
    std::uint64_t number;
};

// Verifies or removes an entry, with a failure for an answer.
struct NameQuestion {
    CallNumber call;
    WireName name;
};
bool_t xdr_name_question(XDR *xdrs, NameQuestion *question);

// A failure as a number that stays the same whatever messages there are; 0: there is none. One of a number that this
// program does not know becomes msg_unknown_failure.
bool_t xdr_failure(XDR *xdrs, Failure *failure);

// An entry without its content. The texts of `entry` are those behind it: one that was copied has none of its own.
struct WireEntry {
    Entry entry;
    std::uint32_t mode = 0; // permissions of a copy
    char owner[owner_bytes_max + 1];
    char comment[comment_bytes_max + 1];

    void set(const Entry &from, std::uint32_t new_mode);
};
bool_t xdr_entry(XDR *xdrs, WireEntry *entry);

// --- List ---

// A foreign file's name is longer than an entry's may be.
inline constexpr std::size_t item_name_bytes_max = 255;

struct ListQuestion {
    WireName name;       // of one entry; "": all
    std::uint32_t heads; // 1: with what their headers say
    // To go on behind an item: its kind, item_end at first, and name.
    std::uint32_t after_kind;
    char after[item_name_bytes_max + 1];
};
bool_t xdr_list_question(XDR *xdrs, ListQuestion *question);

enum ItemKind : std::uint32_t {
    item_end = 0,
    item_entry = 1,   // a name, as far as it is known
    item_headed = 2,  // name and what the header says, or why it could not be read
    item_foreign = 3, // the name of a file that does not belong in the depot
    item_more = 4,    // the end of this answer, but not of the list
};

// The answer is a failure, or none and then items up to item_end or item_more: those that are foreign, in order, and
// then those that are not.
struct ListItem {
    std::uint32_t kind;
    char name[item_name_bytes_max + 1];
    Failure failure;
    WireEntry entry;
};
bool_t xdr_list_item(XDR *xdrs, ListItem *item);

// --- Content ---

// A get asks for the content from a place on, which the answer before has told; at first that is all 0.
struct Place {
    std::uint64_t given = 0;  // of the content
    std::uint64_t stored = 0; // behind the header, of the file with
    std::uint64_t file = 0;   // this number: its entry was not replaced
    std::uint32_t sum = 0;    // of what is stored up to there
    std::uint32_t counter = 0;
};

struct GetQuestion {
    WireName name;
    Place place;
};
bool_t xdr_get_question(XDR *xdrs, GetQuestion *question);

// The answer is a failure; or none, the entry, content in pieces up to an empty one, and where to go on. It is one
// block's, and no more, since nobody is waited for who does not read: what is left is asked for when that has arrived.
bool_t xdr_place(XDR *xdrs, Place *place);

struct Piece {
    std::uint32_t size;
    std::uint32_t checksum; // of its bytes
    Failure failure;        // of an empty one
    unsigned char bytes[piece_bytes_max];
};
bool_t xdr_piece(XDR *xdrs, Piece *piece);

// Whether it came as it was sent.
bool is_whole(const Piece &piece);

// --- Put ---

// A put is known by its caller's user and a number that the caller makes up, not 0 and not to be guessed. So each step
// may come again, when its answer was lost, and a put can be cancelled whose beginning was not answered.
struct PutBegin {
    std::uint64_t handle;
    WireName name;
    std::uint32_t may_replace;
    WireEntry entry; // change, permissions, owner and comment count
};
bool_t xdr_put_begin(XDR *xdrs, PutBegin *begin);

struct PutPiece {
    std::uint64_t handle;
    std::uint64_t offset;
    Piece piece; // not empty
};
bool_t xdr_put_piece(XDR *xdrs, PutPiece *piece);

struct PutFinish {
    CallNumber call;
    std::uint64_t handle;
    std::uint64_t length;
    std::uint32_t checksum; // of the content
};
bool_t xdr_put_finish(XDR *xdrs, PutFinish *finish);

// What cancels one.
bool_t xdr_put_handle(XDR *xdrs, std::uint64_t *handle);

// The number: of a piece, the bytes that are there with it; of the finish, the bytes as stored; else 0.
struct PutAnswer {
    Failure failure;
    std::uint64_t number = 0;
};
bool_t xdr_put_answer(XDR *xdrs, PutAnswer *answer);

// --- Status ---

// What a server counts, in this order on the wire. One that is newer may count more, which is passed over.
enum Counter : std::uint32_t {
    counter_uptime, // seconds
    counter_open,
    counter_accepted,
    counter_refused,
    counter_idled,
    counter_pauses,
    counter_dead,
    counter_bad_records,
    counter_calls,
    counter_succeeded,
    counter_no_program,
    counter_bad_version,
    counter_no_procedure,
    counter_bad_arguments,
    counter_failed,
    counter_denied,
    counter_abandoned,
    counter_queued,
    counter_workers,
    counter_busy,
    counter_puts,
    counter_repeated,
    counter_dropped,
    counter_remembered,
    counter_count
};

struct Counters {
    std::uint64_t values[counter_count] = {};
};
bool_t xdr_counters(XDR *xdrs, Counters *counters);

// --- Who calls ---

// Names of a user, as a server knows them: of one that it does not believe, nobody's.
struct Identity {
    char user[owner_bytes_max + 1];
    char group[owner_bytes_max + 1];
    char groups[1024]; // further ones, with blanks between them, as many as fit
    char domain[256];  // this and what follows are the caller's own words
    char host[256];
    char claim[256]; // the user
    std::uint32_t is_believed;
};

struct WhoAnswer {
    Failure failure;
    Identity identity; // if there is none
};
bool_t xdr_who_answer(XDR *xdrs, WhoAnswer *answer);

// As the library passes it on.
template <typename T> xdrproc_t as_xdrproc(bool_t (*routine)(XDR *, T *))
{
    return reinterpret_cast<xdrproc_t>(routine);
}

} // namespace depot
