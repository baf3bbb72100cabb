// Storage, lists and stacks under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/list.h>
#include <korvaks/stack.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstring>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";
constexpr const char *list_panic = "Unable to allocate storage\nnoname: Error: ***ABORT***  'lib/ks/list':#\n";

// Whether something was refused as every operation of the heap and area level promises.
bool is_exhaustion(const Trial &trial, int error)
{
    return trial.failed(Call::allocation) && error == ENOMEM && has_said(no_memory);
}

TEST(FaultStorage, HeapLevel)
{
    char *block = nullptr;
    char *copy = nullptr;
    char *grown = nullptr;
    int errors[3];
    Operation("stg_malloc, stg_realloc, stg_strdup, stg_free")
        .setup([&] { block = stg_strdup("kept"); })
        .act([&] {
            copy = stg_strdup("copy");
            errors[0] = std::exchange(errno, 0);
            grown = static_cast<char *>(stg_realloc(block, 100000));
            errors[1] = std::exchange(errno, 0);
            void *fresh = stg_malloc(0);
            errors[2] = fresh == nullptr ? errno : 0;
            stg_free(fresh);
        })
        .gives([&](const Trial &trial) {
            const bool is_right = (copy != nullptr || is_exhaustion(trial, errors[0])) &&
                                  (grown != nullptr || is_exhaustion(trial, errors[1])) &&
                                  (errors[2] == 0 || is_exhaustion(trial, errors[2]));
            return is_right && std::strcmp(grown != nullptr ? grown : block, "kept") == 0;
        })
        .cleanup([&] {
            stg_free(copy);
            stg_free(grown != nullptr ? grown : block);
        })
        .sweep()
        .sweep_first_use();
}

TEST(FaultStorage, Areas)
{
    stg_area *area = STG_AREA_NULL;
    Operation("stg_create_area, stg_free_area, stg_delete_area")
        .act([&] {
            area = stg_create_area(1000);
            if (area == STG_AREA_NULL)
                return false;
            (void)stg_alloc(area, 100);
            stg_free_area(area, 1);
            stg_delete_area(&area);
            return true;
        })
        .gives([&] { return area == STG_AREA_NULL; })
        .keeps([](const Trial &trial) { return trial.error == ENOMEM; })
        .sweep()
        .sweep_first_use();
    void *pieces[8];
    int refused = 0;
    int error = 0;
    Operation("stg_alloc")
        .setup([&] {
            refused = 0;
            area = stg_create_area(1000);
            stg_set_growth(area, 2.0);
            (void)stg_area_strdup(area, "before");
        })
        .act([&] {
            for (void *&piece : pieces) {
                errno = 0;
                piece = stg_alloc(area, 600);
                refused += piece == nullptr ? 1 : 0;
                error = piece == nullptr ? errno : error;
            }
        })
        .gives([&](const Trial &trial) {
            for (void *piece : pieces) {
                if (piece != nullptr)
                    std::memset(piece, 0x5A, 600); // it is the caller's, all of it
            }
            // One failure refuses no more than one request.
            return refused == 0 || (is_exhaustion(trial, error) && (trial.plan.goes_on || refused == 1));
        })
        .cleanup([&] { stg_delete_area(&area); })
        .sweep()
        .sweep_first_use();
    Operation("stg_dump")
        .setup([&] { area = stg_create_area(100); })
        .act([] { stg_dump(); })
        .cleanup([&] { stg_delete_area(&area); })
        .sweep_raises();
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

// On two lists, of one and of two elements.
Operation on_lists(const char *name)
{
    return Operation(name)
        .setup([] {
            list = list_create(STG_AREA_HEAP, 4);
            other = list_create(STG_AREA_HEAP, 4);
            element = list_append(list, &first_datum);
            (void)list_append(other, &second_datum);
            (void)list_append(other, &second_datum);
        })
        .cleanup([] {
            list_destroy(list);
            list_destroy(other);
        });
}

TEST(FaultList, AllOperations)
{
    Operation("list_create")
        .act([] { list = list_create(STG_AREA_HEAP, 0); })
        .cleanup([] { list_destroy(list); })
        .ends({{Call::allocation, list_panic}})
        .sweep()
        .sweep_first_use();
    on_lists("list_append, list_insert, list_concat")
        .act([] {
            (void)list_append(list, &first_datum);
            (void)list_insert(list, nullptr, &second_datum);
            list_concat(list, other);
        })
        .check([](const Trial &trial) {
            const char *wrong = check_list(list, trial.raised != 0 ? 1 : 5, 5);
            return wrong != nullptr ? wrong : check_list(other, 2, 2);
        })
        .ends({{Call::allocation, list_panic}})
        .sweep()
        .sweep_raises();
    on_lists("list_remove")
        .act([] { list_remove(list, element); })
        .check([](const Trial &trial) { return check_list(list, 0, trial.raised != 0 ? 1 : 0); })
        .sweep_raises();
}

// --- Stacks ---

TEST(FaultStack, AllOperations)
{
    static stack_record *stack;
    static int pushed;
    const auto destroy = [] { stack_destroy(&stack); };
    Operation("stack_push, stack_pop")
        .setup([] {
            stack = stack_create(STG_AREA_HEAP, 3);
            (void)stack_push(stack, &first_datum);
            pushed = 0;
        })
        .act([] {
            for (int i = 0; i < 3; ++i)
                pushed += stack_varlen_push(stack, &second_datum, 7) == 0 ? 1 : 0;
            return pushed == 3;
        })
        .check([](const Trial &trial) -> const char * {
            void *data = nullptr;
            size_t length = 0;
            int popped = 0;
            while (stack_pop(stack, &data, &length) == 0 && data == &second_datum && length == 7)
                ++popped;
            if (popped < pushed || (trial.raised == 0 && popped != pushed))
                return "what was pushed does not come back";
            return data == &first_datum && length == 3 ? nullptr : "the pair before is gone";
        })
        .cleanup(destroy)
        .notices()
        .says(no_memory)
        .sweep()
        .sweep_raises();
    Operation("stack_create")
        .act([] { return (stack = stack_create(STG_AREA_HEAP, 0)) != nullptr; })
        .cleanup(destroy)
        .sets_errno()
        .says(no_memory)
        .sweep();
}

} // namespace
