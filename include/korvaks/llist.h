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
 * @param owner  structure that contains `link`; it is handed to comparisons and given back by
 *               llist_d_remove(). The list does not look into it.
 * @param link   the link, which is on no list: what it holds is overwritten
 * @param where  LLIST_AT_TAIL or LLIST_AT_FRONT, in constant time; or a comparison, which is called as
 *               where(owner, existing_owner) from the first element on. Elements for which it returns 1 or
 *               more are passed; the link goes before the first for which it returns less, so before its
 *               equals, or at the tail. It must not change the list.
 *
 * No pointer may be NULL but the owner, which only comparisons and the caller use.
 *
 * Threads: whoever holds the list's lock; signal handlers as far as that allows.
 * Raises:  no, unless the comparison does, and then the link is not on the list.
 */
KS_API void llist_d_insert(llist_link *head, void *owner, llist_link *link, llist_compare_fn where);

/**
 * Puts a link on a list straight before another, in constant time.
 *
 * @param head      the list; a zero-initialised head is made an empty list first
 * @param owner     structure that contains `link`, given back by llist_d_remove()
 * @param link      the link, which is on no list: what it holds is overwritten
 * @param position  a link that is on this list, or the head itself, which stands for the tail
 *
 * Threads: whoever holds the list's lock.
 * Raises:  no.
 */
KS_API void llist_d_insert_before(llist_link *head, void *owner, llist_link *link, llist_link *position);

/**
 * Takes a link off its list and clears it, in constant time; the list need not be named. The structure
 * stays with its owner and may go on a list again.
 *
 * @param link  a link that is on a list. One that is on none (zero-initialised, or removed before) ends the
 *              process with the assertion "elem->next != NULL && elem->prev != NULL".
 * @return the owner that the link was inserted with.
 *
 * Threads: whoever holds the list's lock.
 * Raises:  no.
 */
KS_API void *llist_d_remove(llist_link *link);

/**
 * Takes every element off a list, first to last; each link is cleared, and the head is left an empty list.
 * The structures stay with their owners.
 *
 * @param head  the list; a zero-initialised head becomes an empty list
 *
 * Threads: whoever holds the list's lock.
 * Raises:  no.
 */
KS_API void llist_d_remove_list(llist_link *head);

#ifdef __cplusplus
}
#endif
#endif
