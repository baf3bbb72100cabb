// Hash tables: making, growing and deleting them, and what can be set of them.
#include "util/hash_impl.h"

#include "base/ks_msg.h"
#include "base/msg_port.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

#include <sys/mman.h>

static_assert(std::is_standard_layout_v<hash_ht> && std::is_trivially_copyable_v<hash_ht>);
static_assert(offsetof(hash_ht, bkts) == 0 && offsetof(hash_ht, area) == 8 && offsetof(hash_ht, cells) == 16);
static_assert(offsetof(hash_ht, first_cell) == 24 && offsetof(hash_ht, last_cell) == 32);
static_assert(offsetof(hash_ht, free_cells) == 40 && offsetof(hash_ht, dbytes) == 48);
static_assert(offsetof(hash_ht, key_bytes) == 56 && offsetof(hash_ht, nbkts) == 64);
static_assert(offsetof(hash_ht, limit) == 72 && offsetof(hash_ht, climit) == 80);
static_assert(offsetof(hash_ht, keytype) == 88 && offsetof(hash_ht, copyk) == 92 && offsetof(hash_ht, order) == 96);
static_assert(offsetof(hash_ht, hash_fn) == 104 && offsetof(hash_ht, compare_fn) == 112);
static_assert(sizeof(hash_ht) == 120);
static_assert(std::is_standard_layout_v<hash_cell> && std::is_trivially_copyable_v<hash_cell>);
static_assert(offsetof(hash_cell, next) == 0 && offsetof(hash_cell, key) == 8 && offsetof(hash_cell, hval) == 16);
static_assert(sizeof(hash_cell) == 24 && sizeof(hash_cell_links) == 16);
static_assert(offsetof(hash_cell_links, order) == 0 && offsetof(hash_cell_links, back) == 8);

extern "C" constinit const int32_t hash_prime_sizes[HASH_PRIME_SIZE_COUNT] = {
    1,       2,       3,       7,       17,       31,       61,       127,       257,       509,
    1021,    2053,    4093,    8191,    16381,    32771,    65537,    131071,    262147,    524287,
    1048573, 2097143, 4194301, 8388617, 16777213, 33554467, 67108859, 134217757, 268435459, 536870909,
};

namespace {

using ks::hash::here;
using ks::hash::Table;

constexpr uint64_t bucket_count_max = 1048573;
constexpr std::size_t primes_searched = 29; // the last one is never chosen
constexpr double area_growth = 1.5;

// What a factor makes of a bucket count; more cells than can be counted never come.
uint64_t cell_limit(uint64_t factor, uint64_t nbkts)
{
    uint64_t limit;
    return __builtin_mul_overflow(factor, nbkts, &limit) ? UINT64_MAX : limit;
}

// From a cell to the copy of its key; false when no memory could hold one cell.
bool key_offset_for(uint64_t dbytes, uint64_t key_bytes, uint64_t &out_offset)
{
    uint64_t largest;
    return !__builtin_add_overflow(dbytes, ks::hash::cell_bytes, &out_offset) &&
           ks::round_up_8(out_offset, out_offset) &&
           !__builtin_add_overflow(out_offset, sizeof(hash_cell_links), &largest) &&
           !__builtin_add_overflow(largest, key_bytes, &largest);
}

// The area with the table's record in it, all zero; NULL on exhaustion, with nothing left.
Table *make_table(uint64_t first_size)
{
    stg_area *area = stg_create_area(first_size);
    if (area == STG_AREA_NULL)
        return nullptr;
    stg_set_zero(area);
    stg_set_growth(area, area_growth);
    auto *table = static_cast<Table *>(stg_alloc(area, sizeof(Table)));
    if (table == nullptr) {
        stg_delete_area(&area);
        return nullptr;
    }
    table->record.area = area;
    return table;
}

// The table with its buckets; NULL on exhaustion, with nothing left.
Table *make_table_with_buckets(uint64_t nbkts_wanted)
{
    Table *table = make_table(ks::hash::prime_for(nbkts_wanted) * sizeof(hash_cell *));
    if (table == nullptr)
        return nullptr;
    const uint64_t nbkts = ks::hash::bucket_count_for(nbkts_wanted);
    table->record.bkts = ks::hash::make_buckets(nbkts);
    if (table->record.bkts == nullptr) {
        stg_area *area = table->record.area; // which the table lies in
        stg_delete_area(&area);
        return nullptr;
    }
    ks::hash::set_bucket_count(*table, nbkts);
    return table;
}

// The built-in functions of a kind of key. Those for fixed-length keys need the length, which a
// function is not handed: NULL stands for them.
struct Functions {
    hash_key_fn hash;
    hash_compare_fn compare;

    bool operator==(const Functions &) const = default;
};

Functions built_in_functions(uint32_t keytype)
{
    switch (keytype) {
    case HASH_KEY_INT:
        return {hash_int_hash_key_fn, hash_int_compare_keys_fn};
    case HASH_KEY_STR:
        return {hash_str_hash_key_fn, hash_str_compare_keys_fn};
    default:
        return {nullptr, nullptr};
    }
}

// Takes a table's functions, NULL for built-in ones.
void set_functions(Table &table, Functions wanted)
{
    hash_ht &ht = table.record;
    const Functions built_in = built_in_functions(ht.keytype);
    ht.hash_fn = wanted.hash != nullptr ? wanted.hash : built_in.hash;
    ht.compare_fn = wanted.compare != nullptr ? wanted.compare : built_in.compare;
    table.plain_keytype = Functions{ht.hash_fn, ht.compare_fn} == built_in ? ht.keytype : ks::hash::not_plain;
}

// Every look-up begins at a random place of the array. In small pages a large one has more of them than the
// processor keeps addresses of, and each look-up then reads the page tables as well. All of it is
// written at once, so that whole large pages cost no memory. A kernel without them changes nothing.
void ask_for_large_pages(hash_cell **buckets, std::size_t bytes)
{
    constexpr std::size_t large_page = std::size_t{2} << 20;
    if (bytes < 2 * large_page)
        return;
    const ks::ErrnoSaver saver;
    const auto begin = reinterpret_cast<std::uintptr_t>(buckets);
    const std::uintptr_t first = (begin + large_page - 1) / large_page * large_page;
    const std::uintptr_t end = (begin + bytes) / large_page * large_page;
    (void)madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE); // advice, no more
}

// Each cell goes to the head of its new chain, in the order in which its old one held them.
void move_cells(const Table &table, hash_cell **old_bkts, uint64_t old_nbkts)
{
    for (uint64_t bucket = 0; bucket < old_nbkts; ++bucket) {
        hash_cell *cell = old_bkts[bucket];
        while (cell != nullptr) {
            hash_cell *next = cell->next;
            hash_cell *&head = table.record.bkts[ks::hash::bucket_of(table, cell->hval)];
            cell->next = head;
            head = cell;
            cell = next;
        }
    }
}

} // namespace

namespace ks::hash {

void report_exhaustion()
{
    errno = ENOMEM;
    (void)imsg_print(msg_error, &_ks_ks_msg_table, ks_msg_out_of_memory);
}

uint64_t prime_for(uint64_t nbkts_wanted)
{
    const auto *end = std::begin(hash_prime_sizes) + primes_searched;
    const auto *found =
        std::lower_bound(std::begin(hash_prime_sizes), end, nbkts_wanted,
                         [](int32_t prime, uint64_t wanted) { return static_cast<uint64_t>(prime) < wanted; });
    return static_cast<uint64_t>(found == end ? end[-1] : *found);
}

uint64_t bucket_count_for(uint64_t nbkts_wanted)
{
    return std::min(prime_for(nbkts_wanted), bucket_count_max);
}

hash_cell **make_buckets(uint64_t nbkts)
{
    const std::size_t bytes = nbkts * sizeof(hash_cell *); // nbkts is at most bucket_count_max
    auto **buckets = static_cast<hash_cell **>(stg_malloc(bytes));
    if (buckets == nullptr)
        return nullptr;
    ask_for_large_pages(buckets, bytes);
    std::memset(buckets, 0, bytes);
    return buckets;
}

void set_bucket_count(Table &table, uint64_t nbkts)
{
    table.record.nbkts = nbkts;
    table.record.climit = cell_limit(table.record.limit, nbkts);
    table.multiplier = multiplier_of(nbkts);
}

void resize(Table &table)
{
    hash_ht &ht = table.record;
    if (ht.nbkts >= bucket_count_max - 1)
        return;
    const uint64_t old_nbkts = ht.nbkts;
    const uint64_t nbkts = bucket_count_for(old_nbkts + 1);
    hash_cell **bkts = make_buckets(nbkts);
    if (bkts == nullptr)
        return; // longer chains, and another attempt at the next new key
    hash_cell **old_bkts = ht.bkts;
    ht.bkts = bkts;
    set_bucket_count(table, nbkts);
    move_cells(table, old_bkts, old_nbkts);
    stg_free(old_bkts);
}

} // namespace ks::hash

extern "C" {

hash_ht *hash_create_ht(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t keytype, uint32_t copyk, uint64_t key_bytes,
                        hash_key_fn hash_fn, hash_compare_fn compare_fn)
{
    uint64_t key_offset;
    Table *table = key_offset_for(dbytes, key_bytes, key_offset) ? make_table_with_buckets(nbkts_wanted) : nullptr;
    if (table == nullptr) {
        ks::hash::report_exhaustion();
        return nullptr;
    }
    table->key_offset = key_offset;
    hash_ht &ht = table->record;
    ht.dbytes = dbytes;
    ht.key_bytes = key_bytes;
    ht.keytype = keytype;
    ht.copyk = copyk;
    set_functions(*table, {hash_fn, compare_fn});
    return &ht;
}

hash_ht *hash_int_create(uint64_t nbkts_wanted, uint64_t dbytes)
{
    return hash_create_ht(nbkts_wanted, dbytes, HASH_KEY_INT, 1, 0, nullptr, nullptr);
}

hash_ht *hash_str_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk)
{
    return hash_create_ht(nbkts_wanted, dbytes, HASH_KEY_STR, copyk, 0, nullptr, nullptr);
}

hash_ht *hash_flen_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes)
{
    return hash_flen_create_with_fns(nbkts_wanted, dbytes, copyk, key_bytes, nullptr, nullptr);
}

hash_ht *hash_flen_create_with_fns(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes,
                                   hash_key_fn hash_fn, hash_compare_fn compare_fn)
{
    return hash_create_ht(nbkts_wanted, dbytes, HASH_KEY_FLEN, copyk, key_bytes, hash_fn, compare_fn);
}

void hash_delete_ht(hash_ht **ht)
{
    here.require(ht != nullptr, "ht != NULL");
    if (*ht == nullptr)
        return;
    stg_area *area = (*ht)->area; // which the record lies in
    stg_free((*ht)->bkts);
    *ht = nullptr;
    stg_delete_area(&area);
}

void hash_str_ignore_spaces(hash_ht *ht)
{
    ks::hash::require_keytype(ht, HASH_KEY_STR);
    here.require(ht->cells == 0, "ht->cells == 0");
    set_functions(ks::hash::table_of(ht),
                  {hash_str_hash_key_ignore_whitespace_fn, hash_str_compare_keys_ignore_whitespace_fn});
}

void hash_set_order(hash_ht *ht)
{
    ks::hash::require_table(ht);
    if (ht->order != 0)
        return;
    // A cell that was made without links has no room for them, also when it is free again.
    here.require(ht->cells == 0 && ht->free_cells == nullptr, "ht->cells == 0 && ht->free_cells == NULL");
    ht->order = 1;
}

void hash_set_dynamic(hash_ht *ht, uint64_t factor)
{
    ks::hash::require_table(ht);
    ht->limit = factor;
    ht->climit = cell_limit(factor, ht->nbkts);
}

uint64_t hash_get_key_bytes(const hash_ht *ht)
{
    ks::hash::require_table(ht);
    return ht->key_bytes;
}
}
