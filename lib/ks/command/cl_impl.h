// The handle of the option parser, and how its words are put into it.
#pragma once

#include <korvaks/cl.h>

#include "base/ks_base.h"

#include <cstddef>
#include <cstdint>

struct cl_word {
    std::uint32_t length;
    char *start;
};

struct cl_handle {
    std::uint64_t cl_magic;
    char *text; // all words, one after another, each with its NUL
    int text_length;
    int current_word; // index in `words`; word_count at the end
    char *word_start;
    char *cursor;     // equals word_start unless the scan stands inside a word
    char *option_end; // words from here on hold no options
    int error_number;
    char *error_word; // NULL: none
    char error_option[2];
    int seen_count;
    char *seen_letters; // a string; its buffer is as large as the text's
    int word_count;
    cl_word *words; // one more than word_count: the last is empty and points at the end of the text
};

namespace ks::cl {

inline constexpr AssertPath here{"lib/ks/cl"};

inline void require_handle(const cl_handle *clh)
{
    here.require(clh != nullptr && clh->cl_magic == CL_MAGIC, "clh->cl_magic == CL_MAGIC");
}

// What the words of a new handle take: their number, and their bytes with a NUL for each.
struct Extent {
    std::size_t words = 0;
    std::size_t bytes = 0;
};

// A handle with room for words of this extent and none in it yet; NULL with nothing allocated when
// there is no memory or the extent is beyond what the handle's fields can hold.
cl_handle *create_handle(const Extent &extent);

// Puts words into a new handle, in order.
class WordStore {
  public:
    explicit WordStore(cl_handle *clh) : clh_(clh), end_(clh->text) {}

    void begin_word() { clh_->words[clh_->word_count].start = end_; }
    void append(const char *bytes, std::size_t count);
    void end_word();

  private:
    cl_handle *clh_;
    char *end_;
};

// Makes a word current, with the cursor at its start.
void move_to_word(cl_handle *clh, int word);

void clear_error(cl_handle *clh);
// `letter` NUL: the error is not about an option.
void set_error(cl_handle *clh, int number, char letter);

} // namespace ks::cl
