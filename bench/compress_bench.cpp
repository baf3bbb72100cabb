// How fast are the compressor and its counterpart on text, an archive and a binary (the library
// itself), against zlib at its fastest level and against lzf? The counter "size" is the size of the
// block divided by that of the data.
#include "bench_input.h"

#include <korvaks/compress.h>
#include <korvaks/stg.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include <dlfcn.h>

#ifdef BENCH_LZF
#include <lzf.h>
#endif
#ifdef BENCH_ZLIB
#include <zlib.h>
#endif

namespace {

constexpr std::size_t data_size = 4u << 20;

// Memory of a packer, and how many bytes of it are filled. NULL after a failure.
struct Block {
    unsigned char *bytes;
    std::size_t length;
};

// A packer makes the memory of its result at each call, as the library does.
struct Korvaks {
    static Block pack(Block data)
    {
        Block block{};
        block.bytes = compress_compress(data.length, data.bytes, &block.length);
        return block;
    }

    static Block unpack(Block block, std::size_t)
    {
        Block data{};
        data.bytes = compress_uncompress(block.length, block.bytes, &data.length);
        return data;
    }

    static void release(Block block) { stg_free(block.bytes); }
};

struct HeapPacker {
    static Block make(std::size_t size) { return {static_cast<unsigned char *>(malloc(size)), size}; }
    static void release(Block block) { free(block.bytes); }
};

#ifdef BENCH_ZLIB
struct Zlib : HeapPacker {
    static Block pack(Block data)
    {
        Block block = make(compressBound(data.length));
        uLongf length = block.length;
        const bool is_done = compress2(block.bytes, &length, data.bytes, data.length, 1) == Z_OK;
        block.length = is_done ? length : 0;
        return block;
    }

    static Block unpack(Block block, std::size_t data_length)
    {
        Block data = make(data_length);
        uLongf length = data.length;
        const bool is_done = uncompress(data.bytes, &length, block.bytes, block.length) == Z_OK;
        data.length = is_done ? length : 0;
        return data;
    }
};
#endif

#ifdef BENCH_LZF
struct Lzf : HeapPacker {
    static Block pack(Block data)
    {
        Block block = make(data.length + data.length / 8 + 64);
        block.length = lzf_compress(data.bytes, static_cast<unsigned>(data.length), block.bytes,
                                    static_cast<unsigned>(block.length));
        return block;
    }

    static Block unpack(Block block, std::size_t data_length)
    {
        Block data = make(data_length);
        data.length = lzf_decompress(block.bytes, static_cast<unsigned>(block.length), data.bytes,
                                     static_cast<unsigned>(data.length));
        return data;
    }
};
#endif

Block block_of(std::string &text)
{
    return {reinterpret_cast<unsigned char *>(text.data()), text.size()};
}

template <typename Packer> void pack(benchmark::State &state, std::string data)
{
    std::size_t packed_length = 0;
    for (auto _ : state) {
        const Block block = Packer::pack(block_of(data));
        packed_length = block.length;
        Packer::release(block);
    }
    if (packed_length == 0)
        return state.SkipWithError("not packed");
    state.counters["size"] = static_cast<double>(packed_length) / static_cast<double>(data.size());
}

template <typename Packer> void unpack(benchmark::State &state, std::string data)
{
    const Block block = Packer::pack(block_of(data));
    for (auto _ : state)
        Packer::release(Packer::unpack(block, data.size()));
    const Block unpacked = Packer::unpack(block, data.size());
    if (unpacked.length != data.size() || std::memcmp(unpacked.bytes, data.data(), data.size()) != 0)
        state.SkipWithError("not unpacked");
    Packer::release(unpacked);
    Packer::release(block);
}

// The first 4 MiB of the library's file, the build's own machine code and symbols.
std::string own_library()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(compress_compress), &info) == 0)
        return {};
    std::ifstream file(info.dli_fname, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    bytes.resize(std::min(bytes.size(), data_size));
    return bytes;
}

template <typename Packer> void add(const std::string &packer, const std::string &input, const std::string &data)
{
    const auto add_job = [&](const char *job, void (*run)(benchmark::State &, std::string)) {
        benchmark::RegisterBenchmark((job + input + "/" + packer).c_str(), run, data)->Unit(benchmark::kMillisecond);
    };
    add_job("compress/pack_", pack<Packer>);
    add_job("compress/unpack_", unpack<Packer>);
}

void add_packers(const std::string &input, const std::string &data)
{
    add<Korvaks>("korvaks", input, data);
#ifdef BENCH_ZLIB
    add<Zlib>("zlib_1", input, data);
#endif
#ifdef BENCH_LZF
    add<Lzf>("lzf", input, data);
#endif
}

const bool added = [] {
    add_packers("text", bench::prose(data_size));
    add_packers("archive", bench::archive(data_size));
    add_packers("binary", own_library());
    return true;
}();

} // namespace
