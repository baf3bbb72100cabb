// The heap level and storage areas, against a recorder in the place of the message modules.
#include "harness/child.h"
#include "harness/misuse.h"
#include "harness/msg_recorder.h"

#include <korvaks/stg.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

namespace {

using test::clear_recorded_messages;
using test::recorded_messages;

// Chunk sizes or fill positions, newest first.
using Sizes = std::vector<unsigned long>;

// The dump of an area, as its figures.
struct Dump {
    unsigned long allocated = 0;
    unsigned long used = 0;
    unsigned long desired = 0;
    Sizes sizes;
    Sizes fills;
};

Dump dump_of(stg_area *area)
{
    clear_recorded_messages();
    stg_dump_area(area);
    Dump dump;
    for (const auto &message : recorded_messages()) {
        unsigned long a = 0;
        unsigned long b = 0;
        int count = 0;
        EXPECT_EQ(message.kind, 0);
        if (message.number == 11) {
            EXPECT_EQ(std::sscanf(message.text.c_str(),
                                  "(stg) area 0x%*X: allocd=%lu used=%lu #chks=%d 1st=%*u base=%*u des=%lu",
                                  &dump.allocated, &dump.used, &count, &dump.desired),
                      4);
        } else if (std::sscanf(message.text.c_str(), "(stg)   chunk 0x%*X: size=%lu avail=%lu", &a, &b) == 2) {
            dump.sizes.push_back(a);
            dump.fills.push_back(b);
        }
    }
    return dump;
}

class StgArea : public testing::Test {
  protected:
    ~StgArea() override
    {
        if (area_ != STG_AREA_NULL)
            stg_delete_area(&area_);
    }
    stg_area *create(uint64_t first_size) { return area_ = stg_create_area(first_size); }
    // Whether the requests fit, one after the other.
    bool allocate(std::initializer_list<std::size_t> requests)
    {
        for (const std::size_t request : requests)
            if (stg_alloc(area_, request) == nullptr)
                return false;
        return true;
    }

    stg_area *area_ = STG_AREA_NULL;
};

TEST_F(StgArea, SizesFirstChunkByRequestAndCap)
{
    struct Case {
        uint64_t first_size;
        std::size_t request;
        unsigned long chunk;
    };
    for (const Case &c : {Case{0, 20, 24}, Case{1048576, 8, 102400}, Case{102400, 80000, 182400},
                          Case{102400, 71680, 102400}, Case{102400, 71688, 174088}, Case{1000, 1, 1000},
                          Case{1001, 1, 1008}, Case{102401, 1, 102400}, Case{100, 5000, 5104}}) {
        SCOPED_TRACE(testing::Message() << c.first_size << " " << c.request);
        create(c.first_size);
        ASSERT_TRUE(allocate({c.request}));
        EXPECT_EQ(dump_of(area_).sizes, Sizes{c.chunk});
        stg_delete_area(&area_);
        EXPECT_EQ(area_, STG_AREA_NULL);
    }
}

TEST_F(StgArea, GrowsByFactorUpToTheCap)
{
    stg_area *area = create(1000);
    stg_set_growth(area, 1.0); // ignored
    stg_set_growth(area, 2.0);
    stg_set_growth(area, 0.5); // ignored
    const Sizes expected{102400, 102400, 64000, 32000, 16000, 8000, 4000, 2000, 1000};
    while (dump_of(area).sizes.size() < expected.size())
        ASSERT_NE(stg_alloc(area, 200), nullptr);
    EXPECT_EQ(dump_of(area).sizes, expected);
}

TEST_F(StgArea, IncrementReplacesSecondChunkOnlyUnderGrowth)
{
    stg_area *area = create(1000);
    stg_set_growth(area, 2.0);
    stg_set_incr(area, 5000);
    ASSERT_TRUE(allocate({696, 3000, 3000})); // one chunk each: 1000, then incr, then twice the newest
    const Dump dump = dump_of(area);
    EXPECT_EQ(dump.sizes, (Sizes{10000, 5000, 1000}));
    EXPECT_EQ(dump.desired, 15000UL); // the first chunk is not counted once an increment is set
    EXPECT_EQ(dump.allocated, 16000UL);
}

TEST_F(StgArea, ReusesOldestChunkWithRoom)
{
    stg_area *area = create(1000);
    ASSERT_TRUE(allocate({600, 600, 600})); // three chunks with 400 left in each
    ASSERT_TRUE(allocate({400}));           // the newest is asked first
    ASSERT_TRUE(allocate({104}));           // then the oldest
    EXPECT_EQ(dump_of(area).fills, (Sizes{1000, 600, 704}));
    EXPECT_EQ(dump_of(area).used, 2304UL);
}

TEST_F(StgArea, ZeroRequestTellsThePosition)
{
    stg_area *area = create(100);
    char *first = static_cast<char *>(stg_alloc(area, 0));
    EXPECT_EQ(stg_alloc(area, 0), first);
    EXPECT_EQ(stg_alloc(area, 1), first);
    EXPECT_EQ(stg_alloc(area, 0), first + 8);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 8, 0U);
}

TEST_F(StgArea, FillsFreshAndKeptChunks)
{
    stg_area *area = create(64);
    auto *bytes = static_cast<unsigned char *>(stg_alloc(area, 32));
    EXPECT_EQ(bytes[0], 0xFF);
    std::memset(bytes, 7, 32);
    ASSERT_TRUE(allocate({400, 4000}));
    stg_set_zero(area);
    stg_free_area(area, 1);
    const Dump dump = dump_of(area);
    EXPECT_EQ(dump.sizes, Sizes{64});
    EXPECT_EQ(dump.fills, Sizes{0});
    EXPECT_EQ(dump.desired, 64UL);
    EXPECT_EQ(stg_alloc(area, 32), bytes);
    EXPECT_EQ(bytes[0], 0);
    stg_free_area(area, 0);
    EXPECT_TRUE(dump_of(area).sizes.empty());
    stg_free_area(area, 1); // nothing to keep
    EXPECT_TRUE(dump_of(area).sizes.empty());
}

TEST_F(StgArea, HugeRequestsAreExhaustion)
{
    stg_area *area = create(64);
    for (const std::size_t request : {SIZE_MAX, SIZE_MAX - 7, SIZE_MAX / 2, SIZE_MAX - 100}) {
        SCOPED_TRACE(request);
        clear_recorded_messages();
        errno = 0;
        EXPECT_EQ(stg_alloc(area, request), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        ASSERT_EQ(recorded_messages().size(), 1U);
        EXPECT_EQ(recorded_messages()[0].kind, 6);
        EXPECT_EQ(recorded_messages()[0].text, "No more memory available.\n");
        EXPECT_TRUE(dump_of(area).sizes.empty());
    }
    EXPECT_EQ(stg_malloc(SIZE_MAX - 4), nullptr);
}

// The first thread of an area allocates without its lock until a second one comes.
TEST_F(StgArea, SecondThreadMayComeAtAnyMoment)
{
    constexpr int rounds = 300;
    using Blocks = std::vector<std::uint64_t *>;
    const auto allocate_blocks = [](stg_area *area, Blocks &blocks) {
        while (blocks.size() < 40)
            blocks.push_back(static_cast<std::uint64_t *>(stg_alloc(area, 8)));
    };
    std::atomic<stg_area *> shared{STG_AREA_NULL};
    std::atomic<int> arrived{0};
    Blocks others;
    std::thread second([&] {
        for (int round = 0; round < rounds; ++round) {
            while (arrived != 2 * round + 1)
                std::this_thread::yield();
            others.clear();
            allocate_blocks(shared, others);
            ++arrived;
        }
    });
    for (int round = 0; round < rounds; ++round) {
        stg_area *area = stg_create_area(256);
        shared = area;
        Blocks blocks{static_cast<std::uint64_t *>(stg_alloc(area, 8))};
        ++arrived;
        allocate_blocks(area, blocks);
        while (arrived != 2 * round + 2)
            std::this_thread::yield();
        blocks.insert(blocks.end(), others.begin(), others.end());
        for (std::uint64_t *const block : blocks)
            ASSERT_EQ(std::exchange(*block, 0), UINT64_MAX) << "handed out twice in round " << round;
        stg_delete_area(&area);
    }
    second.join();
}

TEST(StgMisuse, EndsTheProcess)
{
    test::expect_misuse({{[] { (void)stg_alloc(STG_AREA_NULL, 8); }, "PFM_ASSERT:(area != STG_AREA_NULL)"},
                         {[] { stg_set_zero(STG_AREA_HEAP); }, "PFM_ASSERT:(area != STG_AREA_HEAP)"}},
                        " failed: 'lib/ks/stg'");
}

// The checking heap reads and writes beside what the caller asked for; each case runs in a child
// so that switching it on never meets a block made without it.
void in_checking_child(long verbosity, const std::function<void()> &body)
{
    test::in_child([&] {
        test::set_recorder_verbosity(verbosity);
        clear_recorded_messages();
        body();
    });
}

TEST(StgChecking, ReportsTheFirstByteWrittenPastTheEnd)
{
    for (const std::size_t size : {1U, 7U, 8U, 9U, 100U}) {
        SCOPED_TRACE(size);
        in_checking_child(1, [size] {
            auto *block = static_cast<unsigned char *>(stg_malloc(size));
            for (std::size_t i = 0; i < size; ++i)
                EXPECT_EQ(block[i], 0xFF);
            clear_recorded_messages();
            block[size + 1] = 1;
            block[size] = 2;
            char expected[128];
            std::snprintf(expected, sizeof expected, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n",
                          reinterpret_cast<unsigned long>(block), reinterpret_cast<unsigned long>(block + size));
            stg_free(block);
            ASSERT_EQ(recorded_messages().size(), 1U);
            EXPECT_EQ(recorded_messages()[0].text, expected);
            EXPECT_EQ(recorded_messages()[0].kind, 6);
        });
    }
}

TEST(StgChecking, KeepsContentAndGuardOverReallocation)
{
    in_checking_child(1, [] {
        char *block = stg_strdup("0123456789");
        block = static_cast<char *>(stg_realloc(block, 5000));
        EXPECT_STREQ(block, "0123456789");
        block = static_cast<char *>(stg_realloc(block, 4));
        EXPECT_EQ(std::memcmp(block, "0123", 4), 0);
        stg_free(stg_realloc(block, 0)); // 0 counts as 1, and the guard is where it should be
        void *fresh = stg_realloc(nullptr, 3);
        EXPECT_NE(fresh, nullptr);
        stg_free(fresh);
        EXPECT_TRUE(recorded_messages().empty());
        EXPECT_EQ(stg_malloc(SIZE_MAX - 8), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    });
}

TEST(StgChecking, ReportsAreaBytesThatChanged)
{
    struct Case {
        long verbosity;
        std::size_t offset; // of the byte overwritten, behind the 8 bytes in use
        std::size_t reports;
    };
    for (const Case &c : {Case{1, 0, 1}, Case{1, 15, 1}, Case{1, 16, 0}, Case{2, 16, 1}}) {
        SCOPED_TRACE(testing::Message() << c.verbosity << " " << c.offset);
        in_checking_child(c.verbosity, [c] {
            stg_area *area = stg_create_area(256);
            auto *block = static_cast<char *>(stg_alloc(area, 8));
            block[8 + c.offset] = 1;
            clear_recorded_messages();
            EXPECT_EQ(stg_alloc(area, 16), block + 8);
            ASSERT_EQ(recorded_messages().size(), c.reports);
            EXPECT_TRUE(c.reports == 0 || recorded_messages()[0].number == 0);
        });
    }
}

TEST(StgChecking, TracesEachStepAndSilentFormsNone)
{
    in_checking_child(5, [] {
        const auto expect_numbers = [](const std::vector<unsigned> &expected) {
            std::vector<unsigned> found;
            for (const auto &message : recorded_messages())
                found.push_back(message.number);
            EXPECT_EQ(found, expected);
            clear_recorded_messages();
        };
        stg_area *area = stg_create_area_nr(100);
        (void)stg_alloc_nr(area, 8);
        stg_free_area_nr(area, 1);
        stg_delete_area_nr(&area);
        stg_free_int(stg_realloc_int(stg_malloc_int(3, 1), 9, 1), 1);
        expect_numbers({});
        area = stg_create_area(100);
        stg_free(stg_realloc(stg_malloc(4), 40));
        stg_delete_area(&area);
        expect_numbers({3, 9, 3, 13, 4, 10, 8, 4});
    });
}

} // namespace
