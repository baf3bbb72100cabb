/**
 * @file stg.h
 * Storage: a heap level that can check itself, and areas (arenas).
 *
 * Heap level. stg_malloc() and its family wrap malloc. While the subsystem "ks/stg" is traced
 * at level 1 or more (TRACE_SUBSYS, TRACE_VERBOSITY) each block carries its size and guard
 * bytes; a release checks the guard, reports what it finds and poisons the block. The choice is
 * made afresh at each call, so tracing of "ks/stg" must not be switched on or off while blocks
 * are outstanding: a block is released in the mode in which it was made.
 *
 * Areas. An area hands out pieces of large chunks by moving a fill position and takes them back
 * all at once. Life cycle: stg_create_area(), any number of stg_alloc(), now and then
 * stg_free_area(), at last stg_delete_area(). Fresh bytes hold 0xFF, or 0 after stg_set_zero().
 *
 * An area has a mutex of its own, so any thread may use any area. The mutex is counted: while
 * a call holds it no raise is delivered. The heap level takes no lock. What either prints is
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
 * Allocates a block of at least `size` bytes (0 counts as 1), aligned to 8 bytes at least.
 * @return the block, freed with stg_free(); NULL on exhaustion (message, errno ENOMEM).
 * Threads: any. Raises: no.
 */
KS_API void *stg_malloc(size_t size);

/** stg_malloc() without the trace when `quiet` is non-zero; exhaustion is still reported. */
KS_API void *stg_malloc_int(size_t size, int quiet);

/**
 * Resizes a block; `ptr` NULL allocates, `size` 0 counts as 1. Bytes gained are not filled.
 * @return the block, perhaps moved; NULL on exhaustion, and then `ptr` is still valid.
 * Threads: any. Raises: no.
 */
KS_API void *stg_realloc(void *ptr, size_t size);

/** stg_realloc() without traces and without the guard report when `quiet` is non-zero. */
KS_API void *stg_realloc_int(void *ptr, size_t size, int quiet);

/** Releases a block of this heap level; NULL is ignored. */
KS_API void stg_free(void *ptr);

/** stg_free() without traces and without the guard report when `quiet` is non-zero. */
KS_API void stg_free_int(void *ptr, int quiet);

/** A heap copy of the string `s` (not NULL), freed with stg_free(); NULL on exhaustion. */
KS_API char *stg_strdup(const char *s);
/**@}*/

/** @name Areas */
/**@{*/

/**
 * Makes an area. No chunk is obtained before the first allocation.
 *
 * @param first_size  bytes wanted for the first chunk, and for later ones until
 *                    stg_set_incr() or stg_set_growth(); capped at 102400.
 * @return the area, ended with stg_delete_area(); STG_AREA_NULL on exhaustion.
 * Threads: any. Raises: no.
 */
KS_API stg_area *stg_create_area(uint64_t first_size);

/**
 * Carves a block out of an area.
 *
 * The block lives until the area is cleared or deleted; it is never freed on its own.
 *
 * @param area  area to draw from. STG_AREA_HEAP stands for stg_malloc(size); STG_AREA_NULL
 *              ends the process.
 * @param size  bytes wanted, rounded up to a multiple of 8. 0 returns the current fill
 *              position without advancing it.
 * @return block aligned to 8 bytes, owned by the area; NULL on exhaustion (area unchanged).
 *
 * Threads: any; the area's own mutex serialises callers.
 * Raises:  no.
 */
KS_API void *stg_alloc(stg_area *area, size_t size);

/** A copy of `s` in the area; NULL for a NULL `s` or on exhaustion. STG_AREA_HEAP as stg_strdup(). */
KS_API char *stg_area_strdup(stg_area *area, const char *s);

/** Sets the factor by which chunks grow; a factor that is not above 1.0 is ignored. */
KS_API void stg_set_growth(stg_area *area, double factor);

/** Sets the bytes wanted for chunks after the first. */
KS_API void stg_set_incr(stg_area *area, uint64_t bytes);

/** Makes chunks obtained from now on zero-filled instead of filled with 0xFF. */
KS_API void stg_set_zero(stg_area *area);

/**
 * Takes back everything an area handed out. Settings stay.
 * @param keep_first  0: every chunk goes back to the heap. Else: the oldest chunk is kept,
 *                    emptied and filled anew.
 */
KS_API void stg_free_area(stg_area *area, int keep_first);

/** Ends an area: chunks, lock and record; stores STG_AREA_NULL in the caller's handle. */
KS_API void stg_delete_area(stg_area **area);

/** Prints an area and its chunks, newest first, as plain output. */
KS_API void stg_dump_area(stg_area *area);

/**
 * Prints every area that the registry holds. Kept exactly: areas register in a way that never
 * marks their slot as taken, so the registry holds none and nothing is printed.
 * Raises: yes (it inhibits and enables).
 */
KS_API void stg_dump(void);

/**
 * The same four operations without traces and without the corruption check; only exhaustion is
 * reported. They serve per-thread storage, which runs before and underneath message output.
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
