// Patterns: compiling and matching.
#include <korvaks/wild.h>

#include "harness/locale.h"

#include <ctime>

namespace {

std::string compiled(const std::string &pattern, int *out_has_wild = nullptr)
{
    std::string buf(2 * pattern.size() + 5, 'x');
    const int length = wild_compile_pattern(pattern.c_str(), buf.size(), buf.data(), out_has_wild);
    EXPECT_GT(length, 0) << pattern;
    buf.resize(length > 0 ? static_cast<std::size_t>(length) - 1 : 0);
    return buf;
}

bool matches(const std::string &pattern, const std::string &string, bool is_path)
{
    return wild_match(compiled(pattern).c_str(), string.c_str(), is_path ? 1 : 0) == 1;
}

TEST(WildCompile, Items)
{
    const std::tuple<const char *, std::string, int> rows[] = {
        {"", "", 0},
        {"*?", "\1\2\1\3", 1},
        {"[a*?]b", "\1\4a*?\1b", 1},
        {"[]", "\1\4\1", 1},
        {"[\\]\\[/]", "\1\4][/\1", 1},
        {R"(\*\?\[\]\a\\\/)", R"(*?[]a\/)", 0},
        {"\\\1", "\1\1", 0},
        {".../x/...", "\1\5/x/\1\5", 1},
        {"\\/...", "/\1\5", 1},
        {"\\.../x", ".../x", 0},
        {"/\\...", "/...", 0},
        {"..../a...", "..../a...", 0},
    };
    for (const auto &[pattern, items, is_wild] : rows) {
        int has_wild = 7;
        EXPECT_EQ(compiled(pattern, &has_wild), items);
        EXPECT_EQ(has_wild, is_wild) << pattern;
    }
    char buf[64];
    int untouched = 7;
    for (const char *bad : {"[ab", "ab]", "[a[b]", "[", "]", "a[b\\]", "[\1]", "[a\\\1]"})
        EXPECT_EQ(wild_compile_pattern(bad, sizeof buf, buf, &untouched), WILD_MALFORMED) << bad;
    EXPECT_EQ(untouched, 7);
    // In some encodings a byte of a character looks like one of ours.
    const test::CompiledLocale sjis("ja_JP", "SHIFT_JIS");
    if (sjis.is_there()) {
        EXPECT_EQ(compiled("\x83\x5C*"), "\x83\x5C\1\2");
        EXPECT_TRUE(matches("?[\x83\x5B]", "\x83\x5C\x83\x5B", true));
        EXPECT_EQ(wild_contains_wildcard_symbols("\x83\x5B"), 0);
    }
}

TEST(WildCompile, WritesNothingBeyondTheSizeLessFour)
{
    for (const char *pattern : {"", "abc", "*?[a]\1", "a/...", "\xC3\xA9\xC3\xA9"}) {
        SCOPED_TRACE(pattern);
        const std::size_t length = compiled(pattern).size() + 1;
        for (std::size_t size = 0; size <= length + 6; ++size) {
            std::string buf(64, '#');
            const int result = wild_compile_pattern(pattern, size, buf.data(), nullptr);
            EXPECT_EQ(result, size >= length + 4 ? static_cast<int>(length) : WILD_LIMIT) << size;
            EXPECT_EQ(buf.find_first_not_of('#', size > 4 ? size - 4 : 0), std::string::npos) << size;
        }
        EXPECT_EQ(wild_compile_pattern(pattern, static_cast<std::size_t>(-1), nullptr, nullptr), WILD_LIMIT);
    }
}

TEST(WildMatch, Rules)
{
    const std::tuple<const char *, const char *, bool, bool> rows[] = {
        {"a/*", "a/", true, false},      {"a", "a//", false, true},      {"a//b", "a/b", false, true},
        {"*", "a/b", true, false},       {"*", "", true, true},          {".../x", "x", true, true},
        {".../x", "p/q/x", true, true},  {".../*", "", false, false},    {"a?b", "a/b", true, true},
        {"a[/]b", "a/b", true, true},    {"a*/", "ab", false, true},     {"[a-]", "a", true, true},
        {"[a-]", "-", false, false},     {"[-a]", "-", true, true},      {"[!a]", "!", true, true},
        {"[!a]", "b", false, false},     {"[]", "a", false, false},      {"[a-c-e]", "d", true, true},
        {"*?*?*c", "a/b/c", true, true}, {"a/...", "a/b", false, false}, {"[\x80-a]", "\x90", true, true},
    };
    for (const auto &[pattern, string, as_string, as_path] : rows) {
        EXPECT_EQ(matches(pattern, string, false), as_string) << pattern << " " << string;
        EXPECT_EQ(matches(pattern, string, true), as_path) << pattern << " " << string;
    }
    const test::ScopedLocale utf8("C.UTF-8");
    EXPECT_TRUE(matches("[\xC3\xA8\xC3\xA9]\xC3\xA9", "\xC3\xA9\xC3\xA9", true));
    EXPECT_FALSE(matches("\xC3\xA9", "\xC3\xA8", true));
    EXPECT_EQ(wild_is_any_pat("\1\2"), 1);
    for (const char *other : {"", "\1", "\1\2\1\2", "\1\3", "*"})
        EXPECT_EQ(wild_is_any_pat(other), 0);
    for (const char *text : {"a[", "?", "\\*", "a~", "x...y"})
        EXPECT_EQ(wild_contains_wildcard_symbols(text), 1) << text;
    EXPECT_EQ(wild_contains_wildcard_symbols("a..]b"), 0);
    EXPECT_EQ(wild_contains_wildcard_symbols(nullptr), 0);
}

std::string repeated(const std::string &text, int count)
{
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

// A product of the lengths is milliseconds, and more than that seconds at least; the bound leaves room for slow
// machines.
TEST(WildMatch, TakesAProductOfTheLengths)
{
    const std::string path = repeated("ab/", 1365) + "c";
    const std::pair<std::string, std::string> rows[] = {
        {repeated("*a", 64) + "b", std::string(4096, 'a')},
        {repeated("*?", 64) + "x", path},
        {repeated("*?*?a*b*[b/]/", 64) + "x", path},
        {repeated("*[a/]*b", 2000) + "x", path},
        {repeated(".../*?*/a*/", 32) + "x", repeated("ab/", 256)},
        {".../*" + repeated("?", 200) + "x", std::string(4096, '/')},
        {".../" + repeated("?", 400) + "*" + repeated("?", 400) + "x", repeated("a/", 200) + std::string(8000, 'b')},
        {"*?*/x", std::string(1000000, 'a')},
        {"*/...", repeated("a/", 500000) + "a"},
    };
    for (const auto &[pattern, string] : rows) {
        for (const bool is_path : {false, true}) {
            const std::clock_t start = std::clock();
            EXPECT_FALSE(matches(pattern, string, is_path));
            EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC) << pattern.substr(0, 20) << is_path;
        }
    }
    EXPECT_TRUE(matches(repeated("*?", 64), repeated("ab/", 60) + "c", true)); // more choices than lie on the stack
}

} // namespace
