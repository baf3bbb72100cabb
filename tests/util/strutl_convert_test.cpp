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
        {"", 0, ""},
        {"\"plain\"", 1, "plain"},
        {R"(\"\'\?\\)", 0, "\"'?\\"},
        {R"(\a\b\f\n\r\t\v)", 0, "\a\b\f\n\r\t\v"},
        {R"(\x41\x4g)", 0, "A\4g"},
        {R"(\101\60\7)", 0, "A0\7"},
        {R"("a""b")", 1, "a\"b"},
        {R"(a"b)", 0, "a\"b"},
        {"caf\xC3\xA9\\n", 0, "caf\xC3\xA9\n"},
        {bad, 0, bad},
        {"\"", 1, bad},
        {"\"abc", 1, bad},
        {R"("a\")", 1, bad},
        {R"("a""")", 1, "a\""},
        {R"("a"""")", 1, bad},
        {"a\\", 0, bad},
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

struct Utf16 {
    unsigned result;
    std::vector<wchar_t> units;
    size_t used;
};

Utf16 to_utf16(const std::string &bytes, long out_units)
{
    std::vector<wchar_t> out(static_cast<size_t>(std::max(out_units, 0L)) + 1, L'#');
    size_t used = 99;
    const unsigned result = strutl_utf8to16(out.data(), reinterpret_cast<const unsigned char *>(bytes.data()),
                                            static_cast<long>(bytes.size()), out_units, &used);
    EXPECT_EQ(out.back(), L'#') << "wrote past the end";
    size_t end = 0;
    while (end + 1 < out.size() && out[end] != 0)
        ++end;
    return {result, {out.begin(), out.begin() + static_cast<long>(end)}, used};
}

TEST(StrutlUtf, EightToSixteen)
{
    using Units = std::vector<wchar_t>;
    const struct {
        std::string bytes;
        long out_units;
        unsigned result;
        Units units;
        size_t used;
    } cases[] = {
        {"", 1, 0, {}, 0},
        {"a", 2, 0, {'a'}, 1},
        {"a", 1, 3, {}, 0},
        {"\xC3\xA9\xE2\x82\xAC", 9, 0, {0xE9, 0x20AC}, 5},
        {"\xF0\x9F\x98\x80", 3, 0, {0xD83D, 0xDE00}, 4},
        {"\xF0\x9F\x98\x80", 2, 3, {}, 0},
        {"\xF4\x8F\xBF\xBF", 3, 0, {0xDBFF, 0xDFFF}, 4},
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", 9, 0, {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}, 11},
        {"\xF4\x90\x80\x80z", 9, 0, {0xFFFD, 'z'}, 5},
        {"a\xE2\x82", 9, 1, {'a'}, 1},
        {"\xFC\x84\x80\x80\x80\x80z", 9, 0, {0xFFFD, 'z'}, 7},
        {"\xFC\x84\x80", 9, 1, {}, 0},
        {"\xED\xA0\x80", 9, 0, {0xD800}, 3},
        {"\x80", 9, 0, {0x80}, 1},
        {"\xC0\x41", 9, 0, {0xFFFD}, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        const Utf16 got = to_utf16(c.bytes, c.out_units);
        EXPECT_EQ(got.result, c.result);
        EXPECT_EQ(got.units, c.units);
        EXPECT_EQ(got.used, c.used);
    }
}

TEST(StrutlUtf, SixteenToEight)
{
    const struct {
        std::vector<wchar_t> units;
        long out_size;
        unsigned result;
        std::string bytes;
    } cases[] = {
        {{}, 1, 0, ""},
        {{'a', 0xE9, 0x20AC}, 7, 0, "a\xC3\xA9\xE2\x82\xAC"},
        {{'a', 0xE9, 0x20AC}, 6, 3, "a\xC3\xA9"},
        {{0xD83D, 0xDE00}, 5, 0, "\xF0\x9F\x98\x80"},
        {{0xD83D, 0xDE00}, 4, 3, ""},
        {{0xD83D}, 9, 0, "\xED\xA0\xBD"},
        {{0xDE00, 0xD83D}, 9, 0, "\xED\xB8\x80\xED\xA0\xBD"},
        {{0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}, 99, 0, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {{0x10000}, 9, 0, "\xF0\x90\x80\x80"},
        {{0x10FFFF}, 9, 0, "\xF4\x8F\xBF\xBF"},
        {{0x1FFFFF}, 9, 0, "\xF7\xBF\xBF\xBF"},
        {{0x200000, 'z'}, 9, 0, "\xEF\xBF\xBDz"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.units));
        std::string out(static_cast<size_t>(c.out_size) + 1, '#');
        EXPECT_EQ(strutl_utf16to8(out.data(), c.units.data(), static_cast<long>(c.units.size()), c.out_size), c.result);
        EXPECT_EQ(out.back(), '#');
        EXPECT_EQ(std::string(out.c_str()), c.bytes);
    }
    EXPECT_EQ(strutl_utf16to8(nullptr, nullptr, 0, 0), 3U);
}

TEST(StrutlSjis, ToEuc)
{
    const struct {
        unsigned char lead, trail, high, low;
    } cases[] = {
        {0x83, 0x5C, 0xA5, 0xBD}, // katakana so
        {0x88, 0x9F, 0xB0, 0xA1}, // the first kanji
        {0xE0, 0x80, 0xDF, 0xE0}, // above the gap of lead bytes, trail above 0x7E
    };
    for (const auto &c : cases) {
        unsigned char high = 0;
        unsigned char low = 0;
        strutl_cvt_sjis_to_euc(c.lead, c.trail, &high, nullptr);
        strutl_cvt_sjis_to_euc(c.lead, c.trail, nullptr, &low);
        EXPECT_EQ(high, c.high);
        EXPECT_EQ(low, c.low);
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
    EXPECT_EQ(*wide, L'\0');
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
        EXPECT_TRUE(wide == nullptr && narrow == nullptr);
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
