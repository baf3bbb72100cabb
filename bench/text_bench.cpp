// What do the string utilities cost against the C library's calls of the same purpose? Each call
// goes through the text of one page (4 KiB), formatting through one line. A size string is "1.5M" or its
// like; the environment's variables are two in a path, against the words of a shell.
#include "bench_input.h"

#include <korvaks/strutl.h>

#include <benchmark/benchmark.h>

#include <korvaks/stg.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <wordexp.h>

namespace {

constexpr std::size_t page_size = 4096;
constexpr const char *delimiters = " ,.\n";
constexpr const char *needle = "the needle";

const std::string page = bench::prose(page_size);
const std::string page_with_needle = page + needle;

template <typename Tokenizer> void tokenize(benchmark::State &state)
{
    std::string copy = page;
    std::size_t tokens = 0;
    for (auto _ : state) {
        std::memcpy(copy.data(), page.data(), page_size);
        Tokenizer tokenizer;
        for (char *token = tokenizer.first(copy.data()); token != nullptr; token = tokenizer.next())
            ++tokens;
    }
    if (tokens == 0)
        state.SkipWithError("no tokens");
}

struct KorvaksTokenizer {
    char *first(char *text) { return strutl_tokenize(text, delimiters); }
    char *next() { return strutl_tokenize(nullptr, delimiters); }
};
BENCHMARK(tokenize<KorvaksTokenizer>)->Name("text/tokenize/korvaks");

struct CTokenizer {
    char *rest = nullptr;
    char *first(char *text) { return strtok_r(text, delimiters, &rest); }
    char *next() { return strtok_r(nullptr, delimiters, &rest); }
};
BENCHMARK(tokenize<CTokenizer>)->Name("text/tokenize/strtok_r");

using Format = int(char *buf, std::size_t size, const char *format, ...);

// The format is one that messages have. It is hidden from the compiler, which knows snprintf().
template <Format *print> void format(benchmark::State &state)
{
    char line[256];
    const char *text = "%s: cannot open \"%s\" (%d of %lu, %08x)";
    benchmark::DoNotOptimize(text);
    int number = 0;
    for (auto _ : state) {
        print(line, sizeof line, text, "depot", "/var/lib/depot/index", ++number, 1234567ul, 0xBEEFu);
        benchmark::DoNotOptimize(line);
    }
}
BENCHMARK(format<strutl_snprintf>)->Name("text/snprintf/korvaks");
BENCHMARK(format<snprintf>)->Name("text/snprintf/snprintf");

void find_with_korvaks(benchmark::State &state)
{
    std::size_t position = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(strutl_find_str(page_with_needle.c_str(), 0, needle, &position));
    if (position != page_size)
        state.SkipWithError("not found");
}
BENCHMARK(find_with_korvaks)->Name("text/find_str/korvaks");

void find_with_strstr(benchmark::State &state)
{
    const char *text = page_with_needle.c_str();
    const char *found = nullptr;
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        found = std::strstr(text, needle);
        benchmark::DoNotOptimize(found);
    }
    if (found != text + page_size)
        state.SkipWithError("not found");
}
BENCHMARK(find_with_strstr)->Name("text/find_str/strstr");

// As people write them.
const char *const sizes[] = {"64k", "100", "1.5M", "2G", "4096", "512K", "0.25g", "10m"};

unsigned size_by_strtod(const char *text, unsigned long *out_bytes)
{
    char *end = nullptr;
    errno = 0;
    const double number = std::strtod(text, &end);
    if (end == text || errno != 0 || (*end != '\0' && end[1] != '\0'))
        return 1;
    double factor = 1;
    switch (*end) {
    case 'g':
    case 'G':
        factor *= 1024;
        [[fallthrough]];
    case 'm':
    case 'M':
        factor *= 1024;
        [[fallthrough]];
    case 'k':
    case 'K':
        factor *= 1024;
        [[fallthrough]];
    case '\0':
        break;
    default:
        return 1;
    }
    *out_bytes = static_cast<unsigned long>(number * factor);
    return 0;
}

template <auto read> void read_sizes(benchmark::State &state)
{
    unsigned long sum = 0;
    for (auto _ : state) {
        for (const char *text : sizes) {
            unsigned long size = 0;
            if (read(text, &size) != 0)
                state.SkipWithError("not read");
            sum += size;
        }
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(read_sizes<strutl_kstr_or_str_to_long>)->Name("text/size_string/korvaks");
BENCHMARK(read_sizes<size_by_strtod>)->Name("text/size_string/strtod");

constexpr const char *path_with_variables = "$BENCH_ROOT/src/${BENCH_PART}/main.cpp";
constexpr const char *path_expanded = "/usr/local/src/kernel/main.cpp";

void set_variables()
{
    setenv("BENCH_ROOT", "/usr/local", 1);
    setenv("BENCH_PART", "kernel", 1);
}

void expand_with_korvaks(benchmark::State &state)
{
    set_variables();
    for (auto _ : state) {
        char *text = strutl_expand_evs(path_with_variables);
        if (std::strcmp(text, path_expanded) != 0)
            state.SkipWithError("not expanded");
        stg_free(text);
    }
}
BENCHMARK(expand_with_korvaks)->Name("text/expand_env/korvaks");

void expand_with_wordexp(benchmark::State &state)
{
    set_variables();
    for (auto _ : state) {
        wordexp_t words;
        if (wordexp(path_with_variables, &words, WRDE_NOCMD) != 0 || std::strcmp(words.we_wordv[0], path_expanded) != 0)
            state.SkipWithError("not expanded");
        wordfree(&words);
    }
}
BENCHMARK(expand_with_wordexp)->Name("text/expand_env/wordexp");

} // namespace
