// Pulls options and words from a handle, and moves in it.
#include "command/cl_impl.h"

#include <korvaks/stg.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using ks::cl::clear_error;
using ks::cl::here;
using ks::cl::move_to_word;
using ks::cl::require_handle;
using ks::cl::set_error;

// A letter of an option string: whether it is there, and the group it stands in.
struct Option {
    bool is_known = false;
    std::string_view group; // empty: in none
};

// A group that is not closed reaches to the end.
Option find_option(std::string_view options, char letter)
{
    std::size_t group_start = std::string_view::npos;
    for (std::size_t i = 0; i < options.size(); ++i) {
        const char c = options[i];
        if (c == '[') {
            group_start = i + 1;
        } else if (c == ']') {
            group_start = std::string_view::npos;
        } else if (c == letter && c != ':') {
            if (group_start == std::string_view::npos)
                return {true, {}};
            return {true, ks::part_of(options, group_start, options.find(']', i) - group_start)};
        }
    }
    return {};
}

bool was_seen(const cl_handle *clh, char letter)
{
    return std::memchr(clh->seen_letters, letter, static_cast<std::size_t>(clh->seen_count)) != nullptr;
}

bool is_in_conflict(const cl_handle *clh, std::string_view group)
{
    for (const char letter : group)
        if (was_seen(clh, letter)) // ':' never is
            return true;
    return false;
}

// A letter is noted once. A text has fewer different letters than bytes, while a caller that goes
// back with cl_setoffset() may have the same letter accepted any number of times.
void note_letter(cl_handle *clh, char letter)
{
    if (was_seen(clh, letter))
        return;
    here.require(clh->seen_count + 1 < clh->text_length, "clh->seen_count + 1 < clh->text_length");
    clh->seen_letters[clh->seen_count++] = letter;
    clh->seen_letters[clh->seen_count] = '\0';
}

void move_to_next_word(cl_handle *clh)
{
    move_to_word(clh, clh->current_word + 1);
}

void move_past_letter(cl_handle *clh)
{
    ++clh->cursor;
    if (*clh->cursor == '\0')
        move_to_next_word(clh);
}

// Moves to the next option letter; false at the end of the options.
bool find_letter(cl_handle *clh)
{
    while (clh->word_start < clh->option_end && *clh->word_start == '-') {
        if (std::strcmp(clh->word_start, "--") == 0) {
            clh->option_end = clh->word_start;
            move_to_next_word(clh);
            return false;
        }
        // Kept exactly: every '-' is skipped, also between letters, and a word with nothing else is
        // dropped. Tools accept "---x" and "-a-b" that way.
        clh->cursor += std::strspn(clh->cursor, "-");
        if (*clh->cursor != '\0')
            return true;
        move_to_next_word(clh);
    }
    return false;
}

bool is_long_option(const cl_handle *clh)
{
    return clh->word_start < clh->option_end && std::strncmp(clh->word_start, "--", 2) == 0 &&
           clh->word_start[2] != '\0';
}

// A lone "-" is dropped before the word behind it is looked at, as by find_letter().
void skip_lone_dashes(cl_handle *clh)
{
    while (clh->word_start < clh->option_end && std::strcmp(clh->word_start, "-") == 0)
        move_to_next_word(clh);
}

} // namespace

extern "C" {

int cl_getopt(cl_handle *clh, const char *optstring)
{
    require_handle(clh);
    clear_error(clh);
    if (!find_letter(clh))
        return 0;
    const char letter = *clh->cursor;
    const Option option = find_option(optstring, letter);
    if (!option.is_known)
        set_error(clh, CL_BAD_OPTION, letter);
    else if (is_in_conflict(clh, option.group))
        set_error(clh, CL_CONFLICT, letter);
    else
        note_letter(clh, letter);
    move_past_letter(clh);
    return clh->error_number == CL_NO_ERROR ? static_cast<unsigned char>(letter) : '?';
}

int cl_getopt_long(cl_handle *clh, const char *optstring, char **longopt)
{
    require_handle(clh);
    skip_lone_dashes(clh);
    if (!is_long_option(clh))
        return cl_getopt(clh, optstring);
    clear_error(clh);
    char *const copy = stg_strdup(clh->word_start + 2);
    if (copy == nullptr) {
        set_error(clh, CL_OUT_OF_MEMORY, '\0');
        return '?';
    }
    *longopt = copy;
    move_to_next_word(clh);
    return 0;
}

char *cl_getarg(cl_handle *clh)
{
    require_handle(clh);
    clear_error(clh);
    if (clh->cursor != clh->word_start) {
        set_error(clh, CL_BAD_ARGUMENT, '\0');
        return nullptr;
    }
    if (clh->current_word == clh->word_count)
        return nullptr;
    char *const word = clh->word_start;
    move_to_next_word(clh);
    return word;
}

char *cl_getname(cl_handle *clh)
{
    return cl_getarg(clh);
}

char *cl_getarg_noopt(cl_handle *clh)
{
    require_handle(clh);
    if (clh->current_word == clh->word_count || *clh->word_start != '-')
        return cl_getarg(clh);
    clear_error(clh);
    return nullptr;
}

int cl_getoffset(cl_handle *clh)
{
    require_handle(clh);
    return static_cast<int>(clh->cursor - clh->text);
}

void cl_setoffset(cl_handle *clh, int offset)
{
    require_handle(clh);
    clear_error(clh);
    char *const place = clh->text + std::clamp(offset, 0, clh->text_length);
    int word = clh->word_count;
    while (word > 0 && clh->words[word].start > place)
        --word;
    move_to_word(clh, word);
    // Kept exactly: a place at a word's end, which for an empty word is its start, is passed on to
    // the next word.
    if (place >= clh->word_start + clh->words[word].length)
        move_to_next_word(clh);
    else
        clh->cursor = place;
}
}
