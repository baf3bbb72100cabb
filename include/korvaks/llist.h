/**
 * @file llist.h
 * Intrusive, circular, doubly linked list with a sentinel head.
 *
 * The link is a field of the caller's structure, so inserting allocates nothing and unlinking
 * takes constant time. A head is a link of its own: it is empty when both pointers name the
 * head itself, and a zero-initialised head becomes an empty list on its first insertion.
 *
 * No call allocates, prints or locks; a list shared between threads is guarded by its user.
 * None is a raise point. Safe wherever the caller's own lock makes it so.
 */
#ifndef KORVAKS_LLIST_H
#define KORVAKS_LLIST_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A link: the head of a list, or the field by which a structure sits on one. */
typedef struct llist_link {
    struct llist_link *next;
    struct llist_link *prev;
    void *owner; /**< the structure that contains the link */
} llist_link;

/**
 * Decides a place in a sorted list: called with the new owner and one already on the list,
 * first to last. The walk passes every element for which it returns 1 or more.
 */
typedef int (*llist_compare_fn)(void *owner, void *existing_owner);

/** `where` of llist_d_insert(): append at the tail. */
#define LLIST_AT_TAIL ((llist_compare_fn)0)
/** `where` of llist_d_insert(): insert at the front. */
#define LLIST_AT_FRONT ((llist_compare_fn)1)

/**
 * Puts a link on a list.
 *
 * @param head   the list; a zero-initialised head is made an empty list first
 * @param owner  structure that contains `link`, given back by llist_d_remove()
 * @param link   the link, not on any list
 * @param where  LLIST_AT_TAIL, LLIST_AT_FRONT, or a comparison: the link goes before the first
 *               element for which it returns less than 1 (so before its equals), else at the tail
 */
KS_API void llist_d_insert(llist_link *head, void *owner, llist_link *link, llist_compare_fn where);

/** Puts a link on a list straight before `position`; `position` may be the head (tail of the list). */
KS_API void llist_d_insert_before(llist_link *head, void *owner, llist_link *link, llist_link *position);

/**
 * Takes a link off its list and clears it.
 * @return the link's owner. A link that is on no list ends the process with the assertion
 *         "elem->next != NULL && elem->prev != NULL".
 */
KS_API void *llist_d_remove(llist_link *link);

/** Takes every element off a list; each link is cleared, the head is left an empty list. */
KS_API void llist_d_remove_list(llist_link *head);

#ifdef __cplusplus
}
#endif
#endif
