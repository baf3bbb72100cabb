// Text measured and cut for display, in a single-byte locale and in UTF-8.
#include "harness/child.h"

#include <korvaks/imsg.h>

#include <clocale>
#include <cstdlib>

namespace {

// "e" acute: 2 bytes, 1 column; "kanji": 3 bytes, 2 columns; "acute": combining, 2 bytes, 0 columns.
#define E_ACUTE "\xc3\xa9"
#define KANJI "\xe6\xbc\xa2"
#define COMBINING "\xcc\x81"

class ImsgWidth : public testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr); }
    void TearDown() override { setlocale(LC_ALL, "C"); }
};

TEST_F(ImsgWidth, ColumnsAndCharacters)
{
    struct Case {
        const char *text;
        size_t columns, characters;
    };
    const Case cases[] = {{"", 0, 0},     {"abc", 3, 3},           {E_ACUTE "x", 2, 2},
                          {KANJI, 2, 1},  {"e" COMBINING, 1, 2},   {"\xc3", 1, 1},
                          {"a\tb", 3, 3}, {KANJI KANJI "z", 5, 3}, {"\xff\xfe", 2, 2}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(imsg_strwidth(c.text), c.columns);
        EXPECT_EQ(imsg_charcount(c.text), c.characters);
    }
    EXPECT_EQ(imsg_disp_width(KANJI, 3), 2);
    EXPECT_EQ(imsg_disp_width(KANJI, 2), 2); // cut: as many columns as bytes
    EXPECT_EQ(imsg_disp_width("\xff", 1), 1);
    EXPECT_EQ(imsg_disp_width("", 5), 0);
    EXPECT_EQ(imsg_disp_width("a", 0), 0);
}

TEST_F(ImsgWidth, TruncateKeepsCharactersWhole)
{
    struct Case {
        const char *text;
        size_t max_bytes;
        const char *expected;
        int was_cut;
    };
    const Case cases[] = {{"abc", 3, "abc", 0},   {"abc", 2, "ab", 1},          {"abc", 0, "", 1},
                          {"", 0, "", 0},         {E_ACUTE "x", 1, "", 1},      {E_ACUTE "x", 2, E_ACUTE, 1},
                          {"a" KANJI, 3, "a", 1}, {"a" KANJI, 4, "a" KANJI, 0}, {"abc", SIZE_MAX, "abc", 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " " << c.max_bytes);
        std::string text = c.text;
        EXPECT_EQ(imsg_truncate(text.data(), c.max_bytes), c.was_cut);
        EXPECT_STREQ(text.c_str(), c.expected);
    }
}

TEST_F(ImsgWidth, MakeWidthPadsAndCuts)
{
    struct Case {
        const char *text;
        int width;
        const char *start_kept, *end_kept;
    };
    const Case cases[] = {{"abc", 5, "abc  ", "  abc"},
                          {"abc", 3, "abc", "abc"},
                          {"abcde", 3, "abc", "cde"},
                          {"abc", 0, "", ""},
                          {"abc", -1, "", ""},
                          {"", 2, "  ", "  "},
                          {KANJI KANJI, 3, KANJI " ", " " KANJI}, // a wide character is not halved
                          {"e" COMBINING "x", 1, "e" COMBINING, "x"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " " << c.width);
        char out[32];
        EXPECT_EQ(imsg_make_width(out, sizeof out, c.text, c.width, 0), 1);
        EXPECT_STREQ(out, c.start_kept);
        EXPECT_EQ(imsg_make_width(out, sizeof out, c.text, c.width, 1), 1);
        EXPECT_STREQ(out, c.end_kept);
    }
    char small[4] = "###";
    EXPECT_EQ(imsg_make_width(small, 3, KANJI, 2, 0), 0); // needs 4 bytes
    EXPECT_STREQ(small, "");
    EXPECT_EQ(imsg_make_width(small, 4, KANJI, 2, 0), 1);
    EXPECT_EQ(imsg_make_width(small, 4, "ab", 4, 0), 0);
    EXPECT_STREQ(small, "ab");
}

TEST_F(ImsgWidth, DetabifyExpandsToStops)
{
    struct Case {
        int tab_size, start_col;
        const char *text;
        int max_cols;
        size_t out_size;
        const char *expected;
        int cols;
        size_t bytes;
        int is_whole;
    };
    const Case cases[] = {
        {8, 0, "a\tb", -1, 64, "a       b", 9, 3, 1},
        {8, 7, "a\tb", -1, 64, "a        b", 10, 3, 1}, // the line starts in column 7
        {8, 0, "ab\ncd", -1, 64, "ab\n", 2, 3, 1},      // stops at the line feed
        {8, 0, "\n", 0, 64, "\n", 0, 1, 1},             // which takes no column
        {8, 0, "abcdef", 3, 64, "abc", 3, 3, 0},
        {8, 0, "a\tb", 7, 64, "a", 1, 1, 0}, // a tab is taken whole or not at all
        {8, 0, "a\tb", 8, 64, "a       ", 8, 2, 0},
        {8, 0, "a\tb", -1, 9, "a       ", 8, 2, 0},            // the output is full
        {8, 0, KANJI "\tx", -1, 64, KANJI "      x", 9, 5, 1}, // columns, not bytes
        {8, 0, KANJI KANJI, 3, 64, KANJI, 2, 3, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << "|" << c.max_cols << "|" << c.out_size);
        char out[64];
        int cols = -1;
        size_t bytes = 99;
        EXPECT_EQ(imsg_detabify_general(c.tab_size, c.start_col, c.text, c.max_cols, c.out_size, out, &cols, &bytes),
                  c.is_whole);
        EXPECT_STREQ(out, c.expected);
        EXPECT_EQ(cols, c.cols);
        EXPECT_EQ(bytes, c.bytes);
    }
    int cols = 0;
    EXPECT_EQ(imsg_detabify_general(8, 0, "a\tb\tc", -1, 0, nullptr, &cols, nullptr), 1); // only measured
    EXPECT_EQ(cols, 17);
    char one = '#';
    EXPECT_EQ(imsg_detabify_general(8, 0, "a", -1, 0, &one, nullptr, nullptr), 0);
    EXPECT_EQ(one, '#');
}

TEST(ImsgTabSize, ComesFromTheEnvironmentOnce)
{
    for (const auto &[value, expected] :
         {std::pair{"4", 4}, {"0", 8}, {"x", 8}, {"-3", 8}, {"2147483647", 2147483647}}) {
        SCOPED_TRACE(value);
        test::in_child([value = value, expected = expected] {
            for (const char *now : {value, "3"}) {
                setenv("VELLUM_TAB_SIZE", now, 1);
                int cols = 0;
                imsg_detabify(0, "\t", -1, 0, nullptr, &cols, nullptr);
                EXPECT_EQ(cols, expected);
            }
        });
    }
}

TEST(ImsgSingleByte, BytesAreCharacters)
{
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(imsg_strwidth(KANJI), 3U);
    EXPECT_EQ(imsg_charcount(KANJI), 3U);
    char out[8];
    EXPECT_EQ(imsg_make_width(out, sizeof out, KANJI, 2, 0), 1);
    EXPECT_STREQ(out, "\xe6\xbc");
    char text[] = KANJI;
    EXPECT_EQ(imsg_truncate(text, 1), 1);
    EXPECT_STREQ(text, "\xe6");
}

} // namespace
