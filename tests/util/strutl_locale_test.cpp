// Encodings in which a trail byte looks like an ASCII character: every routine against a plain model
// that works on a list of characters.
#include <korvaks/strutl.h>

#include "harness/locale.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

using Characters = std::vector<std::string>;

std::string join(const Characters &characters)
{
    std::string joined;
    for (const std::string &character : characters)
        joined += character;
    return joined;
}

constexpr size_t none = static_cast<size_t>(-1);

// Byte offset of the first occurrence, or `none`.
size_t model_find(const Characters &text, const Characters &sub)
{
    const auto found = std::search(text.begin(), text.end(), sub.begin(), sub.end());
    return found == text.end() && !sub.empty() ? none : join({text.begin(), found}).size();
}

size_t model_common(const Characters &a, const Characters &b)
{
    return join({a.begin(), std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first}).size();
}

Characters model_tokens(const Characters &text, const std::string &delimiter)
{
    Characters tokens;
    bool open = false;
    for (const std::string &character : text) {
        if (character == delimiter) {
            open = false;
            continue;
        }
        if (!open)
            tokens.emplace_back();
        open = true;
        tokens.back() += character;
    }
    return tokens;
}

void check_once(std::mt19937 &random, const Characters &alphabet, const std::string &delimiter)
{
    const auto draw = [&](size_t most) {
        Characters drawn(random() % (most + 1));
        for (std::string &character : drawn)
            character = alphabet[random() % alphabet.size()];
        return drawn;
    };
    const Characters text = draw(12);
    const Characters sub = draw(4);
    const std::string str = join(text);
    SCOPED_TRACE(testing::PrintToString(str) + " " + testing::PrintToString(join(sub)));

    const size_t start = text.empty() ? 0 : text[0].size(); // the second character
    const Characters rest(text.begin() + (text.empty() ? 0 : 1), text.end());
    const auto from_start = [&](size_t found) { return found == none ? none : start + found; };
    size_t pos = none;
    const unsigned failed = strutl_find_str(str.c_str(), start, join(sub).c_str(), &pos);
    EXPECT_EQ(failed, pos == none ? 1U : 0U);
    EXPECT_EQ(pos, from_start(model_find(rest, sub)));
    pos = none;
    size_t which = none;
    (void)strutl_find_char_from(str.c_str(), start, ("#" + delimiter).c_str(), &pos, &which);
    EXPECT_EQ(pos, from_start(model_find(rest, {delimiter})));
    EXPECT_EQ(which, pos == none ? none : 1U);
    pos = none;
    (void)strutl_find_char(str.c_str(), delimiter[0], &pos);
    EXPECT_EQ(pos, model_find(text, {delimiter}));
    const auto from_end = std::find(text.rbegin(), text.rend(), delimiter);
    const size_t last = from_end == text.rend() ? none : join({text.begin(), from_end.base() - 1}).size();
    EXPECT_EQ(strutl_strrpbrk(str.c_str(), delimiter.c_str()), last == none ? nullptr : str.c_str() + last);
    EXPECT_EQ(strutl_right_char(str.c_str(), delimiter[0]), last == none ? nullptr : str.c_str() + last);
    EXPECT_EQ(strutl_match_last_char(str.c_str(), delimiter[0]), last + 1 == str.size() && !str.empty() ? 0U : 1U);
    EXPECT_EQ(strutl_mb_strlen(str.c_str()), text.size());
    const Characters other = draw(12);
    EXPECT_EQ(strutl_match_prefix(str.c_str(), join(other).c_str(), &pos), text == other ? 0U : 1U);
    EXPECT_EQ(pos, model_common(text, other));

    for (const char *others : {"", "#", "#!$&"}) { // one, a few, and many
        Characters tokens;
        std::string cut = str;
        for (char *at = cut.data(); (at = strutl_tokenize(at, (others + delimiter).c_str())) != nullptr; at = nullptr)
            tokens.emplace_back(at);
        EXPECT_EQ(tokens, model_tokens(text, delimiter));
    }

    // Every cut is a whole number of characters, and the most that fit.
    for (size_t size = 1; size < 8; ++size) {
        char dst[9] = "########";
        const unsigned is_cut = strutl_cpy_buf(dst, str.c_str(), size);
        std::string fits;
        for (size_t i = 0; i < text.size() && fits.size() + text[i].size() < size; ++i)
            fits += text[i];
        EXPECT_EQ(std::string(dst), fits);
        EXPECT_EQ(is_cut, fits == str ? 0U : 1U);
        EXPECT_EQ(dst[size], '#');
    }
}

void check_against_model(const Characters &alphabet, const std::string &delimiter)
{
    std::mt19937 random(7);
    for (int round = 0; round < 3000 && !testing::Test::HasFailure(); ++round)
        check_once(random, alphabet, delimiter);
}

// In Shift-JIS the second byte of "ソ" is a backslash, that of "ポ" a bar.
TEST(StrutlShiftJis, TrailBytesAreNoCharacters)
{
    const test::CompiledLocale locale("ja_JP", "SHIFT_JIS");
    ASSERT_TRUE(locale.is_there()) << "localedef of package locales is needed";
    check_against_model({"\\", "a", "\x83\x5C", "\x83\x83", "\x83\x7C", "\x5C"}, "\\");

    const char *trail_backslash = "\x83\x5C";
    char buf[16];
    EXPECT_EQ(strutl_xlate_pname_sep(trail_backslash, "\\", '/', buf, sizeof buf, nullptr), 0U);
    EXPECT_STREQ(buf, trail_backslash);
    char *out = nullptr;
    ASSERT_EQ(strutl_cstr_to_str("\"\x83\x5C\"", 1, &out), 0U);
    EXPECT_STREQ(out, trail_backslash);
    stg_free(out);
    EXPECT_EQ(strutl_is_ok_name(trail_backslash, nullptr, nullptr), 1U);
    size_t pos = none;
    EXPECT_EQ(strutl_find_end_delim("[\x83\x5D]", 0, '[', ']', &pos), 0U);
    EXPECT_EQ(pos, 3U);
}

// A description of GB18030 with the ASCII characters only, which compiles at once; the conversion
// itself is the C library's and knows them all.
std::string small_gb18030()
{
    std::string charmap = "<code_set_name> GB18030\n<escape_char> /\n<mb_cur_min> 1\n<mb_cur_max> 4\nCHARMAP\n";
    for (int c = 0; c < 128; ++c) {
        char line[32];
        std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", c, c);
        charmap += line;
    }
    return charmap + "END CHARMAP\n";
}

// GB18030 has characters of one, two and four bytes, with digits inside.
TEST(StrutlGb18030, TrailBytesAreNoCharacters)
{
    const test::TempDir dir;
    test::write_file(dir.file("GB18030"), small_gb18030());
    const test::CompiledLocale locale("POSIX", dir.file("GB18030"));
    ASSERT_TRUE(locale.is_there()) << "localedef of package locales is needed";
    ASSERT_EQ(MB_CUR_MAX, 4U);
    check_against_model({"0", "|", "\x81\x7C", "\x81\x30\x81\x30", "\x81\x40"}, "|");
}

TEST(StrutlUtf8, AgainstTheModel)
{
    for (const auto &[name, alphabet] :
         {std::pair{"C.UTF-8", Characters{"/", "a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xFF"}},
          {"C", Characters{"/", "a", "\xC3", "\xA9"}}}) {
        const test::ScopedLocale locale(name);
        check_against_model(alphabet, "/");
    }
}

// A text of lead bytes makes every byte a false start, and a long text that nearly is there begins everywhere. Neither
// may cost the square of its length.
TEST(StrutlShiftJis, HostileTextIsSearchedInOnePass)
{
    const test::CompiledLocale locale("ja_JP", "SHIFT_JIS");
    ASSERT_TRUE(locale.is_there()) << "localedef of package locales is needed";
    constexpr size_t count = 1000000;
    const auto repeated = [](size_t times) {
        std::string all;
        while (times-- > 0)
            all += "\x83\x5C";
        return all;
    };
    std::string text = repeated(count);
    std::string between = "\x5C" + repeated(count / 2);
    size_t pos = none;
    EXPECT_EQ(strutl_find_str_range(text.c_str(), 0, none, between.c_str(), &pos), 1U);
    EXPECT_EQ(strutl_find_str_range(text.c_str(), 0, none, (repeated(count / 2) + "a").c_str(), &pos), 1U);
    text += "\x5C" + between;
    EXPECT_EQ(strutl_find_str_range(text.c_str(), 0, none, between.c_str(), &pos), 0U);
    EXPECT_EQ(pos, 2 * count + 1);
}

} // namespace
