// Intrusive lists: order of insertion, links that are cleared, removing twice.
#include "harness/misuse.h"

#include <korvaks/llist.h>

namespace {

struct Item {
    int key;
    char name;
    llist_link link{};
};

int compare_keys(void *owner, void *existing)
{
    return static_cast<Item *>(owner)->key - static_cast<Item *>(existing)->key;
}

// The names on a list, walked forwards; the walk backwards must agree.
std::string names(const llist_link &head)
{
    std::string forward;
    std::string backward;
    for (const llist_link *at = head.next; at != &head; at = at->next)
        forward += static_cast<Item *>(at->owner)->name;
    for (const llist_link *at = head.prev; at != &head; at = at->prev)
        backward.insert(backward.begin(), static_cast<Item *>(at->owner)->name);
    EXPECT_EQ(forward, backward);
    return forward;
}

TEST(Llist, InsertsAtBothEndsAndBeforeAPosition)
{
    llist_link head{};
    Item items[] = {{0, 'a'}, {0, 'b'}, {0, 'c'}, {0, 'd'}, {0, 'e'}};
    llist_d_insert(&head, &items[0], &items[0].link, LLIST_AT_TAIL);
    llist_d_insert(&head, &items[1], &items[1].link, LLIST_AT_TAIL);
    llist_d_insert(&head, &items[2], &items[2].link, LLIST_AT_FRONT);
    EXPECT_EQ(names(head), "cab");
    llist_d_insert_before(&head, &items[3], &items[3].link, &items[1].link);
    llist_d_insert_before(&head, &items[4], &items[4].link, &head);
    EXPECT_EQ(names(head), "cadbe");
    llist_link unset{};
    Item item = {0, 'x'};
    llist_d_insert_before(&unset, &item, &item.link, &unset);
    EXPECT_EQ(names(unset), "x");
}

// A comparison that says 1 passes and one that says 0 does not.
TEST(Llist, ComparisonPutsAnElementBeforeItsEquals)
{
    llist_link head{};
    Item items[] = {{5, 'a'}, {3, 'b'}, {5, 'c'}, {9, 'd'}, {3, 'e'}, {4, 'f'}};
    for (Item &item : items)
        llist_d_insert(&head, &item, &item.link, compare_keys);
    EXPECT_EQ(names(head), "ebfcad");
}

TEST(Llist, RemovedLinksAreCleared)
{
    llist_link head{};
    Item items[] = {{0, 'a'}, {0, 'b'}, {0, 'c'}};
    for (Item &item : items)
        llist_d_insert(&head, &item, &item.link, LLIST_AT_TAIL);
    EXPECT_EQ(llist_d_remove(&items[1].link), &items[1]);
    EXPECT_EQ(names(head), "ac");
    llist_d_remove_list(&head);
    EXPECT_EQ(names(head), "");
    for (const Item &item : items)
        EXPECT_TRUE(item.link.next == nullptr && item.link.prev == nullptr);
    llist_link unset{};
    llist_d_remove_list(&unset);
    EXPECT_EQ(names(unset), "");
}

TEST(Llist, RemovingTwiceEndsTheProcess)
{
    const auto remove_twice = [] {
        llist_link head{};
        Item item = {0, 'a'};
        llist_d_insert(&head, &item, &item.link, LLIST_AT_TAIL);
        (void)llist_d_remove(&item.link);
        (void)llist_d_remove(&item.link);
    };
    test::expect_misuse(
        {{remove_twice, "PFM_ASSERT:(elem->next != NULL && elem->prev != NULL) failed: 'lib/ks/llist':"}});
}

} // namespace
