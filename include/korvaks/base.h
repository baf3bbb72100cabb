/**
 * @file base.h
 * What every public header of libkorvaks shares: the export mark, status results, the
 * message-table record and the library's descriptor set. It declares no function of a module.
 *
 * Conventions of the whole library:
 *  - A function that returns a *status* returns KS_ST_OK (0) or a code its module defines.
 *  - A wrapper of a system call keeps the system's convention: 0 or a pointer, else -1 or NULL
 *    with errno. Thread-layer calls return POSIX error numbers.
 *  - "Raises: yes" in a comment means that the call is a raise point: when the calling thread
 *    is not inhibited and a stop was requested, it may leave by a non-local jump to the thread's
 *    innermost cleanup record (see pfm.h) instead of returning.
 *  - Misuse (a wrong handle, an impossible state) ends the process with a message; it is never
 *    returned as an error.
 */
#ifndef KORVAKS_BASE_H
#define KORVAKS_BASE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KS_API __attribute__((visibility("default")))
#define KS_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#define KS_NORETURN __attribute__((noreturn))
#else
#define KS_API
#define KS_PRINTF(format_index, first_argument)
#define KS_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Status of an operation that succeeded; every other status is a failure. */
#define KS_ST_OK 0u

/** Status result: KS_ST_OK or a failure code of the module that returns it. */
typedef uint32_t ks_status;

/**
 * A module's messages: a read-only record, one per subsystem, printed through imsg_print().
 *
 * Message `i` has the default text `default_texts[i]` and, in the catalogue, the number
 * `catalog_numbers[i]` of set `set`. Texts are printf formats. A tool declares its own table
 * with the same record; both arrays hold `count` entries:
 *
 *     static const char *const texts[] = {"%s: %s\n", "Done.\n"};
 *     static const uint16_t numbers[] = {1, 2};
 *     static const msg_table messages = {"tool", "tool", 1, MSG_TABLE_COUNT(texts), texts, numbers};
 *
 * The library keeps no pointer to a table behind the call that it is given to.
 */
typedef struct msg_table {
    const char *catalog_name;         /**< catalogue file, "ks_lib" for the library's own tables; NULL or "": none */
    const char *subsystem;            /**< shown in heads, such as "ks/stg"; NULL counts as "" */
    uint16_t set;                     /**< catalogue set */
    uint16_t count;                   /**< number of messages */
    const char *const *default_texts; /**< text used where the catalogue has none; a NULL entry counts as "" */
    const uint16_t *catalog_numbers;  /**< message numbers inside the set; NULL: the catalogue is not asked */
} msg_table;

/** The number of texts in an array of a table's default texts, as the record's `count`: at most 65535. */
#define MSG_TABLE_COUNT(texts) ((uint16_t)(sizeof(texts) / sizeof((texts)[0])))

/** Highest descriptor a ks_fd_set holds. The C library's fd_set stops at 1023. */
#define KS_FD_MAX 16384

/** Words of a ks_fd_set: 16384 bits and one spare word, so that descriptor 16384 has room. */
#define KS_FD_SET_WORDS 257

/**
 * A set of descriptors 0 to KS_FD_MAX, laid out as select(2) reads it.
 * Fill it with the ks_fd_ functions below; never with FD_SET, which stops at 1023.
 */
typedef struct ks_fd_set {
    uint64_t words[KS_FD_SET_WORDS];
} ks_fd_set;

/**
 * Empties a descriptor set. A set that was not emptied, nor zeroed where it is defined, holds anything.
 *
 * @param set  not NULL
 * Threads: one at a time for a set; the library keeps no set of a caller's. Raises: no.
 */
static inline void ks_fd_zero(ks_fd_set *set)
{
    for (size_t i = 0; i < KS_FD_SET_WORDS; ++i)
        set->words[i] = 0;
}

/**
 * Adds a descriptor. One that is in the set already stays in it.
 *
 * @param set  not NULL
 * @param fd   0 to KS_FD_MAX; any other number is ignored, so that nothing outside the set is ever written
 * Threads: as ks_fd_zero(). Raises: no.
 */
static inline void ks_fd_add(ks_fd_set *set, int fd)
{
    if (fd >= 0 && fd <= KS_FD_MAX)
        set->words[(unsigned)fd / 64u] |= (uint64_t)1 << ((unsigned)fd % 64u);
}

/**
 * Removes a descriptor. One that is not in the set changes nothing.
 *
 * @param set  not NULL
 * @param fd   0 to KS_FD_MAX; any other number is ignored
 * Threads: as ks_fd_zero(). Raises: no.
 */
static inline void ks_fd_remove(ks_fd_set *set, int fd)
{
    if (fd >= 0 && fd <= KS_FD_MAX)
        set->words[(unsigned)fd / 64u] &= ~((uint64_t)1 << ((unsigned)fd % 64u));
}

/**
 * Tells whether a descriptor is in the set.
 *
 * @param set  not NULL
 * @param fd   any number; one outside 0 to KS_FD_MAX is in no set
 * @return 1 when it is, else 0.
 * Threads: any number may ask while nobody changes the set. Raises: no.
 */
static inline int ks_fd_has(const ks_fd_set *set, int fd)
{
    return fd >= 0 && fd <= KS_FD_MAX && (set->words[(unsigned)fd / 64u] >> ((unsigned)fd % 64u) & 1u) != 0;
}

#ifdef __cplusplus
}
#endif
#endif
