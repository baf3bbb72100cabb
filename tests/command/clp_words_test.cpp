// Command strings: the words of a string, and the string of words.
#include <korvaks/clp.h>
#include <korvaks/stg.h>

#include <clocale>

#include "harness/child.h"

namespace {

using Words = std::vector<std::string>;

Words split(const std::string &line, stg_area *area)
{
    int argc = -1;
    char **argv = nullptr;
    if (clp_parse_string(line.c_str(), area, &argc, &argv) != 0)
        return {argc == -1 && argv == nullptr ? "refused" : "refused by half"};
    EXPECT_EQ(argv[argc], nullptr);
    return {argv, argv + argc};
}

// What is read is the fuzz target's; here is what is said.
TEST(ClpParseString, ReportsWhatItCannotRead)
{
    const test::ChildResult result = test::run_child([] {
        EXPECT_EQ(split("a 'b", STG_AREA_HEAP), Words{"refused"});
        EXPECT_EQ(split(std::string(8192, 'x'), STG_AREA_HEAP), Words{"refused"});
    });
    EXPECT_EQ(result.err, "noname: Error: Bad command line: unterminated quoted string\n"
                          "noname: Error: Token buffer overflow, max size is 8192.\n");
}

TEST(ClpParseString, KeepsCharactersWhole)
{
    test::in_child([] {
        EXPECT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
        // An ideographic blank is no white space here; a broken sequence at the end is not read past.
        const Words expected{"\u65e5\u672c", "\u00e9 a\u3000b", "\xe3\x80"};
        stg_area *area = stg_create_area(1000);
        EXPECT_EQ(split("\u65e5\u672c '\u00e9 a\u3000b' \xe3\x80", area), expected);
        // The last character does not fit whole.
        std::string long_word(8190, 'x');
        long_word += "\u65e5";
        EXPECT_EQ(split(long_word, area), Words{"refused"});
        stg_delete_area(&area);
    });
}

std::string join(const Words &words, int escape)
{
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    char *text = nullptr;
    if (clp_argv_to_string(static_cast<int>(argv.size()), argv.data(), STG_AREA_HEAP, escape, &text) != 0)
        return text == nullptr ? "refused" : "refused by half";
    std::string joined(text);
    stg_free(text);
    return joined;
}

TEST(ClpArgvToString, WritesWordsByTheirForm)
{
    const struct {
        Words words;
        int escape;
        const char *text;
    } cases[] = {
        {{" ", "\t", "\r", "\n", "?", "*", "~", "[", "]"},
         '\\',
         "\" \" \"\t\" \"\r\" \"\n\" \"?\" \"*\" \"~\" \"[\" \"]\""},
        {{"'a b'", "\"q\""}, '\\', "\\'a b\\' \\\"q\\\""},
        {{"'a b'", "\"q\""}, 0, "'a b' \"q\""},
        {{"'"}, '\\', "\\\\'"}, // begins and ends with it
        {{"", "x", ""}, '\\', " x "},
        {{"a'b", "a \"b"}, '\\', "a'b \"a \"b\""},
    };
    for (const auto &one : cases)
        EXPECT_EQ(join(one.words, one.escape), one.text);
    const test::ChildResult result = test::run_child([] {
        char *text = nullptr;
        stg_area *area = stg_create_area(100);
        EXPECT_EQ(clp_argv_to_string(-1, nullptr, area, 0, &text), 0);
        EXPECT_TRUE(stg_area_strdup(area, "x") != text && *text == '\0');
        EXPECT_EQ(join({"a", "'b\""}, 0), "refused");
    });
    EXPECT_EQ(result.err, "noname: Error: Bad command line: unterminated quoted string\n");
}

} // namespace
