// The one way in which veldepot says anything: messages of its table, printed through imsg.
#pragma once

#include "depot_msg.h"

namespace depot {

// Kinds of messages used here (korvaks/imsg.h).
enum Kind : int { ok = 0, output = 2, warning = 4, error = 6 };

// Names the program in messages, and makes what they need; false when memory is exhausted.
bool start_messages(const char *argv0);
void end_messages();

// Prints a message with the arguments its text needs.
void report(Kind kind, unsigned number, ...);

// A message's text, for a piece of another one. It lives until the next report().
const char *text_of(unsigned number, ...);

// A file name as it may be shown: what is not printable becomes \ooo, so that no name can play
// tricks on a terminal. The text lives until the next report().
const char *shown(const char *name);

// False once a message did not reach its stream, as when the disk behind standard output is full.
bool is_output_complete();

} // namespace depot
