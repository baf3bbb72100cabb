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
 * @param area        area of the record and of all elements; STG_AREA_HEAP makes heap blocks of them. The
 *                    area must live as long as the list. STG_AREA_NULL ends the process.
 * @param attr_bytes  attribute bytes that each element provides behind its data pointer, 0 for none
 * @return the list, ended with list_destroy(); never NULL. Exhaustion prints "Unable to allocate storage"
 *         and ends the process.
 *
 * Threads: any.
 * Raises:  only in printing that message.
 */
KS_API list_record *list_create(stg_area *area, uint64_t attr_bytes);

/**
 * Ends a list. A heap list is given back with all its elements; what their data pointers name stays with
 * the caller. A list in an area is left as it is, because the area owns the memory: it may even be used
 * until the area is cleared or deleted.
 *
 * @param list  the list; NULL is ignored
 *
 * Threads: the list's user; nobody else may use a heap list any more.
 * Raises:  no.
 */
KS_API void list_destroy(list_record *list);

/**
 * Adds an element at the end, in constant time.
 *
 * @param list  the list; NULL ends the process (assertion "list != NULL")
 * @param data  the pointer to keep, of any value
 * @return the element, which lives until it is removed (on the heap) or with its area. Its attribute bytes
 *         hold what the memory held, in an area the fill value (0xFF, or 0): set them with
 *         list_set_attrs(). Exhaustion prints "Unable to allocate storage" and ends the process.
 *
 * Threads: the list's user.
 * Raises:  yes, before anything is done or when the element is on the list; never in between.
 */
KS_API list_element *list_append(list_record *list, void *data);

/**
 * Adds an element at any place, in constant time.
 *
 * @param list   the list; NULL ends the process (assertion "list != NULL")
 * @param after  element of this list behind which the new one goes; NULL stands for the front. It is not
 *               looked for, so one of another list would join the two.
 * @param data   the pointer to keep, of any value
 * @return the element, as of list_append(). Exhaustion prints "Unable to allocate storage" and ends the
 *         process.
 *
 * Threads: the list's user.
 * Raises:  yes, before anything is done or when the element is on the list; never in between.
 */
KS_API list_element *list_insert(list_record *list, list_element *after, void *data);

/**
 * Takes an element off the list, in time proportional to its place. A heap element is freed; the data
 * pointer's target is not touched. A walk goes on from the element before, or takes the next one first:
 *
 *     list_element *next = list_next(list, element, NULL);
 *     list_remove(list, element);
 *
 * @param list     the list; NULL ends the process (assertion "list != NULL")
 * @param element  an element of this list; NULL, or one that is not on it, ends the process (assertion
 *                 "elem != NULL")
 *
 * Threads: the list's user.
 * Raises:  yes, before anything is done or when the element is off the list; never in between.
 */
KS_API void list_remove(list_record *list, list_element *element);

/**
 * Steps through a list.
 *
 *     void *data;
 *     for (list_element *e = list_next(list, NULL, &data); e != NULL; e = list_next(list, e, &data))
 *
 * @param list      the list; NULL ends the process (assertion "list != NULL")
 * @param element   where to go on, an element that is on the list now; NULL starts at the first
 * @param out_data  receives the data pointer of the element returned, NULL at the end; may be NULL
 * @return the element after `element`; NULL at the end and on an empty list. Elements appended meanwhile
 *         are met.
 *
 * Threads: the list's user; several may walk at once while nobody changes the list.
 * Raises:  no.
 */
KS_API list_element *list_next(const list_record *list, const list_element *element, void **out_data);

/**
 * Gives the last element, in constant time.
 *
 * @param list      the list; NULL ends the process (assertion "list != NULL")
 * @param out_data  receives the data pointer of that element, NULL when the list is empty; may be NULL
 * @return the element; NULL on an empty list.
 *
 * Threads: the list's user.
 * Raises:  no.
 */
KS_API list_element *list_final(const list_record *list, void **out_data);

/**
 * Appends a copy of every element of a list to another, in the same order: its data pointer, and as many
 * attribute bytes as both lists provide; what `dest` has beyond them is as in a new element. The source is
 * not changed, and its data are then named by both lists.
 *
 * @param dest  list that grows; the copies come from its area
 * @param src   list to be copied; `dest` itself is doubled. NULL for either ends the process.
 *
 * Exhaustion prints "Unable to allocate storage" and ends the process.
 *
 * Threads: the user of both lists.
 * Raises:  yes, between elements; each copy that is on the list is whole, with its attribute bytes.
 */
KS_API void list_concat(list_record *dest, const list_record *src);

/**
 * Stores the first attribute bytes of an element; those behind them stay as they are.
 *
 * @param list     the list of the element, which says how many bytes there are
 * @param element  the element; NULL for it or for the list ends the process
 * @param nbytes   bytes to be stored. More than the list provides prints "Attempt to store %d attribute
 *                 bytes in list providing %d bytes." and ends the process.
 * @param bytes    where they come from; may be NULL when `nbytes` is 0
 *
 * Threads: the list's user.
 * Raises:  only in printing that message.
 */
KS_API void list_set_attrs(const list_record *list, list_element *element, uint64_t nbytes, const void *bytes);

/**
 * Gives an element's attribute bytes, which may be read and written in place.
 *
 * @param list        the list of the element
 * @param element     the element; NULL for it or for the list ends the process
 * @param out_nbytes  receives the number of bytes, the same for every element of the list; may be NULL
 * @return the bytes, aligned to 8, which live as long as the element; never NULL, also when there are none.
 *
 * Threads: the list's user.
 * Raises:  no.
 */
KS_API void *list_get_attrs(const list_record *list, list_element *element, uint64_t *out_nbytes);

/** Replaces an element's data pointer; the old one's target is not touched. NULL for list or element ends the
 *  process. Raises: no. */
KS_API void list_set_data(const list_record *list, list_element *element, void *data);

/** An element's data pointer. NULL for list or element ends the process. Raises: no. */
KS_API void *list_get_data(const list_record *list, const list_element *element);

/** Number of elements, counted by a walk through all of them; 0 for NULL. Raises: no. */
KS_API size_t list_length(const list_record *list);

/** 1 when the list has no element or is NULL, else 0, in constant time. Raises: no. */
KS_API int list_is_empty(const list_record *list);

/** The module's messages, subsystem "ks/list". */
extern KS_API const msg_table _list_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
