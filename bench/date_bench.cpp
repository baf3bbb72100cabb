// What do date tokens and the reading of dates cost against the C library's calls of the same purpose?
// Times and texts change from call to call, as in a log (close together) and in what users name
// (far apart). The library's calls follow TZ by themselves; the peers do not.
#include "bench_input.h"

#include <korvaks/date.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr std::time_t first_time = 1709643839;

void set_zone()
{
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
}

constexpr std::size_t ten_years = 10 * 31557600;

enum Style : int { traditional = 1, iso = 2 };

// The process's default style is set before a run; the peers write the same texts with strftime().
template <Style style> const char *token(std::time_t t)
{
    return date_fmt_token_date_time(t);
}

template <Style style> const char *with_strftime(std::time_t t)
{
    static char text[128];
    std::tm fields{};
    localtime_r(&t, &fields);
    std::strftime(text, sizeof text, style == iso ? "%Y-%m-%dT%H:%M:%S%z" : "%d-%b-%y.%H:%M:%S", &fields);
    return text;
}

template <Style style, const char *make(std::time_t t)> void write_close(benchmark::State &state)
{
    set_zone();
    date_fmt_set_default_style(style);
    std::time_t calls = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(make(first_time + calls++ / 50));
}
BENCHMARK(write_close<iso, token<iso>>)->Name("date/iso_token/korvaks");
BENCHMARK(write_close<iso, with_strftime<iso>>)->Name("date/iso_token/strftime");
BENCHMARK(write_close<traditional, token<traditional>>)->Name("date/traditional_token/korvaks");
BENCHMARK(write_close<traditional, with_strftime<traditional>>)->Name("date/traditional_token/strftime");

template <Style style, const char *make(std::time_t t)> void write_spread(benchmark::State &state)
{
    set_zone();
    date_fmt_set_default_style(style);
    bench::Random random(7);
    std::array<std::time_t, 1024> times{};
    for (std::time_t &t : times)
        t = first_time - static_cast<std::time_t>(random.below(ten_years));
    std::size_t calls = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(make(times[calls++ % times.size()]));
}
BENCHMARK(write_spread<iso, token<iso>>)->Name("date/iso_token_spread/korvaks");
BENCHMARK(write_spread<iso, with_strftime<iso>>)->Name("date/iso_token_spread/strftime");

int read_korvaks(const char *text, std::time_t *out)
{
    return date_str_to_time(text, 0, out);
}

template <Style style> int read_strptime(const char *text, std::time_t *out)
{
    std::tm fields{};
    fields.tm_isdst = -1;
    const char *end = strptime(text, style == iso ? "%Y-%m-%dT%H:%M:%S" : "%d-%b-%y.%H:%M:%S", &fields);
    if (end == nullptr || *end != '\0')
        return 1;
    *out = mktime(&fields);
    return 0;
}

// Local times of the last ten years.
template <Style style, int reader(const char *text, std::time_t *out)> void read(benchmark::State &state)
{
    set_zone();
    bench::Random random(11);
    std::array<std::string, 256> texts;
    for (std::string &text : texts)
        text = std::string(with_strftime<style>(first_time - static_cast<std::time_t>(random.below(ten_years))),
                           style == iso ? 19 : 18);
    std::size_t calls = 0;
    std::time_t t = 0;
    for (auto _ : state) {
        if (reader(texts[calls++ % texts.size()].c_str(), &t) != 0)
            state.SkipWithError("not a date");
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(read<iso, read_korvaks>)->Name("date/read_iso/korvaks");
BENCHMARK(read<iso, read_strptime<iso>>)->Name("date/read_iso/strptime_mktime");
BENCHMARK(read<traditional, read_korvaks>)->Name("date/read_traditional/korvaks");
BENCHMARK(read<traditional, read_strptime<traditional>>)->Name("date/read_traditional/strptime_mktime");

} // namespace
