// What the files of the prompts share: answers while they are read, choices, the conversation on the terminal, the
// tool.
//
// A raise may leave any of these functions. What they hold meanwhile belongs to a record of their caller's, who
// releases it when it has caught the raise.
#pragma once

#include <korvaks/imsg_prompt.h>

#include "base/ks_base.h"
#include "kernel/ks_guard.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

#include <pthread.h>

namespace ks::prompt {

inline constexpr AssertPath here{"lib/ks/imsg"};

// --- imsg_prompt_input.cpp ---

// A text that grows. It may be a password: no copy of it is left behind.
struct Text {
    char *bytes = nullptr; // ended by a NUL where there are any
    std::size_t length = 0;
    std::size_t size = 0;

    std::string_view view() const { return {bytes == nullptr ? "" : bytes, length}; }
};
// False when memory is exhausted, with errno.
[[nodiscard]] bool append(Text &text, std::string_view more);
void clear(Text &text);
void release(Text &text);

enum class Read {
    line,
    end,    // of the input, before anything was read
    failed, // which has been printed
};

// Reads a line into `out_line`, without its line feed; the last one of the input may lack it.
Read read_line(FILE *in, Text &out_line);

// imsg_get_input() with the caller's scratch.
struct Scratch {
    Text line;
    Text block;
};
void release(Scratch &scratch);
int get_input(FILE *in, const char *dflt, bool multi_line, Scratch &scratch, char **out_answer);

// The whole of a file; false with errno.
[[nodiscard]] bool read_file(const char *path, Text &out_text);

// --- imsg_prompt_choice.cpp ---

static_assert(IMSG_CHOICE_PROCEED == 2, "the directory of the host's data asks with this number");

// What a question can be answered with.
struct Choices {
    unsigned all;
    unsigned affirmative;
};
inline constexpr Choices yes_no{IMSG_CHOICE_ABORT | IMSG_CHOICE_YES | IMSG_CHOICE_NO, IMSG_CHOICE_YES};
inline constexpr Choices proceed{IMSG_CHOICE_ABORT | IMSG_CHOICE_PROCEED, IMSG_CHOICE_PROCEED};

// Makes mask and default follow the rules.
void settle(const Choices &choices, unsigned &mask, unsigned &dflt);

using ChoiceText = std::array<char, 512>;
// The words of a set, in the order of its bits.
ChoiceText text_of_choices(unsigned set, const char *separator);

// The allowed choices that an answer may mean.
unsigned choices_meant(std::string_view answer, const Choices &choices, unsigned mask);

// --- imsg_prompt_list.cpp ---

using Numbers = std::array<int, IMSG_SELECTION_MAX + 1>; // ended by a 0

enum class Selected { some, none, wrong };
// Reads the numbers of a line, 0 to `max`; `wrong` where they are none, too many or out of range.
Selected read_numbers(std::string_view line, int max, bool multi, Numbers &out_numbers);
// NULL when memory is exhausted.
int *copy_of_numbers(const Numbers &numbers);

// The lines of a file as items.
struct ItemFile {
    Text text;
    char **items = nullptr;
    int count = 0;
};
[[nodiscard]] bool read_items(const char *path, ItemFile &out_file);
void release(ItemFile &file);

// --- imsg_prompt_terminal.cpp ---

unsigned ask_choice(const Choices &choices, const char *question, unsigned mask, unsigned dflt);
int ask_text(const char *question, const char *dflt, bool multi_line, char **out_answer);
int ask_password(const char *question, char **out_answer);
int ask_list(const char *header, char *const *items, int item_count, bool multi, int **out_selection);

// Waits until a stream can be read, or says what is wrong with it when it is. While it waits, a password's
// terminal has no echo. A raise point.
void wait_for_input(FILE *in);

// --- imsg_prompt_tool.cpp ---

unsigned ask_choice_by_tool(const Choices &choices, const char *question, int kind, unsigned mask, unsigned dflt);

// The words behind the name of the tool; a NULL ends them.
using ToolWords = std::array<const char *, 16>;
// Asks a question whose answer the tool writes to a file; "-outfile" and the file take the place of `outfile_mark`.
inline constexpr char outfile_mark[] = "-outfile";
int ask_text_by_tool(ToolWords words, char **out_answer);
int ask_list_by_tool(ToolWords words, int item_count, bool multi, int **out_selection);

// --- A piece of work that may wait, and what it holds ---

// Runs `work(held)` and then `release(held)`, whether it returned, a raise left it, or its thread was cancelled.
template <typename Held, typename Work> void run_and_release(Held &held, Work &&work)
{
    int32_t raised = 0;
    pthread_cleanup_push([](void *argument) { release(*static_cast<Held *>(argument)); }, &held);
    raised = protect([&] { work(held); });
    pthread_cleanup_pop(1);
    if (raised != 0)
        pfm_raise(raised);
}

} // namespace ks::prompt
