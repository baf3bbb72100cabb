// What do looking up, entering and scanning keys cost, with the keys in random order? Looking up: every
// search hits, or in "miss" none does, in tables of 1,000 to a million keys. Entering: a million
// strings, which the table copies. Scanning: every key and its data are read. And what does the hash
// of a string of 32 bytes cost?
//
// Each peer has as many buckets as it takes for its own load factor from the start, except in
// enter_growing, where all of them grow.
#include "bench_input.h"

#include <korvaks/hash.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_APR
#include <apr_general.h>
#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_strings.h>
#endif

namespace {

// Names as a depot has them: 20 to 30 bytes, alike at the front.
std::vector<std::string> make_names(std::size_t count, const char *end = ".c")
{
    bench::Random random(0x5EED);
    std::vector<std::string> names(count);
    for (std::size_t i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "src/lib/part%zu/file%zu%s", random.below(1000), i, end);
        names[i] = name;
    }
    return names;
}

std::vector<std::int64_t> make_numbers(std::size_t count, std::uint64_t seed = 0x5EED)
{
    bench::Random random(seed);
    std::vector<std::int64_t> numbers(count);
    for (std::int64_t &number : numbers)
        number = static_cast<std::int64_t>(random.next() >> 1);
    return numbers;
}

// Copied once more behind the shuffling: the texts of strings lie in the order of their use, as those
// that a program has just read do.
template <typename Key> std::vector<Key> shuffled(std::vector<Key> keys)
{
    bench::Random random(0xCAFE);
    for (std::size_t i = keys.size(); i > 1; --i)
        std::swap(keys[i - 1], keys[random.below(i)]);
    return std::vector<Key>(keys.begin(), keys.end());
}

// What a scan reads of a key.
std::uint64_t first_of(std::int64_t key)
{
    return static_cast<std::uint64_t>(key);
}

std::uint64_t first_of(std::string_view key)
{
    return static_cast<unsigned char>(key.data()[0]);
}

std::uint64_t first_of(const char *key)
{
    return static_cast<unsigned char>(*key);
}

// The tables under test: each has a constructor for a number of buckets, enter(), and find(), which
// gives the data of a key. Those that are scanned have sum(), of all data and of a byte of each key.
class KorvaksStrings {
  public:
    explicit KorvaksStrings(std::size_t buckets) : ht_(hash_str_create(buckets, sizeof(std::uint64_t), 1))
    {
        if (buckets == 1)
            hash_set_dynamic(ht_, 1);
    }
    ~KorvaksStrings() { hash_delete_ht(&ht_); }
    KorvaksStrings(const KorvaksStrings &) = delete;
    KorvaksStrings &operator=(const KorvaksStrings &) = delete;

    void enter(const std::string &key, std::uint64_t value)
    {
        void *data = nullptr;
        (void)hash_str_enter(ht_, key.c_str(), nullptr, &data);
        *static_cast<std::uint64_t *>(data) = value;
    }
    const std::uint64_t *find(const std::string &key) const
    {
        void *data = nullptr;
        (void)hash_str_lookup(ht_, key.c_str(), nullptr, &data);
        return static_cast<const std::uint64_t *>(data);
    }
    std::uint64_t sum() const
    {
        std::uint64_t sum = 0;
        hash_cursor *cursor = nullptr;
        const char *key = nullptr;
        void *data = nullptr;
        while (hash_str_next(ht_, &cursor, &key, &data) != 0)
            sum += *static_cast<std::uint64_t *>(data) + first_of(key);
        return sum;
    }

  private:
    hash_ht *ht_;
};

class KorvaksNumbers {
  public:
    explicit KorvaksNumbers(std::size_t buckets) : ht_(hash_int_create(buckets, sizeof(std::uint64_t))) {}
    ~KorvaksNumbers() { hash_delete_ht(&ht_); }
    KorvaksNumbers(const KorvaksNumbers &) = delete;
    KorvaksNumbers &operator=(const KorvaksNumbers &) = delete;

    void enter(std::int64_t key, std::uint64_t value)
    {
        void *data = nullptr;
        (void)hash_int_enter(ht_, key, nullptr, &data);
        *static_cast<std::uint64_t *>(data) = value;
    }
    const std::uint64_t *find(std::int64_t key) const
    {
        void *data = nullptr;
        (void)hash_int_lookup(ht_, key, nullptr, &data);
        return static_cast<const std::uint64_t *>(data);
    }
    std::uint64_t sum() const
    {
        std::uint64_t sum = 0;
        hash_cursor *cursor = nullptr;
        const std::int64_t *key = nullptr;
        void *data = nullptr;
        while (hash_int_next(ht_, &cursor, &key, &data) != 0)
            sum += *static_cast<std::uint64_t *>(data) + first_of(*key);
        return sum;
    }

  private:
    hash_ht *ht_;
};

template <typename Key> class UnorderedMap {
  public:
    explicit UnorderedMap(std::size_t buckets) : map_(buckets) {}
    void enter(const Key &key, std::uint64_t value) { map_.emplace(key, value); }
    const std::uint64_t *find(const Key &key) const
    {
        const auto found = map_.find(key);
        return found == map_.end() ? nullptr : &found->second;
    }
    std::uint64_t sum() const
    {
        std::uint64_t sum = 0;
        for (const auto &[key, value] : map_)
            sum += value + first_of(key);
        return sum;
    }

  private:
    std::unordered_map<Key, std::uint64_t> map_;
};

// The same behind a call that the compiler does not see into, as that of a library is.
class CalledUnorderedMap : public UnorderedMap<std::int64_t> {
  public:
    using UnorderedMap::UnorderedMap;
    [[gnu::noinline]] const std::uint64_t *find(std::int64_t key) const { return UnorderedMap::find(key); }
};

#ifdef BENCH_GLIB
class GlibStrings {
  public:
    explicit GlibStrings(std::size_t)
        : table_(g_hash_table_new_full(g_str_hash, g_str_equal, std::free, nullptr)), values_(1 << 20)
    {
    }
    ~GlibStrings() { g_hash_table_destroy(table_); }
    GlibStrings(const GlibStrings &) = delete;
    GlibStrings &operator=(const GlibStrings &) = delete;

    void enter(const std::string &key, std::uint64_t value)
    {
        values_[value] = value;
        g_hash_table_insert(table_, strdup(key.c_str()), &values_[value]);
    }
    const std::uint64_t *find(const std::string &key) const
    {
        return static_cast<const std::uint64_t *>(g_hash_table_lookup(table_, key.c_str()));
    }

  private:
    GHashTable *table_;
    std::vector<std::uint64_t> values_;
};
#endif

#ifdef BENCH_APR
class AprStrings {
  public:
    explicit AprStrings(std::size_t)
    {
        static const bool is_started = apr_initialize() == APR_SUCCESS;
        if (!is_started || apr_pool_create(&pool_, nullptr) != APR_SUCCESS)
            std::abort();
        hash_ = apr_hash_make(pool_);
    }
    ~AprStrings() { apr_pool_destroy(pool_); }
    AprStrings(const AprStrings &) = delete;
    AprStrings &operator=(const AprStrings &) = delete;

    void enter(const std::string &key, std::uint64_t value)
    {
        auto *data = static_cast<std::uint64_t *>(apr_palloc(pool_, sizeof value));
        *data = value;
        apr_hash_set(hash_, apr_pstrmemdup(pool_, key.data(), key.size()), static_cast<apr_ssize_t>(key.size()), data);
    }
    const std::uint64_t *find(const std::string &key) const
    {
        return static_cast<const std::uint64_t *>(
            apr_hash_get(hash_, key.data(), static_cast<apr_ssize_t>(key.size())));
    }

  private:
    apr_pool_t *pool_ = nullptr;
    apr_hash_t *hash_ = nullptr;
};
#endif

template <typename Table, typename Key> void fill(Table &table, const std::vector<Key> &keys)
{
    for (std::size_t i = 0; i < keys.size(); ++i)
        table.enter(keys[i], i);
}

template <typename Table, typename Key> void look_up(benchmark::State &state, const std::vector<Key> &keys)
{
    Table table(keys.size());
    fill(table, keys);
    const std::vector<Key> wanted = shuffled(keys);
    std::size_t at = 0;
    std::uint64_t sum = 0;
    for (auto _ : state) {
        sum += *table.find(wanted[at]);
        if (++at == wanted.size())
            at = 0;
    }
    benchmark::DoNotOptimize(sum);
}

template <typename Table> void look_up_strings(benchmark::State &state, std::size_t count)
{
    look_up<Table>(state, make_names(count));
}

template <typename Table> void look_up_numbers(benchmark::State &state, std::size_t count)
{
    look_up<Table>(state, make_numbers(count));
}

template <typename Table, typename Key>
void miss(benchmark::State &state, const std::vector<Key> &keys, const std::vector<Key> &others)
{
    Table table(keys.size());
    fill(table, keys);
    const std::vector<Key> wanted = shuffled(others);
    std::size_t at = 0;
    std::size_t found = 0;
    for (auto _ : state) {
        found += table.find(wanted[at]) != nullptr ? 1 : 0;
        if (++at == wanted.size())
            at = 0;
    }
    if (found != 0)
        state.SkipWithError("a key is found that is none");
}

template <typename Table> void miss_strings(benchmark::State &state, std::size_t count)
{
    miss<Table>(state, make_names(count), make_names(count, ".h"));
}

template <typename Table> void miss_numbers(benchmark::State &state, std::size_t count)
{
    miss<Table>(state, make_numbers(count), make_numbers(count, 0xFEED));
}

// The keys are entered in random order, so that the scan cannot follow the memory.
template <typename Table, typename Key> void scan(benchmark::State &state, const std::vector<Key> &keys)
{
    Table table(keys.size());
    fill(table, shuffled(keys));
    for (auto _ : state)
        benchmark::DoNotOptimize(table.sum());
}

template <typename Table> void scan_strings(benchmark::State &state, std::size_t count)
{
    scan<Table>(state, make_names(count));
}

template <typename Table> void scan_numbers(benchmark::State &state, std::size_t count)
{
    scan<Table>(state, make_numbers(count));
}

// Strings that do not change, and of which the compiler does not know.
template <auto hash> void hash_strings(benchmark::State &state)
{
    const std::string text = "src/lib/part123/file4567890123.c";
    const char *string = text.c_str();
    if (text.size() != 32)
        state.SkipWithError("not 32 bytes");
    for (auto _ : state) {
        benchmark::DoNotOptimize(string);
        benchmark::DoNotOptimize(hash(string));
    }
}

std::size_t standard_hash(const char *string)
{
    return std::hash<std::string_view>{}(string);
}
BENCHMARK(hash_strings<hash_str_hash_key_fn>)->Name("hash/string_32/korvaks");
BENCHMARK(hash_strings<standard_hash>)->Name("hash/string_32/std_hash");

// Deleting the table is not timed.
template <typename Table> void enter(benchmark::State &state, bool is_growing)
{
    const std::vector<std::string> keys = shuffled(make_names(1'000'000));
    for (auto _ : state) {
        auto *table = new Table(is_growing ? 1 : keys.size());
        fill(*table, keys);
        state.PauseTiming();
        if (*table->find(keys.back()) != keys.size() - 1)
            state.SkipWithError("a key is not found");
        delete table;
        state.ResumeTiming();
    }
}

struct Size {
    const char *name;
    std::size_t count;
};
constexpr Size sizes[] = {{"1k", 1'000}, {"100k", 100'000}, {"1M", 1'000'000}};

template <typename Table> void add_strings(const std::string &peer)
{
    for (const Size &size : sizes)
        benchmark::RegisterBenchmark(("hash/find_string_" + std::string(size.name) + "/" + peer).c_str(),
                                     look_up_strings<Table>, size.count);
    benchmark::RegisterBenchmark(("hash/enter_string_1M/" + peer).c_str(), enter<Table>, false)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("hash/enter_growing_1M/" + peer).c_str(), enter<Table>, true)
        ->Unit(benchmark::kMillisecond);
}

// The jobs that only the standard library's table is compared in.
template <typename Strings, typename Numbers> void add_misses_and_scans(const std::string &peer)
{
    benchmark::RegisterBenchmark(("hash/miss_string_1M/" + peer).c_str(), miss_strings<Strings>, 1'000'000);
    benchmark::RegisterBenchmark(("hash/miss_int_1M/" + peer).c_str(), miss_numbers<Numbers>, 1'000'000);
    benchmark::RegisterBenchmark(("hash/scan_string_100k/" + peer).c_str(), scan_strings<Strings>, 100'000)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("hash/scan_int_1M/" + peer).c_str(), scan_numbers<Numbers>, 1'000'000)
        ->Unit(benchmark::kMillisecond);
}

template <typename Table> void add_numbers(const std::string &peer)
{
    for (const Size &size : sizes)
        benchmark::RegisterBenchmark(("hash/find_int_" + std::string(size.name) + "/" + peer).c_str(),
                                     look_up_numbers<Table>, size.count);
}

const bool added = [] {
    add_strings<KorvaksStrings>("korvaks");
    add_strings<UnorderedMap<std::string>>("unordered_map");
#ifdef BENCH_GLIB
    add_strings<GlibStrings>("g_hash_table");
#endif
#ifdef BENCH_APR
    add_strings<AprStrings>("apr_hash");
#endif
    add_numbers<KorvaksNumbers>("korvaks");
    add_numbers<UnorderedMap<std::int64_t>>("unordered_map");
    add_numbers<CalledUnorderedMap>("unordered_map_called");
    add_misses_and_scans<KorvaksStrings, KorvaksNumbers>("korvaks");
    add_misses_and_scans<UnorderedMap<std::string>, UnorderedMap<std::int64_t>>("unordered_map");
    return true;
}();

} // namespace
