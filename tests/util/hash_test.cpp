// Hash tables against slow models: random steps against std::map, hash values against the loop that
// defines them, bucket numbers against a division; then what is reported, printed and refused.
#include <korvaks/hash.h>
#include <korvaks/imsg.h>
#include <korvaks/list.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "harness/child.h"

namespace {

// The record and the chains agree, every cell is in the bucket of its hash value, and the order list
// holds the same cells from both ends.
void expect_sound(const hash_ht *ht)
{
    std::vector<const hash_cell *> cells;
    for (uint64_t bucket = 0; bucket < ht->nbkts; ++bucket) {
        for (const hash_cell *cell = ht->bkts[bucket]; cell != nullptr; cell = cell->next) {
            ASSERT_EQ(cell->hval % ht->nbkts, bucket);
            cells.push_back(cell);
        }
    }
    ASSERT_EQ(cells.size(), ht->cells);
    if (ht->order == 0)
        return;
    const hash_cell *back = nullptr;
    std::vector<const hash_cell *> ordered;
    for (const hash_cell *cell = ht->first_cell; cell != nullptr;) {
        const auto &links = reinterpret_cast<const hash_cell_links *>(cell)[-1];
        ASSERT_EQ(links.back, back);
        ordered.push_back(cell);
        back = cell;
        cell = links.order;
    }
    ASSERT_EQ(ht->last_cell, back);
    std::sort(cells.begin(), cells.end());
    std::sort(ordered.begin(), ordered.end());
    ASSERT_EQ(cells, ordered);
}

// One of the three kinds behind one face, for keys given as numbers. Keys that are not copied live in
// `texts`.
struct Kind {
    uint32_t keytype;
    bool copied;
    uint32_t (*hash_fn)(const void *);

    std::vector<std::string> texts{};

    static constexpr uint64_t key_bytes = 11;

    void make_texts(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            std::string text = std::to_string(i * 7919);
            text.insert(0, key_bytes - text.size(), i % 3 == 0 ? '\xC4' : 'k');
            texts.push_back(text);
        }
    }

    hash_ht *create(uint64_t nbkts) const
    {
        return hash_create_ht(nbkts, sizeof(uint64_t), keytype, copied, key_bytes, hash_fn, nullptr);
    }

    // Calls one of three functions with the key; what the key looks like behind the call is checked too.
    template <typename Int, typename Str, typename Flen>
    int call(Int int_fn, Str str_fn, Flen flen_fn, hash_ht *ht, size_t key, uint64_t **data) const
    {
        void *found = nullptr;
        const std::string &text = texts[key];
        int result = 0;
        if (keytype == HASH_KEY_INT) {
            const int64_t *stored = nullptr;
            result = int_fn(ht, number_of(key), &stored, &found);
            EXPECT_TRUE(found == nullptr ? stored == nullptr : *stored == number_of(key));
        } else {
            const std::string passed = text; // a copied key must outlive it
            const char *given = copied ? passed.c_str() : text.c_str();
            const char *stored = nullptr;
            if (keytype == HASH_KEY_STR) {
                result = str_fn(ht, given, &stored, &found);
            } else {
                const void *bytes = nullptr;
                result = flen_fn(ht, given, &bytes, &found);
                stored = static_cast<const char *>(bytes);
            }
            EXPECT_TRUE(found == nullptr ? stored == nullptr : text.compare(0, key_bytes, stored, key_bytes) == 0);
            EXPECT_TRUE(found == nullptr || copied || stored == given || result == 1);
        }
        *data = static_cast<uint64_t *>(found);
        return result;
    }

    static int64_t number_of(size_t key) { return (static_cast<int64_t>(key) - 500) * 3; }
};

template <typename Next> size_t count_scan(const hash_ht *ht, Next next, std::vector<uint64_t> &values)
{
    hash_cursor *cursor = nullptr;
    void *data = nullptr;
    values.clear();
    while (next(ht, &cursor, nullptr, &data) == 1)
        values.push_back(*static_cast<uint64_t *>(data));
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(data, nullptr);
    return values.size();
}

void scan(const hash_ht *ht, bool in_order, std::vector<uint64_t> &values)
{
    if (ht->keytype == HASH_KEY_INT)
        count_scan(ht, in_order ? hash_int_next_in_order : hash_int_next, values);
    else if (ht->keytype == HASH_KEY_STR)
        count_scan(ht, in_order ? hash_str_next_in_order : hash_str_next, values);
    else
        count_scan(ht, in_order ? hash_flen_next_in_order : hash_flen_next, values);
}

// The data of a cell are the number of the step that entered it, so that the order of the numbers is
// the order of entering.
void compare_scans(const hash_ht *ht, const std::map<size_t, uint64_t> &model)
{
    std::vector<uint64_t> expected;
    for (const auto &[key, value] : model)
        expected.push_back(value);
    std::sort(expected.begin(), expected.end());
    std::vector<uint64_t> values;
    if (ht->order != 0) {
        scan(ht, true, values);
        ASSERT_EQ(values, expected);
    }
    scan(ht, false, values);
    std::sort(values.begin(), values.end());
    ASSERT_EQ(values, expected);
}

size_t model_steps()
{
    const char *wish = std::getenv("HASH_MODEL_STEPS"); // for each of the tables
    return wish == nullptr ? 60'000 : std::strtoul(wish, nullptr, 10);
}

void run_model(const Kind &kind, bool ordered, uint64_t factor, uint64_t nbkts)
{
    constexpr size_t key_count = 1200;
    hash_ht *ht = kind.create(nbkts);
    ASSERT_NE(ht, nullptr);
    if (ordered)
        hash_set_order(ht);
    hash_set_dynamic(ht, factor);
    std::map<size_t, uint64_t> model;
    std::mt19937 random(static_cast<unsigned>(nbkts + factor));
    const size_t steps = model_steps();
    for (size_t step = 0; step < steps; ++step) {
        const size_t key = random() % key_count;
        // Keys come and go in waves, so that the free list fills and empties.
        const unsigned choice = random() % 8;
        const unsigned enters = step / 3000 % 2 == 0 ? 4 : 1;
        uint64_t *data = nullptr;
        const auto known = model.find(key);
        const int expected = known != model.end() ? 1 : 0;
        if (choice < enters) {
            ASSERT_EQ(kind.call(hash_int_enter, hash_str_enter, hash_flen_enter, ht, key, &data), expected);
            ASSERT_NE(data, nullptr);
            if (expected == 0)
                *data = model[key] = step;
        } else if (choice < 5) {
            ASSERT_EQ(kind.call(hash_int_free, hash_str_free, hash_flen_free, ht, key, &data), expected);
        } else {
            ASSERT_EQ(kind.call(hash_int_lookup, hash_str_lookup, hash_flen_lookup, ht, key, &data), expected);
        }
        ASSERT_EQ(data == nullptr, model.find(key) == model.end() && expected == 0);
        if (data != nullptr) {
            ASSERT_EQ(*data, model[key]);
        }
        if (choice >= enters && choice < 5)
            model.erase(key);
        ASSERT_EQ(ht->cells, model.size());
        if (step % 5000 == 0) {
            expect_sound(ht);
            compare_scans(ht, model);
        }
    }
    hash_delete_ht(&ht);
    EXPECT_EQ(ht, nullptr);
}

uint32_t few_values(const void *key)
{
    return *static_cast<const unsigned char *>(key) % 3u;
}

TEST(HashModel, AgreesWithMap)
{
    // The warnings of hash_str_free() are not wanted here.
    const auto result = test::run_child([] {
        static const imsg_redirect_procs quiet = [] {
            imsg_redirect_procs procs{};
            procs.proc[4] = IMSG_PROC_SUPPRESS;
            return procs;
        }();
        imsg_set_redirect_procs(&quiet, nullptr);
        const Kind kinds[] = {{HASH_KEY_INT, true, nullptr},      {HASH_KEY_INT, true, few_values},
                              {HASH_KEY_STR, true, nullptr},      {HASH_KEY_STR, false, hash_seeded_str_fn},
                              {HASH_KEY_STR, true, few_values},   {HASH_KEY_FLEN, true, nullptr},
                              {HASH_KEY_FLEN, false, few_values}, {HASH_KEY_FLEN, true, hash_seeded_8_fn}};
        for (Kind kind : kinds) {
            kind.make_texts(1200);
            run_model(kind, true, 0, 100);
            run_model(kind, true, 1, 1);
            run_model(kind, false, 3, 2);
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exit_status, 0) << result.out << result.err;
}

TEST(HashTable, HasPrimeBucketCounts)
{
    constexpr struct {
        uint64_t wanted;
        uint64_t nbkts;
    } rows[] = {{0, 1},
                {1, 1},
                {3, 3},
                {4, 7},
                {5, 7},
                {100, 127},
                {127, 127},
                {128, 257},
                {524288, 1048573},
                {2000000, 1048573},
                {UINT64_MAX, 1048573}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.wanted);
        hash_ht *ht = hash_str_create(row.wanted, 0, 0);
        ASSERT_NE(ht, nullptr);
        EXPECT_EQ(ht->nbkts, row.nbkts);
        EXPECT_EQ(std::count(ht->bkts, ht->bkts + ht->nbkts, nullptr), static_cast<long>(row.nbkts));
        EXPECT_TRUE(ht->limit == 0 && ht->climit == 0 && ht->order == 0 && ht->cells == 0);
        hash_delete_ht(&ht);
        hash_delete_ht(&ht); // nothing left to do
    }
    EXPECT_EQ(hash_prime_sizes[28], 268435459);
    EXPECT_EQ(hash_prime_sizes[29], 536870909);
}

// Every bucket count with every kind of remainder: growth through all of them, values at both ends.
TEST(HashTable, FindsBucketsByDivisionAtEverySize)
{
    hash_ht *ht = hash_create_ht(
        1, 0, HASH_KEY_INT, 1, 0,
        [](const void *key) { return static_cast<uint32_t>(*static_cast<const int64_t *>(key)); }, nullptr);
    std::mt19937 random(4);
    for (int size = 0; size < 21; ++size) {
        const auto nbkts = static_cast<uint64_t>(hash_prime_sizes[size]);
        SCOPED_TRACE(nbkts);
        ASSERT_EQ(ht->nbkts, nbkts);
        for (const uint64_t value : {uint64_t{0}, nbkts - 1, nbkts, nbkts * 3, uint64_t{UINT32_MAX},
                                     UINT32_MAX / nbkts * nbkts, UINT32_MAX / nbkts * nbkts - 1, uint64_t{random()}})
            (void)hash_int_enter(ht, static_cast<int64_t>(value & UINT32_MAX), nullptr, nullptr);
        expect_sound(ht);
        hash_set_dynamic(ht, 1);
        for (int64_t i = 0; ht->nbkts == nbkts && size < 20; ++i)
            (void)hash_int_enter(ht, i * 12345 + size, nullptr, nullptr);
        hash_set_dynamic(ht, 0);
    }
    hash_set_dynamic(ht, UINT64_MAX); // more than can be counted
    EXPECT_EQ(ht->climit, UINT64_MAX);
    hash_delete_ht(&ht);
}

TEST(HashTable, GrowsAboveItsLimit)
{
    hash_ht *ht = hash_int_create(5, 0);
    hash_set_dynamic(ht, 2);
    EXPECT_EQ(ht->climit, 14u);
    for (int64_t key = 1; key <= 14; ++key)
        (void)hash_int_enter(ht, key * 100, nullptr, nullptr);
    EXPECT_EQ(ht->nbkts, 7u);
    (void)hash_int_enter(ht, 1500, nullptr, nullptr);
    EXPECT_EQ(ht->nbkts, 17u);
    EXPECT_EQ(ht->climit, 34u);
    expect_sound(ht);
    hash_cursor *cursor = nullptr;
    EXPECT_EQ(hash_int_next(ht, &cursor, nullptr, nullptr), 1);
    EXPECT_NE(cursor, nullptr);
    hash_term_scan(&cursor);
    EXPECT_EQ(cursor, nullptr);
    hash_delete_ht(&ht);
}

uint32_t defined_hash(const std::string &key, bool is_signed)
{
    uint32_t h = 0;
    for (const char c : key)
        h = h + ((h << 7) ^ (is_signed ? static_cast<uint32_t>(static_cast<signed char>(c))
                                       : static_cast<uint32_t>(static_cast<unsigned char>(c))));
    return h;
}

uint32_t value_in_table(const std::string &key)
{
    hash_ht *ht = hash_flen_create(1, 0, 0, key.size());
    (void)hash_flen_enter(ht, key.data(), nullptr, nullptr);
    const uint32_t hval = ht->bkts[0]->hval;
    hash_delete_ht(&ht);
    return hval;
}

TEST(HashFunctions, MixEveryByteInTurn)
{
    EXPECT_EQ(hash_str_hash_key_fn("\xFF"), 0xFFFFFFFFu);
    EXPECT_EQ(value_in_table("\xFF"), 255u);
    std::mt19937 random(7);
    for (size_t length = 0; length < 40; ++length) {
        for (const unsigned high_share : {0u, 8u, 256u}) { // bytes from 0x80 on: none, a few, most
            std::string key(length, '\0');
            for (char &c : key)
                c = static_cast<char>(1 + random() % 127 + (random() % 256 < high_share ? 128 : 0));
            const std::string copy = key.c_str(); // 127 + 128 + 1 would be a NUL
            EXPECT_EQ(hash_str_hash_key_fn(copy.c_str()), defined_hash(copy, true)) << length;
            EXPECT_EQ(value_in_table(key), defined_hash(key, false)) << length;
            std::string spaced;
            for (const char c : copy)
                spaced += std::isspace(static_cast<unsigned char>(c)) != 0 ? std::string() : std::string(1, c) + " \t";
            std::string plain;
            for (const char c : copy)
                plain += std::isspace(static_cast<unsigned char>(c)) != 0 ? std::string() : std::string(1, c);
            EXPECT_EQ(hash_str_hash_key_ignore_whitespace_fn(spaced.c_str()), defined_hash(plain, false));
        }
    }
    const int64_t negative = -9;
    EXPECT_EQ(hash_int_hash_key_fn(&negative), static_cast<uint32_t>(-3)); // arithmetic shift
}

// The vectors of the function's authors: key 00 to 0f, input 00 to n - 1.
TEST(HashSeeded, IsSipHash)
{
    constexpr uint64_t expected[] = {0x726fdb47dd0e0e31, 0x74f839c593dc67fd, 0x0d6c8009d9a94f5a, 0x85676696d7fb7e2d,
                                     0xcf2794e0277187b7, 0x18765564cd99a68d, 0xcbc9466e58fee3ce, 0xab0200f58b01d137,
                                     0x93f5f5799a932462, 0x9e0082df0ba9e4b0, 0x7a5dbbc594ddb9f3, 0xf4b32f46226bada7,
                                     0x751e8fbc860ee5fb, 0x14ea5627c0843d90, 0xf723ca908e7af2ee, 0xa129ca6149be45e5};
    unsigned char bytes[16];
    for (unsigned char i = 0; i < 16; ++i)
        bytes[i] = i;
    for (size_t length = 0; length < 16; ++length)
        EXPECT_EQ(hash_siphash(bytes, bytes, length), expected[length]) << length;
    EXPECT_EQ(hash_seeded_str_fn("abcdefgh"), hash_seeded_8_fn("abcdefgh"));
    EXPECT_EQ(hash_seeded_4_fn("abcd"), hash_seeded("abcd", 4));
    EXPECT_EQ(hash_seeded_16_fn(bytes), hash_seeded(bytes, 16));
    // One seed for the process and its children: drawn here, it is theirs.
    EXPECT_EQ(test::run_child([] { return static_cast<int>(hash_seeded("x", 1) & 0x7F); }).exit_status,
              static_cast<int>(hash_seeded("x", 1) & 0x7F));
    constexpr unsigned char no_seed[16] = {};
    EXPECT_NE(hash_seeded(bytes, 15), static_cast<uint32_t>(hash_siphash(no_seed, bytes, 15)));
}

TEST(HashTable, UsesCellsAgain)
{
    for (const uint32_t copyk : {0u, 1u}) {
        hash_ht *ht = hash_flen_create(1, 8, copyk, 4);
        void *data = nullptr;
        const void *old_key = nullptr;
        EXPECT_EQ(hash_flen_enter(ht, "key1", &old_key, &data), 0);
        EXPECT_EQ(std::memcmp(data, "\0\0\0\0\0\0\0", 8), 0);
        std::memcpy(data, "old data", 8);
        void *same = nullptr;
        EXPECT_EQ(hash_flen_free(ht, "key1", nullptr, &same), 1);
        EXPECT_EQ(same, data);
        const void *new_key = nullptr;
        EXPECT_EQ(hash_flen_enter(ht, "key2", &new_key, &same), 0);
        EXPECT_EQ(same, data);
        EXPECT_EQ(std::memcmp(same, "old data", 8), 0);
        EXPECT_EQ(new_key == old_key, copyk != 0); // the same buffer
        EXPECT_EQ(std::memcmp(new_key, "key2", 4), 0);
        EXPECT_EQ(hash_get_key_bytes(ht), 4u);
        hash_delete_ht(&ht);
    }
}

// A comparison of the caller's sees every cell of an integer table's chain, and of the other kinds
// only those with the key's hash value.
int compared = 0;

TEST(HashTable, ComparesIntegersWhateverTheirHashValue)
{
    const auto own_hash = [](const void *key) {
        return static_cast<uint32_t>(*static_cast<const unsigned char *>(key));
    };
    const auto never = [](const void *, const void *) { return ++compared * 0; };
    hash_ht *numbers = hash_create_ht(1, 0, HASH_KEY_INT, 1, 0, own_hash, never);
    hash_ht *bytes = hash_create_ht(1, 0, HASH_KEY_FLEN, 1, 1, own_hash, never);
    for (const char key : {'a', 'b', 'c'}) {
        EXPECT_EQ(hash_int_enter(numbers, key, nullptr, nullptr), 0);
        EXPECT_EQ(hash_flen_enter(bytes, &key, nullptr, nullptr), 0);
    }
    compared = 0;
    EXPECT_EQ(hash_int_lookup(numbers, 'b', nullptr, nullptr), 0);
    EXPECT_EQ(compared, 3);
    compared = 0;
    EXPECT_EQ(hash_flen_lookup(bytes, "b", nullptr, nullptr), 0);
    EXPECT_EQ(compared, 1);
    hash_delete_ht(&numbers);
    hash_delete_ht(&bytes);
}

TEST(HashStrings, IgnoreSpaces)
{
    hash_ht *ht = hash_str_create(10, 0, 1);
    hash_str_ignore_spaces(ht);
    EXPECT_EQ(hash_str_enter(ht, "a  b", nullptr, nullptr), 0);
    const char *stored = nullptr;
    for (const char *same : {"a b", " a b", "a\tb\n"})
        EXPECT_EQ(hash_str_lookup(ht, same, &stored, nullptr), 1) << same;
    EXPECT_STREQ(stored, "a  b");
    EXPECT_EQ(hash_str_lookup(ht, "ab", nullptr, nullptr), 0); // a run is a blank, not nothing
    hash_delete_ht(&ht);
}

TEST(HashStrings, EnterListTellsWhetherAllWerePresent)
{
    char one[] = "one";
    char two[] = "two";
    list_record *list = list_create(STG_AREA_HEAP, 0);
    hash_ht *ht = hash_str_create(10, 0, 1);
    EXPECT_EQ(hash_str_enter_list(ht, list), 1);
    EXPECT_EQ(hash_str_enter_list(ht, nullptr), 1);
    (void)list_append(list, one);
    EXPECT_EQ(hash_str_enter_list(ht, list), 0);
    EXPECT_EQ(hash_str_enter_list(ht, list), 1);
    (void)list_insert(list, nullptr, two);
    EXPECT_EQ(hash_str_enter_list(ht, list), 0);
    EXPECT_EQ(ht->cells, 2u);
    hash_delete_ht(&ht);
    list_destroy(list);
}

// What is printed, with NULL keys and their place in the table.
TEST(HashReports, NullKeysAndCopiedKeys)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        int failures = 0;
        hash_ht *ht = hash_str_create(1, 0, 1);
        failures += hash_str_lookup(ht, nullptr, nullptr, nullptr);
        failures += hash_str_enter(ht, "", nullptr, nullptr); // has the same hash value
        failures += hash_str_enter(ht, nullptr, nullptr, nullptr);
        failures += 1 - hash_str_enter(ht, nullptr, nullptr, nullptr);
        failures += 1 - hash_str_lookup(ht, "", nullptr, nullptr);
        failures += ht->cells == 2 ? 0 : 100;
        fputs("free\n", stderr);
        failures += hash_str_free(ht, "none", nullptr, nullptr);
        failures += 1 - hash_str_free(ht, "", nullptr, nullptr);
        hash_delete_ht(&ht);
        fputs("flen\n", stderr);
        ht = hash_create_ht(1, 0, HASH_KEY_FLEN, 1, 8, few_values, nullptr); // which never sees it
        failures += hash_flen_enter(ht, nullptr, nullptr, nullptr);
        failures += 1 - hash_flen_free(ht, nullptr, nullptr, nullptr);
        failures += hash_flen_enter(ht, "8 bytes.", nullptr, nullptr);
        failures += 1 - hash_flen_lookup(ht, "8 bytes.", nullptr, nullptr);
        hash_delete_ht(&ht);
        fputs("create\n", stderr);
        failures += hash_flen_create(1, 0, 1, UINT64_MAX - 20) == nullptr && errno == ENOMEM ? 0 : 100;
        failures += hash_int_create(1, UINT64_MAX - 20) == nullptr ? 0 : 100;
        return failures;
    });
    EXPECT_EQ(result.exit_status, 0);
    const std::string null_key = "Unexpected error in hash package.\n";
    const std::string leak = "hash_str_free on a hash table with copied keys. Memory leak.\n";
    EXPECT_EQ(result.err, null_key + null_key + null_key + "free\n" + leak + leak + "flen\n" + null_key + null_key +
                              "create\nOut of memoryOut of memory");
}

// Addresses are cut out: what stands in their place is compared.
std::string without_addresses(std::string text)
{
    for (size_t at = 0; (at = text.find("=0x", at)) != text.npos; at += 3)
        text.replace(at + 3, 16, text.compare(at + 3, 16, "0000000000000000") == 0 ? "0" : "*");
    for (size_t at = 0; (at = text.find("ell 0x", at)) != text.npos; at += 6)
        text.replace(at + 6, 16, "*");
    const size_t handle = text.find("ht 0x");
    return handle == text.npos ? text : text.replace(handle + 5, 16, "*");
}

TEST(HashDump, PrintsRecordBucketsAndCells)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        hash_ht *ht = hash_int_create(2, 8);
        hash_set_order(ht);
        (void)hash_int_enter(ht, -4, nullptr, nullptr);
        hash_dump(ht);
        hash_delete_ht(&ht);
        ht = hash_str_create(1, 8, 0);
        (void)hash_str_enter(ht, "a", nullptr, nullptr);
        (void)hash_str_enter(ht, "b", nullptr, nullptr);
        hash_dump(ht);
        hash_delete_ht(&ht);
        ht = hash_flen_create(1, 8, 1, 5);
        hash_dump(ht);
        hash_delete_ht(&ht);
        return 0;
    });
    const std::string head =
        "-------------------------- Hash Table Dump ------------------------------------\n(hash) ht 0x*: bkts=0x*, ";
    EXPECT_EQ(without_addresses(result.err.substr(0, result.err.find("---", 80))),
              head + "#bkts=2, #cells=1, dbytes=8,\n       area=0x*, keytype=HASH_KEY_INT, copyk=T\n"
                     "       limit=0, climit=0, order=T, 1cell=0x*, lcell=0x*\n"
                     "bucket 1:\n  cell 0x*: key=-4, hval=4294967295, datap=0x*, next=0x0, order=0x0, back=0x0\n");
    const std::string rest = result.err.substr(result.err.find("---", 80));
    EXPECT_EQ(without_addresses(rest.substr(0, rest.find("---", 80))),
              head + "#bkts=1, #cells=2, dbytes=8,\n       area=0x*, keytype=HASH_KEY_STR, copyk=F\nbucket 0:\n"
                     "  cell 0x*: hval=98, datap=0x*, next=0x*\n    key=\"b\"\n"
                     "  cell 0x*: hval=97, datap=0x*, next=0x0\n    key=\"a\"\n");
    EXPECT_EQ(without_addresses(rest.substr(rest.find("---", 80))),
              head + "#bkts=1, #cells=0, dbytes=8,\n       area=0x*, keytype=HASH_KEY_FLEN, copyk=T, key_bytes=5\n");
}

TEST(HashDump, CountsChainsUpTo49)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        hash_ht *ht = hash_create_ht(
            3, 0, HASH_KEY_INT, 1, 0, [](const void *key) { return *static_cast<const int64_t *>(key) < 60 ? 0u : 1u; },
            nullptr);
        for (int64_t key = 0; key < 60 + 49 + 1; ++key)
            (void)hash_int_enter(ht, key, nullptr, nullptr);
        (void)hash_int_free(ht, 109, nullptr, nullptr);
        hash_dump_stats(ht);
        hash_delete_ht(&ht);
        return 0;
    });
    EXPECT_EQ(result.err, "-------------------------- Hash Table Statistics ------------------------------\n"
                          "bucket 0: 60\nbucket 1: 49\nNumber of entries on free list: 1\n\nnumber of buckets: 3\n"
                          "number of cells: 109\n#buckets with 0 entries: 1\n#buckets with 49 entries: 1\n");
}

TEST(HashMisuse, EndsTheProcess)
{
    constexpr struct {
        const char *name;
        void (*act)();
        const char *condition;
    } rows[] = {
        {"no table", [] { (void)hash_int_lookup(nullptr, 1, nullptr, nullptr); }, "ht != NULL"},
        {"another kind", [] { (void)hash_str_enter(hash_int_create(1, 0), "a", nullptr, nullptr); },
         "ht->keytype == keytype"},
        {"a scan in no order",
         [] {
             hash_cursor *cursor = nullptr;
             (void)hash_int_next_in_order(hash_int_create(1, 0), &cursor, nullptr, nullptr);
         },
         "ht->order"},
        {"an order too late",
         [] {
             hash_ht *ht = hash_int_create(1, 0);
             (void)hash_int_enter(ht, 1, nullptr, nullptr);
             (void)hash_int_free(ht, 1, nullptr, nullptr); // whose cell would be used again
             hash_set_order(ht);
         },
         "ht->cells == 0 && ht->free_cells == NULL"},
        {"spaces too late",
         [] {
             hash_ht *ht = hash_str_create(1, 0, 0);
             (void)hash_str_enter(ht, "a", nullptr, nullptr);
             hash_str_ignore_spaces(ht);
         },
         "ht->cells == 0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const auto result = test::run_child([&row] {
            row.act();
            return 0;
        });
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_NE(result.err.find(std::string("PFM_ASSERT:(") + row.condition + ") failed: 'lib/ks/hash':"),
                  std::string::npos)
            << result.err;
    }
}

} // namespace
