// The one way in which veldepot says anything: messages of its table, printed through imsg.
#pragma once

#include "depot_msg.h"

#include <cstddef>
#include <string_view>

namespace depot {

// Names the program in messages, and makes what they need; false when memory is exhausted.
bool start_messages(const char *argv0);
void end_messages();

// Prints a message of a kind (korvaks/imsg.h) with the arguments its text needs.
void report(int kind, unsigned number, ...);

// Texts for report(). They live until its next call.

// Room for a text; NULL when memory is exhausted.
char *make_text(std::size_t size);

// A message's text, for a piece of another one.
const char *text_of(unsigned number, ...);

// A name or word as it may be shown: what is not printable becomes \ooo, so that nothing can play
// tricks on a terminal.
const char *shown(std::string_view name);

// The text with blanks behind it, `width` columns wide at least.
const char *padded(const char *text, int width);

// A name of a flag or command without the brackets that tell where it may be cut off.
const char *unbracketed(const char *name);

// False once a message did not reach its stream, as when the disk behind standard output is full.
bool is_output_complete();

} // namespace depot
