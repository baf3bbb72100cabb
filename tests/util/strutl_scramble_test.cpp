// The scrambling pair, at every start index: this program's own clock answers the library.
#include <korvaks/strutl.h>

#include <cstring>
#include <ctime>
#include <set>
#include <string>

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

TEST(StrutlScramble, TextsOfOneStringDiffer)
{
    std::set<std::string> texts;
    for (now_for_library = 0; now_for_library < 64; ++now_for_library) {
        char text[32];
        ASSERT_EQ(strutl_extract_head("password", text, sizeof text), 0U);
        for (const char *at = text; *at != '\0'; ++at)
            EXPECT_TRUE(std::isalnum(*at) || std::strchr("+-", *at) != nullptr) << text;
        char back[9];
        EXPECT_EQ(strutl_extract_tail(text, back, sizeof back), 0U);
        EXPECT_STREQ(back, "password");
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 64U);
}

} // namespace
