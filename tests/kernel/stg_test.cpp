// The heap level and storage areas, against a recorder in the place of the message modules.
#include "harness/child.h"
#include "harness/msg_recorder.h"

#include <korvaks/stg.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>
#include <cstdint>
#include <utility>
#include <atomic>
#include <vector>

#include <sys/resource.h>

namespace {

using test::clear_recorded_messages;
using test::recorded_messages;

// The dump of an area, as its figures: chunk sizes and fill positions, newest first.
struct Dump {
    unsigned long allocated = 0;
    unsigned long used = 0;
    unsigned long desired = 0;
    std::vector<unsigned long> sizes;
    std::vector<unsigned long> fills;
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
            EXPECT_EQ(sscanf(message.text.c_str(),
                             "(stg) area 0x%*X: allocd=%lu used=%lu #chks=%d 1st=%*u base=%*u des=%lu", &dump.allocated,
                             &dump.used, &count, &dump.desired),
                      4);
        } else if (sscanf(message.text.c_str(), "(stg)   chunk 0x%*X: size=%lu avail=%lu", &a, &b) == 2) {
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

    stg_area *area_ = STG_AREA_NULL;
};

TEST_F(StgArea, SizesFirstChunkByRequestAndCap)
{
    struct Case {
        uint64_t first_size;
        size_t request;
        unsigned long chunk;
    };
    for (const Case &c : {Case{0, 20, 24}, Case{1048576, 8, 102400}, Case{102400, 80000, 182400},
                          Case{102400, 71680, 102400}, Case{102400, 71688, 174088}, Case{1000, 1, 1000},
                          Case{1001, 1, 1008}, Case{102401, 1, 102400}, Case{100, 5000, 5104}}) {
        SCOPED_TRACE(testing::Message() << c.first_size << " " << c.request);
        stg_area *area = stg_create_area(c.first_size);
        ASSERT_NE(stg_alloc(area, c.request), nullptr);
        EXPECT_EQ(dump_of(area).sizes, std::vector<unsigned long>{c.chunk});
        stg_delete_area(&area);
        EXPECT_EQ(area, STG_AREA_NULL);
    }
}

TEST_F(StgArea, GrowsByFactorUpToTheCap)
{
    stg_area *area = create(1000);
    stg_set_growth(area, 1.0); // ignored
    stg_set_growth(area, 2.0);
    stg_set_growth(area, 0.5); // ignored
    std::vector<unsigned long> expected;
    for (unsigned long size = 1000; expected.size() < 9; size = size * 2 > 102400 ? 102400 : size * 2)
        expected.insert(expected.begin(), size);
    while (dump_of(area).sizes.size() < expected.size())
        ASSERT_NE(stg_alloc(area, 200), nullptr);
    EXPECT_EQ(dump_of(area).sizes, expected);
}

TEST_F(StgArea, IncrementReplacesSecondChunkOnlyUnderGrowth)
{
    stg_area *area = create(1000);
    stg_set_growth(area, 2.0);
    stg_set_incr(area, 5000);
    for (const size_t request : {696u, 3000u, 3000u}) // one chunk each: 1000, then incr, then twice the newest
        ASSERT_NE(stg_alloc(area, request), nullptr);
    const Dump dump = dump_of(area);
    EXPECT_EQ(dump.sizes, (std::vector<unsigned long>{10000, 5000, 1000}));
    EXPECT_EQ(dump.desired, 15000UL); // the first chunk is not counted once an increment is set
    EXPECT_EQ(dump.allocated, 16000UL);
}

TEST_F(StgArea, ReusesOldestChunkWithRoom)
{
    stg_area *area = create(1000);
    for (const size_t request : {600u, 600u, 600u}) // three chunks with 400 left in each
        ASSERT_NE(stg_alloc(area, request), nullptr);
    ASSERT_NE(stg_alloc(area, 400), nullptr); // the newest is asked first
    ASSERT_NE(stg_alloc(area, 104), nullptr); // then the oldest
    EXPECT_EQ(dump_of(area).fills, (std::vector<unsigned long>{1000, 600, 704}));
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
    stg_alloc(area, 400);
    stg_alloc(area, 4000);
    stg_set_zero(area);
    stg_free_area(area, 1);
    const Dump dump = dump_of(area);
    EXPECT_EQ(dump.sizes, std::vector<unsigned long>{64});
    EXPECT_EQ(dump.fills, std::vector<unsigned long>{0});
    EXPECT_EQ(dump.desired, 64UL);
    auto *again = static_cast<unsigned char *>(stg_alloc(area, 32));
    EXPECT_EQ(again, bytes);
    EXPECT_EQ(again[0], 0);
    stg_free_area(area, 0);
    EXPECT_TRUE(dump_of(area).sizes.empty());
    stg_free_area(area, 1); // nothing to keep
    EXPECT_TRUE(dump_of(area).sizes.empty());
}

TEST_F(StgArea, CopiesStringsAndStandsForTheHeap)
{
    stg_area *area = create(64);
    EXPECT_EQ(stg_area_strdup(area, nullptr), nullptr);
    EXPECT_STREQ(stg_area_strdup(area, "text"), "text");
    void *block = stg_alloc(STG_AREA_HEAP, 10);
    ASSERT_NE(block, nullptr);
    stg_free(block);
    stg_free(nullptr);
}

TEST_F(StgArea, HugeRequestsAreExhaustion)
{
    stg_area *area = create(64);
    for (const size_t request : {SIZE_MAX, SIZE_MAX - 7, SIZE_MAX / 2, SIZE_MAX - 100}) {
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

TEST_F(StgArea, RegistryForgetsWhatItIsGiven)
{
    create(64);
    clear_recorded_messages();
    const auto result = test::run_child([] {
        stg_area *area = stg_create_area(10);
        clear_recorded_messages();
        stg_dump();
        stg_delete_area(&area);
        return recorded_messages().empty() ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST_F(StgArea, ServesThreadsAtOnce)
{
    stg_area *area = create(4096);
    constexpr int thread_count = 8;
    constexpr int rounds = 2000;
    std::vector<std::vector<unsigned char *>> blocks(thread_count);
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                auto *block = static_cast<unsigned char *>(stg_alloc(area, 16));
                std::memset(block, t, 16);
                blocks[static_cast<size_t>(t)].push_back(block);
            }
        });
    for (auto &thread : threads)
        thread.join();
    for (int t = 0; t < thread_count; ++t)
        for (const unsigned char *block : blocks[static_cast<size_t>(t)])
            for (int i = 0; i < 16; ++i)
                ASSERT_EQ(block[i], t);
    EXPECT_EQ(dump_of(area).used, 16UL * thread_count * rounds);
}

// The first thread of an area allocates without its lock until a second one comes.
TEST_F(StgArea, SecondThreadMayComeAtAnyMoment)
{
    constexpr int rounds = 300;
    constexpr std::size_t block_count = 40;
    std::atomic<stg_area *> shared{STG_AREA_NULL};
    std::atomic<int> arrived{0};
    std::vector<std::uint64_t *> others;
    std::thread second([&] {
        for (int round = 0; round < rounds; ++round) {
            while (arrived != 2 * round + 1)
                std::this_thread::yield();
            others.clear();
            while (others.size() < block_count)
                others.push_back(static_cast<std::uint64_t *>(stg_alloc(shared, 8)));
            ++arrived;
        }
    });
    for (int round = 0; round < rounds; ++round) {
        stg_area *area = stg_create_area(256);
        shared = area;
        std::vector<std::uint64_t *> blocks{static_cast<std::uint64_t *>(stg_alloc(area, 8))};
        ++arrived;
        while (blocks.size() < block_count)
            blocks.push_back(static_cast<std::uint64_t *>(stg_alloc(area, 8)));
        while (arrived != 2 * round + 2)
            std::this_thread::yield();
        blocks.insert(blocks.end(), others.begin(), others.end());
        for (std::uint64_t *const block : blocks)
            ASSERT_EQ(std::exchange(*block, 0), UINT64_MAX) << "handed out twice in round " << round;
        stg_delete_area(&area);
    }
    second.join();
}

TEST(StgAreaMisuse, EndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(stg_alloc(STG_AREA_NULL, 8), "PFM_ASSERT:\\(area != STG_AREA_NULL\\) failed: 'lib/ks/stg'");
    EXPECT_DEATH(stg_set_zero(STG_AREA_HEAP), "PFM_ASSERT:\\(area != STG_AREA_HEAP\\) failed: 'lib/ks/stg'");
}

// The checking heap reads and writes beside what the caller asked for; each case runs in a child
// so that switching it on never meets a block made without it.
class StgChecking : public testing::Test {
  protected:
    static test::ChildResult run(long verbosity, const std::function<int()> &body)
    {
        return test::run_child([&] {
            test::set_recorder_verbosity(verbosity);
            return body();
        });
    }
};

TEST_F(StgChecking, ReportsTheFirstByteWrittenPastTheEnd)
{
    for (const size_t size : {1u, 7u, 8u, 9u, 100u}) {
        const auto result = run(1, [size] {
            auto *block = static_cast<unsigned char *>(stg_malloc(size));
            for (size_t i = 0; i < size; ++i)
                if (block[i] != 0xFF)
                    return 2;
            clear_recorded_messages();
            block[size + 1] = 1;
            block[size] = 2;
            char expected[128];
            snprintf(expected, sizeof expected, "Heap block 0x%08lX: end overwritten at 0x%08lX.\n",
                     reinterpret_cast<unsigned long>(block), reinterpret_cast<unsigned long>(block + size));
            stg_free(block);
            const auto messages = recorded_messages();
            return messages.size() == 1 && messages[0].text == expected && messages[0].kind == 6 ? 0 : 1;
        });
        EXPECT_EQ(result.exit_status, 0) << size << result.err;
    }
}

TEST_F(StgChecking, KeepsContentAndGuardOverReallocation)
{
    const auto result = run(1, [] {
        char *block = stg_strdup("0123456789");
        block = static_cast<char *>(stg_realloc(block, 5000));
        if (std::strcmp(block, "0123456789") != 0)
            return 1;
        block = static_cast<char *>(stg_realloc(block, 4));
        if (std::memcmp(block, "0123", 4) != 0)
            return 2;
        clear_recorded_messages();
        stg_free(stg_realloc(block, 0)); // 0 counts as 1, and the guard is where it should be
        if (!recorded_messages().empty())
            return 3;
        if (stg_malloc(SIZE_MAX - 8) != nullptr || errno != ENOMEM)
            return 4;
        void *fresh = stg_realloc(nullptr, 3);
        stg_free(fresh);
        return fresh != nullptr ? 0 : 5;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST_F(StgChecking, ReportsAreaBytesThatChanged)
{
    struct Case {
        long verbosity;
        size_t offset; // of the byte overwritten, behind the 8 bytes in use
        bool reported;
    };
    for (const Case &c : {Case{1, 0, true}, Case{1, 15, true}, Case{1, 16, false}, Case{2, 16, true}}) {
        const auto result = run(c.verbosity, [c] {
            stg_area *area = stg_create_area(256);
            auto *block = static_cast<char *>(stg_alloc(area, 8));
            block[8 + c.offset] = 1;
            clear_recorded_messages();
            const bool allocated = stg_alloc(area, 16) == block + 8;
            const auto messages = recorded_messages();
            const bool reported = messages.size() == 1 && messages[0].number == 0;
            stg_delete_area(&area);
            return allocated && reported == c.reported ? 0 : 1;
        });
        EXPECT_EQ(result.exit_status, 0) << c.verbosity << " " << c.offset << result.err;
    }
}

TEST_F(StgChecking, TracesEachStepAtItsLevelAndSilentFormsNone)
{
    const auto result = run(5, [] {
        const auto numbers = [](const std::function<void()> &act) {
            clear_recorded_messages();
            act();
            std::vector<unsigned> found;
            for (const auto &message : recorded_messages())
                if (message.kind == 8)
                    found.push_back(message.number);
            return found;
        };
        stg_area *area = nullptr;
        void *block = nullptr;
        using Numbers = std::vector<unsigned>;
        // The first area also makes the registry, quietly; records are heap blocks of their own.
        if (numbers([&] { area = stg_create_area(100); }) != Numbers{3, 9})
            return 1;
        if (numbers([&] { stg_alloc(area, 8); }) != Numbers{3, 3, 6, 5})
            return 2;
        if (numbers([&] { block = stg_malloc(4); }) != Numbers{3})
            return 3;
        if (numbers([&] { block = stg_realloc(block, 40); }) != Numbers{13})
            return 4;
        if (numbers([&] { stg_free(block); }) != Numbers{4})
            return 5;
        if (numbers([&] { stg_free_area(area, 0); }) != Numbers{8, 7, 4, 4})
            return 6;
        if (numbers([&] { stg_delete_area(&area); }) != Numbers{10, 8, 4})
            return 7;
        return numbers([&] {
                   area = stg_create_area_nr(100);
                   stg_alloc_nr(area, 8);
                   stg_free_area_nr(area, 1);
                   stg_delete_area_nr(&area);
                   block = stg_malloc_int(3, 1);
                   stg_free_int(stg_realloc_int(block, 9, 1), 1);
               }).empty()
                   ? 0
                   : 8;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

} // namespace
