// Storage, lists and stacks under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/list.h>
#include <korvaks/llist.h>
#include <korvaks/stack.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";
constexpr const char *list_panic = "Unable to allocate storage\nnoname: Error: ***ABORT***  'lib/ks/list':#\n";

// What every operation of the heap and area level promises of exhaustion.
const char *check_block(const Trial &trial, const void *block, int error)
{
    if (block != nullptr)
        return nullptr;
    if (!trial.failed(Call::allocation))
        return "refused without a cause";
    if (error != ENOMEM)
        return "errno is not ENOMEM";
    return has_said(no_memory) ? nullptr : "the exhaustion is not reported";
}

// --- Heap level ---

char *block = nullptr;
char *copy = nullptr;
char *grown = nullptr;
int error_of_copy = 0;
int error_of_growth = 0;
int error_of_block = 0;

const Scenario heap_level{
    .name = "stg_malloc, stg_realloc, stg_strdup, stg_free",
    .setup =
        [] {
            block = static_cast<char *>(stg_malloc(8));
            std::strcpy(block, "kept");
        },
    .act =
        [] {
            errno = 0;
            copy = stg_strdup("copy");
            error_of_copy = errno;
            errno = 0;
            grown = static_cast<char *>(stg_realloc(block, 100000));
            error_of_growth = errno;
            errno = 0;
            void *fresh = stg_malloc(0);
            error_of_block = fresh == nullptr ? errno : 0;
            stg_free(fresh);
        },
    .check = [](const Trial &trial) -> const char * {
        if (const char *wrong = check_block(trial, copy, error_of_copy))
            return wrong;
        if (const char *wrong = check_block(trial, grown, error_of_growth))
            return wrong;
        if (error_of_block != 0 && error_of_block != ENOMEM)
            return "errno is not ENOMEM";
        return std::strcmp(grown != nullptr ? grown : block, "kept") == 0 ? nullptr : "the old block is not as it was";
    },
    .cleanup =
        [] {
            stg_free(copy);
            stg_free(grown != nullptr ? grown : block);
        },
};

TEST(FaultStorage, HeapLevel)
{
    test::fault::sweep(heap_level);
    Scenario first = heap_level;
    first.ends = test::fault::ends_of_start();
    test::fault::sweep_first_use(first);
}

// --- Areas ---

stg_area *area = STG_AREA_NULL;
stg_area *made = STG_AREA_NULL;
void *pieces[8];
int error_of_area = 0;
int error_of_piece = 0;
int refused_pieces = 0;

void use_area(stg_area *where)
{
    for (auto &piece : pieces) {
        errno = 0;
        piece = stg_alloc(where, 600);
        if (piece == nullptr) {
            error_of_piece = errno;
            ++refused_pieces;
        }
    }
}

const Scenario area_level{
    .name = "stg_create_area, stg_alloc, stg_free_area, stg_delete_area",
    .setup =
        [] {
            made = STG_AREA_NULL;
            refused_pieces = 0;
            area = stg_create_area(1000);
            stg_set_growth(area, 2.0);
            (void)stg_area_strdup(area, "before");
        },
    .act =
        [] {
            errno = 0;
            made = stg_create_area(1000);
            error_of_area = errno;
            if (made != STG_AREA_NULL) {
                (void)stg_alloc(made, 100);
                stg_free_area(made, 1);
                stg_delete_area(&made);
            }
            use_area(area);
        },
    .check = [](const Trial &trial) -> const char * {
        if (error_of_area != 0 && error_of_area != ENOMEM)
            return "no area, and errno is not ENOMEM";
        if (made != STG_AREA_NULL)
            return "the handle is not reset";
        if (refused_pieces == 0)
            return nullptr;
        if (const char *wrong = check_block(trial, nullptr, error_of_piece))
            return wrong;
        if (!trial.plan.goes_on && refused_pieces != 1)
            return "one failure refuses more than one request";
        for (void *piece : pieces) {
            if (piece != nullptr)
                std::memset(piece, 0x5A, 600); // it is the caller's, all of it
        }
        return nullptr;
    },
    .cleanup = [] { stg_delete_area(&area); },
};

TEST(FaultStorage, Areas)
{
    test::fault::sweep(area_level);
    Scenario first = area_level;
    first.ends = test::fault::ends_of_start();
    test::fault::sweep_first_use(first);
    test::fault::sweep_raises({.name = "stg_dump",
                               .setup = [] { area = stg_create_area(100); },
                               .act = [] { stg_dump(); },
                               .cleanup = [] { stg_delete_area(&area); }});
}

// --- Lists ---

list_record *list = nullptr;
list_record *other = nullptr;
list_element *element = nullptr;
int first_datum = 1;
int second_datum = 2;

// Links and length agree, whatever was interrupted.
const char *check_list(const list_record *checked, std::size_t least, std::size_t most)
{
    std::size_t length = 0;
    const list_element *final = nullptr;
    for (const list_element *at = checked->first; at != nullptr; at = at->next) {
        final = at;
        if (at->data != &first_datum && at->data != &second_datum)
            return "an element without its data";
        ++length;
    }
    if (final != checked->last)
        return "the last element is not the last";
    return length >= least && length <= most ? nullptr : "the list is too short or too long";
}

void set_up_list()
{
    list = list_create(STG_AREA_HEAP, 4);
    other = list_create(STG_AREA_HEAP, 4);
    element = list_append(list, &first_datum);
    (void)list_append(other, &second_datum);
    (void)list_append(other, &second_datum);
}

void clean_up_list()
{
    list_destroy(list);
    list_destroy(other);
}

TEST(FaultList, CreationAndInsertion)
{
    test::fault::sweep({.name = "list_create",
                        .act = [] { list = list_create(STG_AREA_HEAP, 0); },
                        .cleanup = [] { list_destroy(list); },
                        .ends = {{Call::allocation, list_panic}}});
    test::fault::sweep_first_use({.name = "list_create",
                                  .act = [] { list = list_create(STG_AREA_HEAP, 0); },
                                  .cleanup = [] { list_destroy(list); },
                                  .ends = test::fault::ends_of_start({{Call::allocation, list_panic}})});
    const Scenario insertion{
        .name = "list_append, list_insert, list_concat",
        .setup = set_up_list,
        .act =
            [] {
                (void)list_append(list, &first_datum);
                (void)list_insert(list, nullptr, &second_datum);
                list_concat(list, other);
            },
        .check = [](const Trial &trial) -> const char * {
            if (const char *wrong = check_list(list, trial.raised != 0 ? 1 : 5, 5))
                return wrong;
            return check_list(other, 2, 2);
        },
        .cleanup = clean_up_list,
        .ends = {{Call::allocation, list_panic}},
    };
    test::fault::sweep(insertion);
    Scenario raised = insertion;
    raised.ends.clear();
    test::fault::sweep_raises(raised);
}

TEST(FaultList, RemovalAndEnd)
{
    test::fault::sweep_raises(
        {.name = "list_remove",
         .setup = set_up_list,
         .act = [] { list_remove(list, element); },
         .check = [](const Trial &trial) { return check_list(list, 0, trial.raised != 0 ? 1 : 0); },
         .cleanup = clean_up_list});
}

// --- Stacks ---

stack_record *stack = nullptr;
int pushed = 0;

const Scenario stack_use{
    .name = "stack_push, stack_pop",
    .setup =
        [] {
            stack = stack_create(STG_AREA_HEAP, 3);
            (void)stack_push(stack, &first_datum);
            pushed = 0;
        },
    .act =
        [] {
            for (int i = 0; i < 3; ++i)
                pushed += stack_varlen_push(stack, &second_datum, 7) == 0 ? 1 : 0;
        },
    .check = [](const Trial &trial) -> const char * {
        if (!trial.fired && pushed != 3)
            return "refused without a cause";
        if (trial.failed(Call::allocation) && (!has_said(no_memory) || pushed == 3))
            return "exhaustion goes unseen";
        void *data = nullptr;
        size_t length = 0;
        int popped = 0;
        while (stack_pop(stack, &data, &length) == 0 && data == &second_datum && length == 7)
            ++popped;
        if (popped < pushed || (trial.raised == 0 && popped != pushed))
            return "what was pushed does not come back";
        return data == &first_datum && length == 3 ? nullptr : "the pair before is gone";
    },
    .cleanup = [] { stack_destroy(&stack); },
};

TEST(FaultStack, PushAndPop)
{
    test::fault::sweep(stack_use);
    test::fault::sweep_raises(stack_use);
    test::fault::sweep({.name = "stack_create",
                        .act = [] { stack = stack_create(STG_AREA_HEAP, 0); },
                        .check = [](const Trial &trial) { return check_block(trial, stack, errno); },
                        .cleanup = [] { stack_destroy(&stack); }});
    test::fault::sweep_raises({.name = "stack_destroy",
                               .setup =
                                   [] {
                                       stack = stack_create(STG_AREA_HEAP, 0);
                                       (void)stack_push(stack, &first_datum);
                                   },
                               .act = [] { stack_destroy(&stack); },
                               .cleanup = [] { stack_destroy(&stack); }});
}

} // namespace
