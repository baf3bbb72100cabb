// Stacks: last in, first out, and the depth that never falls.
#include <korvaks/stack.h>

#include <gtest/gtest.h>

namespace {

char text[8];

void expect_pop(stack_record *stack, int status, void *expected_data, std::size_t expected_len)
{
    void *data = &stack;
    std::size_t len = 99;
    EXPECT_EQ(stack_pop(stack, &data, &len), status);
    EXPECT_EQ(data, expected_data);
    EXPECT_EQ(len, expected_len);
}

TEST(Stack, PopsInReverseAndCountsPushesAsDepth)
{
    for (stg_area *area : {STG_AREA_HEAP, stg_create_area(1000)}) {
        stack_record *stack = stack_create(area, 11);
        expect_pop(stack, 1, nullptr, 0);
        EXPECT_EQ(stack_push(stack, &text[0]), 0);
        EXPECT_EQ(stack_varlen_push(stack, &text[1], 1), 0);
        EXPECT_EQ(stack_varlen_push(stack, &text[2], SIZE_MAX), 0);
        expect_pop(stack, 0, &text[2], SIZE_MAX);
        EXPECT_EQ(stack_pop(stack, nullptr, nullptr), 0);
        // A frame pushed after pops stands on what was left, not on what was popped.
        EXPECT_EQ(stack_push(stack, nullptr), 0);
        expect_pop(stack, 0, nullptr, 11);
        expect_pop(stack, 0, &text[0], 11);
        expect_pop(stack, 1, nullptr, 0);
        EXPECT_EQ(stack_depth(stack), 4u);
        for (char &c : text) // left for the leak checker
            EXPECT_EQ(stack_push(stack, &c), 0);
        stack_destroy(&stack);
        EXPECT_EQ(stack, nullptr);
        stack_destroy(&stack);
        if (area != STG_AREA_HEAP)
            stg_delete_area(&area);
    }
}

} // namespace
