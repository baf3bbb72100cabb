#include "depot_line.h"

#include "depot_help.h"
#include "depot_report.h"
#include "depot_target.h"

#include <korvaks/strutl.h>

#include <cstring>

namespace depot {

namespace {

// What happened to a word of the command line; the numbers are those of clp.
enum Taken : int {
    taken = 0,
    wrong = 1, // reported
    nothing = 2,
};

bool is_flag_name(const clp_flag_desc *flags, const char *word)
{
    for (; flags->name != nullptr; ++flags)
        if (clp_match(word, flags->name) != 0)
            return true;
    return false;
}

// clp reports a flag that is used wrongly. A word that is no flag is reported here: it may be the
// name of a file, and those are shown with care.
Taken refuse(clp_handle *handle, const CommandLine &line)
{
    const char *const word = handle->argv[handle->index];
    if (!is_flag_name(handle->descriptors, word))
        report(IMSG_ERROR, msg_unknown_flag, shown(word));
    show_usage(IMSG_ERROR_MORE, line.command);
    return wrong;
}

// The comments of several flags are the lines of one.
const char *join(stg_area *area, const char *before, const char *value)
{
    return before == nullptr ? value : strutl_concat_area(area, 3, before, "\n", value);
}

bool take_value(clp_handle *handle, stg_area *area, std::uint32_t flag, CommandLine &line)
{
    const Msg argument = text_of_flag(flag).argument;
    if (argument == msg_none) {
        line.values[flag] = "";
        return true;
    }
    char *value = nullptr;
    if (clp_get_next_arg(handle, &value) == nothing) {
        report(IMSG_ERROR, msg_flag_needs, unbracketed(handle->last_flag_name), text_of(argument));
        show_usage(IMSG_ERROR_MORE, line.command);
        return false;
    }
    line.values[flag] = flag == flag_comment ? join(area, line.values[flag], value) : value;
    return line.values[flag] != nullptr;
}

// "-" alone is a word: standard input.
bool is_at_dash(const clp_handle *handle)
{
    return handle->index < handle->argc && std::strcmp(handle->argv[handle->index], standard_stream) == 0;
}

Taken take_flags(clp_handle *handle, stg_area *area, CommandLine &line)
{
    while (!is_at_dash(handle)) {
        std::uint32_t flag = 0;
        const int result = clp_get_next_flag_value(handle, 1, &flag);
        if (result == wrong)
            return refuse(handle, line);
        if (result == nothing)
            return nothing;
        if (!take_value(handle, area, flag, line))
            return wrong;
    }
    return nothing;
}

// From the command's name on, flags are those of the command.
bool take_command(clp_handle *handle, stg_area *area, CommandLine &line)
{
    char *word = nullptr;
    if (clp_get_next_arg(handle, &word) == nothing)
        return true; // nothing at all is given: the tool's help is shown
    line.command = find_command(word);
    return line.command != nullptr && clp_switch_flags(handle, line.command->flags, area) == 0;
}

// Flags may stand between the command's words as well as before them.
bool take_words(clp_handle *handle, stg_area *area, CommandLine &line)
{
    for (;;) {
        if (take_flags(handle, area, line) == wrong)
            return false;
        char *word = nullptr;
        if (clp_get_next_arg(handle, &word) == nothing)
            return true;
        line.words[line.word_count++] = word;
    }
}

bool check_word_count(const CommandLine &line)
{
    const Command &command = *line.command;
    if (line.word_count < command.words_min)
        report(IMSG_ERROR, msg_too_few_words, unbracketed(command.name));
    else if (line.word_count > command.words_max)
        report(IMSG_ERROR, msg_too_many_words, unbracketed(command.name), shown(line.words[command.words_max]));
    else
        return true;
    show_usage(IMSG_ERROR_MORE, &command);
    return false;
}

} // namespace

bool read_line(clp_handle *handle, stg_area *area, CommandLine &out_line)
{
    const auto word_count_max = static_cast<std::size_t>(clp_get_argc(handle));
    out_line.words = static_cast<const char **>(stg_alloc(area, (word_count_max + 1) * sizeof *out_line.words));
    if (out_line.words == nullptr || take_flags(handle, area, out_line) == wrong)
        return false;
    if (!take_command(handle, area, out_line))
        return false;
    if (out_line.command == nullptr)
        return true;
    return take_words(handle, area, out_line) && (out_line.has(flag_help) || check_word_count(out_line));
}

} // namespace depot
