// What does it cost to scan a command line of 20 words with the command parser, from an argument vector to the
// end of the handle, against the C library's scanner of long options?
#include <korvaks/clp.h>

#include <benchmark/benchmark.h>

#include <getopt.h>

namespace {

enum Flag : std::uint32_t {
    f_comment = 1,
    f_directory,
    f_element,
    f_force,
    f_list,
    f_mode,
    f_name,
    f_owner,
    f_quiet,
    f_recursive,
};

// The same line in both languages: the words' lengths and the places of flags and operands agree.
const char *const clp_words[] = {"tool",   "-comment", "text",   "-directory", "/tmp/d", "-element", "e1",
                                 "-force", "-list",    "a",      "-mode",      "0644",   "-name",    "n",
                                 "-owner", "o",        "-quiet", "-recursive", "file1",  "file2"};
const char *const getopt_words[] = {"tool",    "--comment", "text",    "--directory", "/tmp/d", "--element", "e1",
                                    "--force", "--list",    "a",       "--mode",      "0644",   "--name",    "n",
                                    "--owner", "o",         "--quiet", "--recursive", "file1",  "file2"};
constexpr int word_count = 20;
static_assert(std::size(clp_words) == word_count && std::size(getopt_words) == word_count);
constexpr int flags_in_line = 10;

const clp_flag_desc flags[] = {{"-c[omment]", f_comment, 0},
                               {"-d[irectory]", f_directory, 0},
                               {"-e[lement]", f_element, 0},
                               {"-f[orce]", f_force, 0},
                               {"-l[ist]", f_list, 0},
                               {"-m[ode]", f_mode, 0},
                               {"-n[ame]", f_name, 0},
                               {"-o[wner]", f_owner, 0},
                               {"-q[uiet]", f_quiet, 0},
                               {"-r[ecursive]", f_recursive, 0},
                               {nullptr, 0, 0}};

const option options[] = {{"comment", required_argument, nullptr, f_comment},
                          {"directory", required_argument, nullptr, f_directory},
                          {"element", required_argument, nullptr, f_element},
                          {"force", no_argument, nullptr, f_force},
                          {"list", required_argument, nullptr, f_list},
                          {"mode", required_argument, nullptr, f_mode},
                          {"name", required_argument, nullptr, f_name},
                          {"owner", required_argument, nullptr, f_owner},
                          {"quiet", no_argument, nullptr, f_quiet},
                          {"recursive", no_argument, nullptr, f_recursive},
                          {nullptr, 0, nullptr, 0}};

void scan_with_korvaks(benchmark::State &state)
{
    char **const argv = const_cast<char **>(clp_words);
    int found = 0;
    for (auto _ : state) {
        clp_handle *hdl = clp_create_hdl_using_argv(word_count, argv, flags, STG_AREA_NULL);
        char *word = nullptr;
        std::uint32_t flag = 0;
        found = 0;
        (void)clp_get_next_arg(hdl, &word);
        for (; clp_get_next_flag_value(hdl, 0, &flag) == 0; ++found) {
            if (flag != f_force && flag != f_quiet && flag != f_recursive)
                (void)clp_get_next_arg(hdl, &word);
            benchmark::DoNotOptimize(word);
        }
        while (clp_get_next_arg(hdl, &word) == 0)
            benchmark::DoNotOptimize(word);
        clp_destroy_hdl(&hdl);
    }
    if (found != flags_in_line)
        state.SkipWithError("not the flags of the line");
}
BENCHMARK(scan_with_korvaks)->Name("command/scan_20_words/korvaks");

void scan_with_getopt_long(benchmark::State &state)
{
    char **const argv = const_cast<char **>(getopt_words);
    int found = 0;
    for (auto _ : state) {
        optind = 0; // starts anew
        found = 0;
        for (; getopt_long(word_count, argv, "+", options, nullptr) != -1; ++found)
            benchmark::DoNotOptimize(optarg);
        for (int i = optind; i < word_count; ++i)
            benchmark::DoNotOptimize(argv[i]);
    }
    if (found != flags_in_line)
        state.SkipWithError("not the options of the line");
}
BENCHMARK(scan_with_getopt_long)->Name("command/scan_20_words/getopt_long");

} // namespace
