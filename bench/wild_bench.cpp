// What do wildcards cost against the C library's? Matching: a page of file names and one of path names
// against the patterns that people write. Expansion: 10,000 files, in four directories or in many.
#include "bench_input.h"

#include <korvaks/stg.h>
#include <korvaks/wild.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>
#include <unistd.h>

namespace {

using Texts = std::vector<std::string>;

const Texts name_patterns = {"*.c", "lib*.so.?", "[a-m]*_test.cpp", "*draft*", "report-??.txt"};
const Texts path_patterns = {"src/*/*.cpp", "lib/*/lib*.so*", "*/include/[a-m]*.h", "doc/*/*/index.*"};

// Each takes the front of a path and then fails behind a `*`.
const Texts failing_patterns = {"src/*.cpp", "src/kernel/*_bench.cpp", "src/*/main.[xyz]", "src/*/*_unit.h"};

Texts make_names()
{
    const Texts stems = {"main", "libkernel", "list_test", "report-07", "an_old_draft_of_it", "index"};
    const Texts ends = {".c", ".cpp", ".so.1", ".txt", ".h", ""};
    Texts names;
    for (const std::string &stem : stems) {
        for (const std::string &end : ends)
            names.push_back(stem + end);
    }
    return names;
}

Texts make_paths()
{
    Texts paths;
    for (const char *directory : {"src/kernel/", "lib/amd64/", "core/include/", "doc/guide/en/"}) {
        for (const std::string &name : make_names())
            paths.push_back(directory + name);
    }
    return paths;
}

Texts make_failing_paths()
{
    Texts paths;
    for (const std::string &name : make_names())
        paths.push_back("src/kernel/" + name);
    return paths;
}

Texts compiled(const Texts &patterns)
{
    Texts all;
    char buf[256];
    for (const std::string &pattern : patterns) {
        if (wild_compile_pattern(pattern.c_str(), sizeof buf, buf, nullptr) > 0)
            all.push_back(buf);
    }
    return all;
}

bool match_with_korvaks(const char *pattern, const char *text, bool is_path)
{
    return wild_match(pattern, text, is_path ? 1 : 0) != 0;
}

bool match_with_fnmatch(const char *pattern, const char *text, bool is_path)
{
    return fnmatch(pattern, text, is_path ? FNM_PATHNAME : 0) == 0;
}

using Matches = bool(const char *pattern, const char *text, bool is_path);

void match(benchmark::State &state, Matches *matches, const Texts &patterns, const Texts &texts, bool is_path,
           bool is_failing = false)
{
    std::size_t found = 0;
    for (auto _ : state) {
        for (const std::string &pattern : patterns) {
            for (const std::string &text : texts)
                found += matches(pattern.c_str(), text.c_str(), is_path) ? 1 : 0;
        }
    }
    if ((found == 0) != is_failing)
        state.SkipWithError(is_failing ? "a match" : "no matches");
}
BENCHMARK_CAPTURE(match, names_korvaks, match_with_korvaks, compiled(name_patterns), make_names(), false)
    ->Name("wild/match_names/korvaks");
BENCHMARK_CAPTURE(match, names_fnmatch, match_with_fnmatch, name_patterns, make_names(), false)
    ->Name("wild/match_names/fnmatch");
BENCHMARK_CAPTURE(match, paths_korvaks, match_with_korvaks, compiled(path_patterns), make_paths(), true)
    ->Name("wild/match_paths/korvaks");
BENCHMARK_CAPTURE(match, paths_fnmatch, match_with_fnmatch, path_patterns, make_paths(), true)
    ->Name("wild/match_paths/fnmatch");
BENCHMARK_CAPTURE(match, fail_korvaks, match_with_korvaks, compiled(failing_patterns), make_failing_paths(), true, true)
    ->Name("wild/fail_behind_run/korvaks");
BENCHMARK_CAPTURE(match, fail_fnmatch, match_with_fnmatch, failing_patterns, make_failing_paths(), true, true)
    ->Name("wild/fail_behind_run/fnmatch");

// 10,000 files, removed with the program's end.
class Tree {
  public:
    Tree()
    {
        // In memory where that can be had, so that a disk is not what is measured.
        char name[32] = "/dev/shm/wild_bench.XXXXXX";
        if (access("/dev/shm", W_OK) != 0)
            std::strcpy(name, "/tmp/wild_bench.XXXXXX");
        if (mkdtemp(name) == nullptr)
            std::abort();
        path_ = name;
        for (unsigned i = 0; i < 10000; ++i) {
            make("/flat/" + std::to_string(i % 4), i);
            make("/deep/" + std::to_string(i % 10) + "/" + std::to_string(i / 10 % 10) + "/" +
                     std::to_string(i / 100 % 10),
                 i);
        }
    }
    ~Tree() { std::filesystem::remove_all(path_); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    std::string word(const char *pattern) const { return path_ + pattern; }

  private:
    void make(const std::string &directory, unsigned number)
    {
        std::filesystem::create_directories(path_ + directory);
        const std::string file = path_ + directory + "/file" + std::to_string(number) + (number % 3 == 0 ? ".c" : ".o");
        close(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    }

    std::string path_;
};

const Tree &tree()
{
    static const Tree made;
    return made;
}

void expand_with_korvaks(benchmark::State &state, const char *pattern)
{
    const std::string word = tree().word(pattern);
    for (auto _ : state) {
        char *list = nullptr;
        if (wild_glob_single(word.c_str(), ".", &list) != 0)
            state.SkipWithError("not expanded");
        benchmark::DoNotOptimize(list);
        stg_free(list);
    }
}

void expand_with_glob(benchmark::State &state, const char *pattern)
{
    const std::string word = tree().word(pattern);
    for (auto _ : state) {
        glob_t list;
        if (glob(word.c_str(), 0, nullptr, &list) != 0)
            state.SkipWithError("not expanded");
        benchmark::DoNotOptimize(list.gl_pathv);
        globfree(&list);
    }
}
BENCHMARK_CAPTURE(expand_with_korvaks, flat, "/flat/*/*")->Name("wild/glob_flat/korvaks");
BENCHMARK_CAPTURE(expand_with_glob, flat, "/flat/*/*")->Name("wild/glob_flat/glob");
BENCHMARK_CAPTURE(expand_with_korvaks, deep, "/deep/*/*/*/*.c")->Name("wild/glob_deep/korvaks");
BENCHMARK_CAPTURE(expand_with_glob, deep, "/deep/*/*/*/*.c")->Name("wild/glob_deep/glob");

} // namespace
