#include "depot_command.h"

#include "depot_ask.h"
#include "depot_help.h"
#include "depot_list.h"
#include "depot_ping.h"
#include "depot_report.h"
#include "depot_status.h"
#include "depot_target.h"
#include "depot_who.h"

#include <korvaks/evutl.h>
#include <korvaks/fileutl.h>
#include <korvaks/ks_sort.h>
#include <korvaks/sysutl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>

#include <unistd.h>

namespace depot {

namespace {

// Flags. Each is written with one dash, or with two: the same text from its second character on, or from its first.

constexpr bool is_group_mark(const clp_flag_desc &flag)
{
    constexpr clp_flag_desc start = CLP_START_MUTUAL_EXCLUSION;
    constexpr clp_flag_desc end = CLP_END_MUTUAL_EXCLUSION;
    return flag.value == start.value || flag.value == end.value;
}

constexpr clp_flag_desc common_flags[] = {
    CLP_START_MUTUAL_EXCLUSION, {"--d[epot]", flag_depot, 0}, {"--se[rver]", flag_server, 0},
    CLP_END_MUTUAL_EXCLUSION,   {"--h[elp]", flag_help, 0},
};

template <std::size_t count> constexpr auto both_spellings(const std::array<clp_flag_desc, count> &flags)
{
    std::array<clp_flag_desc, 2 * count + 1> table{}; // with the table's end
    std::size_t i = 0;
    for (const clp_flag_desc &flag : flags) {
        if (is_group_mark(flag)) {
            table[i++] = flag;
            continue;
        }
        table[i++] = {flag.name + 1, flag.value, flag.flags};
        table[i++] = {flag.name, flag.value, flag.flags | CLP_ALIAS_FLAG};
    }
    return table;
}

// The table of a command: its own flags, then those of all.
template <std::size_t count> consteval auto with_common_flags(const clp_flag_desc (&own)[count])
{
    std::array<clp_flag_desc, count + std::size(common_flags)> flags{};
    std::ranges::copy(common_flags, std::ranges::copy(own, flags.begin()).out);
    return both_spellings(flags);
}

constexpr auto general = with_common_flags({{"--version", flag_version, 0}});
constexpr auto plain_flags = both_spellings(std::to_array(common_flags));

constexpr auto put_flags = with_common_flags({
    {"--n[ame]", flag_name, 0},
    {"--c[omment]", flag_comment, CLP_REPEATABLE_FLAG},
    CLP_START_MUTUAL_EXCLUSION,
    {"--r[eplace]", flag_replace, 0},
    {"--nr[eplace]", flag_keep, 0},
    CLP_END_MUTUAL_EXCLUSION,
});

constexpr auto get_flags = with_common_flags({
    {"--o[ut]", flag_out, 0},
    {"--f[orce]", flag_force, 0},
});

constexpr auto list_flags = with_common_flags({
    CLP_START_MUTUAL_EXCLUSION,
    {"--l[ong]", flag_long, 0},
    {"--s[hort]", flag_short, 0},
    {"--fmt", flag_format, 0},
    {"--0", flag_nul, 0},
    CLP_END_MUTUAL_EXCLUSION,
    {"--since", flag_since, 0},
});

constexpr clp_flag_desc datagrams = {"--u[dp]", flag_udp, 0};

constexpr auto remove_flags = with_common_flags({
    {"--y[es]", flag_yes, 0},
    datagrams,
});

// Of commands whose calls and answers are short.
constexpr auto short_flags = with_common_flags({datagrams});

constexpr auto ping_flags = with_common_flags({
    {"--p[rogram]", flag_program, 0},
    {"--v[ersion]", flag_program_version, 0},
    CLP_START_MUTUAL_EXCLUSION,
    {"--tc[p]", flag_tcp, 0},
    {"--u[dp]", flag_udp, 0},
    CLP_END_MUTUAL_EXCLUSION,
    {"--ti[meout]", flag_timeout, 0},
});

constexpr FlagText flag_texts[] = {
    {msg_argument_depot, msg_flag_depot},
    {msg_argument_server, msg_flag_server},
    {msg_none, msg_flag_help},
    {msg_none, msg_flag_version},
    {msg_argument_name, msg_flag_name},
    {msg_argument_comment, msg_flag_comment},
    {msg_none, msg_flag_replace},
    {msg_none, msg_flag_keep},
    {msg_argument_out, msg_flag_out},
    {msg_none, msg_flag_force},
    {msg_none, msg_flag_long},
    {msg_none, msg_flag_short},
    {msg_argument_format, msg_flag_format},
    {msg_none, msg_flag_nul},
    {msg_argument_since, msg_flag_since},
    {msg_none, msg_flag_yes},
    {msg_argument_number, msg_flag_program},
    {msg_argument_number, msg_flag_program_version},
    {msg_none, msg_flag_tcp},
    {msg_none, msg_flag_udp},
    {msg_argument_seconds, msg_flag_timeout},
};
static_assert(std::size(flag_texts) == flag_count);

// Commands.

Status status_of(bool is_done)
{
    return is_done ? Status::done : Status::failed;
}

Status misused(Msg number, const char *word)
{
    (void)fail(number, word);
    return Status::misused;
}

int compare_base_names(const void *a, const void *b, void *)
{
    return std::strcmp(base_name(*static_cast<const char *const *>(a)),
                       base_name(*static_cast<const char *const *>(b)));
}

// Of two files of one name the second would replace the first.
Status check_names_differ(const Job &job)
{
    const CommandLine &line = job.line;
    auto **const paths = static_cast<const char **>(stg_alloc(job.area, line.word_count * sizeof *line.words));
    if (paths == nullptr)
        return Status::failed;
    std::copy_n(line.words, line.word_count, paths);
    ks_qsort(paths, line.word_count, sizeof *paths, compare_base_names, nullptr);
    for (std::size_t i = 1; i < line.word_count; ++i) {
        if (compare_base_names(&paths[i - 1], &paths[i], nullptr) == 0) {
            report(IMSG_ERROR, msg_same_name, shown(paths[i - 1]), shown(paths[i]));
            return Status::misused;
        }
    }
    return Status::done;
}

// All that can be seen before anything is made.
Status check_put(const Job &job)
{
    const CommandLine &line = job.line;
    if (line.has(flag_comment) && std::strlen(line.values[flag_comment]) > comment_bytes_max) {
        report(IMSG_ERROR, msg_long_comment, static_cast<int>(comment_bytes_max));
        return Status::misused;
    }
    if (line.has(flag_name))
        return line.word_count == 1 ? Status::done : misused(msg_one_name, line.words[1]);
    for (std::size_t i = 0; i < line.word_count; ++i)
        if (is_stream(line.words[i]))
            return misused(msg_stdin_needs_name, line.words[i]);
    return check_names_differ(job);
}

// Whether to go on with a file; `out_is_failed`: it is not known whether it would replace anything.
bool may_put(Job &job, const char *path, bool &out_is_failed)
{
    const CommandLine &line = job.line;
    const char *const name = line.has(flag_name) ? line.values[flag_name] : base_name(path);
    if (line.has(flag_replace) || line.has(flag_keep) || !may_ask())
        return true;
    bool is_there = false;
    out_is_failed = !job.store->look_up(name, is_there);
    return !out_is_failed && (!is_there || confirm(msg_ask_replace_entry, name));
}

bool put_if_confirmed(Job &job, const char *path, const Label &label)
{
    bool is_failed = false;
    return may_put(job, path, is_failed) ? job.store->put(path, label) : !is_failed;
}

Status put_files(Job &job)
{
    const CommandLine &line = job.line;
    char owner[owner_bytes_max + 1];
    if (const Status status = check_put(job); status != Status::done)
        return status;
    if (sysutl_user_name(owner, sizeof owner) != 0) {
        report(IMSG_ERROR, msg_no_owner, imsg_strerror(errno));
        return Status::failed;
    }
    if (const Status status = open_store(job, true); status != Status::done)
        return status;
    const Label label = {line.values[flag_name], owner, line.has(flag_comment) ? line.values[flag_comment] : "",
                         !line.has(flag_keep)};
    bool is_done = true;
    for (std::size_t i = 0; i < line.word_count; ++i)
        is_done = put_if_confirmed(job, line.words[i], label) && is_done;
    return status_of(is_done);
}

// Without a terminal a file that exists is an error, which is found when it is written.
enum class Overwrite { no, yes, skip };
Overwrite may_get(const CommandLine &line, const char *name)
{
    const char *const target = line.has(flag_out) ? line.values[flag_out] : name;
    if (line.has(flag_force))
        return Overwrite::yes;
    if (isatty(STDIN_FILENO) != 1 || is_stream(target) || fileutl_exists(target) == 0)
        return Overwrite::no;
    return confirm(msg_ask_replace_file, target) ? Overwrite::yes : Overwrite::skip;
}

bool get_entry(Job &job, const char *name)
{
    const Overwrite overwrite = may_get(job.line, name);
    return overwrite == Overwrite::skip || job.store->get(name, job.line.values[flag_out], overwrite == Overwrite::yes);
}

Status get_entries(Job &job)
{
    const CommandLine &line = job.line;
    Names names;
    const Status found = find_entries(job, names);
    if (found == Status::misused)
        return found;
    if (line.has(flag_out) && names.count > 1)
        return misused(msg_one_out, line.values[flag_out]);
    bool is_done = found == Status::done;
    for (std::size_t i = 0; i < names.count; ++i)
        is_done = get_entry(job, names.items[i]) && is_done;
    return status_of(is_done);
}

Status verify_entries(Job &job)
{
    Names names;
    const Status found = find_entries(job, names);
    if (found == Status::misused)
        return found;
    if (found != Status::done && names.count == 0)
        return found;
    unsigned long sound = 0;
    for (std::size_t i = 0; i < names.count; ++i)
        sound += job.store->verify(names.items[i]) ? 1 : 0;
    report(IMSG_OK, msg_verified, sound, static_cast<unsigned long>(names.count));
    return status_of(found == Status::done && sound == names.count);
}

bool remove_if_confirmed(Job &job, const char *name)
{
    if (!job.line.has(flag_yes) && !confirm(msg_ask_remove, name))
        return true;
    if (!job.store->remove(name))
        return false;
    report(IMSG_OK, msg_removed, shown(name));
    return true;
}

Status remove_entries(Job &job)
{
    Names names;
    const Status found = find_entries(job, names);
    if (found == Status::misused)
        return found;
    bool is_done = found == Status::done;
    for (std::size_t i = 0; i < names.count; ++i)
        is_done = remove_if_confirmed(job, names.items[i]) && is_done;
    return status_of(is_done);
}

Status help(Job &job)
{
    const Command *command = nullptr;
    if (job.line.word_count > 0) {
        command = find_command(job.line.words[0]);
        if (command == nullptr)
            return Status::misused;
    }
    show_help(command);
    return Status::done;
}

// What a flag says, else the environment; NULL: neither.
const char *value_of(const Job &job, Flag flag, const char *variable)
{
    constexpr unsigned how = EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_WHOLE | EVUTL_GETENV_SECURE;
    if (job.line.has(flag))
        return job.line.values[flag];
    auto *const buffer = static_cast<char *>(stg_alloc(job.area, PATH_MAX));
    return buffer == nullptr ? nullptr : getenv_safe(variable, buffer, PATH_MAX, how);
}

// NULL: none.
const char *server_of(const Job &job)
{
    const bool is_local = job.line.has(flag_depot) && !job.line.has(flag_server);
    return is_local ? nullptr : value_of(job, flag_server, "VELDEPOT_SERVER");
}

Status open_server_at(Job &job, const char *server)
{
    Addresses addresses;
    if (const Search search = find_addresses(job.area, server, addresses); search != Search::found)
        return search == Search::bad_word ? Status::misused : Status::failed;
    job.remote.open(job.area, server, addresses, job.line.has(flag_udp));
    job.store = &job.remote;
    return Status::done;
}

constexpr std::size_t any_number = SIZE_MAX;

constexpr Command commands[] = {
    {"p[ut]", put_flags.data(), 1, any_number, msg_argument_put, msg_summary_put, msg_notes_put, nullptr, put_files},
    {"g[et]", get_flags.data(), 1, any_number, msg_argument_get, msg_summary_get, msg_notes_get, nullptr, get_entries},
    {"l[ist]", list_flags.data(), 0, any_number, msg_argument_list, msg_summary_list, msg_notes_list, explain_list,
     list_entries},
    {"v[erify]", short_flags.data(), 0, any_number, msg_argument_verify, msg_summary_verify, msg_notes_verify, nullptr,
     verify_entries},
    {"r[emove]", remove_flags.data(), 1, any_number, msg_argument_remove, msg_summary_remove, msg_notes_remove, nullptr,
     remove_entries},
    {"s[tatus]", short_flags.data(), 0, 0, msg_none, msg_summary_status, msg_notes_status, nullptr, show_status},
    {"w[hoami]", short_flags.data(), 0, 0, msg_none, msg_summary_whoami, msg_notes_whoami, nullptr, show_identity},
    {"pi[ng]", ping_flags.data(), 1, 1, msg_argument_ping, msg_summary_ping, msg_notes_ping, nullptr, ping},
    {"h[elp]", plain_flags.data(), 0, 1, msg_argument_help, msg_summary_help, msg_notes_help, nullptr, help},
};

} // namespace

Status open_store(Job &job, bool make)
{
    const CommandLine &line = job.line;
    if (line.has(flag_depot) && line.has(flag_server))
        return misused(msg_two_depots, line.values[flag_server]);
    if (const char *const server = server_of(job); server != nullptr)
        return open_server_at(job, server);
    if (line.has(flag_udp)) {
        report(IMSG_ERROR, msg_no_server);
        return Status::misused;
    }
    const char *const directory = value_of(job, flag_depot, "VELDEPOT_DIR");
    if (directory == nullptr) {
        report(IMSG_ERROR, msg_no_directory);
        return Status::misused;
    }
    return status_of(job.local.open(directory, make));
}

bool names_server(const Job &job)
{
    return server_of(job) != nullptr;
}

Status open_server(Job &job)
{
    const char *const server = value_of(job, flag_server, "VELDEPOT_SERVER");
    if (server != nullptr)
        return open_server_at(job, server);
    report(IMSG_ERROR, msg_no_server);
    return Status::misused;
}

Status find_entries(Job &job, Names &out_names)
{
    if (const Status status = open_store(job, false); status != Status::done)
        return status;
    const Found found = find_names(*job.store, job.area, {job.line.words, job.line.word_count}, out_names);
    return found == Found::no_words ? Status::misused : status_of(found == Found::all);
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
    return general.data();
}

} // namespace depot
