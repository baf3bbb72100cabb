// Stack of (pointer, length) pairs: every push appends a frame to a list, and `top` names the
// element of the frame that is popped next.
#include <korvaks/stack.h>

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "util/list_impl.h"

#include <type_traits>

static_assert(std::is_standard_layout_v<stack_record> && std::is_trivially_copyable_v<stack_record>);
static_assert(offsetof(stack_record, area) == 0 && offsetof(stack_record, frames) == 8);
static_assert(offsetof(stack_record, top) == 16 && offsetof(stack_record, default_len) == 24);
static_assert(sizeof(stack_record) == 32);
static_assert(std::is_standard_layout_v<stack_frame> && std::is_trivially_copyable_v<stack_frame>);
static_assert(offsetof(stack_frame, previous) == 0 && offsetof(stack_frame, length) == 8);
static_assert(offsetof(stack_frame, data) == 16 && sizeof(stack_frame) == 24);

namespace {

constexpr ks::AssertPath here{"lib/ks/stack"};

// Record and list are one block: no raise can come between their allocations.
struct StackBlock {
    stack_record stack;
    list_record frames;
};

stack_frame *top_frame(const stack_record &stack)
{
    return static_cast<stack_frame *>(stack.top->data);
}

void free_frame(const stack_record &stack, stack_frame *frame)
{
    if (stack.area == STG_AREA_HEAP)
        stg_free(frame);
}

void free_heap_stack(stack_record &stack)
{
    while (stack.top != nullptr)
        (void)stack_pop(&stack, nullptr, nullptr);
    ks::list::free_elements(stack.frames);
    stg_free(&stack);
}

template <typename Value> void store(Value *out, Value value)
{
    if (out != nullptr)
        *out = value;
}

} // namespace

extern "C" {

stack_record *stack_create(stg_area *area, std::size_t default_len)
{
    auto *block = static_cast<StackBlock *>(stg_alloc(area, sizeof(StackBlock)));
    if (block == nullptr)
        return nullptr;
    ks::list::init(&block->frames, area, 0);
    block->stack = {area, &block->frames, nullptr, default_len};
    return &block->stack;
}

void stack_destroy(stack_record **stack)
{
    here.require(stack != nullptr, "stack != NULL");
    if (*stack == nullptr)
        return;
    const ks::InhibitGuard no_raise;
    if ((*stack)->area == STG_AREA_HEAP)
        free_heap_stack(**stack);
    *stack = nullptr;
}

int stack_varlen_push(stack_record *stack, void *data, std::size_t len)
{
    here.require(stack != nullptr, "stack != NULL");
    const ks::InhibitGuard no_raise;
    auto *frame = static_cast<stack_frame *>(stg_alloc(stack->area, sizeof(stack_frame)));
    if (frame == nullptr)
        return 1;
    *frame = {stack->top, len, data};
    list_element *element = ks::list::try_insert(stack->frames, stack->frames->last, frame);
    if (element == nullptr) {
        free_frame(*stack, frame);
        return 1;
    }
    stack->top = element;
    return 0;
}

int stack_push(stack_record *stack, void *data)
{
    here.require(stack != nullptr, "stack != NULL");
    return stack_varlen_push(stack, data, stack->default_len);
}

int stack_pop(stack_record *stack, void **out_data, std::size_t *out_len)
{
    here.require(stack != nullptr, "stack != NULL");
    if (stack->top == nullptr) {
        store<void *>(out_data, nullptr);
        store<std::size_t>(out_len, 0);
        return 1;
    }
    stack_frame *const frame = top_frame(*stack);
    const stack_frame popped = *frame;
    // Kept exactly: the list element stays, for stack_depth() counts pushes.
    free_frame(*stack, frame);
    stack->top = popped.previous;
    store(out_data, popped.data);
    store(out_len, popped.length);
    return 0;
}

std::size_t stack_depth(const stack_record *stack)
{
    here.require(stack != nullptr, "stack != NULL");
    return list_length(stack->frames);
}
}
