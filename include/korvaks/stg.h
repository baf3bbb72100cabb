/**
 * @file stg.h
 * Storage: a heap level that can check itself, and areas (arenas).
 *
 * Heap level. stg_malloc() and its family wrap malloc. While the subsystem "ks/stg" is traced
 * at level 1 or more (TRACE_SUBSYS, TRACE_VERBOSITY) each new block carries its size and guard
 * bytes; a release checks the guard, reports what it finds and poisons the block. Every block knows
 * how it was made, so tracing may be switched at any time.
 *
 * Areas. An area hands out pieces of large chunks by moving a fill position and takes them back
 * all at once. Life cycle: stg_create_area(), any number of stg_alloc(), now and then
 * stg_free_area(), at last stg_delete_area(). Fresh bytes hold 0xFF, or 0 after stg_set_zero().
 *
 * An area has a mutex of its own, so any thread may use any area. The mutex is counted: while
 * a call holds it no raise is delivered. An allocation that finds its room at once does without the
 * mutex: one atomic exchange serialises it with the rest. The heap level takes no lock. What either prints is
 * printed with raises held off, so nothing here but stg_dump() is a raise point and no
 * allocation is lost to one.
 *
 * Exhaustion: message "No more memory available.\n", errno ENOMEM, result NULL, nothing changed.
 */
#ifndef KORVAKS_STG_H
#define KORVAKS_STG_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A storage area; its insides are private. */
typedef struct stg_area stg_area;

/** No area. Passing it to an operation that needs one ends the process. */
#define STG_AREA_NULL ((stg_area *)0)

/** Stands for the heap: stg_alloc(STG_AREA_HEAP, n) is stg_malloc(n). No other operation takes it. */
#define STG_AREA_HEAP ((stg_area *)1)

/** @name Heap level */
/**@{*/

/**
 * Allocates a block of at least `size` bytes, aligned to 8 bytes at least. Its bytes are undefined; they hold
 * 0xFF while "ks/stg" is traced.
 *
 * @param size  bytes; 0 counts as 1
 * @return the block, freed with stg_free(); NULL on exhaustion (message "No more memory available.\n", errno
 *         ENOMEM).
 * Threads: any. Raises: no.
 */
KS_API void *stg_malloc(size_t size);

/**
 * stg_malloc() without the trace when `quiet` is not 0; exhaustion is reported all the same. For memory that the
 * message modules themselves work with.
 * @return as stg_malloc().
 * Threads: any. Raises: no.
 */
KS_API void *stg_malloc_int(size_t size, int quiet);

/**
 * Resizes a block, which may move. Bytes gained are not filled. While "ks/stg" is traced the guard of the old
 * block is checked ("guard overwritten" is reported and the work goes on).
 *
 * @param ptr   block of this heap level; NULL allocates
 * @param size  bytes; 0 counts as 1
 * @return the block; NULL on exhaustion (message, errno ENOMEM), and then `ptr` is still valid and as it was.
 * Threads: any, one at a time for one block. Raises: no.
 */
KS_API void *stg_realloc(void *ptr, size_t size);

/** stg_realloc() without traces and without the guard report when `quiet` is not 0. Any thread. Raises: no. */
KS_API void *stg_realloc_int(void *ptr, size_t size, int quiet);

/**
 * Releases a block. While "ks/stg" is traced its guard is checked, and what is wrong reported; a block that was
 * made with a guard is poisoned (0x41EBD5B7DDE00000 repeated) before it is freed.
 *
 * @param ptr  block of this heap level, not used afterwards; NULL is ignored. A pointer from elsewhere is misuse.
 * Threads: any. Raises: no.
 */
KS_API void stg_free(void *ptr);

/** stg_free() without traces and without the guard report when `quiet` is not 0. Any thread. Raises: no. */
KS_API void stg_free_int(void *ptr, int quiet);

/**
 * A copy of a string with its terminator.
 * @param s  not NULL
 * @return the copy, freed with stg_free(); NULL on exhaustion (message, errno ENOMEM).
 * Threads: any. Raises: no.
 */
KS_API char *stg_strdup(const char *s);
/**@}*/

/** @name Areas */
/**@{*/

/**
 * Makes an area. No chunk is obtained before the first allocation.
 *
 * @param first_size  bytes wanted for the first chunk, and for later ones until
 *                    stg_set_incr() or stg_set_growth(); capped at 102400. 0 makes chunks as large
 *                    as the requests that need them.
 * @return the area, ended with stg_delete_area(); STG_AREA_NULL on exhaustion (message, errno ENOMEM).
 * Threads: any. Raises: no.
 */
KS_API stg_area *stg_create_area(uint64_t first_size);

/**
 * Carves a block out of an area.
 *
 * The block lives until the area is cleared or deleted; it is never freed on its own. Its bytes hold the area's
 * fill value: 0xFF, or 0 after stg_set_zero(). While "ks/stg" is traced they are checked to hold it still;
 * what does not is reported and the block given out all the same.
 *
 * @param area  area to draw from. STG_AREA_HEAP stands for stg_malloc(size); STG_AREA_NULL
 *              ends the process.
 * @param size  bytes wanted, rounded up to a multiple of 8. 0 returns the current fill
 *              position without advancing it.
 * @return block aligned to 8 bytes, owned by the area; NULL on exhaustion (message, errno ENOMEM, area
 *         unchanged).
 *
 * Threads: any, several at once. Raises: no.
 */
KS_API void *stg_alloc(stg_area *area, size_t size);

/**
 * A copy of a string in an area, as long-lived as the area's blocks.
 * @param area  as for stg_alloc(); STG_AREA_HEAP makes it stg_strdup()
 * @return the copy; NULL for a NULL `s`, and on exhaustion (message, errno ENOMEM).
 * Threads: any. Raises: no.
 */
KS_API char *stg_area_strdup(stg_area *area, const char *s);

/**
 * Sets the factor by which each chunk is larger than the one before, up to 102400 bytes. A factor that is not
 * above 1.0 is ignored. STG_AREA_NULL and STG_AREA_HEAP end the process, here and below.
 * Threads: any. Raises: no.
 */
KS_API void stg_set_growth(stg_area *area, double factor);

/**
 * Sets the bytes wanted for chunks after the first; with a growth factor, for the second alone. Capped at 102400.
 * Threads: any. Raises: no.
 */
KS_API void stg_set_incr(stg_area *area, uint64_t bytes);

/**
 * Makes chunks obtained from now on zero-filled instead of filled with 0xFF; those that are there stay.
 * Threads: any. Raises: no.
 */
KS_API void stg_set_zero(stg_area *area);

/**
 * Takes back everything an area handed out; its blocks must not be used any more. Settings stay.
 * @param keep_first  0: every chunk goes back to the heap. Else: the oldest chunk is kept,
 *                    emptied and filled anew.
 * Threads: any; none may still use a block. Raises: no.
 */
KS_API void stg_free_area(stg_area *area, int keep_first);

/**
 * Ends an area: chunks, lock and record go back to the heap, and the caller's handle becomes STG_AREA_NULL.
 * A handle that holds STG_AREA_NULL or STG_AREA_HEAP ends the process.
 * Threads: any; no other may use the area or be about to. Raises: no.
 */
KS_API void stg_delete_area(stg_area **area);

/**
 * Prints an area and its chunks, newest first, as plain output: the sizes as obtained, and under "avail" the
 * bytes handed out (kept exactly; readers of dumps know it so).
 * Threads: any. Raises: no.
 */
KS_API void stg_dump_area(stg_area *area);

/**
 * Prints every area that the registry holds. Kept exactly: areas register in a way that never
 * marks their slot as taken, so the registry holds none and nothing is printed.
 * Threads: any. Raises: yes (it inhibits and enables).
 */
KS_API void stg_dump(void);

/**
 * stg_create_area(), stg_alloc(), stg_free_area() and stg_delete_area() without traces and without the corruption
 * check; only exhaustion is reported. They serve per-thread storage, which runs before and underneath message
 * output. Arguments and results are those of the four.
 */
KS_API stg_area *stg_create_area_nr(uint64_t first_size);
KS_API void *stg_alloc_nr(stg_area *area, size_t size);
KS_API void stg_free_area_nr(stg_area *area, int keep_first);
KS_API void stg_delete_area_nr(stg_area **area);
/**@}*/

/** The module's messages, subsystem "ks/stg". */
extern KS_API const msg_table _stg_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
