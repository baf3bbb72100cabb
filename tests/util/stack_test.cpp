// Stacks: last in, first out, and the depth that never falls.
#include <korvaks/stack.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include "harness/child.h"

namespace {

char text[8];

class StackKinds : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        area_ = GetParam() ? STG_AREA_HEAP : stg_create_area(1000);
        stack_ = stack_create(area_, 11);
    }
    void TearDown() override
    {
        stack_destroy(&stack_);
        EXPECT_EQ(stack_, nullptr);
        stack_destroy(&stack_);
        if (area_ != STG_AREA_HEAP)
            stg_delete_area(&area_);
    }

    void expect_pop(int status, void *expected_data, size_t expected_len)
    {
        void *data = &stack_;
        size_t len = 99;
        EXPECT_EQ(stack_pop(stack_, &data, &len), status);
        EXPECT_EQ(data, expected_data);
        EXPECT_EQ(len, expected_len);
    }

    stg_area *area_ = STG_AREA_NULL;
    stack_record *stack_ = nullptr;
};

TEST_P(StackKinds, PopsInReverseAndCountsPushesAsDepth)
{
    expect_pop(1, nullptr, 0);
    EXPECT_EQ(stack_push(stack_, &text[0]), 0);
    EXPECT_EQ(stack_varlen_push(stack_, &text[1], 1), 0);
    EXPECT_EQ(stack_varlen_push(stack_, &text[2], SIZE_MAX), 0);
    expect_pop(0, &text[2], SIZE_MAX);
    expect_pop(0, &text[1], 1);
    EXPECT_EQ(stack_depth(stack_), 3u);
    expect_pop(0, &text[0], 11);
    expect_pop(1, nullptr, 0);
    EXPECT_EQ(stack_depth(stack_), 3u);
    EXPECT_EQ(stack_->top, nullptr);
}

// A frame pushed after pops stands on what was left, not on what was popped.
TEST_P(StackKinds, GoesOnAfterPops)
{
    EXPECT_EQ(stack_push(stack_, &text[0]), 0);
    EXPECT_EQ(stack_push(stack_, &text[1]), 0);
    EXPECT_EQ(stack_pop(stack_, nullptr, nullptr), 0);
    EXPECT_EQ(stack_push(stack_, nullptr), 0);
    expect_pop(0, nullptr, 11);
    expect_pop(0, &text[0], 11);
    expect_pop(1, nullptr, 0);
    EXPECT_EQ(stack_depth(stack_), 3u);
}

// Left for the leak checker: frames that were not popped when the stack ends.
TEST_P(StackKinds, EndsWithFramesOnIt)
{
    for (char &c : text)
        EXPECT_EQ(stack_push(stack_, &c), 0);
    expect_pop(0, &text[7], 11);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Every byte of memory used up: the push that fails leaves all that was pushed before. (The
// allocators of sanitizers need more address space than the limit leaves.)
TEST(Stack, PushFailsWhenMemoryIsExhausted)
{
    const test::ChildResult result = test::run_child([] {
        stack_record *stack = stack_create(STG_AREA_HEAP, 0);
        const rlimit limit = {std::size_t{64} << 20, std::size_t{64} << 20};
        if (setrlimit(RLIMIT_AS, &limit) != 0)
            return 1;
        size_t pushed = 0;
        while (stack_varlen_push(stack, text, pushed) == 0)
            ++pushed;
        if (pushed == 0 || stack_depth(stack) != pushed)
            return 2;
        for (size_t len = 0; stack_pop(stack, nullptr, &len) == 0;) {
            if (len != --pushed)
                return 3;
        }
        stack_destroy(&stack);
        return pushed == 0 ? 0 : 4;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.err.find("No more memory available."), std::string::npos);
}
#endif

INSTANTIATE_TEST_SUITE_P(Storage, StackKinds, testing::Bool(),
                         [](const auto &kind) { return kind.param ? "Heap" : "Area"; });

} // namespace
