// What does it cost to encode and to decode a record of a kibibyte of mixed fields, with each library's own routines
// over its own record stream, and with the platform's routines over both? And what do bulk data cost above their copy
// into the buffer and the write?
#include <korvaks/xdr.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// A connection that costs a copy: it keeps the last write, and repeats it for ever when read.
struct Loop {
    std::array<char, 1u << 16> bytes{};
    std::size_t size = 0;
    std::size_t at = 0;

    static int write(void *handle, void *from, int count)
    {
        auto &loop = *static_cast<Loop *>(handle);
        loop.size = std::min<std::size_t>(static_cast<std::size_t>(count), loop.bytes.size());
        std::memcpy(loop.bytes.data(), from, loop.size);
        return count;
    }

    static int read(void *handle, void *to, int count)
    {
        auto &loop = *static_cast<Loop *>(handle);
        const std::size_t piece = std::min<std::size_t>(static_cast<std::size_t>(count), loop.size - loop.at);
        std::memcpy(to, loop.bytes.data() + loop.at, piece);
        loop.at = (loop.at + piece) % loop.size;
        return static_cast<int>(piece);
    }
};

struct Library {
    decltype(&xdrrec_create) create;
    decltype(&xdrrec_endofrecord) end_of_record;
    decltype(&xdrrec_skiprecord) skip_record;
};
constexpr Library korvaks = {ks_xdrrec_create, ks_xdrrec_endofrecord, ks_xdrrec_skiprecord};
constexpr Library libtirpc = {xdrrec_create, xdrrec_endofrecord, xdrrec_skiprecord};

struct Fields {
    u_int numbers[8];
    int64_t sizes[3];
    int is_set;
    char *name;
    char *body;
    u_int body_size;
};
constexpr int repeats = 6; // makes 1,032 bytes

// A row of a directory: 172 bytes.
bool_t pass_with_platform(XDR *xdrs, Fields *f)
{
    for (u_int &number : f->numbers)
        if (!xdr_u_int(xdrs, &number))
            return FALSE;
    for (int64_t &size : f->sizes)
        if (!xdr_int64_t(xdrs, &size))
            return FALSE;
    return xdr_int(xdrs, &f->is_set) && xdr_string(xdrs, &f->name, 255) &&
           xdr_bytes(xdrs, &f->body, &f->body_size, 400);
}

bool_t pass_with_library(XDR *xdrs, Fields *f)
{
    for (u_int &number : f->numbers)
        if (!xdr_ks_uint32_t(xdrs, &number))
            return FALSE;
    for (int64_t &size : f->sizes)
        if (!xdr_ks_int64_t(xdrs, &size))
            return FALSE;
    return xdr_ks_boolean_t(xdrs, &f->is_set) && xdr_string(xdrs, &f->name, 255) &&
           xdr_bytes(xdrs, &f->body, &f->body_size, 400);
}

using Pass = bool_t (*)(XDR *, Fields *);

struct Example {
    char name[256] = "a/file/of/some/depth.txt";
    char body[400] = "0123456789012345678901234567890123456789012345678901234567890123";
    Fields fields{{1, 2, 3, 4, 5, 6, 7, 8}, {-1, 1L << 40, 3}, 1, name, body, 64};
};

void encode(benchmark::State &state, const Library &library, Pass pass)
{
    Loop loop;
    Example example;
    XDR xdrs{};
    library.create(&xdrs, 0, 0, &loop, Loop::read, Loop::write);
    xdrs.x_op = XDR_ENCODE;
    for (auto _ : state) {
        for (int i = 0; i < repeats; ++i)
            if (!pass(&xdrs, &example.fields))
                std::abort();
        library.end_of_record(&xdrs, TRUE);
    }
    XDR_DESTROY(&xdrs);
}

void decode(benchmark::State &state, const Library &library, Pass pass)
{
    Loop loop;
    Example example;
    XDR xdrs{};
    library.create(&xdrs, 0, 0, &loop, Loop::read, Loop::write);
    xdrs.x_op = XDR_ENCODE;
    for (int i = 0; i < repeats; ++i)
        pass(&xdrs, &example.fields);
    library.end_of_record(&xdrs, TRUE);
    xdrs.x_op = XDR_DECODE;
    for (auto _ : state) {
        library.skip_record(&xdrs);
        for (int i = 0; i < repeats; ++i)
            if (!pass(&xdrs, &example.fields))
                std::abort();
    }
    XDR_DESTROY(&xdrs);
}

constexpr Library const *both[] = {&korvaks, &libtirpc};
constexpr const char *names[] = {"korvaks", "libtirpc"};
constexpr Pass own_passes[] = {pass_with_library, pass_with_platform};

constexpr std::size_t bulk_size = 1u << 20;

void write_bulk(benchmark::State &state, const Library &library)
{
    Loop loop;
    const std::string bytes(bulk_size, 'x');
    XDR xdrs{};
    library.create(&xdrs, 65536, 65536, &loop, Loop::read, Loop::write);
    for (auto _ : state) {
        XDR_PUTBYTES(&xdrs, bytes.data(), bulk_size);
        library.end_of_record(&xdrs, TRUE);
    }
    XDR_DESTROY(&xdrs);
}

void copy_and_write_bulk(benchmark::State &state)
{
    Loop loop;
    const std::string bytes(bulk_size, 'x');
    std::string buffer(65536, ' ');
    for (auto _ : state) {
        for (std::size_t at = 0; at < bulk_size;) {
            const std::size_t piece = std::min(bulk_size - at, buffer.size() - 4);
            std::memcpy(buffer.data() + 4, bytes.data() + at, piece);
            Loop::write(&loop, buffer.data(), static_cast<int>(piece + 4));
            at += piece;
        }
    }
}

[[maybe_unused]] const bool are_registered = [] {
    for (std::size_t i = 0; i < std::size(both); ++i) {
        const Library &library = *both[i];
        const std::string name = names[i];
        const Pass own = own_passes[i];
        benchmark::RegisterBenchmark(("xdr/encode_same_routines/" + name).c_str(),
                                     [&](auto &state) { encode(state, library, pass_with_platform); });
        benchmark::RegisterBenchmark(("xdr/decode_same_routines/" + name).c_str(),
                                     [&](auto &state) { decode(state, library, pass_with_platform); });
        benchmark::RegisterBenchmark(("xdr/encode_1_KiB/" + name).c_str(),
                                     [&library, own](auto &state) { encode(state, library, own); });
        benchmark::RegisterBenchmark(("xdr/decode_1_KiB/" + name).c_str(),
                                     [&library, own](auto &state) { decode(state, library, own); });
        benchmark::RegisterBenchmark(("xdr/bulk_1_MiB/" + name).c_str(),
                                     [&](auto &state) { write_bulk(state, library); });
    }
    benchmark::RegisterBenchmark("xdr/bulk_1_MiB/memcpy_write", copy_and_write_bulk);
    return true;
}();

} // namespace
