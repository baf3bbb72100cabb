// What does a line of a listing cost whose format the user wrote, with ten directives, against one
// snprintf() of the same line?
#include <korvaks/strfmt.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

// What a listing shows of a file.
struct File {
    const char *name = "lib/ks/stg_area.cpp";
    const char *owner = "mkorva";
    const char *group = "staff";
    const char *kind = "file";
    const char *label = "RELEASE_7";
    const char *branch = "main";
    const char *date = "2024-05-17.10:31:59";
    const char *comment = "areas: chunks are capped";
    long size = 534211;
    int version = 42;
};

constexpr char line[] = "%-24n %8z %3v %-10u %-10g %-6k %d %-12l %-8b %c\n";

const char *text_of(const File &file, char conversion)
{
    switch (conversion) {
    case 'n':
        return file.name;
    case 'u':
        return file.owner;
    case 'g':
        return file.group;
    case 'k':
        return file.kind;
    case 'd':
        return file.date;
    case 'l':
        return file.label;
    case 'b':
        return file.branch;
    case 'c':
        return file.comment;
    default:
        return nullptr;
    }
}

// A value in its width.
int put(char *out, std::size_t space, const strfmt_directive *directive, const char *text, std::size_t length)
{
    const bool has_width = directive->width != STRFMT_NONE;
    const auto width = has_width ? static_cast<std::size_t>(std::abs(directive->width)) : 0;
    const std::size_t padding = width > length ? width - length : 0;
    if (length + padding >= space)
        return STRFMT_FULL;
    char *at = has_width && directive->width > 0 ? out + padding : out;
    std::memset(at == out ? out + length : out, ' ', padding);
    std::memcpy(at, text, length);
    out[length + padding] = '\0';
    return 0;
}

int render(void *client, char *out, std::size_t space, const strfmt_directive *directive)
{
    const File &file = *static_cast<const File *>(client);
    if (const char *text = text_of(file, directive->conversion); text != nullptr)
        return put(out, space, directive, text, std::strlen(text));
    char digits[32];
    const long number = directive->conversion == 'z' ? file.size : file.version;
    const auto written = std::to_chars(digits, digits + sizeof digits, number);
    return put(out, space, directive, digits, static_cast<std::size_t>(written.ptr - digits));
}

// The same with a formatter for every value.
int render_by_snprintf(void *client, char *out, std::size_t space, const strfmt_directive *directive)
{
    const File &file = *static_cast<const File *>(client);
    const int width = directive->width == STRFMT_NONE ? 0 : directive->width;
    const char *text = text_of(file, directive->conversion);
    const int length = text != nullptr                ? std::snprintf(out, space, "%*s", width, text)
                       : directive->conversion == 'z' ? std::snprintf(out, space, "%*ld", width, file.size)
                                                      : std::snprintf(out, space, "%*d", width, file.version);
    return static_cast<std::size_t>(length) < space ? 0 : STRFMT_FULL;
}

int print_line(const File &file, char *out, std::size_t size)
{
    return std::snprintf(out, size, "%-24s %8ld %3d %-10s %-10s %-6s %s %-12s %-8s %s\n", file.name, file.size,
                         file.version, file.owner, file.group, file.kind, file.date, file.label, file.branch,
                         file.comment);
}

void format_line(benchmark::State &state, strfmt_callback callback)
{
    File file;
    char out[512];
    char expected[512];
    (void)print_line(file, expected, sizeof expected);
    for (auto _ : state) {
        if (strfmt_gsprintf(out, sizeof out, "nzvugkdlbc", line, &file, callback) != 0)
            state.SkipWithError("not formatted");
        benchmark::DoNotOptimize(out);
    }
    if (std::strcmp(out, expected) != 0)
        state.SkipWithError("not the same line");
}
BENCHMARK_CAPTURE(format_line, own, render)->Name("report/listing_line/korvaks");
BENCHMARK_CAPTURE(format_line, by_snprintf, render_by_snprintf)->Name("report/listing_line_by_snprintf/korvaks");

void snprintf_line(benchmark::State &state)
{
    const File file;
    char out[512];
    for (auto _ : state) {
        benchmark::DoNotOptimize(file);
        benchmark::DoNotOptimize(print_line(file, out, sizeof out));
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(snprintf_line)->Name("report/listing_line/snprintf");
BENCHMARK(snprintf_line)->Name("report/listing_line_by_snprintf/snprintf");

} // namespace
