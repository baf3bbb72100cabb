#include "depot_command.h"

#include "depot_help.h"
#include "depot_list.h"
#include "depot_report.h"

#include <korvaks/evutl.h>
#include <korvaks/sysutl.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>

namespace depot {

namespace {

// Flags. The names with two dashes are older than the others; scripts use them.

constexpr clp_flag_desc common_flags[] = {
    {"-d[epot]", flag_depot, 0},
    {"--d[epot]", flag_depot, CLP_ALIAS_FLAG},
    {"-h[elp]", flag_help, 0},
    {"--h[elp]", flag_help, CLP_ALIAS_FLAG},
    {nullptr, 0, 0},
};

// The table of a command: its own flags, then those of all, with the table's end.
template <std::size_t count> consteval auto with_common_flags(const clp_flag_desc (&own)[count])
{
    std::array<clp_flag_desc, count + std::size(common_flags)> flags{};
    std::size_t i = 0;
    for (const clp_flag_desc &flag : own)
        flags[i++] = flag;
    for (const clp_flag_desc &flag : common_flags)
        flags[i++] = flag;
    return flags;
}

constexpr auto put_flags = with_common_flags({
    {"-c[omment]", flag_comment, CLP_REPEATABLE_FLAG},
    CLP_START_MUTUAL_EXCLUSION,
    {"-r[eplace]", flag_replace, 0},
    {"-nr[eplace]", flag_keep, 0},
    CLP_END_MUTUAL_EXCLUSION,
});

constexpr auto get_flags = with_common_flags({
    {"-o[ut]", flag_out, 0},
    {"--o[ut]", flag_out, CLP_ALIAS_FLAG},
    {"-f[orce]", flag_force, 0},
    {"--f[orce]", flag_force, CLP_ALIAS_FLAG},
});

constexpr auto list_flags = with_common_flags({
    CLP_START_MUTUAL_EXCLUSION,
    {"-l[ong]", flag_long, 0},
    {"-s[hort]", flag_short, 0},
    {"-fmt", flag_format, 0},
    CLP_END_MUTUAL_EXCLUSION,
    {"-since", flag_since, 0},
});

constexpr FlagText flag_texts[] = {
    {msg_argument_depot, msg_flag_depot},
    {msg_none, msg_flag_help},
    {msg_argument_comment, msg_flag_comment},
    {msg_none, msg_flag_replace},
    {msg_none, msg_flag_keep},
    {msg_argument_out, msg_flag_out},
    {msg_none, msg_flag_force},
    {msg_none, msg_flag_long},
    {msg_none, msg_flag_short},
    {msg_argument_format, msg_flag_format},
    {msg_argument_since, msg_flag_since},
};
static_assert(std::size(flag_texts) == flag_count);

// Commands.

// The comment's length is checked before anything is made.
bool put_files(Job &job)
{
    const CommandLine &line = job.line;
    char owner[owner_bytes_max + 1];
    const Label label = {owner, line.has(flag_comment) ? line.values[flag_comment] : "", !line.has(flag_keep)};
    if (std::strlen(label.comment) > comment_bytes_max) {
        report(IMSG_ERROR, msg_long_comment, static_cast<int>(comment_bytes_max));
        return false;
    }
    if (sysutl_user_name(owner, sizeof owner) != 0) {
        report(IMSG_ERROR, msg_no_owner, imsg_strerror(errno));
        return false;
    }
    if (!open_depot_of(job, true))
        return false;
    bool is_done = true;
    for (std::size_t i = 0; i < line.word_count; ++i)
        is_done = put_file(job.depot, line.words[i], label) && is_done;
    return is_done;
}

bool get_named(Job &job)
{
    const CommandLine &line = job.line;
    return open_depot_of(job, false) && get_file(job.depot, line.words[0], line.values[flag_out], line.has(flag_force));
}

bool verify_entries(Job &job)
{
    Names names = {job.line.words, job.line.word_count};
    if (!open_depot_of(job, false) || (names.count == 0 && !read_names(job.depot, job.area, names)))
        return false;
    unsigned long sound = 0;
    for (std::size_t i = 0; i < names.count; ++i)
        sound += verify_entry(job.depot, names.items[i]) ? 1 : 0;
    report(IMSG_OK, msg_verified, sound, static_cast<unsigned long>(names.count));
    return sound == names.count;
}

bool remove_entries(Job &job)
{
    if (!open_depot_of(job, false))
        return false;
    bool is_done = true;
    for (std::size_t i = 0; i < job.line.word_count; ++i)
        is_done = remove_entry(job.depot, job.line.words[i]) && is_done;
    return is_done;
}

bool help(Job &job)
{
    const Command *command = nullptr;
    if (job.line.word_count > 0) {
        command = find_command(job.line.words[0]);
        if (command == nullptr)
            return false;
    }
    show_help(command);
    return true;
}

constexpr std::size_t any_number = SIZE_MAX;

constexpr Command commands[] = {
    {"p[ut]", put_flags.data(), 1, any_number, msg_argument_put, msg_summary_put, msg_notes_put, nullptr, put_files},
    {"g[et]", get_flags.data(), 1, 1, msg_argument_get, msg_summary_get, msg_notes_get, nullptr, get_named},
    {"l[ist]", list_flags.data(), 0, any_number, msg_argument_list, msg_summary_list, msg_notes_list, explain_list,
     list_entries},
    {"v[erify]", common_flags, 0, any_number, msg_argument_verify, msg_summary_verify, msg_notes_verify, nullptr,
     verify_entries},
    {"r[emove]", common_flags, 1, any_number, msg_argument_remove, msg_summary_remove, msg_notes_remove, nullptr,
     remove_entries},
    {"h[elp]", common_flags, 0, 1, msg_argument_help, msg_summary_help, msg_notes_help, nullptr, help},
};

} // namespace

bool open_depot_of(Job &job, bool make)
{
    constexpr unsigned how = EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_WHOLE | EVUTL_GETENV_SECURE;
    const char *directory = job.line.values[flag_depot];
    if (directory == nullptr) {
        auto *const buffer = static_cast<char *>(stg_alloc(job.area, PATH_MAX));
        directory = buffer == nullptr ? nullptr : getenv_safe("VELDEPOT_DIR", buffer, PATH_MAX, how);
    }
    if (directory == nullptr)
        report(IMSG_ERROR, msg_no_directory);
    return directory != nullptr && open_depot(directory, make, job.depot);
}

const FlagText &text_of_flag(std::uint32_t flag)
{
    return flag_texts[flag];
}

std::span<const Command> all_commands()
{
    return commands;
}

const Command *find_command(const char *word)
{
    for (const Command &command : commands)
        if (clp_match(word, command.name) != 0)
            return &command;
    report(IMSG_ERROR, msg_unknown_command, shown(word), command_list());
    return nullptr;
}

const clp_flag_desc *general_flags()
{
    return common_flags;
}

} // namespace depot
