// Searching, copying, changing and comparing strings, in the C locale and in UTF-8.
#include <korvaks/strutl.h>

#include "harness/child.h"
#include "harness/locale.h"

#include <cstring>

namespace {

constexpr size_t none = static_cast<size_t>(-1);

TEST(StrutlFind, RangesEndBeforeTheirEnd)
{
    size_t pos = none;
    EXPECT_EQ(strutl_find_str_range("xabcx", 1, 4, "abc", &pos), 0U);
    EXPECT_EQ(pos, 1U);
    EXPECT_EQ(strutl_find_str_range("xabcx", 1, 3, "abc", &pos), 1U);
    EXPECT_EQ(strutl_find_str_range("xabcx", 2, 99, "abc", &pos), 1U);
    EXPECT_EQ(strutl_find_str_range("xabcx", 2, 99, "cx", &pos), 0U);
    EXPECT_EQ(pos, 3U);
    EXPECT_EQ(strutl_find_str_range("xabcx", 3, 2, "", &pos), 1U);
}

TEST(StrutlFind, ClosingDelimiters)
{
    const struct {
        const char *str;
        size_t start;
        char open;
        char close;
        size_t pos;
    } cases[] = {
        {"f(a(b)c)d", 1, '(', ')', 7}, {"f(a(b)c)d", 3, '(', ')', 5}, {"f(a(b)c", 1, '(', ')', none},
        {"()", 0, '(', ')', 1},        {"x()", 0, '(', ')', none},    {"'a'b'", 0, '\'', '\'', 2},
        {"(", 0, '(', ')', none},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.str);
        size_t pos = none;
        EXPECT_EQ(strutl_find_end_delim(c.str, c.start, c.open, c.close, &pos), c.pos == none ? 1U : 0U);
        EXPECT_EQ(pos, c.pos);
    }
}

TEST(StrutlCopy, CountedCopiesReadNoFurther)
{
    const char unterminated[3] = {'a', 'b', 'c'};
    char dst[16];
    EXPECT_EQ(strutl_ncpy_buf(dst, unterminated, 3, sizeof dst), 0U);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(strutl_ncpy_buf(dst, unterminated, 3, 3), 1U);
    EXPECT_STREQ(dst, "ab");
    {
        const test::ScopedLocale locale("C.UTF-8"); // what stands behind the bound changes nothing
        EXPECT_EQ(strutl_ncpy_buf(dst, "a\xE2\x82\xAC", 3, 3), 1U);
        EXPECT_STREQ(dst, "a\xE2");
    }
    EXPECT_EQ(strutl_ncpy(dst, "abc", 2), 1U);
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(strutl_ncpy(dst, "abc", 3), 0U);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(strutl_ccpy_buf(dst, "key=value", '=', sizeof dst), 0U);
    EXPECT_STREQ(dst, "key");
    EXPECT_EQ(strutl_ccpy_buf(dst, "key=value", '=', 3), 1U);
    EXPECT_STREQ(dst, "ke");
    EXPECT_EQ(strutl_ccpy_buf(dst, "plain", '=', sizeof dst), 0U);
    EXPECT_STREQ(dst, "plain");
}

TEST(StrutlCopy, PrependAndAdvance)
{
    char buf[8] = "def";
    EXPECT_EQ(strutl_prepend(buf, 6, "abc"), 1U);
    EXPECT_STREQ(buf, "def");
    EXPECT_EQ(strutl_prepend(buf, 7, "abc"), 0U);
    EXPECT_STREQ(buf, "abcdef");
    char *at = buf;
    size_t left = sizeof buf;
    EXPECT_EQ(strutl_cpy_and_advance(&at, &left, "abc"), 0U);
    EXPECT_EQ(strutl_cpy_and_advance(&at, &left, "defg"), 0U);
    EXPECT_EQ(left, 1U);
    EXPECT_EQ(strutl_cpy_and_advance(&at, &left, ""), 0U);
    EXPECT_EQ(strutl_cpy_and_advance(&at, &left, "h"), 1U);
    EXPECT_STREQ(buf, "abcdefg");
}

TEST(StrutlConcat, JoinsCutsAndKeepsItself)
{
    char buf[8] = "abc";
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 3, buf, "-", "def"), 0U);
    EXPECT_STREQ(buf, "abc-def");
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 2, buf, "!"), 1U);
    EXPECT_STREQ(buf, "abc-def");
    EXPECT_EQ(strutl_concat(buf, 3, 2, "abcd", "e"), 1U);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(strutl_concat(buf, sizeof buf, 0), 0U);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(strutl_concat(buf, 0, 1, "x"), 1U);
}

#define TEN "1", "2", "3", "4", "5", "6", "7", "8", "9", "0"

TEST(StrutlConcat, NewStringsFromAtMostThirtyTwo)
{
    char *joined = strutl_concat_heap(32, TEN, TEN, TEN, "x", "y");
    ASSERT_NE(joined, nullptr);
    EXPECT_STREQ(joined, "123456789012345678901234567890xy");
    stg_free(joined);
    EXPECT_EQ(strutl_concat_heap(33, TEN, TEN, TEN, "x", "y", "z"), nullptr);
    stg_area *area = stg_create_area(100);
    EXPECT_STREQ(strutl_concat_area(area, 0), "");
    EXPECT_STREQ(strutl_concat_area(area, 2, "a", "b"), "ab");
    stg_delete_area(&area);
}

TEST(StrutlEdit, StripsBothEnds)
{
    const test::ScopedLocale locale("C.UTF-8");
    const struct {
        const char *str;
        const char *stripped;
    } cases[] = {
        {" \t a b \n", "a b"}, {"", ""}, {"   ", ""}, {"ab", "ab"}, {"\xE3\x80\x80x\xE3\x80\x80", "x"},
    };
    for (const auto &c : cases) {
        std::string str = c.str;
        EXPECT_STREQ(strutl_strip_whitespace(str.data()), c.stripped);
    }
}

TEST(StrutlEdit, SlidesTheTail)
{
    char buf[16] = "abcdef";
    strutl_slide_tail(buf, 3, 2);
    EXPECT_EQ(std::string(buf), "abcdedef");
    strutl_slide_tail(buf, 5, -2);
    EXPECT_STREQ(buf, "abcdef");
    strutl_slide_tail(buf, 6, -6);
    EXPECT_STREQ(buf, "");
}

TEST(StrutlEdit, ReplacesWhenItFits)
{
    const test::ChildResult child = test::run_child([] {
        char buf[10] = "abcdef";
        EXPECT_EQ(strutl_replace_substr(buf, 1, 8, 2, "xyz"), 0U);
        EXPECT_EQ(strutl_replace_substr(buf, 7, 8, 0, "!"), 1U);
        EXPECT_STREQ(buf, "axyzdef");
        size_t next = 0;
        EXPECT_EQ(strutl_find_replace_substr(buf, 2, 8, "z", "", &next), 0U);
        EXPECT_STREQ(buf, "axydef");
        EXPECT_EQ(strutl_find_replace_substr(buf, 2, 8, "a", "b", &next), 1U);
        EXPECT_EQ(strutl_find_replace_substr(buf, 0, 8, "", "b", &next), 1U);
        EXPECT_EQ(next, 3U);
    });
    EXPECT_EQ(child.err, "noname: Error: Supplied buffer too small.\n");
}

TEST(StrutlEditDeathTest, MisuseEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char buf[8] = "abc";
    EXPECT_DEATH(strutl_slide_tail(buf, 1, -2), "pos \\+ delta >= 0.*lib/ks/strutl");
    EXPECT_DEATH(strutl_replace_substr(buf, 2, sizeof buf, 2, ""), "pos \\+ old_len <= strlen.*lib/ks/strutl");
}

TEST(StrutlEdit, TranslatesSeparatorsInPlace)
{
    char buf[8] = "a\\b/c";
    int changed = 9;
    EXPECT_EQ(strutl_xlate_pname_sep(buf, "\\/", ':', buf, sizeof buf, &changed), 0U);
    EXPECT_STREQ(buf, "a:b:c");
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(strutl_xlate_pname_sep("abc", "/", ':', buf, 4, &changed), 0U);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(strutl_xlate_pname_sep("a/cd", "/", ':', buf, 4, &changed), 1U);
    EXPECT_STREQ(buf, "a:c");
}

TEST(StrutlEdit, TranslatesCharactersToStrings)
{
    const test::ScopedLocale locale("C.UTF-8");
    const char *replacements[] = {"&amp;", "e", ""};
    char dst[32];
    const size_t length = strutl_xlate_chars_to_strings(dst, "a&caf\xC3\xA9<", "&\xC3\xA9<", replacements);
    EXPECT_STREQ(dst, "a&amp;cafe");
    EXPECT_EQ(length, 10U);
    EXPECT_EQ(strutl_xlate_chars_to_strings(nullptr, "&&", "&", replacements), 10U);
}

TEST(StrutlCompare, WhiteSpaceDoesNotCount)
{
    const test::ScopedLocale locale("C.UTF-8");
    const struct {
        const char *a;
        const char *b;
        unsigned differs;
    } cases[] = {
        {"a b", " a \t\n b ", 0},
        {"a b", "ab", 1},
        {"ab", "a", 1},
        {"a ", "a b", 1},
        {"a\xE3\x80\x80"
         "b",
         "a b", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.a) + "|" + c.b);
        EXPECT_EQ(strutl_cmp_ignore_whitespace(c.a, c.b), c.differs);
        EXPECT_EQ(strutl_cmp_ignore_whitespace(c.b, c.a), c.differs);
    }
}

TEST(StrutlCompare, CollationIgnoresCase)
{
    for (const char *name : {"C", "C.UTF-8"}) {
        const test::ScopedLocale locale(name);
        EXPECT_EQ(strutl_stricoll("Read", "rEAD"), 0);
        EXPECT_LT(strutl_stricoll("Apple", "banana"), 0);
        EXPECT_GT(strutl_stricoll("b", "A"), 0);
        const std::string long_text(3000, 'A');
        EXPECT_EQ(strutl_stricoll(long_text.c_str(), std::string(3000, 'a').c_str()), 0);
    }
    const test::ScopedLocale locale("C.UTF-8");
    EXPECT_EQ(strutl_stricoll("\xC3\x89", "\xC3\xA9"), 0);
}

TEST(StrutlName, Acceptable)
{
    const test::ScopedLocale locale("C.UTF-8");
    const struct {
        const char *name;
        const char *bad_first;
        const char *extra_ok;
        unsigned ok;
    } cases[] = {
        {nullptr, nullptr, nullptr, 0},
        {"name1", nullptr, nullptr, 1},
        {"a.b", nullptr, ".", 1},
        {".a", ".", ".", 0},
        {"a b", nullptr, " ", 1},
        {"caf\xC3\xA9", nullptr, nullptr, 1},
        {"\xC3\xA9x", "\xC3\xA9", nullptr, 0},
        {"\xC3\xA8x", "\xC3\xA9", nullptr, 1},
        {"a\xC3", nullptr, "\xC3", 0},
        {"a\x7F", nullptr, nullptr, 0},
        {"a\xE3\x80\x80", nullptr, nullptr, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name == nullptr ? "NULL" : c.name);
        EXPECT_EQ(strutl_is_ok_name(c.name, c.bad_first, c.extra_ok), c.ok);
    }
}

TEST(StrutlCharacter, LengthsAndClasses)
{
    const test::ScopedLocale locale("C.UTF-8");
    EXPECT_EQ(strutl_mblen("\xC3\xA9", 2), 2);
    EXPECT_EQ(strutl_mblen("\xC3\xA9", 1), 1);
    EXPECT_EQ(strutl_mblen("", 1), 0);
    EXPECT_EQ(strutl_mblen("a", 0), 0);
    EXPECT_EQ(strutl_mb_strlen("a\xC3\xA9\xC3z"), 4U);
    EXPECT_EQ(strutl_get_sys_char_type(), 2U);
    wchar_t code = 0;
    EXPECT_EQ(strutl_mb_char_from_str("\xC3\xA9", &code), 2U);
    EXPECT_EQ(code, 0xE9);
    EXPECT_EQ(strutl_mb_char_from_str("\xA9", &code), 1U);
    EXPECT_EQ(code, 0xA9);
    size_t length = 9;
    EXPECT_EQ(strutl_test_char("\xC3\xA9", 2, STRUTL_ALPHA | STRUTL_LOWER, &length), 1U);
    EXPECT_EQ(length, 2U);
    EXPECT_EQ(strutl_test_char("\xC3\xA9", 2, STRUTL_ALPHA | STRUTL_UPPER, &length), 0U);
    EXPECT_EQ(strutl_test_char("\xC3", 1, STRUTL_ALPHA, &length), 0U);
    EXPECT_EQ(length, 1U);
    EXPECT_EQ(strutl_test_char("", 1, 0, &length), 0U);
    EXPECT_EQ(length, 0U);
    const test::ScopedLocale c_locale("C");
    EXPECT_EQ(strutl_get_sys_char_type(), 1U);
    EXPECT_EQ(strutl_mb_strlen("\xC3\xA9"), 2U);
}

// Every class bit is the class of its name, for every ASCII character.
TEST(StrutlCharacter, ClassBits)
{
    int (*const of_ctype[])(int) = {isalpha, isupper, islower, isdigit, isxdigit,
                                    isalnum, isspace, ispunct, isprint, isgraph};
    for (const char *name : {"C", "C.UTF-8"}) {
        const test::ScopedLocale locale(name);
        for (int c = 1; c < 128; ++c) {
            const char text[2] = {static_cast<char>(c), '\0'};
            for (unsigned bit = 0; bit < 10; ++bit) {
                ASSERT_EQ(strutl_test_char(text, 1, 1U << bit, nullptr), of_ctype[bit](c) != 0 ? 1U : 0U)
                    << name << " character " << c << " bit " << bit;
            }
        }
    }
}

TEST(StrutlCase, StringsThatFitAndThatDoNot)
{
    const test::ScopedLocale locale("C.UTF-8");
    char out[16];
    EXPECT_EQ(strutl_cvt_case_string("Caf\xC3\xA9 1", 1, sizeof out, out), 1U);
    EXPECT_STREQ(out, "CAF\xC3\x89 1");
    EXPECT_EQ(strutl_cvt_case_string("CAF\xC3\x89\xFF", 0, sizeof out, out), 1U);
    EXPECT_STREQ(out, "caf\xC3\xA9\xFF");
    EXPECT_EQ(strutl_cvt_case_string("CAF\xC3\x89", 0, 5, out), 0U);
    EXPECT_STREQ(out, "caf");
    EXPECT_EQ(strutl_cvt_case_string("abc", 1, 4, out), 1U);
    EXPECT_EQ(strutl_cvt_case_string("abc", 1, 1, out), 0U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(strutl_cvt_case_string("", 1, 1, out), 1U);
    EXPECT_EQ(strutl_cvt_case_string("", 1, 0, out), 0U);
    // Lower case may be longer: U+023A has two bytes, U+2C65 three.
    EXPECT_EQ(strutl_cvt_case_string("\xC8\xBA", 0, 4, out), 1U);
    EXPECT_STREQ(out, "\xE2\xB1\xA5");
}

} // namespace
