// Files that clients store piece by piece: each is begun, gets its pieces, and is finished. One that is not leaves
// nothing in the depot.
//
// A put belongs to the user who began it, who becomes the entry's owner, and is known by that and a number of the
// client's (depot_wire.h). The threads that serve calls call these functions, with raises held off; what fails is told
// by fail(). While one works on a put others of the same put wait, and those of other puts do not.
#pragma once

#include "daemon/caller.h"
#include "depot_wire.h"

#include <sys/types.h>

namespace depot {

// How many puts there may be, in all and of one user. Each needs a MiB of memory.
inline constexpr unsigned puts_max = 64;
inline constexpr unsigned puts_of_user_max = 16;

// One that was begun already with this handle and name goes on.
bool begin_put(const char *depot_path, const Caller &caller, const PutBegin &begin);

// Gives the bytes that are there with this piece, also for one that was there already: it may come again, when its
// answer was lost. One out of order, or damaged, is refused, and the put waits for the right one.
bool put_piece(uid_t user, const PutPiece &piece, std::uint64_t &out_length);

// Gives the entry's name and the bytes as stored. Ends the put in any case; the entry is there only if its content is
// as it was sent, and the caller may replace the one that was there.
bool finish_put(const Caller &caller, const PutFinish &finish, WireName &out_name, std::uint64_t &out_stored_length);

bool cancel_put(uid_t user, std::uint64_t handle);

unsigned count_puts();

// Ends those of which nothing was heard for so long; those that are worked on at this moment stay.
void end_puts(std::int64_t silent_ms);

} // namespace depot
