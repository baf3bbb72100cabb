// The block compressor: its format to the bit, blocks that it refuses, and raises in the middle.
#include <korvaks/compress.h>
#include <korvaks/fileutl.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <random>

#include <malloc.h>
#include <sys/mman.h>

#include "harness/child.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes compress(const Bytes &data)
{
    std::size_t size = 0;
    // A copy of exactly the right size, so that a read beyond the data is noticed.
    unsigned char *block = compress_compress(data.size(), data.empty() ? nullptr : data.data(), &size);
    Bytes result(block, block + size);
    stg_free(block);
    return result;
}

// Data that come back; the checksum of their blocks is that of a slow compressor which kept nodes on real chains and
// bits in a text: what a search finds, and what it passes over, is the format's.
class Blocks {
  public:
    void add(const Bytes &data)
    {
        const Bytes block = compress(data);
        std::size_t size = 0;
        unsigned char *restored = compress_uncompress(block.size(), block.data(), &size);
        ASSERT_EQ(Bytes(restored, restored + size), data);
        stg_free(restored);
        (void)fileutl_crc_buffer_step(block.data(), block.size(), &counter_, &crc_);
    }
    uint32_t crc() const { return crc_; }

  private:
    uint32_t counter_ = 0;
    uint32_t crc_ = 0;
};

Bytes random_bytes(std::size_t size, unsigned first, unsigned values, unsigned seed)
{
    std::minstd_rand random(seed);
    Bytes data(size);
    for (unsigned char &byte : data)
        byte = static_cast<unsigned char>(first + random() % values);
    return data;
}

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Compress, BlocksHaveTheFixedBytes)
{
    const std::pair<Bytes, Bytes> cases[] = {
        {{}, {1, 0, 0, 0, 0}},
        {{'A', 'z'}, {1, 0, 0, 0, 2, 'A', 'z'}},
        {{0xFF, 0x7F}, {1, 0, 0, 0, 2, 0xFF, 0xBF, 0x80}},
        // a, then 34 bytes at distance 1, 34 and 31 bytes at distance 34:
        // 01100001 10 000000000000 11111 10 000000100001 11111 10 000000100001 11100
        {Bytes(100, 'a'), {1, 0, 0, 0, 100, 0x61, 0x80, 0x03, 0xF0, 0x10, 0xFE, 0x02, 0x1E, 0x00}},
    };
    for (const auto &[data, block] : cases)
        EXPECT_EQ(compress(data), block);
}

TEST(Compress, KeepsItsFormat)
{
    Blocks blocks;
    for (std::size_t size = 0; size <= 110; ++size) {
        for (unsigned seed = 0; seed < 8; ++seed) {
            blocks.add(random_bytes(size, 'a', 2, seed));
            blocks.add(random_bytes(size, 0x7E, 4, seed));
        }
    }
    // Matches of every length at every short distance, far from the end.
    for (std::size_t period = 1; period <= 40; ++period) {
        Bytes data = random_bytes(period, 0, 256, 9);
        for (std::size_t size = period; size < period + 70; ++size) {
            blocks.add(data + random_bytes(200, 0, 256, 8));
            data.push_back(data[size - period]);
        }
    }
    // The window ends at 4096; heads and chains of positions beyond it are stepped over.
    const Bytes mark = {'M', 'a', 'r', 'k', 'e', 'r', 0x81, 'x'};
    for (std::size_t gap = 4080; gap <= 4100; ++gap) {
        blocks.add(mark + random_bytes(gap, 0, 256, 1) + mark + random_bytes(gap, 0, 256, 2) + mark);
        // The same hash again just before: the chain's first node is near, its second beyond.
        blocks.add(mark + random_bytes(gap - 5, 0, 256, 1) + Bytes{'M', 'a', 'r', '-', '-'} + mark);
    }
    for (const std::size_t size : {4096u, 70000u, 400000u}) { // positions grow past 16 bits
        blocks.add(random_bytes(size, 'a', 3, 4));
        blocks.add(random_bytes(4000, 0, 256, 6) + Bytes(size, 'r') + random_bytes(4000, 0, 256, 6));
    }
    EXPECT_EQ(blocks.crc(), 0xCCC1800Cu);
}

TEST(Compress, RefusedBlocksAreReported)
{
    const std::string report = "noname: Error: Bad format number for \"compressed data\"\n";
    const Bytes blocks[] = {{}, {2, 0, 0, 0, 1, 'A'}, {1, 0, 0, 0, 1}, {1, 0, 0, 0, 3, 0x80, 0, 0}};
    for (const Bytes &block : blocks) {
        for (const auto unpack : {compress_uncompress, compress_uncompress_quiet}) {
            const test::ChildResult result = test::run_child([&] {
                std::size_t size = 99;
                EXPECT_EQ(unpack(block.size(), block.data(), &size), nullptr);
                EXPECT_EQ(size, 0U);
                EXPECT_EQ(errno, EINVAL);
            });
            EXPECT_EQ(result.err, unpack == compress_uncompress ? report : "");
        }
    }
}

// Two pages of an input: reaching the first asks for a raise, and the second must not be reached then.
constexpr std::size_t page_bytes = 4096;
unsigned char *traps[2];
std::atomic<int> traps_reached{0};

extern "C" void step_on_trap(int)
{
    mprotect(traps[traps_reached], page_bytes, PROT_READ);
    if (++traps_reached == 1)
        pfm_notify_vl_thread(PFM_RAISE_INTERRUPT);
}

using Worker = unsigned char *(*)(std::size_t, const unsigned char *, std::size_t *);

// 0 when a raise that arrives in the middle ends the work soon, and nothing is left behind.
int raise_in_the_middle(Worker work, const Bytes &bytes)
{
    pfm_init();
    void *map = mmap(nullptr, bytes.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto *input = static_cast<unsigned char *>(map);
    std::copy(bytes.begin(), bytes.end(), input);
    traps[0] = input + 100 * page_bytes;
    traps[1] = input + 500 * page_bytes; // 1.6 MB behind
    for (unsigned char *trap : traps)
        mprotect(trap, page_bytes, PROT_NONE);
    std::signal(SIGSEGV, step_on_trap);
    const std::size_t mapped = mallinfo2().hblkhd;
    pfm_cleanup_rec rec{};
    rec.status = sigsetjmp(rec.jump, 1);
    const int32_t status = pfm_cleanup_start(&rec, 0);
    if (status == 0) {
        std::size_t size = 0;
        (void)work(bytes.size(), input, &size);
        return 1;
    }
    return status == PFM_RAISE_INTERRUPT && traps_reached == 1 && mallinfo2().hblkhd == mapped ? 0 : 2;
}

TEST(Compress, RaiseIsTakenWithinAMegabyte)
{
    const Bytes data = random_bytes(3 << 20, 0, 256, 1);
    const Bytes block = compress(data);
    const auto packing = test::run_child([&] { return raise_in_the_middle(compress_compress, data); });
    const auto restoring = test::run_child([&] { return raise_in_the_middle(compress_uncompress, block); });
    EXPECT_EQ(packing.exit_status, 0) << packing.err;
    EXPECT_EQ(restoring.exit_status, 0) << restoring.err;
}

} // namespace
