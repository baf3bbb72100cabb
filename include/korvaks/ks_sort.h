/**
 * @file ks_sort.h
 * Sorts an array in place by a comparison with a context argument.
 *
 * A quicksort around the median of the first, middle and last element. It makes about
 * 1.2 n log2(n) comparisons of n elements in random order; n of an array that is sorted, reversed
 * or all equal; little more of one that begins with a long sorted stretch or has few different
 * values. The worst case is O(n log n) too: a range whose splits keep going wrong, whatever the
 * comparison answers, is finished by a heap sort. Calls nest no deeper than a small multiple of
 * log2(n), with at most 24 KiB of stack.
 *
 * The sort allocates nothing and takes no lock. The comparison may leave by a raise: at every call
 * of it the array holds exactly the elements it was given, in some order. It must be consistent; one
 * that is not gives some order of the same elements, and never a read or write outside the array.
 */
#ifndef KORVAKS_KS_SORT_H
#define KORVAKS_KS_SORT_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Compares two elements: negative, zero or positive as `a` stands before, with or after `b`. */
typedef int (*ks_compare_fn)(const void *a, const void *b, void *ctx);

/**
 * Sorts `count` elements of `size` bytes in ascending order of compare(a, b, ctx).
 *
 * Elements that compare equal end up in any order (the sort is not stable). Fewer than 2 elements
 * make no comparison; 2 or 3 are sorted by insertion, more by ks_quick_sort(). The array needs no
 * alignment beyond what the comparison asks for. A `size` of 0 does nothing.
 *
 * Threads: any, one array at a time. Raises: only if the comparison does.
 */
KS_API void ks_qsort(void *base, size_t count, size_t size, ks_compare_fn compare, void *ctx);

/** The quicksort that ks_qsort() uses for more than 3 elements; it sorts fewer as well. */
KS_API void ks_quick_sort(void *base, size_t count, size_t size, ks_compare_fn compare, void *ctx);

#ifdef __cplusplus
}
#endif
#endif
