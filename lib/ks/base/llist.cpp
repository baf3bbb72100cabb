// Intrusive, circular, doubly linked list.
#include <korvaks/llist.h>

#include "base/ks_base.h"

#include <cstddef>
#include <type_traits>

static_assert(std::is_standard_layout_v<llist_link> && std::is_trivially_copyable_v<llist_link>);
static_assert(offsetof(llist_link, next) == 0 && offsetof(llist_link, prev) == 8);
static_assert(offsetof(llist_link, owner) == 16 && sizeof(llist_link) == 24);

namespace {

constexpr ks::AssertPath here{"lib/ks/llist"};

void link_before(llist_link *position, llist_link *link)
{
    link->next = position;
    link->prev = position->prev;
    position->prev->next = link;
    position->prev = link;
}

void make_empty_if_unset(llist_link *head)
{
    if (head->next == nullptr && head->prev == nullptr) {
        head->next = head;
        head->prev = head;
    }
}

// The first element that `owner` may stand in front of; the head when there is none.
llist_link *find_place(llist_link *head, void *owner, llist_compare_fn compare)
{
    llist_link *place = head->next;
    while (place != head && compare(owner, place->owner) >= 1)
        place = place->next;
    return place;
}

} // namespace

extern "C" {

void llist_d_insert(llist_link *head, void *owner, llist_link *link, llist_compare_fn where)
{
    make_empty_if_unset(head);
    link->owner = owner;
    if (where == LLIST_AT_TAIL)
        link_before(head, link);
    else if (where == LLIST_AT_FRONT)
        link_before(head->next, link);
    else
        link_before(find_place(head, owner, where), link);
}

void llist_d_insert_before(llist_link *head, void *owner, llist_link *link, llist_link *position)
{
    make_empty_if_unset(head);
    link->owner = owner;
    link_before(position, link);
}

void *llist_d_remove(llist_link *link)
{
    here.require(link->next != nullptr && link->prev != nullptr, "elem->next != NULL && elem->prev != NULL");
    link->prev->next = link->next;
    link->next->prev = link->prev;
    void *owner = link->owner;
    *link = {};
    return owner;
}

void llist_d_remove_list(llist_link *head)
{
    make_empty_if_unset(head);
    while (head->next != head)
        (void)llist_d_remove(head->next); // the owners keep themselves
}
}
