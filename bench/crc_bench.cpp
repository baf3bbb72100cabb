// How fast is the file checksum, against its definition written down byte by byte and against the
// standard checksum of the same width?
#include "bench_input.h"

#include <korvaks/fileutl.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <vector>

#ifdef BENCH_ZLIB
#include <zlib.h>
#endif

namespace {

constexpr std::size_t buffer_size = 64u << 20;

std::vector<unsigned char> make_buffer()
{
    bench::Random random(0x5EED);
    std::vector<unsigned char> buffer(buffer_size);
    for (unsigned char &byte : buffer)
        byte = static_cast<unsigned char>(random.next() >> 32);
    return buffer;
}

const std::vector<unsigned char> &buffer()
{
    static const std::vector<unsigned char> made = make_buffer();
    return made;
}

constexpr std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> entries{};
    for (std::uint32_t i = 0; i < entries.size(); ++i) {
        std::uint32_t entry = i;
        for (int bit = 0; bit < 8; ++bit)
            entry = (entry & 1) != 0 ? (entry >> 1) ^ 0xEDB88320 : entry >> 1;
        entries[i] = entry;
    }
    entries[0] = 0x7FFFFFFF;
    return entries;
}();

std::uint32_t crc_bytewise(const std::vector<unsigned char> &bytes)
{
    std::uint32_t crc = 0;
    std::uint32_t counter = 0;
    for (const unsigned char byte : bytes) {
        std::uint32_t index = (crc >> 24) ^ byte;
        if (index == 0)
            index = counter++ & 0xFF;
        crc = crc << 8 ^ table[index];
    }
    return crc;
}

void use_korvaks(benchmark::State &state)
{
    std::uint32_t crc = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(fileutl_crc_buffer(buffer().data(), buffer_size, &crc));
    if (crc != crc_bytewise(buffer()))
        state.SkipWithError("wrong checksum");
}
BENCHMARK(use_korvaks)->Name("crc/64_MiB/korvaks")->Unit(benchmark::kMillisecond);

void use_bytewise(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(crc_bytewise(buffer()));
}
BENCHMARK(use_bytewise)->Name("crc/64_MiB/bytewise_loop")->Unit(benchmark::kMillisecond);

#ifdef BENCH_ZLIB
void use_zlib(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(0, buffer().data(), static_cast<uInt>(buffer_size)));
}
BENCHMARK(use_zlib)->Name("crc/64_MiB/zlib_crc32")->Unit(benchmark::kMillisecond);
#endif

} // namespace
