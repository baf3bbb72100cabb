// What do the string utilities cost against the C library's calls of the same purpose? Each call
// goes through the text of one page (4 KiB), formatting through one line.
#include "bench_input.h"

#include <korvaks/strutl.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>

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

} // namespace
