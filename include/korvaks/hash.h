/**
 * @file hash.h
 * Hash tables: integer, string and fixed-length keys, each with a small record of data beside it.
 *
 * Life cycle: hash_int_create(), hash_str_create() or hash_flen_create(), then perhaps
 * hash_set_order(), hash_set_dynamic() and hash_str_ignore_spaces(), then entering, looking up and
 * freeing keys, at last hash_delete_ht(). Record, cells and copied keys live in an area that the
 * table owns, the bucket array on the heap.
 *
 * Results. A search gives 1 and the cell, or 0 and twice NULL; entering gives 1 when the key was
 * there already and 0 when a cell was made for it. `key_out` receives the key as the cell holds it
 * (for integers a pointer to it), `data_out` its `dbytes` bytes of data, aligned to 8; either may be
 * NULL. Both stay valid until the cell is freed and used again, or the table is deleted.
 *
 * Data. A new cell's data are zero the first time its memory is used; a cell that is used again holds
 * what its last key left there. Callers initialise the data whenever entering gives 0.
 *
 * Keys. Without `copyk` the caller's pointer is kept and must stay valid while the key is in the
 * table. A NULL string or fixed-length key is reported (error 24) and then stands for a key of its
 * own, equal to itself only; the table's functions are not called with it.
 *
 * Strangers' keys. The built-in functions are fixed, and whoever knows them can choose keys that all
 * fall into one bucket: then every operation walks all of them, n keys cost n * n / 2 steps, and
 * growth does not help. Where keys come from outside, use the seeded functions at the end of this
 * header: their values cannot be foretold.
 *
 * Exhaustion while entering: error 23, the result is 0 with twice NULL, and the table is as before.
 * A table that cannot grow goes on with the buckets it has.
 *
 * Threads: a table has no lock; one that threads share is guarded by its user.
 * Raises: where something is printed, before the operation's work or behind it; and from the table's
 * own functions, which are called while nothing is half-done. A NULL table, or one of another kind
 * of key than the operation's, is misuse and ends the process.
 */
#ifndef KORVAKS_HASH_H
#define KORVAKS_HASH_H

#include <korvaks/base.h>
#include <korvaks/stg.h>

#ifdef __cplusplus
extern "C" {
#endif

struct list_record;

/** Kinds of keys. */
#define HASH_KEY_INT 0u  /**< a signed 64-bit integer, held in the cell */
#define HASH_KEY_STR 1u  /**< a NUL-terminated string */
#define HASH_KEY_FLEN 2u /**< a byte string of the table's key length */

/** Hash value of a key: of a string or byte string itself, of an integer the pointer to it. */
typedef uint32_t (*hash_key_fn)(const void *key);

/** Non-zero when two keys, as hash_key_fn takes them, are equal. */
typedef int (*hash_compare_fn)(const void *a, const void *b);

/** A key as a cell holds it. */
typedef union hash_key {
    int64_t integer;
    const char *string;
    const void *bytes;
} hash_key;

/** A cell. The caller's data follow it, and in a table that copies fixed-length keys the key. */
typedef struct hash_cell {
    struct hash_cell *next; /**< in the bucket, or on the free list */
    hash_key key;
    uint32_t hval; /**< hash value of the key */
} hash_cell;

/** Stands in front of each cell of an ordered table. */
typedef struct hash_cell_links {
    hash_cell *order; /**< the cell entered next, NULL in the last one */
    hash_cell *back;  /**< the cell entered before, NULL in the first one */
} hash_cell_links;

/** A table. Its fields may be read; only the functions below make and change tables. */
typedef struct hash_ht {
    hash_cell **bkts;      /**< `nbkts` chains, on the heap */
    stg_area *area;        /**< the table's own */
    uint64_t cells;        /**< cells in the table */
    hash_cell *first_cell; /**< ends of the order list, NULL in a table without order */
    hash_cell *last_cell;
    hash_cell *free_cells; /**< cells to be used again */
    uint64_t dbytes;       /**< bytes of data in each cell */
    uint64_t key_bytes;    /**< bytes of a fixed-length key */
    uint64_t nbkts;        /**< an element of hash_prime_sizes */
    uint64_t limit;        /**< load factor at which the table grows; 0: it never does */
    uint64_t climit;       /**< number of cells above which it grows */
    uint32_t keytype;      /**< HASH_KEY_INT, _STR or _FLEN */
    uint32_t copyk;        /**< not 0: keys are copied into the area */
    uint32_t order;        /**< not 0: cells are on the order list */
    hash_key_fn hash_fn;   /**< NULL: the built-in one for fixed-length keys */
    hash_compare_fn compare_fn;
} hash_ht;

/** A place in a scan. A variable of this type starts as NULL. */
typedef struct hash_cursor hash_cursor;

/** Number of elements of hash_prime_sizes. */
#define HASH_PRIME_SIZE_COUNT 30

/** The bucket counts, primes that roughly double. Tables use those up to 1048573. */
extern KS_API const int32_t hash_prime_sizes[HASH_PRIME_SIZE_COUNT];

/** @name Tables */
/**@{*/

/**
 * Makes a table.
 *
 * @param nbkts_wanted  buckets wanted: the next element of hash_prime_sizes is taken, at most 1048573
 * @param dbytes        bytes of data in each cell
 * @param keytype       HASH_KEY_INT, HASH_KEY_STR or HASH_KEY_FLEN
 * @param copyk         not 0: keys are copied into the table
 * @param key_bytes     length of a HASH_KEY_FLEN key
 * @param hash_fn, compare_fn  NULL stands for the built-in function of the kind of key
 * @return the table, ended with hash_delete_ht(); NULL on exhaustion (error 23, nothing is left).
 * Raises: only when exhausted, with nothing left behind.
 */
KS_API hash_ht *hash_create_ht(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t keytype, uint32_t copyk,
                               uint64_t key_bytes, hash_key_fn hash_fn, hash_compare_fn compare_fn);

/** hash_create_ht() for integer keys, with the built-in functions. */
KS_API hash_ht *hash_int_create(uint64_t nbkts_wanted, uint64_t dbytes);

/** hash_create_ht() for string keys, with the built-in functions. */
KS_API hash_ht *hash_str_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk);

/** hash_create_ht() for keys of `key_bytes` bytes, with the built-in functions. */
KS_API hash_ht *hash_flen_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes);

/** hash_flen_create() with functions of the caller's, or NULL for either. */
KS_API hash_ht *hash_flen_create_with_fns(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes,
                                          hash_key_fn hash_fn, hash_compare_fn compare_fn);

/**
 * Deletes a table with everything it holds and sets `*ht` to NULL; a NULL table is left alone. Frees
 * the bucket array and the area, whatever the number of cells. Raises: no.
 */
KS_API void hash_delete_ht(hash_ht **ht);

/**
 * Makes a string table compare as strutl_cmp_ignore_whitespace() does: white space at the ends of a
 * key does not count, and a run of it inside stands for one blank. Only for a table without keys.
 */
KS_API void hash_str_ignore_spaces(hash_ht *ht);

/** Keeps the cells in the order in which they are entered. Only before the first key is entered. */
KS_API void hash_set_order(hash_ht *ht);

/** Lets the table grow when it has more than `factor` cells for each bucket; 0 keeps its size fixed. */
KS_API void hash_set_dynamic(hash_ht *ht, uint64_t factor);

/** Length of the keys of a fixed-length table. */
KS_API uint64_t hash_get_key_bytes(const hash_ht *ht);
/**@}*/

/**
 * @name Keys
 * "lookup" searches. "enter" searches and makes a cell when there is none. "free" removes the cell
 * and gives what it held: 1, or 0 when there was none; a removed cell is the next one to be used
 * again, and its key and data are readable until then.
 */
/**@{*/

KS_API int hash_int_lookup(const hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);
KS_API int hash_int_enter(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);
KS_API int hash_int_free(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);

KS_API int hash_str_lookup(const hash_ht *ht, const char *key, const char **key_out, void **data_out);
KS_API int hash_str_enter(hash_ht *ht, const char *key, const char **key_out, void **data_out);

/** In a table that copies its keys the copy is not reclaimed; every call there warns first (message 25). */
KS_API int hash_str_free(hash_ht *ht, const char *key, const char **key_out, void **data_out);

KS_API int hash_flen_lookup(const hash_ht *ht, const void *key, const void **key_out, void **data_out);
KS_API int hash_flen_enter(hash_ht *ht, const void *key, const void **key_out, void **data_out);
KS_API int hash_flen_free(hash_ht *ht, const void *key, const void **key_out, void **data_out);

/**
 * Enters each string of a list.
 * @return 1 when every string was there already (and for an empty or NULL list), 0 when any is new or
 *         could not be entered.
 */
KS_API int hash_str_enter_list(hash_ht *ht, const struct list_record *list);
/**@}*/

/**
 * @name Scans
 *
 *     hash_cursor *cursor = NULL;
 *     while (hash_str_next(ht, &cursor, &key, &data))
 *         ...
 *
 * Each call gives 1 and the next cell; 0, twice NULL and a NULL cursor at the end. The first three go
 * by buckets, the others in the order of entering, which only an ordered table has.
 *
 * A scan needs no memory and may be abandoned. Cells entered meanwhile may be met or not. The current
 * cell must not be removed; other cells may.
 */
/**@{*/
KS_API int hash_int_next(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out);
KS_API int hash_str_next(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out);
KS_API int hash_flen_next(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out);

KS_API int hash_int_next_in_order(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out);
KS_API int hash_str_next_in_order(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out);
KS_API int hash_flen_next_in_order(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out);

/** Ends a scan early: the cursor is NULL again. */
KS_API void hash_term_scan(hash_cursor **cursor);
/**@}*/

/** @name Built-in functions */
/**@{*/

/** The integer shifted right by 2, cut to 32 bits: neighbours in fours share a value. */
KS_API uint32_t hash_int_hash_key_fn(const void *key);
KS_API int hash_int_compare_keys_fn(const void *a, const void *b);

/** From 0, for each byte as a signed number: h = h + ((h << 7) ^ byte). */
KS_API uint32_t hash_str_hash_key_fn(const void *key);
KS_API int hash_str_compare_keys_fn(const void *a, const void *b);

/** The same for each byte, as an unsigned number, that is no white space in the locale. */
KS_API uint32_t hash_str_hash_key_ignore_whitespace_fn(const void *key);
KS_API int hash_str_compare_keys_ignore_whitespace_fn(const void *a, const void *b);
/**@}*/

/**
 * @name Seeded functions, for keys that strangers choose
 * SipHash-2-4 (J.-P. Aumasson and D. J. Bernstein, 2012). Its seed is drawn from the system at the
 * first use and is one for the process, so that equal keys have equal values all through it, also in
 * children made by a fork, but not in another process: no value may be stored or sent.
 *
 *     ht = hash_flen_create_with_fns(n, dbytes, 1, 16, hash_seeded_16_fn, NULL);
 *     ht = hash_create_ht(n, dbytes, HASH_KEY_STR, 1, 0, hash_seeded_str_fn, NULL);
 *
 * A table's function is handed the key alone. For a length without a function here a caller writes
 * one in a line:
 *
 *     static uint32_t hash_20(const void *key) { return hash_seeded(key, 20); }
 */
/**@{*/

/** Hash value of `key_bytes` bytes under the seed of the process. Any thread; raises: no. */
KS_API uint32_t hash_seeded(const void *key, size_t key_bytes);

/** hash_seeded() of 4, 8, 16 and 32 bytes, and of a string. */
KS_API uint32_t hash_seeded_4_fn(const void *key);
KS_API uint32_t hash_seeded_8_fn(const void *key);
KS_API uint32_t hash_seeded_16_fn(const void *key);
KS_API uint32_t hash_seeded_32_fn(const void *key);
KS_API uint32_t hash_seeded_str_fn(const void *key);

/** SipHash-2-4 of `key_bytes` bytes under a seed of 16 bytes that the caller brings. */
KS_API uint64_t hash_siphash(const void *seed, const void *key, size_t key_bytes);
/**@}*/

/** @name Inspection, as trace output. Raises: yes, between lines. */
/**@{*/

/** Prints the table and every cell. */
KS_API void hash_dump(const hash_ht *ht);

/** Prints the lengths of the chains, and how many chains there are of each length up to 49. */
KS_API void hash_dump_stats(const hash_ht *ht);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
