// Hash tables against slow models: random steps against std::map, hash values against the loop that
// defines them, bucket numbers against a division; then what is reported, printed and refused.
#include "harness/misuse.h"

#include <korvaks/hash.h>
#include <korvaks/imsg.h>
#include <korvaks/list.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <regex>

namespace {

// The record and the chains agree, every cell is in the bucket of its hash value, and the order list
// has as many cells from both ends.
void expect_sound(const hash_ht *ht)
{
    uint64_t cells = 0;
    for (uint64_t bucket = 0; bucket < ht->nbkts; ++bucket) {
        for (const hash_cell *cell = ht->bkts[bucket]; cell != nullptr; cell = cell->next, ++cells)
            ASSERT_EQ(cell->hval % ht->nbkts, bucket);
    }
    ASSERT_EQ(cells, ht->cells);
    const hash_cell *back = nullptr;
    for (const hash_cell *cell = ht->first_cell; cell != nullptr; --cells) {
        const auto &links = reinterpret_cast<const hash_cell_links *>(cell)[-1];
        ASSERT_EQ(links.back, back);
        back = cell;
        cell = links.order;
    }
    ASSERT_EQ(ht->last_cell, back);
    ASSERT_EQ(cells, ht->order != 0 ? 0 : ht->cells);
}

// One of the three kinds behind one face, for keys given as numbers.
struct Kind {
    uint32_t keytype;
    bool copied;
    uint32_t (*hash_fn)(const void *);

    static constexpr uint64_t key_bytes = 11;
    static constexpr std::size_t key_count = 1200;

    // Where keys live that are not copied.
    static const std::string &text_of(std::size_t key)
    {
        static const std::vector<std::string> texts = [] {
            std::vector<std::string> made;
            for (std::size_t i = 0; i < key_count; ++i) {
                made.push_back(std::to_string(i * 7919));
                made[i].insert(0, key_bytes - made[i].size(), i % 3 == 0 ? '\xC4' : 'k');
            }
            return made;
        }();
        return texts[key];
    }

    // Calls one of three functions with the key; what the key looks like behind the call is checked too.
    template <typename Int, typename Str, typename Flen>
    int call(Int int_fn, Str str_fn, Flen flen_fn, hash_ht *ht, std::size_t key, void **data) const
    {
        if (keytype == HASH_KEY_INT) {
            const int64_t number = static_cast<int64_t>(key) - 500;
            const int64_t *stored = nullptr;
            const int result = int_fn(ht, number, &stored, data);
            EXPECT_TRUE(*data == nullptr ? stored == nullptr : *stored == number);
            return result;
        }
        const std::string passed = text_of(key); // a copied key must outlive it
        const char *given = copied ? passed.c_str() : text_of(key).c_str();
        const void *bytes = given;
        const char *string = given;
        const int result =
            keytype == HASH_KEY_STR ? str_fn(ht, given, &string, data) : flen_fn(ht, given, &bytes, data);
        const auto *stored = keytype == HASH_KEY_STR ? string : static_cast<const char *>(bytes);
        EXPECT_TRUE(*data == nullptr ? stored == nullptr : passed.compare(0, key_bytes, stored, key_bytes) == 0);
        return result;
    }
};

template <auto fn> int next(const hash_ht *ht, hash_cursor **cursor, void **data)
{
    return fn(ht, cursor, nullptr, data);
}

// The data of a cell are the number of the step that entered it, so that the order of the numbers is
// the order of entering.
void compare_scans(const hash_ht *ht, const std::map<std::size_t, uint64_t> &model)
{
    constexpr decltype(&next<hash_int_next>) scans[2][3] = {
        {next<hash_int_next>, next<hash_str_next>, next<hash_flen_next>},
        {next<hash_int_next_in_order>, next<hash_str_next_in_order>, next<hash_flen_next_in_order>}};
    std::vector<uint64_t> expected;
    for (const auto &[key, value] : model)
        expected.push_back(value);
    std::sort(expected.begin(), expected.end());
    for (const bool in_order : {false, ht->order != 0}) {
        hash_cursor *cursor = nullptr;
        void *data = nullptr;
        std::vector<uint64_t> values;
        while (scans[in_order][ht->keytype](ht, &cursor, &data) == 1)
            values.push_back(*static_cast<uint64_t *>(data));
        ASSERT_TRUE(cursor == nullptr && data == nullptr);
        if (!in_order)
            std::sort(values.begin(), values.end());
        ASSERT_EQ(values, expected);
    }
}

void run_model(const Kind &kind, bool ordered, uint64_t factor, uint64_t nbkts)
{
    hash_ht *ht =
        hash_create_ht(nbkts, sizeof(uint64_t), kind.keytype, kind.copied, Kind::key_bytes, kind.hash_fn, nullptr);
    if (ordered)
        hash_set_order(ht);
    hash_set_dynamic(ht, factor);
    std::map<std::size_t, uint64_t> model;
    std::mt19937 random(static_cast<unsigned>(nbkts + factor));
    for (std::size_t step = 0; step < 25'000; ++step) {
        const std::size_t key = random() % Kind::key_count;
        // Keys come and go in waves, so that the free list fills and empties.
        const unsigned choice = random() % 8;
        const unsigned enters = step / 3000 % 2 == 0 ? 4 : 1;
        void *data = nullptr;
        const int known = static_cast<int>(model.count(key));
        if (choice < enters) {
            ASSERT_EQ(kind.call(hash_int_enter, hash_str_enter, hash_flen_enter, ht, key, &data), known);
            if (known == 0)
                *static_cast<uint64_t *>(data) = model[key] = step;
        } else if (choice < 5) {
            ASSERT_EQ(kind.call(hash_int_free, hash_str_free, hash_flen_free, ht, key, &data), known);
        } else {
            ASSERT_EQ(kind.call(hash_int_lookup, hash_str_lookup, hash_flen_lookup, ht, key, &data), known);
        }
        ASSERT_EQ(data == nullptr, model.count(key) == 0);
        ASSERT_TRUE(data == nullptr || *static_cast<uint64_t *>(data) == model[key]);
        if (choice >= enters && choice < 5)
            model.erase(key);
        ASSERT_EQ(ht->cells, model.size());
        if (step % 5000 == 4999) {
            expect_sound(ht);
            compare_scans(ht, model);
        }
    }
    hash_delete_ht(&ht);
}

uint32_t few_values(const void *key)
{
    return *static_cast<const unsigned char *>(key) % 3u;
}

TEST(HashModel, AgreesWithMap)
{
    test::in_child([] {
        static imsg_redirect_procs quiet{};
        quiet.proc[4] = IMSG_PROC_SUPPRESS; // the warnings of hash_str_free()
        imsg_set_redirect_procs(&quiet, nullptr);
        const Kind kinds[] = {{HASH_KEY_INT, true, nullptr},      {HASH_KEY_INT, true, few_values},
                              {HASH_KEY_STR, true, nullptr},      {HASH_KEY_STR, false, hash_seeded_str_fn},
                              {HASH_KEY_STR, true, few_values},   {HASH_KEY_FLEN, true, nullptr},
                              {HASH_KEY_FLEN, false, few_values}, {HASH_KEY_FLEN, true, hash_seeded_8_fn}};
        for (const Kind &kind : kinds) {
            run_model(kind, true, 0, 100);
            run_model(kind, true, 1, 1);
            run_model(kind, false, 3, 2);
        }
    });
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
    hash_set_order(ht);
    hash_set_dynamic(ht, 2);
    EXPECT_EQ(ht->climit, 14u);
    for (int64_t key = 1; key <= 14; ++key)
        (void)hash_int_enter(ht, key * 100, nullptr, nullptr);
    EXPECT_EQ(ht->nbkts, 7u);
    // A scan in order goes on through the growth and meets the new key last.
    hash_cursor *cursor = nullptr;
    const int64_t *key = nullptr;
    for (int64_t expected = 1; hash_int_next_in_order(ht, &cursor, &key, nullptr) == 1; ++expected) {
        EXPECT_EQ(*key, expected * 100);
        (void)hash_int_enter(ht, 1500, nullptr, nullptr);
    }
    EXPECT_EQ(ht->nbkts, 17u);
    EXPECT_EQ(ht->climit, 34u);
    expect_sound(ht);
    EXPECT_EQ(hash_int_next(ht, &cursor, nullptr, nullptr), 1);
    hash_term_scan(&cursor);
    EXPECT_EQ(cursor, nullptr);
    hash_delete_ht(&ht);
}

template <typename Byte> uint32_t defined_hash(const std::string &key)
{
    uint32_t h = 0;
    for (const char c : key)
        h = h + ((h << 7) ^ static_cast<uint32_t>(static_cast<Byte>(c)));
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
    std::mt19937 random(7);
    for (std::size_t length = 0; length < 40; ++length) {
        for (const unsigned high_share : {0u, 8u, 256u}) { // bytes from 0x80 on: none, a few, most
            std::string key(length, '\0');
            for (char &c : key)
                c = static_cast<char>(1 + random() % 127 + (random() % 256 < high_share ? 128 : 0));
            const std::string copy = key.c_str(); // 127 + 128 + 1 would be a NUL
            EXPECT_EQ(hash_str_hash_key_fn(copy.c_str()), defined_hash<signed char>(copy)) << length;
            EXPECT_EQ(value_in_table(key), defined_hash<unsigned char>(key)) << length;
            std::string plain = copy;
            std::erase_if(plain, [](unsigned char c) { return std::isspace(c) != 0; });
            std::string spaced = " " + copy + "\t\n";
            EXPECT_EQ(hash_str_hash_key_ignore_whitespace_fn(spaced.c_str()), defined_hash<unsigned char>(plain));
        }
    }
    const int64_t negative = -9;
    EXPECT_EQ(hash_int_hash_key_fn(&negative), static_cast<uint32_t>(-3)); // arithmetic shift
}

// Copied keys are compared by words; these have one hash value and differ in length, in a whole word, or behind it.
TEST(HashStrings, WithOneHashValueAreDifferentKeys)
{
    for (const auto &[one, other] :
         {std::pair{"dxxljnph", "ylqalktn"}, std::pair{"exjiegq", "xxbctzoir"},
          std::pair{"acdnazh", "szbhykshnqdepovf"}, std::pair{"prefix: ascalyx", "prefix: mjzmcpd"}}) {
        ASSERT_EQ(hash_str_hash_key_fn(one), hash_str_hash_key_fn(other));
        hash_ht *ht = hash_str_create(1, 8, 1);
        EXPECT_EQ(hash_str_enter(ht, one, nullptr, nullptr), 0);
        EXPECT_EQ(hash_str_lookup(ht, other, nullptr, nullptr), 0) << other;
        hash_delete_ht(&ht);
    }
}

// The vectors of the function's authors: key 00 to 0f, input 00 to n - 1.
TEST(HashSeeded, IsSipHash)
{
    unsigned char bytes[16];
    std::iota(std::begin(bytes), std::end(bytes), static_cast<unsigned char>(0));
    for (const auto &[length, expected] : {std::pair{0u, 0x726fdb47dd0e0e31},
                                           {1u, 0x74f839c593dc67fd},
                                           {7u, 0xab0200f58b01d137},
                                           {8u, 0x93f5f5799a932462},
                                           {15u, 0xa129ca6149be45e5}})
        EXPECT_EQ(hash_siphash(bytes, bytes, length), expected) << length;
    const std::string text = "0123456789abcdef0123456789abcdef";
    for (const auto &[fn, length] : {std::pair<hash_key_fn, unsigned>{hash_seeded_4_fn, 4U},
                                     {hash_seeded_8_fn, 8U},
                                     {hash_seeded_16_fn, 16U},
                                     {hash_seeded_32_fn, 32U},
                                     {hash_seeded_str_fn, 32U}})
        EXPECT_EQ(fn(text.c_str()), hash_seeded(text.c_str(), length)) << length;
    // One seed for the process and its children: drawn here, it is theirs.
    const uint32_t expected_there = hash_seeded("x", 1);
    test::in_child([=] { EXPECT_EQ(hash_seeded("x", 1), expected_there); });
}

TEST(HashTable, UsesCellsAgain)
{
    hash_ht *ht = hash_flen_create(1, 8, 1, 4);
    const void *keys[4];
    void *data[4];
    (void)hash_flen_enter(ht, "key1", &keys[0], &data[0]);
    (void)hash_flen_enter(ht, "key2", &keys[1], &data[1]);
    EXPECT_EQ(std::memcmp(data[0], "\0\0\0\0\0\0\0", 8), 0);
    std::memcpy(data[0], "old data", 8);
    EXPECT_EQ(hash_flen_free(ht, "key2", nullptr, nullptr), 1);
    EXPECT_EQ(hash_flen_free(ht, "key1", nullptr, nullptr), 1);
    (void)hash_flen_enter(ht, "key3", &keys[2], &data[2]);
    (void)hash_flen_enter(ht, "key4", &keys[3], &data[3]);
    EXPECT_TRUE(data[2] == data[0] && data[3] == data[1]); // the last to go comes first
    EXPECT_EQ(std::memcmp(data[2], "old data", 8), 0);
    EXPECT_EQ(keys[2], keys[0]); // the same buffer
    hash_delete_ht(&ht);
}

// A comparison of the caller's sees every cell of an integer table's chain, and of the other kinds
// only those with the key's hash value.
TEST(HashTable, ComparesIntegersWhateverTheirHashValue)
{
    static int compared = 0;
    const auto own_hash = [](const void *key) { return uint32_t{*static_cast<const unsigned char *>(key)}; };
    const auto never = [](const void *, const void *) { return ++compared * 0; };
    hash_ht *numbers = hash_create_ht(1, 0, HASH_KEY_INT, 1, 0, own_hash, never);
    hash_ht *bytes = hash_create_ht(1, 0, HASH_KEY_FLEN, 1, 1, own_hash, never);
    for (const char key : {'a', 'b', 'c'}) {
        (void)hash_int_enter(numbers, key, nullptr, nullptr);
        (void)hash_flen_enter(bytes, &key, nullptr, nullptr);
    }
    compared = 0;
    EXPECT_EQ(hash_int_lookup(numbers, 'b', nullptr, nullptr), 0);
    EXPECT_EQ(compared, 3);
    EXPECT_EQ(hash_flen_lookup(bytes, "b", nullptr, nullptr), 0);
    EXPECT_EQ(compared, 4);
    hash_delete_ht(&numbers);
    hash_delete_ht(&bytes);
}

TEST(HashStrings, IgnoreSpaces)
{
    hash_ht *ht = hash_str_create(10, 0, 1);
    hash_str_ignore_spaces(ht);
    EXPECT_EQ(hash_str_enter(ht, "a  b", nullptr, nullptr), 0);
    EXPECT_EQ(hash_str_lookup(ht, " a\tb\n", nullptr, nullptr), 1);
    EXPECT_EQ(hash_str_lookup(ht, "ab", nullptr, nullptr), 0); // a run is a blank, not nothing
    hash_delete_ht(&ht);
}

TEST(HashStrings, EnterListTellsWhetherAllWerePresent)
{
    char texts[2][4] = {"one", "two"};
    list_record *list = list_create(STG_AREA_HEAP, 0);
    hash_ht *ht = hash_str_create(10, 0, 1);
    for (char *text : texts) {
        EXPECT_EQ(hash_str_enter_list(ht, list), 1);
        (void)list_append(list, text);
        EXPECT_EQ(hash_str_enter_list(ht, list), 0);
    }
    hash_delete_ht(&ht);
    list_destroy(list);
}

// What is printed, with NULL keys and their place in the table.
TEST(HashReports, NullKeysAndCopiedKeys)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        hash_ht *ht = hash_str_create(1, 0, 1);
        EXPECT_EQ(hash_str_lookup(ht, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(hash_str_enter(ht, "", nullptr, nullptr), 0); // has the same hash value
        EXPECT_EQ(hash_str_enter(ht, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(hash_str_enter(ht, nullptr, nullptr, nullptr), 1);
        std::fputs("free\n", stderr);
        EXPECT_EQ(hash_str_free(ht, "none", nullptr, nullptr), 0);
        EXPECT_EQ(hash_str_free(ht, "", nullptr, nullptr), 1);
        hash_delete_ht(&ht);
        std::fputs("flen\n", stderr);
        ht = hash_create_ht(1, 0, HASH_KEY_FLEN, 1, 8, few_values, nullptr); // which never sees it
        EXPECT_EQ(hash_flen_enter(ht, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(hash_flen_free(ht, nullptr, nullptr, nullptr), 1);
        hash_delete_ht(&ht);
        std::fputs("create\n", stderr);
        EXPECT_EQ(hash_flen_create(1, 0, 1, UINT64_MAX - 20), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(hash_int_create(1, UINT64_MAX - 20), nullptr);
    });
    const std::string null_key = "Unexpected error in hash package.\n";
    const std::string leak = "hash_str_free on a hash table with copied keys. Memory leak.\n";
    EXPECT_EQ(result.err, null_key + null_key + null_key + "free\n" + leak + leak + "flen\n" + null_key + null_key +
                              "create\nOut of memoryOut of memory");
}

// Addresses are cut out: what stands in their place is compared.
std::string without_addresses(std::string text)
{
    text = std::regex_replace(text, std::regex("0x0{16}"), "0x0");
    return std::regex_replace(text, std::regex("0x[0-9a-f]{16}"), "0x*");
}

TEST(HashDump, PrintsTheTableAndItsFilling)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        hash_ht *tables[] = {hash_int_create(2, 8), hash_flen_create(1, 8, 1, 5)};
        hash_set_order(tables[0]);
        (void)hash_int_enter(tables[0], -4, nullptr, nullptr);
        for (hash_ht *ht : tables)
            hash_dump(ht);
        hash_ht *filled = hash_create_ht(3, 0, HASH_KEY_INT, 1, 0, nullptr, nullptr);
        for (int64_t key = 0; key < 60 + 49 + 1; ++key) // chains of 60 and 49
            (void)hash_int_enter(filled, key < 60 ? key * 12 : key * 12 + 4, nullptr, nullptr);
        (void)hash_int_free(filled, 109 * 12 + 4, nullptr, nullptr);
        hash_dump_stats(filled);
    });
    const std::string head =
        "-------------------------- Hash Table Dump ------------------------------------\n(hash) ht 0x*: bkts=0x*, ";
    EXPECT_EQ(without_addresses(result.err),
              head +
                  "#bkts=2, #cells=1, dbytes=8,\n       area=0x*, keytype=HASH_KEY_INT, copyk=T\n"
                  "       limit=0, climit=0, order=T, 1cell=0x*, lcell=0x*\n"
                  "bucket 1:\n  cell 0x*: key=-4, hval=4294967295, datap=0x*, next=0x0, order=0x0, back=0x0\n" +
                  head +
                  "#bkts=1, #cells=0, dbytes=8,\n       area=0x*, keytype=HASH_KEY_FLEN, copyk=T, key_bytes=5\n"
                  "-------------------------- Hash Table Statistics ------------------------------\n"
                  "bucket 0: 60\nbucket 1: 49\nNumber of entries on free list: 1\n\nnumber of buckets: 3\n"
                  "number of cells: 109\n#buckets with 0 entries: 1\n#buckets with 49 entries: 1\n");
}

TEST(HashMisuse, EndsTheProcess)
{
    static hash_ht *numbers = hash_int_create(1, 0);
    static hash_ht *strings = hash_str_create(1, 0, 0);
    (void)hash_int_enter(numbers, 1, nullptr, nullptr);
    (void)hash_int_free(numbers, 1, nullptr, nullptr); // its cell would be used again
    (void)hash_str_enter(strings, "a", nullptr, nullptr);
    hash_cursor *cursor = nullptr;
    test::expect_misuse({{[] { (void)hash_int_lookup(nullptr, 1, nullptr, nullptr); }, "PFM_ASSERT:(ht != NULL"},
                         {[&] { (void)hash_int_next_in_order(numbers, &cursor, nullptr, nullptr); }, "(ht->order"},
                         {[] { hash_set_order(numbers); }, "(ht->cells == 0 && ht->free_cells == NULL"},
                         {[] { hash_str_ignore_spaces(strings); }, "(ht->cells == 0"}},
                        ") failed: 'lib/ks/hash':");
    hash_delete_ht(&numbers);
    hash_delete_ht(&strings);
}

} // namespace
