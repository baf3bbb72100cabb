/**
 * @file list.h
 * Singly linked list of data pointers, each with a fixed number of attribute bytes beside it.
 *
 * Life cycle: list_create(), list_append() and list_insert(), walks with list_next(), at last
 * list_destroy(). The list keeps the caller's pointers and owns nothing they point to.
 *
 * The record and its elements come from one storage area. With STG_AREA_HEAP each is a heap
 * block, given back by list_remove() and list_destroy(); in any other area they live until the
 * area is cleared or deleted.
 *
 * The list has no lock: one that threads share is guarded by its user. Its links are changed with
 * raises held off, so a raise never leaves a half-linked list. A NULL list or element is misuse and
 * ends the process wherever a comment does not give it a meaning.
 */
#ifndef KORVAKS_LIST_H
#define KORVAKS_LIST_H

#include <korvaks/base.h>
#include <korvaks/stg.h>

#ifdef __cplusplus
extern "C" {
#endif

/** An element; `attr_bytes` attribute bytes of its list follow it in memory. */
typedef struct list_element {
    struct list_element *next; /**< NULL in the last element */
    void *data;                /**< the caller's pointer */
} list_element;

/** A list. Its fields may be read; only the functions below change them. */
typedef struct list_record {
    list_element *first; /**< NULL when empty */
    list_element *last;  /**< NULL when empty */
    stg_area *area;      /**< where elements come from */
    uint64_t attr_bytes; /**< attribute bytes of each element */
} list_record;

/**
 * Makes an empty list.
 *
 * @param area        area of the record and the elements, or STG_AREA_HEAP
 * @param attr_bytes  attribute bytes that each element provides, 0 for none
 * @return the list, ended with list_destroy(). Exhaustion prints message 2 and ends the process.
 * Raises: as stg_alloc().
 */
KS_API list_record *list_create(stg_area *area, uint64_t attr_bytes);

/**
 * Ends a list. A heap list is given back with all its elements. A list in an area is left as it
 * is, because the area owns the memory. NULL is ignored.
 * Raises: as stg_free(); a list that a raise interrupts can be destroyed again.
 */
KS_API void list_destroy(list_record *list);

/**
 * Adds an element at the end.
 * @return the element; its attribute bytes hold what the storage held (the fill value of an area).
 *         Exhaustion prints message 2 and ends the process.
 * Raises: yes, before anything is done or when the element is on the list.
 */
KS_API list_element *list_append(list_record *list, void *data);

/** list_append() behind the element `after` of the list; NULL stands for the front. */
KS_API list_element *list_insert(list_record *list, list_element *after, void *data);

/**
 * Takes an element off the list, in time proportional to its place; a heap element is freed.
 * An element that is not on the list ends the process.
 * Raises: yes, before anything is done or when the element is off the list.
 */
KS_API void list_remove(list_record *list, list_element *element);

/**
 * Steps through a list.
 *
 *     void *data;
 *     for (list_element *e = list_next(list, NULL, &data); e != NULL; e = list_next(list, e, &data))
 *
 * @param element   where to go on; NULL starts at the first element
 * @param out_data  receives the data pointer of the element returned, NULL at the end; may be NULL
 * @return the element after `element`; NULL at the end and on an empty list.
 */
KS_API list_element *list_next(const list_record *list, const list_element *element, void **out_data);

/** The last element and, unless `out_data` is NULL, its data pointer; NULL and NULL on an empty list. */
KS_API list_element *list_final(const list_record *list, void **out_data);

/**
 * Appends a copy of every element of `src` to `dest`: its data pointer, and as many attribute
 * bytes as both lists provide. The copies come from the area of `dest`. `src` may be `dest`
 * itself, whose elements are then doubled. Exhaustion prints message 2 and ends the process.
 * Raises: yes, between elements; each copy is whole.
 */
KS_API void list_concat(list_record *dest, const list_record *src);

/**
 * Stores the first `nbytes` attribute bytes of an element; those behind stay as they are. More
 * than the list provides prints message 1 and ends the process.
 * Raises: no.
 */
KS_API void list_set_attrs(const list_record *list, list_element *element, uint64_t nbytes, const void *bytes);

/**
 * An element's attribute bytes, writable in place, and their number (unless `out_nbytes` is NULL).
 * They are aligned to 8 bytes and live as long as the element.
 */
KS_API void *list_get_attrs(const list_record *list, list_element *element, uint64_t *out_nbytes);

/** Replaces an element's data pointer. */
KS_API void list_set_data(const list_record *list, list_element *element, void *data);

/** An element's data pointer. */
KS_API void *list_get_data(const list_record *list, const list_element *element);

/** Number of elements, counted by a walk; 0 for NULL. */
KS_API size_t list_length(const list_record *list);

/** 1 when the list has no element or is NULL, else 0. */
KS_API int list_is_empty(const list_record *list);

/** The module's messages, subsystem "ks/list". */
extern KS_API const msg_table _list_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
