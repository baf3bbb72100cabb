// The sort: right for every size, count and pattern, never quadratic, and safe to jump out of.
#include <korvaks/ks_sort.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

struct Pattern {
    const char *name;
    std::function<unsigned(unsigned i, unsigned n)> value;
};

unsigned scrambled(unsigned i)
{
    return static_cast<unsigned>((i + 1) * 2654435761u) >> 4;
}

const std::vector<Pattern> patterns = {
    {"random", [](unsigned i, unsigned) { return scrambled(i); }},
    {"sorted", [](unsigned i, unsigned) { return i; }},
    {"reversed", [](unsigned i, unsigned n) { return n - i; }},
    {"equal", [](unsigned, unsigned) { return 7u; }},
    {"organ pipe", [](unsigned i, unsigned n) { return std::min(i, n - i); }},
    {"valley", [](unsigned i, unsigned n) { return std::max(i, n - i); }},
    {"two values", [](unsigned i, unsigned) { return scrambled(i) & 1; }},
    {"few values", [](unsigned i, unsigned) { return scrambled(i) % 5; }},
    {"saw tooth", [](unsigned i, unsigned) { return i % 37; }},
    {"two runs", [](unsigned i, unsigned n) { return i < n / 3 ? 3 * i : (i - n / 3) * 3 / 2; }},
    {"sorted with a random tail", [](unsigned i, unsigned n) { return i < n / 2 ? i : scrambled(i) % n; }},
    {"sorted but for one", [](unsigned i, unsigned n) { return i == n / 5 ? n : i; }},
    {"even, then odd", [](unsigned i, unsigned n) { return i < n / 2 ? 2 * i : 2 * (n - i) + 1; }},
};

// An array of elements that begin with a key and go on with bytes that depend on their first place.
struct Elements {
    Elements(unsigned count_, std::size_t size_, const Pattern &pattern) : count(count_), size(size_)
    {
        bytes.assign(count * size + 2 * guard, '\xEE');
        for (unsigned i = 0; i < count_; ++i) {
            const unsigned key = pattern.value(i, count_);
            for (std::size_t b = 0; b < size; ++b)
                at(i)[b] = static_cast<char>(b < key_bytes() ? std::size_t{key} >> 8 * (key_bytes() - 1 - b) : i + b);
        }
    }

    std::size_t key_bytes() const { return std::min<std::size_t>(size, 3); }
    char *at(std::size_t i) { return bytes.data() + guard + i * size; }

    // The elements as texts, in order of all their bytes.
    std::vector<std::string> as_set()
    {
        std::vector<std::string> set;
        for (unsigned i = 0; i < count; ++i)
            set.emplace_back(at(i), size);
        std::sort(set.begin(), set.end());
        return set;
    }

    bool guards_hold() const
    {
        const std::string fence(guard, '\xEE');
        return bytes.compare(0, guard, fence) == 0 && bytes.compare(bytes.size() - guard, guard, fence) == 0;
    }

    static constexpr std::size_t guard = 64;
    std::size_t count;
    std::size_t size;
    std::string bytes;
};

// A comparison by key that checks what it is given.
int compare_elements(const void *a, const void *b, void *ctx)
{
    auto *elements = static_cast<Elements *>(ctx);
    for (const void *p : {a, b}) {
        const auto offset = static_cast<std::size_t>(static_cast<const char *>(p) - elements->at(0));
        EXPECT_LT(offset, elements->count * elements->size);
        EXPECT_EQ(offset % elements->size, 0u);
    }
    return std::memcmp(a, b, elements->key_bytes());
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
    ASSERT_TRUE(elements.guards_hold());
}

TEST(KsSort, SortsEverySizeCountAndPattern)
{
    for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 8u, 12u, 16u, 20u, 24u, 32u, 40u, 64u, 100u, 1100u}) {
        for (const Pattern &pattern : patterns) {
            for (unsigned count = 0; count <= 12; ++count)
                expect_sorts(count, size, pattern);
            for (const unsigned count : {63u, 64u, 65u, 500u})
                expect_sorts(count, size, pattern);
        }
    }
    for (const Pattern &pattern : patterns) {
        expect_sorts(20011, 4, pattern); // larger than one step of a merge
        expect_sorts(2003, 40, pattern);
    }
}

struct Counter {
    std::size_t calls = 0;
};

int compare_ints(const void *a, const void *b, void *ctx)
{
    ++static_cast<Counter *>(ctx)->calls;
    const int x = *static_cast<const int *>(a);
    const int y = *static_cast<const int *>(b);
    return (x > y) - (x < y);
}

TEST(KsSort, FewElementsAreInsertedWithFewComparisons)
{
    for (int code = 0; code < 27; ++code) {
        SCOPED_TRACE(code);
        int three[] = {code / 9, code / 3 % 3, code % 3};
        int two[] = {three[0], three[1]};
        std::vector<int> expected(three, three + 3);
        std::sort(expected.begin(), expected.end());
        Counter counter;
        ks_qsort(three, 3, sizeof(int), compare_ints, &counter);
        EXPECT_EQ(std::vector<int>(three, three + 3), expected);
        EXPECT_LE(counter.calls, 3u);
        counter.calls = 0;
        ks_qsort(two, 2, sizeof(int), compare_ints, &counter);
        EXPECT_LE(two[0], two[1]);
        EXPECT_EQ(counter.calls, 1u);
        counter.calls = 0;
        ks_qsort(two, 1, sizeof(int), compare_ints, &counter);
        ks_qsort(nullptr, 0, sizeof(int), compare_ints, &counter);
        EXPECT_EQ(counter.calls, 0u);
    }
}

TEST(KsSort, NoPatternIsQuadraticAndSortedOnesAreLinear)
{
    constexpr unsigned n = 100000;
    for (const Pattern &pattern : patterns) {
        SCOPED_TRACE(pattern.name);
        std::vector<int> values(n);
        for (unsigned i = 0; i < n; ++i)
            values[i] = static_cast<int>(pattern.value(i, n));
        Counter counter;
        ks_quick_sort(values.data(), n, sizeof(int), compare_ints, &counter);
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
        const std::string name = pattern.name;
        const bool is_one_run = name == "sorted" || name == "reversed" || name == "equal";
        const bool is_two_runs = name == "organ pipe" || name == "valley" || name == "two runs";
        const std::size_t limit = is_one_run ? 1 : is_two_runs ? 3 : std::bit_width(n) * 3 / 2;
        EXPECT_LE(counter.calls, limit * n);
    }
}

// Makes up the values while they are compared, always the worst for a quicksort: an element whose
// value is still open is larger than every other, until it is the pivot.
struct Adversary {
    explicit Adversary(int n) : open(n), values(static_cast<std::size_t>(n), n) {}

    int open;
    std::vector<int> values;
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
    if (value(x) == adversary.open)
        adversary.candidate = x;
    else if (value(y) == adversary.open)
        adversary.candidate = y;
    return value(x) - value(y);
}

TEST(KsSort, AdversaryDoesNotMakeItQuadratic)
{
    constexpr int n = 50000;
    std::vector<int> places(n);
    std::iota(places.begin(), places.end(), 0);
    std::shuffle(places.begin(), places.end(), std::mt19937(1));
    Adversary adversary(n);
    ks_qsort(places.data(), n, sizeof(int), compare_adversary, &adversary);
    EXPECT_LE(adversary.calls, std::size_t{n} * 16 * 8);
    for (std::size_t i = 1; i < n; ++i)
        ASSERT_LE(adversary.values[static_cast<std::size_t>(places[i - 1])],
                  adversary.values[static_cast<std::size_t>(places[i])]);
}

// What a comparison that leaves, or lies, sees and leaves behind.
struct Wild {
    std::vector<std::uint64_t> values;
    std::uint64_t sum = 0;
    std::size_t calls_left = 0;
    bool lies = false;
    bool always_whole = true;
    std::mt19937 random{1};
    std::jmp_buf out{};
};

int compare_wild(const void *a, const void *b, void *ctx)
{
    auto &wild = *static_cast<Wild *>(ctx);
    // The values are different powers of two, so the sum tells a lost or doubled element.
    if (std::accumulate(wild.values.begin(), wild.values.end(), std::uint64_t{0}) != wild.sum)
        wild.always_whole = false;
    if (wild.calls_left-- == 0)
        std::longjmp(wild.out, 1);
    if (wild.lies)
        return static_cast<int>(wild.random() % 3) - 1;
    const auto x = *static_cast<const std::uint64_t *>(a);
    const auto y = *static_cast<const std::uint64_t *>(b);
    return (x > y) - (x < y);
}

// Sorts until the comparison leaves at its n-th call; false when it was not called so often.
bool leaves_at(Wild &wild, const Pattern &pattern, std::size_t call)
{
    constexpr unsigned n = 64;
    std::vector<unsigned> order(n);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](unsigned a, unsigned b) { return pattern.value(a, n) < pattern.value(b, n); });
    wild.values.assign(n, 0);
    for (unsigned rank = 0; rank < n; ++rank)
        wild.values[order[rank]] = std::uint64_t{1} << rank;
    wild.sum = UINT64_MAX;
    wild.calls_left = call;
    if (setjmp(wild.out) != 0)
        return true;
    ks_qsort(wild.values.data(), n, sizeof(std::uint64_t), compare_wild, &wild);
    return false;
}

TEST(KsSort, EveryComparisonSeesAllElements)
{
    for (const Pattern &pattern : patterns) {
        for (const bool lies : {false, true}) {
            SCOPED_TRACE(pattern.name);
            Wild wild;
            wild.lies = lies;
            for (std::size_t call = 0; leaves_at(wild, pattern, call); call += 1 + call / 16) {
                ASSERT_TRUE(wild.always_whole) << "before call " << call;
                std::sort(wild.values.begin(), wild.values.end());
                for (unsigned rank = 0; rank < 64; ++rank)
                    ASSERT_EQ(wild.values[rank], std::uint64_t{1} << rank) << "after leaving at call " << call;
                if (lies && call > 2000)
                    break;
            }
        }
    }
}

TEST(KsSort, LyingComparisonStaysInsideTheArray)
{
    struct Liar {
        Elements elements;
        std::mt19937 random{1};
    };
    for (const std::size_t size : {4u, 12u}) {
        Liar liar{Elements(20000, size, patterns[4])};
        const std::vector<std::string> before = liar.elements.as_set();
        ks_qsort(
            liar.elements.at(0), 20000, size,
            [](const void *a, const void *b, void *ctx) {
                auto &l = *static_cast<Liar *>(ctx);
                const int truth = compare_elements(a, b, &l.elements);
                return l.random() % 64 == 0 ? -truth : truth;
            },
            &liar);
        EXPECT_EQ(liar.elements.as_set(), before);
        EXPECT_TRUE(liar.elements.guards_hold());
    }
}

} // namespace
