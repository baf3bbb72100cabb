// The scrambling pair, at every start index: this program's own clock answers the library.
#include <korvaks/strutl.h>

#include <cstring>
#include <ctime>
#include <random>
#include <set>
#include <string>
#include <vector>

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

size_t scrambled_length(size_t size)
{
    return size == 0 ? 0 : (size * 8 + 5) / 6 + 1;
}

TEST(StrutlScramble, EveryLengthAndStartComesBack)
{
    std::mt19937 random(3);
    for (size_t size = 0; size <= 70; ++size) {
        for (time_t start = 0; start < 64; ++start) {
            now_for_library = start + 64 * static_cast<time_t>(random() % 1000);
            std::string src(size, '\0');
            for (char &c : src)
                c = static_cast<char>(random() % 255 + 1);
            std::vector<char> text(scrambled_length(size) + 1);
            std::vector<char> back(size + 1);
            ASSERT_EQ(strutl_extract_head(src.c_str(), text.data(), text.size()), 0U);
            ASSERT_EQ(std::strlen(text.data()), scrambled_length(size));
            ASSERT_EQ(strutl_extract_tail(text.data(), back.data(), back.size()), 0U);
            ASSERT_EQ(std::string(back.data()), src) << "size " << size << " start " << start;
        }
    }
}

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
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 64U);
}

} // namespace
