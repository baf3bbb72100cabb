// What the files of the hash tables share: the table with what its open record does not hold, and
// the way from a hash value to a bucket.
#pragma once

#include "base/ks_base.h"

#include <korvaks/hash.h>

#include <cstddef>
#include <cstdint>

namespace ks::hash {

inline constexpr AssertPath here{"lib/ks/hash"};

// Where a cell's data begin.
inline constexpr std::size_t cell_bytes = sizeof(hash_cell);

inline constexpr uint32_t not_plain = UINT32_MAX;

// A table as it lies in its area. The record comes first, because its address is the handle.
struct Table {
    hash_ht record;
    uint64_t multiplier;    // reciprocal of `nbkts`, see bucket_of()
    uint64_t key_offset;    // from a cell to the copy of its key, made with it
    uint32_t plain_keytype; // the kind of key when both functions are its built-in ones, else not_plain
};

inline Table &table_of(hash_ht *ht)
{
    return *reinterpret_cast<Table *>(ht);
}

inline const Table &table_of(const hash_ht *ht)
{
    return *reinterpret_cast<const Table *>(ht);
}

// The reciprocal that bucket_of() needs: 2^64 / nbkts, rounded up; 0 for 1.
constexpr uint64_t multiplier_of(uint64_t nbkts)
{
    return UINT64_MAX / nbkts + 1;
}

// hval % nbkts without a division. The product's low half is the fraction hval / nbkts leaves, in
// units of 2^-64; times nbkts it is the remainder. Exact while both numbers are below 2^32.
inline uint64_t bucket_of(const Table &table, uint32_t hval)
{
    const uint64_t fraction = table.multiplier * hval;
    return static_cast<uint64_t>(static_cast<unsigned __int128>(fraction) * table.record.nbkts >> 64);
}

inline void *data_of(hash_cell *cell)
{
    return cell + 1;
}

// In front of every cell of an ordered table.
inline hash_cell_links &links_of(hash_cell *cell)
{
    return reinterpret_cast<hash_cell_links *>(cell)[-1];
}

inline void require_table(const hash_ht *ht)
{
    here.require(ht != nullptr, "ht != NULL");
}

inline void require_keytype(const hash_ht *ht, uint32_t keytype, int line = __builtin_LINE())
{
    require_table(ht);
    here.require(ht->keytype == keytype, "ht->keytype == keytype", line);
}

// hash.cpp
// Error 23, with errno ENOMEM. A raise point.
void report_exhaustion();
// The bucket count for a wish, as it stands in the table of primes and as tables have it.
uint64_t prime_for(uint64_t nbkts_wanted);
uint64_t bucket_count_for(uint64_t nbkts_wanted);
// A cleared bucket array on the heap; NULL on exhaustion, which was reported.
hash_cell **make_buckets(uint64_t nbkts);
// Takes a bucket count with what follows from it.
void set_bucket_count(Table &table, uint64_t nbkts);

// Goes to the next larger bucket count; a table that cannot have it stays as it is.
void resize(Table &table);

} // namespace ks::hash
