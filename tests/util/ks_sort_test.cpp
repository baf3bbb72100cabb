// The sort: right for every size, count and pattern, never quadratic, and safe to jump out of.
#include <korvaks/ks_sort.h>

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Pattern {
    const char *name;
    std::function<unsigned(unsigned i, unsigned n)> value;
    unsigned runs = 0; // 1 and 2: long runs that are found; such a sort is linear
};

unsigned scrambled(unsigned i)
{
    return static_cast<unsigned>((i + 1) * 2654435761u) >> 4;
}

const std::vector<Pattern> patterns = {
    {"random", [](unsigned i, unsigned) { return scrambled(i); }},
    {"sorted", [](unsigned i, unsigned) { return i; }, 1},
    {"reversed", [](unsigned i, unsigned n) { return n - i; }, 1},
    {"equal", [](unsigned, unsigned) { return 7u; }, 1},
    {"organ pipe", [](unsigned i, unsigned n) { return std::min(i, n - i); }, 2},
    {"two values", [](unsigned i, unsigned) { return scrambled(i) & 1; }},
    {"sorted but for one", [](unsigned i, unsigned n) { return i == n / 5 ? n : i; }},
    {"two runs", [](unsigned i, unsigned n) { return i < n / 3 ? 3 * i : (i - n / 3) * 3 / 2; }, 2},
    {"sorted with a random tail", [](unsigned i, unsigned n) { return i < n / 2 ? i : scrambled(i) % n; }},
};

// An array of elements that begin with a key and go on with bytes that depend on their first place.
struct Elements {
    Elements(unsigned count_, std::size_t size_, const Pattern &pattern) : count(count_), size(size_)
    {
        bytes.resize(count * size);
        for (unsigned i = 0; i < count_; ++i) {
            const unsigned key = pattern.value(i, count_);
            for (std::size_t b = 0; b < size; ++b)
                at(i)[b] = static_cast<char>(b < key_bytes() ? std::size_t{key} >> 8 * (key_bytes() - 1 - b) : i + b);
        }
    }

    std::size_t key_bytes() const { return std::min<std::size_t>(size, 3); }
    char *at(std::size_t i) { return bytes.data() + i * size; }

    // The elements as texts, in order of all their bytes.
    std::vector<std::string> as_set()
    {
        std::vector<std::string> set;
        for (unsigned i = 0; i < count; ++i)
            set.emplace_back(at(i), size);
        std::sort(set.begin(), set.end());
        return set;
    }

    std::size_t count;
    std::size_t size;
    std::string bytes;
};

int compare_elements(const void *a, const void *b, void *ctx)
{
    return std::memcmp(a, b, static_cast<Elements *>(ctx)->key_bytes());
}

void expect_sorts(unsigned count, std::size_t size, const Pattern &pattern)
{
    SCOPED_TRACE(testing::Message() << count << " elements of " << size << " bytes, " << pattern.name);
    Elements elements(count, size, pattern);
    const std::vector<std::string> before = elements.as_set();
    ks_qsort(elements.at(0), count, size, compare_elements, &elements);
    for (unsigned i = 1; i < count; ++i)
        ASSERT_LE(compare_elements(elements.at(i - 1), elements.at(i), &elements), 0) << "at " << i;
    ASSERT_EQ(elements.as_set(), before);
}

TEST(KsSort, SortsEverySizeCountAndPattern)
{
    for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 8u, 12u, 16u, 20u, 24u, 32u, 40u, 64u, 100u, 1100u}) {
        for (const Pattern &pattern : patterns) {
            for (unsigned count = 0; count <= 500; count += count < 12 ? 1 : 122) // to 500
                expect_sorts(count, size, pattern);
        }
    }
    for (const Pattern &pattern : patterns) {
        for (const std::size_t size : {1u, 4u, 40u}) // larger than one step of a merge
            expect_sorts(20011, size, pattern);
    }
}

int compare_ints(const void *a, const void *b, void *ctx)
{
    ++*static_cast<std::size_t *>(ctx);
    const int x = *static_cast<const int *>(a);
    const int y = *static_cast<const int *>(b);
    return (x > y) - (x < y);
}

TEST(KsSort, NoPatternIsQuadraticAndSortedOnesAreLinear)
{
    constexpr unsigned n = 100000;
    for (const Pattern &pattern : patterns) {
        SCOPED_TRACE(pattern.name);
        std::vector<int> values(n);
        for (unsigned i = 0; i < n; ++i)
            values[i] = static_cast<int>(pattern.value(i, n));
        std::size_t calls = 0;
        ks_quick_sort(values.data(), n, sizeof(int), compare_ints, &calls);
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
        EXPECT_LE(calls, n * (pattern.runs != 0 ? 2 * pattern.runs - 1 : std::bit_width(n) * 3 / 2));
    }
}

// Makes up the values while they are compared, always the worst for a quicksort: an element whose
// value is still open is larger than every other, until it is the pivot.
struct Adversary {
    int open;
    std::vector<int> values{std::vector<int>(static_cast<std::size_t>(open), open)};
    int solid = 0;
    int candidate = 0;
    std::size_t calls = 0;
};

int compare_adversary(const void *a, const void *b, void *ctx)
{
    auto &adversary = *static_cast<Adversary *>(ctx);
    const int x = *static_cast<const int *>(a);
    const int y = *static_cast<const int *>(b);
    auto value = [&](int i) -> int & { return adversary.values[static_cast<std::size_t>(i)]; };
    ++adversary.calls;
    if (value(x) == adversary.open && value(y) == adversary.open)
        value(x == adversary.candidate ? x : y) = adversary.solid++;
    if (value(x) == adversary.open || value(y) == adversary.open)
        adversary.candidate = value(x) == adversary.open ? x : y;
    return value(x) - value(y);
}

TEST(KsSort, AdversaryDoesNotMakeItQuadratic)
{
    constexpr int n = 50000;
    std::vector<int> places(n);
    std::iota(places.begin(), places.end(), 0);
    std::shuffle(places.begin(), places.end(), std::mt19937(1));
    Adversary adversary{n};
    ks_qsort(places.data(), n, sizeof(int), compare_adversary, &adversary);
    EXPECT_LE(adversary.calls, std::size_t{n} * 16 * 8);
}

// What a comparison that leaves, or lies, sees and leaves behind.
struct Wild {
    std::vector<uint64_t> values;
    std::size_t calls_left = 0;
    bool lies = false;
    bool always_whole = true;
    std::mt19937 random{1};
    std::jmp_buf out{};
};

int compare_wild(const void *a, const void *b, void *ctx)
{
    auto &wild = *static_cast<Wild *>(ctx);
    // The values are all the powers of two, so the sum tells a lost or doubled element.
    wild.always_whole &= std::accumulate(wild.values.begin(), wild.values.end(), uint64_t{0}) == UINT64_MAX;
    if (wild.calls_left-- == 0)
        std::longjmp(wild.out, 1);
    const auto x = *static_cast<const uint64_t *>(a);
    const auto y = *static_cast<const uint64_t *>(b);
    return wild.lies ? static_cast<int>(wild.random() % 3) - 1 : (x > y) - (x < y);
}

// Sorts until the comparison leaves at its n-th call; false when it was not called so often.
bool leaves_at(Wild &wild, const Pattern &pattern, std::size_t call)
{
    std::vector<unsigned> order(64);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](unsigned a, unsigned b) { return pattern.value(a, 64) < pattern.value(b, 64); });
    wild.values.resize(64);
    for (unsigned rank = 0; rank < 64; ++rank)
        wild.values[order[rank]] = uint64_t{1} << rank;
    wild.calls_left = call;
    if (setjmp(wild.out) != 0)
        return true;
    ks_qsort(wild.values.data(), 64, sizeof(uint64_t), compare_wild, &wild);
    return false;
}

TEST(KsSort, EveryComparisonSeesAllElements)
{
    for (const Pattern &pattern : patterns) {
        for (const bool lies : {false, true}) {
            Wild wild;
            wild.lies = lies;
            for (std::size_t call = 0; call < 2000 && leaves_at(wild, pattern, call); call += 1 + call / 16)
                ASSERT_TRUE(wild.always_whole) << pattern.name << ", up to call " << call;
        }
    }
}

} // namespace
