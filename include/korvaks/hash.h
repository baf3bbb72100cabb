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
 * Makes a table; the general constructor behind the four below.
 *
 * @param nbkts_wanted  buckets wanted, any number: the first element of hash_prime_sizes that is not
 *                      below it is taken, at most 1048573. 0 gives one bucket.
 * @param dbytes        bytes of data in each cell; 0 for keys alone
 * @param keytype       HASH_KEY_INT, HASH_KEY_STR or HASH_KEY_FLEN. A table of any other kind can only
 *                      be dumped and deleted.
 * @param copyk         not 0: keys are copied into the table. Integers always are.
 * @param key_bytes     bytes of a HASH_KEY_FLEN key; 0 makes all keys equal. Others do not use it.
 * @param hash_fn       hash function, NULL for the built-in one of the kind of key
 * @param compare_fn    comparison, NULL for the built-in one. It is asked for cells in the key's bucket:
 *                      of an integer table for all, else for those with the key's hash value.
 * @return the table, which is the caller's and ended with hash_delete_ht(). NULL when memory is exhausted
 *         or one cell would be larger than memory: error 23, errno ENOMEM, nothing is left.
 *
 * Threads: any.
 * Raises:  only on exhaustion, behind everything.
 */
KS_API hash_ht *hash_create_ht(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t keytype, uint32_t copyk,
                               uint64_t key_bytes, hash_key_fn hash_fn, hash_compare_fn compare_fn);

/**
 * Makes a table with 64-bit integer keys and the built-in functions.
 *
 * @param nbkts_wanted  buckets wanted, as for hash_create_ht(); 0 gives one bucket
 * @param dbytes        bytes of data in each cell, 0 for none
 * @return the table, ended with hash_delete_ht(); NULL on exhaustion (error 23, errno ENOMEM).
 *
 * Threads: any.
 * Raises:  only on exhaustion, behind everything.
 */
KS_API hash_ht *hash_int_create(uint64_t nbkts_wanted, uint64_t dbytes);

/**
 * Makes a table with string keys and the built-in functions: keys are equal when their bytes are.
 *
 * @param nbkts_wanted  buckets wanted, as for hash_create_ht(); 0 gives one bucket
 * @param dbytes        bytes of data in each cell, 0 for none
 * @param copyk         not 0: the table copies each string. 0: it keeps the caller's pointer, and the
 *                      string must stay as it is while its key is in the table.
 * @return the table, ended with hash_delete_ht(); NULL on exhaustion (error 23, errno ENOMEM).
 *
 * Threads: any.
 * Raises:  only on exhaustion, behind everything.
 */
KS_API hash_ht *hash_str_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk);

/**
 * Makes a table with keys of `key_bytes` bytes and the built-in functions, which look at every byte; so
 * padding inside a structure that serves as a key must be set.
 *
 * @param nbkts_wanted  buckets wanted, as for hash_create_ht(); 0 gives one bucket
 * @param dbytes        bytes of data in each cell, 0 for none
 * @param copyk         not 0: the table copies each key. 0: it keeps the caller's pointer, and the bytes
 *                      must stay as they are while the key is in the table.
 * @param key_bytes     length of every key; 0 makes all keys equal
 * @return the table, ended with hash_delete_ht(); NULL on exhaustion (error 23, errno ENOMEM).
 *
 * Threads: any.
 * Raises:  only on exhaustion, behind everything.
 */
KS_API hash_ht *hash_flen_create(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes);

/**
 * hash_flen_create() with functions of the caller's: for keys that count as equal though their bytes
 * differ, and for strangers' keys (hash_seeded_16_fn and its like).
 *
 * @param nbkts_wanted, dbytes, copyk, key_bytes  as for hash_flen_create()
 * @param hash_fn     hash function, NULL for the built-in one. Keys that compare equal must have equal
 *                    values, else they are not found. It is not told the length.
 * @param compare_fn  comparison, NULL for memcmp(3); it is called only for keys with equal hash values
 * @return the table, ended with hash_delete_ht(); NULL on exhaustion (error 23, errno ENOMEM).
 *
 * Threads: any.
 * Raises:  only on exhaustion, behind everything.
 */
KS_API hash_ht *hash_flen_create_with_fns(uint64_t nbkts_wanted, uint64_t dbytes, uint32_t copyk, uint64_t key_bytes,
                                          hash_key_fn hash_fn, hash_compare_fn compare_fn);

/**
 * Deletes a table with everything it holds: record, cells, copied keys and buckets. All pointers that
 * the table gave out end with it. Keys that were not copied stay with their owner. Its cost does not
 * grow with the number of cells, only with the number of chunks that the table's area has.
 *
 * @param ht  address of the handle, which becomes NULL; one that holds NULL is left alone. NULL itself ends
 *            the process (assertion "ht != NULL").
 *
 * Threads: any, one at a time; nobody else may use the table any more.
 * Raises:  no.
 */
KS_API void hash_delete_ht(hash_ht **ht);

/**
 * Makes a string table ignore differences of white space, as strutl_cmp_ignore_whitespace() does: what
 * stands at the ends of a key does not count, and a run of it inside stands for one blank. So "a  b" and
 * " a b" are one key, "ab" is another. The table keeps the key as it was entered first. White space
 * beyond isspace(3), of more than one byte, still makes a difference, because the hash function goes by
 * bytes.
 *
 * It takes the place of any functions that the table had, and holds until the table is deleted.
 * Misuse, which ends the process: a table of another kind (assertion "ht->keytype == keytype"), and one
 * that has keys ("ht->cells == 0").
 *
 * Threads: the table's user.
 * Raises:  no.
 */
KS_API void hash_str_ignore_spaces(hash_ht *ht);

/**
 * Keeps the cells in the order in which they are entered, for the _next_in_order scans. A key that is
 * removed and entered again stands at the end; one that is entered while it is there keeps its place.
 * Each cell takes 16 bytes more. There is no way back; a second call does nothing.
 *
 * Misuse, which ends the process: a table into which a key was ever entered, even if it was removed
 * (assertion "ht->cells == 0 && ht->free_cells == NULL").
 *
 * Threads: the table's user.
 * Raises:  no.
 */
KS_API void hash_set_order(hash_ht *ht);

/**
 * Lets a table grow: when a new key makes more than `factor` cells for each bucket, the table goes to the
 * next larger bucket count in hash_prime_sizes, at most 1048573, and every cell to its new bucket. It may be
 * called at any time and holds from the next new key on; each new key takes one step at most. A table
 * never shrinks.
 *
 * Growing moves no cell in memory: keys and data keep their addresses. When there is no memory for the
 * buckets, the table keeps those it has and tries again with the next new key. A scan by buckets that is
 * under way skips or repeats keys (see "Scans").
 *
 * @param factor  cells for each bucket, usually 1 to 4; 0 keeps the number of buckets fixed, as it is in a
 *                new table
 *
 * Threads: the table's user.
 * Raises:  no.
 */
KS_API void hash_set_dynamic(hash_ht *ht, uint64_t factor);

/** Bytes of each key of a fixed-length table, as given when it was made. A NULL table ends the process. */
KS_API uint64_t hash_get_key_bytes(const hash_ht *ht);
/**@}*/

/**
 * @name Keys
 * "lookup" searches. "enter" searches and makes a cell when there is none. "free" removes the cell and
 * gives what it held. Each costs one call of the hash function and a walk along one bucket's chain. In all
 * of them a NULL table and a table of another kind of key are misuse and end the process (assertions
 * "ht != NULL", "ht->keytype == keytype").
 */
/**@{*/

/**
 * Looks an integer up.
 *
 * @param key_out   receives a pointer to the integer as the cell holds it, or NULL; may be NULL. The two
 *                  differ only where a comparison of the caller's finds different numbers equal.
 * @param data_out  receives the cell's data, or NULL; may be NULL. They may be changed in place.
 * @return 1 when the key is there; 0, twice NULL, when it is not. What is given out is valid until the key
 *         is removed and its cell used again, or the table is deleted.
 *
 * Threads: the table's user; several may look up at once while nobody changes the table.
 * Raises:  only if the table's own functions do.
 */
KS_API int hash_int_lookup(const hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);

/**
 * Finds an integer, or enters it.
 *
 * @param key_out   receives a pointer to the integer as the cell holds it; may be NULL
 * @param data_out  receives the cell's data; may be NULL. A new cell's data are zero or, in memory that a
 *                  removed key had, what was left there: initialise them whenever the result is 0.
 * @return 1 when the key was there; 0 when a cell was made for it. 0 with twice NULL on exhaustion: error
 *         23, errno ENOMEM, the table is as before.
 *
 * A new key may make the table grow: see hash_set_dynamic().
 *
 * Threads: the table's user.
 * Raises:  on exhaustion, behind everything; and if the table's own functions do, before anything.
 */
KS_API int hash_int_enter(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);

/**
 * Removes an integer from the table.
 *
 * The cell goes to the head of the free list: the next new key uses it again, its data as they are now.
 * Until then what was given out can be read. Not allowed for the current cell of a scan.
 *
 * @param key_out   receives a pointer to the integer that the cell held, or NULL; may be NULL
 * @param data_out  receives the data that the cell held, or NULL; may be NULL
 * @return 1; 0, twice NULL, when the key is not there.
 *
 * Threads: the table's user.
 * Raises:  only if the table's own functions do, before anything.
 */
KS_API int hash_int_free(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out);

/**
 * Looks a string up.
 *
 * @param key       the string. NULL is reported (error 24) and then stands for a key of its own, which is
 *                  found where it was entered; the table's functions are not called with it.
 * @param key_out   receives the string as it was entered (the table's copy, or the pointer that was
 *                  entered), or NULL; may be NULL
 * @param data_out  receives the cell's data, or NULL; may be NULL. They may be changed in place.
 * @return 1 when the key is there; 0, twice NULL, when it is not. What is given out is valid until the key
 *         is removed and its cell used again, or the table is deleted.
 *
 * Threads: the table's user; several may look up at once while nobody changes the table.
 * Raises:  with a NULL key, before the search; and if the table's own functions do.
 */
KS_API int hash_str_lookup(const hash_ht *ht, const char *key, const char **key_out, void **data_out);

/**
 * Finds a string, or enters it.
 *
 * @param key       the string. A table with `copyk` copies it; another keeps the pointer of the first
 *                  that was entered. NULL is reported (error 24) and is then entered as a key of its own.
 * @param key_out   receives the string as the table holds it; may be NULL
 * @param data_out  receives the cell's data; may be NULL. A new cell's data are zero or, in memory that a
 *                  removed key had, what was left there: initialise them whenever the result is 0.
 * @return 1 when the key was there; 0 when a cell was made for it. 0 with twice NULL on exhaustion: error
 *         23, errno ENOMEM, the table is as before. (A NULL key alone gives `key_out` NULL too.)
 *
 * A new key may make the table grow: see hash_set_dynamic().
 *
 * Threads: the table's user.
 * Raises:  with a NULL key, before the work; on exhaustion, behind it; and if the table's functions do.
 */
KS_API int hash_str_enter(hash_ht *ht, const char *key, const char **key_out, void **data_out);

/**
 * Removes a string from the table.
 *
 * The cell goes to the head of the free list: the next new key uses it again, its data as they are now.
 * Until then what was given out can be read. Not allowed for the current cell of a scan.
 *
 * Kept exactly: a table with `copyk` warns first on every call (message 25), found or not, because the
 * memory of the copy is not used again before the table is deleted.
 *
 * @param key       the string; NULL is reported (error 24) and then stands for a key of its own
 * @param key_out   receives the string that the table held, or NULL; may be NULL
 * @param data_out  receives the data that the cell held, or NULL; may be NULL
 * @return 1; 0, twice NULL, when the key is not there.
 *
 * Threads: the table's user.
 * Raises:  yes where something is printed, before the work; and if the table's own functions do.
 */
KS_API int hash_str_free(hash_ht *ht, const char *key, const char **key_out, void **data_out);

/**
 * Looks a key of the table's key length up.
 *
 * @param key       its bytes, of any alignment that the table's own functions can read. NULL is reported
 *                  (error 24) and then stands for a key of its own, which those functions never see.
 * @param key_out   receives the key as the table holds it (its copy, or the pointer that was entered), or
 *                  NULL; may be NULL
 * @param data_out  receives the cell's data, or NULL; may be NULL. They may be changed in place.
 * @return 1 when the key is there; 0, twice NULL, when it is not. What is given out is valid until the key
 *         is removed and its cell used again, or the table is deleted.
 *
 * Threads: the table's user; several may look up at once while nobody changes the table.
 * Raises:  with a NULL key, before the search; and if the table's own functions do.
 */
KS_API int hash_flen_lookup(const hash_ht *ht, const void *key, const void **key_out, void **data_out);

/**
 * Finds a key of the table's key length, or enters it.
 *
 * @param key       its bytes. A table with `copyk` copies them; another keeps the pointer of the first that
 *                  was entered. NULL is reported (error 24) and is then entered as a key of its own.
 * @param key_out   receives the key as the table holds it; may be NULL. A copy is aligned to 8 bytes.
 * @param data_out  receives the cell's data; may be NULL. A new cell's data are zero or, in memory that a
 *                  removed key had, what was left there: initialise them whenever the result is 0.
 * @return 1 when the key was there; 0 when a cell was made for it. 0 with twice NULL on exhaustion: error
 *         23, errno ENOMEM, the table is as before. (A NULL key alone gives `key_out` NULL too.)
 *
 * A new key may make the table grow: see hash_set_dynamic().
 *
 * Threads: the table's user.
 * Raises:  with a NULL key, before the work; on exhaustion, behind it; and if the table's functions do.
 */
KS_API int hash_flen_enter(hash_ht *ht, const void *key, const void **key_out, void **data_out);

/**
 * Removes a key of the table's key length from the table.
 *
 * The cell goes to the head of the free list: the next new key uses it again, with the room of the copied
 * key, its data as they are now. Until then what was given out can be read. Not allowed for the current
 * cell of a scan.
 *
 * @param key       its bytes; NULL is reported (error 24) and then stands for a key of its own
 * @param key_out   receives the key that the table held, or NULL; may be NULL
 * @param data_out  receives the data that the cell held, or NULL; may be NULL
 * @return 1; 0, twice NULL, when the key is not there.
 *
 * Threads: the table's user.
 * Raises:  with a NULL key, before the work; and if the table's own functions do.
 */
KS_API int hash_flen_free(hash_ht *ht, const void *key, const void **key_out, void **data_out);

/**
 * Enters each string of a list into a string table, first to last, as hash_str_enter() does. The list is
 * not changed; a table without `copyk` keeps its pointers.
 *
 * @param list  list whose data pointers are strings; a NULL one among them is reported (error 24) and
 *              entered as a key of its own. NULL for the list stands for an empty one.
 * @return 1 when every string was there already, also for an empty list; 0 when one at least was new or
 *         could not be entered (error 23), and the others are in the table all the same. A string that
 *         stands twice in the list is new once.
 *
 * Threads: the user of table and list.
 * Raises:  where something is printed; the strings before are in the table then.
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
 * Each call gives 1 and the next cell; 0, twice NULL and a NULL cursor at the end. A scan needs no memory
 * and may be abandoned; several may run side by side.
 *
 * What may happen to the table meanwhile:
 *  - The current cell must not be removed; other cells may.
 *  - Cells entered meanwhile may be met or not by a scan of buckets; a scan in order meets them all.
 *  - When entering makes a dynamic table grow (hash_set_dynamic()), a scan of buckets goes on from where
 *    its current cell stands in the new buckets: keys that were in the table all along may be skipped,
 *    and others met a second time. A scan in order is not touched by growth. Who enters during a scan of
 *    buckets and must meet every old key once sets the factor to 0 for as long as the scan lasts.
 */
/**@{*/

/**
 * Steps through an integer table bucket by bucket, in no order of meaning.
 *
 * @param cursor    the place of the scan: NULL in it starts at the first bucket, and the call sets it. NULL
 *                  for it ends the process (assertion "cursor != NULL").
 * @param key_out   receives a pointer to the cell's integer, NULL at the end; may be NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile may be met
 *         or not; if one of them made the table grow, old keys are skipped or met twice (see "Scans").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_int_next(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out);

/**
 * Steps through a string table bucket by bucket, in no order of meaning.
 *
 * @param cursor    the place of the scan: NULL in it starts at the first bucket, and the call sets it. NULL
 *                  for it ends the process (assertion "cursor != NULL").
 * @param key_out   receives the string as the table holds it, NULL at the end and for a NULL key; may be
 *                  NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile may be met
 *         or not; if one of them made the table grow, old keys are skipped or met twice (see "Scans").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_str_next(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out);

/**
 * Steps through a table of fixed-length keys bucket by bucket, in no order of meaning.
 *
 * @param cursor    the place of the scan: NULL in it starts at the first bucket, and the call sets it. NULL
 *                  for it ends the process (assertion "cursor != NULL").
 * @param key_out   receives the key as the table holds it, hash_get_key_bytes() long, NULL at the end and
 *                  for a NULL key; may be NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile may be met
 *         or not; if one of them made the table grow, old keys are skipped or met twice (see "Scans").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_flen_next(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out);

/**
 * Steps through an integer table in the order of entering.
 *
 * @param cursor    the place of the scan: NULL in it starts with the key entered first. NULL for it ends the
 *                  process (assertion "cursor != NULL").
 * @param key_out   receives a pointer to the cell's integer, NULL at the end; may be NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile are met
 *         last, and growth of the table changes nothing. A table without hash_set_order() ends the process
 *         (assertion "ht->order").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_int_next_in_order(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out);

/**
 * Steps through a string table in the order of entering.
 *
 * @param cursor    the place of the scan: NULL in it starts with the key entered first. NULL for it ends the
 *                  process (assertion "cursor != NULL").
 * @param key_out   receives the string as the table holds it, NULL at the end and for a NULL key; may be
 *                  NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile are met
 *         last, and growth of the table changes nothing. A table without hash_set_order() ends the process
 *         (assertion "ht->order").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_str_next_in_order(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out);

/**
 * Steps through a table of fixed-length keys in the order of entering.
 *
 * @param cursor    the place of the scan: NULL in it starts with the key entered first. NULL for it ends the
 *                  process (assertion "cursor != NULL").
 * @param key_out   receives the key as the table holds it, hash_get_key_bytes() long, NULL at the end and
 *                  for a NULL key; may be NULL
 * @param data_out  receives the cell's data, NULL at the end; may be NULL
 * @return 1 with the next cell; 0 at the end, with the cursor NULL again. Keys entered meanwhile are met
 *         last, and growth of the table changes nothing. A table without hash_set_order() ends the process
 *         (assertion "ht->order").
 *
 * Threads: the table's user; scans of several threads may run at once while nobody changes the table.
 * Raises:  no.
 */
KS_API int hash_flen_next_in_order(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out);

/** Ends a scan of either form early: the cursor is NULL again. It held nothing. NULL for it ends the process. */
KS_API void hash_term_scan(hash_cursor **cursor);
/**@}*/

/**
 * @name Built-in functions
 * In the form that tables call, for callers who hash or compare the same way. No pointer may be NULL. Any
 * thread; raises: no.
 */
/**@{*/

/** Of the integer that `key` points to: shifted right by 2 with its sign, cut to 32 bits; so four neighbours
 *  share a value. */
KS_API uint32_t hash_int_hash_key_fn(const void *key);

/** 1 when the integers that both point to are equal, else 0. */
KS_API int hash_int_compare_keys_fn(const void *a, const void *b);

/**
 * Of a string: from 0, for each byte h = h + ((h << 7) ^ byte), in 32 bits without sign. Kept exactly: a
 * byte from 0x80 on counts as a negative number here, so that "\xFF" has the value 0xFFFFFFFF; the
 * built-in function of fixed-length keys makes the same steps with bytes from 0 to 255. Who knows the
 * function can make any number of keys with one value: see hash_seeded_str_fn().
 */
KS_API uint32_t hash_str_hash_key_fn(const void *key);

/** 1 when two strings have the same bytes (strcmp(3)), else 0. */
KS_API int hash_str_compare_keys_fn(const void *a, const void *b);

/** The steps of hash_str_hash_key_fn() for each byte, as a number from 0 to 255, that is no white space
 *  (isspace(3)) in the locale. A table whose locale changes under it does not find its keys again. */
KS_API uint32_t hash_str_hash_key_ignore_whitespace_fn(const void *key);

/** 1 when strutl_cmp_ignore_whitespace() finds two strings equal, else 0. */
KS_API int hash_str_compare_keys_ignore_whitespace_fn(const void *a, const void *b);
/**@}*/

/**
 * @name Seeded functions, for keys that strangers choose
 * SipHash-2-4 (J.-P. Aumasson and D. J. Bernstein, 2012). Its seed is drawn from the system at the first use
 * and is one for the process, so that equal keys have equal values all through it, also in children that are
 * forked afterwards, but not in another process: no value may be stored or sent.
 *
 *     ht = hash_flen_create_with_fns(n, dbytes, 1, 16, hash_seeded_16_fn, NULL);
 *     ht = hash_create_ht(n, dbytes, HASH_KEY_STR, 1, 0, hash_seeded_str_fn, NULL);
 *
 * A table's function is handed the key alone. For a length without a function here a caller writes one in a
 * line:
 *
 *     static uint32_t hash_20(const void *key) { return hash_seeded(key, 20); }
 */
/**@{*/

/**
 * Hash value of bytes under the seed of the process: the low 32 bits of SipHash-2-4.
 *
 * The first call draws the seed with getrandom(2), which may wait early in a system's start; where the
 * system has none to give, from the bytes it gave the process when it started (AT_RANDOM).
 *
 * @param key        the bytes, of any alignment; NULL only with a length of 0
 * @param key_bytes  their number
 * @return the value, the same for equal bytes as long as the process lives. errno is unchanged.
 *
 * Threads: any; no lock is taken.
 * Raises:  no.
 */
KS_API uint32_t hash_seeded(const void *key, size_t key_bytes);

/** hash_seeded() of the 4 bytes that `key` points to, a hash_key_fn for HASH_KEY_FLEN tables of that length. */
KS_API uint32_t hash_seeded_4_fn(const void *key);

/** hash_seeded() of 8 bytes: for HASH_KEY_FLEN tables of that length, and for HASH_KEY_INT tables. */
KS_API uint32_t hash_seeded_8_fn(const void *key);

/** hash_seeded() of 16 bytes, for HASH_KEY_FLEN tables of that length. */
KS_API uint32_t hash_seeded_16_fn(const void *key);

/** hash_seeded() of 32 bytes, for HASH_KEY_FLEN tables of that length. */
KS_API uint32_t hash_seeded_32_fn(const void *key);

/** hash_seeded() of a string without its NUL, for HASH_KEY_STR tables that compare exactly. */
KS_API uint32_t hash_seeded_str_fn(const void *key);

/**
 * SipHash-2-4 of bytes under a seed of the caller's, with its full 64 bits: for values that are stored or
 * sent, or that several processes must agree on.
 *
 * @param seed       16 bytes (the "key" of the authors' paper), of any alignment, not NULL
 * @param key        the bytes to be hashed, of any alignment; NULL only with a length of 0
 * @param key_bytes  their number
 * @return the value, the same on every machine. It is a keyed hash with short results, no digest for
 *         signatures.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API uint64_t hash_siphash(const void *seed, const void *key, size_t key_bytes);
/**@}*/

/** @name Inspection, as trace output */
/**@{*/

/**
 * Prints a table for whoever looks for a fault in it: the record with its counts and addresses, then each
 * bucket that is not empty with its cells and, in a string table, their keys. It is printed as trace output
 * (message kind 8) whatever is traced, a message for each line: about 160 bytes for each cell.
 *
 * @param ht  the table, which must not change meanwhile; NULL ends the process (assertion "ht != NULL")
 *
 * Threads: the table's user.
 * Raises:  yes, between lines; the table is not touched.
 */
KS_API void hash_dump(const hash_ht *ht);

/**
 * Prints how evenly a table is filled, as trace output (message kind 8) whatever is traced: the length of
 * each chain that is not empty, the cells on the free list, the numbers of buckets and cells, and then how
 * many buckets there are of each length from 0 to 49 that occurs. Longer chains stand only in the lines of
 * their own; they mean that the table is too small or its hash function bad for the keys.
 *
 * @param ht  the table, which must not change meanwhile; NULL ends the process (assertion "ht != NULL")
 *
 * Threads: the table's user.
 * Raises:  yes, between lines; the table is not touched.
 */
KS_API void hash_dump_stats(const hash_ht *ht);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
