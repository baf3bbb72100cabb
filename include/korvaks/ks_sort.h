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
 * Sorts an array in place, in ascending order of compare(a, b, ctx).
 *
 * Elements that compare equal end up in any order (the sort is not stable). 2 or 3 elements are sorted by
 * insertion with at most 3 comparisons, more by ks_quick_sort().
 *
 * @param base     first element; needs no alignment beyond what the comparison asks for, and may be NULL
 *                 when there is no element
 * @param count    elements; fewer than 2 make no comparison
 * @param size     bytes of an element; 0 does nothing
 * @param compare  called with pointers into the array. It may read every element and must change none.
 * @param ctx      handed to every call of the comparison
 *
 * Nothing is allocated, so nothing can fail.
 *
 * Threads: any, one array at a time.
 * Raises:  only if the comparison does; the array then holds the elements it was given, in some order.
 */
KS_API void ks_qsort(void *base, size_t count, size_t size, ks_compare_fn compare, void *ctx);

/**
 * The quicksort by which ks_qsort() sorts more than 3 elements; of fewer it makes the same order. It is
 * exported for callers who name the method; others call ks_qsort().
 *
 * @param base, count, size, compare, ctx  as for ks_qsort()
 *
 * Its worst case is O(n log n) comparisons and at most 24 KiB of stack, whatever the comparison answers.
 *
 * Threads: any, one array at a time.
 * Raises:  only if the comparison does; the array then holds the elements it was given, in some order.
 */
KS_API void ks_quick_sort(void *base, size_t count, size_t size, ks_compare_fn compare, void *ctx);

#ifdef __cplusplus
}
#endif
#endif
