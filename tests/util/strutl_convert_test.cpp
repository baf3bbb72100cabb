// Escapes, UTF conversions and wide strings.
#include <korvaks/strutl.h>

#include "harness/child.h"
#include "harness/locale.h"

#include <cerrno>
#include <cstring>
#include <cwchar>

namespace {

using namespace std::string_literals;

constexpr const char *bad = nullptr;

TEST(StrutlEscape, Literals)
{
    const struct {
        const char *src;
        int quoted;
        const char *out;
    } cases[] = {
        {"\"plain\"", 1, "plain"},
        {R"(\"\'\?\\)", 0, "\"'?\\"},
        {R"(\a\b\f\n\r\t\v)", 0, "\a\b\f\n\r\t\v"},
        {R"(\x41\x4g)", 0, "A\4g"},
        {R"(\101\60\7)", 0, "A0\7"},
        {R"("a""b")", 1, "a\"b"},
        {R"(a"b)", 0, "a\"b"},
        {"caf\xC3\xA9\\n", 0, "caf\xC3\xA9\n"},
        {bad, 0, bad},
        {"\"abc", 1, bad},
        {R"("a""")", 1, "a\""},
        {R"("a"""")", 1, bad},
        {R"(\x)", 0, bad},
        {R"(\q)", 0, bad},
        {R"(\400)", 0, bad},
    };
    const test::ScopedLocale locale("C.UTF-8");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.src == nullptr ? "NULL" : c.src);
        char *out = nullptr;
        EXPECT_EQ(strutl_cstr_to_str(c.src, c.quoted, &out), c.out == bad ? 1U : 0U);
        EXPECT_STREQ(out, c.out);
        stg_free(out);
    }
}

TEST(StrutlEscape, NulByteAtOnce)
{
    char *out = nullptr;
    ASSERT_EQ(strutl_cstr_to_str(R"(a\012)", 0, &out), 0U);
    EXPECT_EQ(std::string(out, 5), "a\0"
                                   "12\0"s);
    stg_free(out);
}

// That no buffer is overrun, and that what was read comes back, is the fuzz target's to say.
TEST(StrutlUtf, EightToSixteen)
{
    const struct {
        std::string bytes;
        long out_units;
        unsigned result;
        std::wstring units;
        size_t used;
    } cases[] = {
        {"a", 2, 0, L"a", 1},
        {"a", 1, 3, L"", 0},
        {"\xF0\x9F\x98\x80", 3, 0, L"\xD83D\xDE00", 4},
        {"\xF0\x9F\x98\x80", 2, 3, L"", 0},
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", 9, 0, L"\x7F\x80\x7FF\x800\xFFFF", 11},
        {"\xF4\x8F\xBF\xBF", 3, 0, L"\xDBFF\xDFFF", 4},
        {"\xF4\x90\x80\x80z", 9, 0, L"\xFFFDz", 5},
        {"a\xE2\x82", 9, 1, L"a", 1},
        {"\xFC\x84\x80\x80\x80\x80z", 9, 0, L"\xFFFDz", 7},
        {"\xFC\x84\x80", 9, 1, L"", 0},
        {"\x80", 9, 0, L"\x80", 1},
        {"\xC0\x41", 9, 0, L"\xFFFD", 2},
    };
    for (const auto &c : cases) {
        wchar_t out[10] = L"";
        size_t used = 99;
        const auto *bytes = reinterpret_cast<const unsigned char *>(c.bytes.data());
        EXPECT_EQ(strutl_utf8to16(out, bytes, static_cast<long>(c.bytes.size()), c.out_units, &used), c.result);
        EXPECT_EQ(out, c.units) << testing::PrintToString(c.bytes);
        EXPECT_EQ(used, c.used);
    }
}

TEST(StrutlUtf, SixteenToEight)
{
    const struct {
        std::wstring units;
        long out_size;
        unsigned result;
        std::string bytes;
    } cases[] = {
        {L"a\xE9\x20AC", 6, 3, "a\xC3\xA9"},
        {L"\xD83D\xDE00", 5, 0, "\xF0\x9F\x98\x80"},
        {L"\xD83D\xDE00", 4, 3, ""},
        {L"\xD83D", 9, 0, "\xED\xA0\xBD"},
        {L"\xDE00\xD83D", 9, 0, "\xED\xB8\x80\xED\xA0\xBD"},
        {L"\x7F\x80\x7FF\x800\xFFFF", 99, 0, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {L"\x10000", 9, 0, "\xF0\x90\x80\x80"},
        {L"\x1FFFFF", 9, 0, "\xF7\xBF\xBF\xBF"},
        {L"\x200000z", 9, 0, "\xEF\xBF\xBDz"},
    };
    for (const auto &c : cases) {
        char out[100] = "";
        EXPECT_EQ(strutl_utf16to8(out, c.units.data(), static_cast<long>(c.units.size()), c.out_size), c.result);
        EXPECT_EQ(out, c.bytes);
    }
    EXPECT_EQ(strutl_utf16to8(nullptr, nullptr, 0, 0), 3U);
}

TEST(StrutlSjis, ToEuc)
{
    const unsigned char cases[][4] = {
        {0x83, 0x5C, 0xA5, 0xBD}, // katakana so
        {0x88, 0x9F, 0xB0, 0xA1}, // the first kanji
        {0xE0, 0x80, 0xDF, 0xE0}, // above the gap of lead bytes, trail above 0x7E
    };
    for (const auto &[lead, trail, high, low] : cases) {
        unsigned char got[2];
        strutl_cvt_sjis_to_euc(lead, trail, &got[0], nullptr);
        strutl_cvt_sjis_to_euc(lead, trail, nullptr, &got[1]);
        EXPECT_TRUE(got[0] == high && got[1] == low);
    }
}

TEST(StrutlWide, ThereAndBack)
{
    const test::ScopedLocale locale("C.UTF-8");
    stg_area *area = stg_create_area(100);
    wchar_t *wide = nullptr;
    char *narrow = nullptr;
    ASSERT_EQ(strutl_cvt_str_to_wide_str(area, "a\xC3\xA9\xF0\x9F\x98\x80", &wide), 0U);
    EXPECT_EQ(std::wstring(wide), L"a\u00E9\U0001F600");
    EXPECT_EQ(strutl_wide_strlen(wide), 3U);
    ASSERT_EQ(strutl_cvt_wide_str_to_str(area, wide, &narrow), 0U);
    EXPECT_STREQ(narrow, "a\xC3\xA9\xF0\x9F\x98\x80");
    stg_delete_area(&area);
    ASSERT_EQ(strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "", &wide), 0U);
    EXPECT_EQ(strutl_wide_char_from_str(wide, nullptr), 0U);
    stg_free(wide);
}

TEST(StrutlWide, FailuresSayWhatIsWrong)
{
    const test::ChildResult child = test::run_child([] {
        std::setlocale(LC_ALL, "C.UTF-8");
        wchar_t *wide = nullptr;
        char *narrow = nullptr;
        const wchar_t surrogate[] = {L'a', 0xD800, 0};
        for (const char *text : {static_cast<const char *>(nullptr), "ab\xFFyz", "ab\xE2\x82"})
            EXPECT_EQ(strutl_cvt_str_to_wide_str(STG_AREA_HEAP, text, &wide), 1U);
        EXPECT_EQ(strutl_cvt_wide_str_to_str(STG_AREA_HEAP, surrogate, &narrow), 1U);
        EXPECT_EQ(errno, EILSEQ);
    });
    size_t from = 0;
    for (const char *text : {"The string to be converted is null.\n", "Invalid multibyte character: \xFFyz\n",
                             "Error converting string to wide char string: ab\xE2\x82\n",
                             "Error converting wide char string to string.\n"}) {
        from = child.err.find(text, from);
        EXPECT_NE(from, std::string::npos) << text << "not in " << child.err;
    }
}

} // namespace
