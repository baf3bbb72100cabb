// The one way in which veldepot says anything: messages of its table, printed through imsg.
#pragma once

#include "depot_msg.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace depot {

// Names the program in messages, and makes what they need; false when memory is exhausted.
bool start_messages(const char *argv0);
void end_messages();

// Prints a message of a kind (korvaks/imsg.h) with the arguments its text needs.
void report(int kind, unsigned number, ...);

// The usual errors about a name; all of them give false. Exhausted memory has a message of its own.
bool fail(Msg number, const char *name);
bool fail(Msg number, const char *name, int failure);

// What one of them would have printed, for who is told later, or elsewhere.
struct Failure {
    Msg number = msg_none; // msg_none: nothing
    int error = 0;         // errno number, for a message that has an error's text
    char name[1024] = "";  // cut where it is longer
};

void tell(const Failure &failure);

// While it lives, the errors of its thread are written down, the first one, and nothing is printed. Only where raises
// are held off: one would leave it behind.
class FailureNote {
  public:
    explicit FailureNote(Failure &to);
    ~FailureNote();
    FailureNote(const FailureNote &) = delete;
    FailureNote &operator=(const FailureNote &) = delete;

  private:
    Failure *before_;
};

// Tells a terminal, once a command takes longer than a moment, how far it is. The next report() erases it.
void show_progress(const char *name, std::uint64_t bytes);
void erase_progress();

// Writes data, as it is, to standard output.
void put_out(std::string_view data);

// Whether names go to a program, which gets them as they are.
bool is_output_to_program();

// Texts for report(). They live until its next call. Without memory they are "?", and the output is not complete.

// Room for a text; NULL when memory is exhausted.
char *make_text(std::size_t size);

// For a text that could not be made elsewhere for want of memory.
const char *no_text();

// Ends their life without a report.
void drop_texts();

// A message's text, for a piece of another one.
const char *text_of(unsigned number, ...);

// A name or word as it may be shown: what is not printable becomes \ooo, so that nothing can play
// tricks on a terminal. Nor are those that have no look of their own, but turn what follows around.
const char *shown(std::string_view name);

// The same in the caller's own room, for threads that may not use report().
constexpr std::size_t shown_bytes(std::size_t name_bytes)
{
    return 4 * name_bytes + 1; // \ooo
}
void show_in(char *to, std::string_view name);

// The text with blanks behind it, `width` columns wide at least.
const char *padded(const char *text, int width);

// A name of a flag or command without the brackets that tell where it may be cut off.
const char *unbracketed(const char *name);

// Reports, at the end of a command, what did not reach standard output, or was not made for want of memory;
// true when nothing is lacking.
bool check_output();

// Whether anything is lacking by now.
bool is_output_complete();

} // namespace depot
