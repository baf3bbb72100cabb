// The scrambling pair, by a clock of the test's own: this program's own clock answers the library.
#include <korvaks/strutl.h>

#include <ctime>

#include <gtest/gtest.h>

namespace {

time_t now_for_library = 0;

} // namespace

// Takes the place of the C library's for every library of this process.
extern "C" time_t time(time_t *out) noexcept
{
    if (out != nullptr)
        *out = now_for_library;
    return now_for_library;
}

namespace {

// What was stored by an earlier version stays readable.
TEST(StrutlScramble, StoredTextStaysReadable)
{
    const struct {
        time_t now;
        const char *src;
        const char *text;
    } cases[] = {
        {0, "a", "NKX"},
        {63, "ab", "h2Us"},
        {1700000000, "abc", "NVFm5"},
        {1700000001, "Secret pass-word \xC3\xA9", "De1otHgS-zmUQBYLMBSAcCoq4WH"},
    };
    for (const auto &c : cases) {
        now_for_library = c.now;
        char text[64];
        ASSERT_EQ(strutl_extract_head(c.src, text, sizeof text), 0U);
        EXPECT_STREQ(text, c.text);
        char back[64];
        ASSERT_EQ(strutl_extract_tail(c.text, back, sizeof back), 0U);
        EXPECT_STREQ(back, c.src);
    }
}

} // namespace
