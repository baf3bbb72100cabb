// A program may have functions of its own whose names the library exports too. The library goes
// on calling its own.
#include <dlfcn.h>

#include <korvaks/list.h>
#include <korvaks/llist.h>
#include <korvaks/stack.h>
#include <korvaks/stg.h>

#include "harness/child.h"

namespace {

int intrusions = 0; // calls of the functions below

} // namespace

extern "C" {

size_t list_length(const list_record *)
{
    ++intrusions;
    return 99;
}

void *llist_d_remove(llist_link *)
{
    ++intrusions;
    return nullptr;
}
}

namespace {

// A stack is made of a list; areas and threads are on intrusive lists.
TEST(OwnNames, TheLibraryCallsItsOwn)
{
    // The program's functions come first, so a library that looked them up by name would get them.
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "list_length"), reinterpret_cast<void *>(&list_length));
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "llist_d_remove"), reinterpret_cast<void *>(&llist_d_remove));
    test::in_child([] {
        stg_area *area = stg_create_area(1000);
        stack_record *stack = stack_create(area, sizeof(int));
        int number = 1;
        EXPECT_EQ(stack_push(stack, &number), 0);
        EXPECT_EQ(stack_push(stack, &number), 0);
        EXPECT_EQ(stack_depth(stack), 2u);
        stack_destroy(&stack);
        stg_delete_area(&area);
        EXPECT_EQ(intrusions, 0);
    });
}

} // namespace
