// veldepot: keeps compressed copies of files in a depot directory.
//
// The command line, and one function for each command. `veldepot help` tells what it does.
#include "depot.h"
#include "depot_report.h"

#include <korvaks/cl.h>
#include <korvaks/evutl.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>

namespace {

using namespace depot;

struct CommandLine {
    char directory_variable[PATH_MAX] = "";
    const char *directory = nullptr;
    const char *out = nullptr;
    bool is_forced = false;
    bool is_help = false;
    int command = -1;
    const char *command_word = nullptr;
    const char **words = nullptr;
    std::size_t word_count = 0;
};

// What a command works with.
struct Job {
    const CommandLine &line;
    Depot depot;
    stg_area *area;
};

// Commands. Each does all it can and returns false when anything failed.

bool put_files(Job &job)
{
    bool is_done = true;
    for (std::size_t i = 0; i < job.line.word_count; ++i)
        is_done = put_file(job.depot, job.line.words[i]) && is_done;
    return is_done;
}

bool get_named(Job &job)
{
    return get_file(job.depot, job.line.words[0], job.line.out, job.line.is_forced);
}

bool remove_entries(Job &job)
{
    bool is_done = true;
    for (std::size_t i = 0; i < job.line.word_count; ++i)
        is_done = remove_entry(job.depot, job.line.words[i]) && is_done;
    return is_done;
}

bool verify_entries(Job &job)
{
    Names names = {job.line.words, job.line.word_count};
    if (names.count == 0 && !read_names(job.depot, job.area, names))
        return false;
    unsigned long sound = 0;
    for (std::size_t i = 0; i < names.count; ++i)
        sound += verify_entry(job.depot, names.items[i]) ? 1 : 0;
    report(ok, msg_verified, sound, static_cast<unsigned long>(names.count));
    return sound == names.count;
}

// One line of the list: a name and what its entry's header says.
struct Row {
    const char *name;
    Entry entry;
};

// The text made `width` columns wide, in memory of the area; as it is when there is none.
const char *padded(stg_area *area, const char *text, int width)
{
    const std::size_t size = std::strlen(text) + static_cast<std::size_t>(width) + 1;
    auto *const wide = static_cast<char *>(stg_alloc(area, size));
    if (wide == nullptr || imsg_make_width(wide, size, text, width, 0) == 0)
        return text;
    return wide;
}

int widest(const Row *rows, std::size_t count, int at_least)
{
    for (std::size_t i = 0; i < count; ++i)
        at_least = std::max(at_least, static_cast<int>(imsg_strwidth(rows[i].name)));
    return at_least;
}

bool print_rows(stg_area *area, const Row *rows, std::size_t count)
{
    const char *const total = stg_area_strdup(area, text_of(msg_list_entries, static_cast<unsigned long>(count)));
    const char *const heading = stg_area_strdup(area, text_of(msg_list_name));
    if (total == nullptr || heading == nullptr)
        return false;
    const int width = widest(rows, count, static_cast<int>(std::max(imsg_strwidth(total), imsg_strwidth(heading))));
    unsigned long long bytes = 0;
    unsigned long long stored = 0;
    report(output, msg_list_head, padded(area, heading, width));
    for (std::size_t i = 0; i < count; ++i) {
        const Entry &entry = rows[i].entry;
        bytes += entry.length;
        stored += entry.block_length;
        report(output, msg_list_row, padded(area, rows[i].name, width), static_cast<unsigned long long>(entry.length),
               static_cast<unsigned long long>(entry.block_length), entry.checksum);
    }
    report(output, msg_list_total, padded(area, total, width), bytes, stored);
    return true;
}

bool list_entries(Job &job)
{
    Names names;
    if (!read_names(job.depot, job.area, names))
        return false;
    auto *const rows = static_cast<Row *>(stg_alloc(job.area, (names.count + 1) * sizeof(Row)));
    if (rows == nullptr)
        return false;
    std::size_t count = 0;
    for (std::size_t i = 0; i < names.count; ++i) {
        Row &row = rows[count];
        row = {stg_area_strdup(job.area, shown(names.items[i])), {}};
        if (row.name == nullptr)
            return false;
        count += read_entry(job.depot, names.items[i], row.entry) ? 1 : 0;
    }
    return print_rows(job.area, rows, count) && count == names.count;
}

bool print_usage(Job &)
{
    report(output, msg_usage);
    return true;
}

struct Command {
    std::size_t words_min;
    std::size_t words_max;
    bool needs_depot;
    bool makes_depot;
    bool (*run)(Job &job);
};

constexpr std::size_t any_number = SIZE_MAX;
constexpr const char *command_names[] = {"p[ut]", "g[et]", "l[ist]", "v[erify]", "r[emove]", "h[elp]"};
constexpr Command commands[] = {
    {1, any_number, true, true, put_files},
    {1, 1, true, false, get_named},
    {0, 0, true, false, list_entries},
    {0, any_number, true, false, verify_entries},
    {1, any_number, true, false, remove_entries},
    {0, any_number, false, false, print_usage},
};
static_assert(std::size(command_names) == std::size(commands));

// The command line.

// The scanner would read "-out" as letters, so an option that is spelled out behind one dash gets a
// second one.
void double_dashes(int argc, char **argv)
{
    static char names[][8] = {"--depot", "--out", "--force", "--help"};
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        for (char *name : names)
            if (std::strcmp(argv[i], name + 1) == 0)
                argv[i] = name;
}

// Letters of the long options, which may be cut off like commands.
int letter_of(const char *long_option)
{
    constexpr const char *names[] = {"d[epot]", "o[ut]", "f[orce]", "h[elp]"};
    for (const char *name : names)
        if (cl_match(long_option, name) != 0)
            return *name;
    report(error, msg_bad_word, cl_strerror(CL_BAD_OPTION), shown(long_option));
    return '?';
}

// The next option's letter; 0 when there is none, '?' when it was wrong and is reported.
int next_option(cl_handle *clh)
{
    char *long_option = nullptr;
    int letter = cl_getopt_long(clh, "d:o:fh", &long_option);
    if (letter == '?')
        report(error, msg_bad_word, cl_strerror(cl_errno(clh)), shown(cl_estr(clh)));
    if (long_option != nullptr)
        letter = letter_of(long_option);
    stg_free(long_option);
    return letter;
}

bool take_value(cl_handle *clh, int letter, const char *&out_value)
{
    out_value = cl_getarg(clh);
    if (out_value == nullptr)
        report(error, msg_option_needs, letter);
    return out_value != nullptr;
}

bool take_options(cl_handle *clh, CommandLine &line)
{
    while (const int letter = next_option(clh)) {
        bool is_right = letter != '?';
        if (letter == 'd')
            is_right = take_value(clh, letter, line.directory);
        else if (letter == 'o')
            is_right = take_value(clh, letter, line.out);
        line.is_forced = line.is_forced || letter == 'f';
        line.is_help = line.is_help || letter == 'h';
        if (!is_right)
            return false;
    }
    return true;
}

bool take_command(cl_handle *clh, CommandLine &line)
{
    const int start = cl_getoffset(clh);
    line.command_word = cl_getname(clh);
    if (line.command_word == nullptr)
        return true; // nothing at all is given: the usage text is shown
    cl_setoffset(clh, start);
    line.command = cl_get_subcommand(clh, static_cast<int>(std::size(command_names)), command_names);
    if (line.command < 0)
        report(error, msg_unknown_command, shown(line.command_word));
    return line.command >= 0;
}

// Options may stand between the command's words as well as before it.
bool take_words(cl_handle *clh, CommandLine &line)
{
    for (;;) {
        if (!take_options(clh, line))
            return false;
        const char *const word = cl_getarg(clh);
        if (word == nullptr)
            return true;
        line.words[line.word_count++] = word;
    }
}

bool check_words(const CommandLine &line)
{
    const Command &command = commands[line.command];
    if (command.run != get_named && (line.out != nullptr || line.is_forced))
        report(error, msg_bad_word, cl_strerror(CL_BAD_OPTION), line.out != nullptr ? "-o" : "-f");
    else if (line.word_count < command.words_min)
        report(error, msg_too_few_words, shown(line.command_word));
    else if (line.word_count > command.words_max)
        report(error, msg_too_many_words, shown(line.command_word), shown(line.words[command.words_max]));
    else
        return true;
    return false;
}

bool find_directory(CommandLine &line)
{
    constexpr unsigned how = EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_WHOLE | EVUTL_GETENV_SECURE;
    if (line.directory == nullptr)
        line.directory = getenv_safe("VELDEPOT_DIR", line.directory_variable, sizeof line.directory_variable, how);
    if (line.directory == nullptr)
        report(error, msg_no_directory);
    return line.directory != nullptr;
}

bool run_command(const CommandLine &line, stg_area *area)
{
    const Command &command = commands[line.command];
    Job job = {line, {}, area};
    const bool is_open = !command.needs_depot || open_depot(line.directory, command.makes_depot, job.depot);
    const bool is_done = is_open && command.run(job);
    close_depot(job.depot);
    return is_done;
}

bool run(cl_handle *clh, CommandLine &line, stg_area *area)
{
    constexpr int help = static_cast<int>(std::size(commands)) - 1;
    if (!take_options(clh, line) || !take_command(clh, line) || !take_words(clh, line))
        return false;
    if (line.is_help || line.command < 0)
        line.command = help;
    if (!check_words(line) || (commands[line.command].needs_depot && !find_directory(line)))
        return false;
    return run_command(line, area);
}

} // namespace

int main(int argc, char **argv)
{
    ks_system_init();
    stg_area *area = stg_create_area(16384);
    int err = 0;
    double_dashes(argc, argv);
    cl_handle *clh = cl_parse_argv(argc, argv, &err);
    bool is_done = false;
    if (area != STG_AREA_NULL && clh != nullptr && start_messages(argv[0])) {
        CommandLine line;
        line.words = static_cast<const char **>(stg_alloc(area, static_cast<std::size_t>(argc) * sizeof *argv));
        is_done = line.words != nullptr && run(clh, line, area) && is_output_complete();
        end_messages();
    }
    if (clh != nullptr)
        cl_destroy(&clh);
    if (area != STG_AREA_NULL)
        stg_delete_area(&area);
    pfm_exit(is_done ? 0 : 1);
}
