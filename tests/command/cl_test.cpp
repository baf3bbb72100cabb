// The option parser, as a tool sees it.
#include <korvaks/cl.h>
#include <korvaks/stg.h>

#include <clocale>

#include "harness/child.h"

namespace {

using Words = std::vector<std::string>;

// A handle that ends with its scope.
class Scan {
  public:
    explicit Scan(cl_handle *clh) : clh_(clh) {}
    ~Scan() { cl_destroy(&clh_); }
    Scan(const Scan &) = delete;
    Scan &operator=(const Scan &) = delete;
    operator cl_handle *() const { return clh_; }

  private:
    cl_handle *clh_;
};

cl_handle *parse_line(const std::string &line)
{
    int err = -1;
    cl_handle *const clh = cl_parse_line(line.c_str(), &err);
    EXPECT_EQ(err, clh == nullptr ? CL_OUT_OF_MEMORY : 0);
    return clh;
}

// The words as they stand, without a command name.
cl_handle *parse_words(const Words &words)
{
    std::vector<char *> argv{const_cast<char *>("tool")};
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    int err = -1;
    cl_handle *const clh = cl_parse_argv(static_cast<int>(argv.size()), argv.data(), &err);
    EXPECT_EQ(err, 0);
    return clh;
}

Words all_args(cl_handle *clh)
{
    Words words;
    while (const char *word = cl_getarg(clh))
        words.push_back(word);
    EXPECT_EQ(cl_errno(clh), 0);
    return words;
}

// What one call gave: "a", "end", "arg:x", "none", "long:x", "?302,x,-x".
std::string error_text(cl_handle *clh)
{
    return "?" + std::to_string(cl_errno(clh)) + "," + cl_eopt(clh) + "," + cl_estr(clh);
}

std::string letter_text(cl_handle *clh, int letter)
{
    if (letter == 0)
        return "end";
    return cl_errno(clh) != 0 ? error_text(clh) : std::string(1, static_cast<char>(letter));
}

std::string long_text(cl_handle *clh, const char *options)
{
    char *name = nullptr;
    const int letter = cl_getopt_long(clh, options, &name);
    if (name == nullptr)
        return letter_text(clh, letter);
    EXPECT_EQ(letter, 0);
    const std::string text = std::string("long:") + name;
    stg_free(name);
    return text;
}

std::string arg_text(cl_handle *clh, const char *word)
{
    if (word != nullptr)
        return std::string("arg:") + word;
    return cl_errno(clh) != 0 ? error_text(clh) : "none";
}

// Makes calls by their letters: o(ption), l(ong), a(rgument), n(o option).
Words run(cl_handle *clh, const char *options, const std::string &calls)
{
    Words results;
    for (const char call : calls) {
        switch (call) {
        case 'o':
            results.push_back(letter_text(clh, cl_getopt(clh, options)));
            break;
        case 'l':
            results.push_back(long_text(clh, options));
            break;
        case 'a':
            results.push_back(arg_text(clh, cl_getarg(clh)));
            break;
        default:
            results.push_back(arg_text(clh, cl_getarg_noopt(clh)));
            break;
        }
    }
    return results;
}

TEST(ClParseArgv, CopiesTheWordsAndSkipsTheCommandName)
{
    char name[] = "tool";
    char word[] = "file";
    char *argv[] = {name, word, nullptr};
    for (const int argc : {0, 1, 2}) {
        SCOPED_TRACE(argc);
        int err = -1;
        word[0] = 'f';
        const Scan scan(cl_parse_argv(argc, argv, &err));
        word[0] = 'X';
        EXPECT_EQ(run(scan, "x", "olan"), (Words{"end", "end", argc == 2 ? "arg:file" : "none", "none"}));
        cl_setoffset(scan, 0);
        EXPECT_EQ(all_args(scan).size(), static_cast<std::size_t>(argc));
    }
}

TEST(ClParseLine, KeepsMultibyteCharactersWhole)
{
    test::in_child([] {
        EXPECT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
        // The ideographic blank separates words though none of its bytes is a blank; a broken
        // sequence at the end is not read past.
        const Words expected{"\u00e9", "\u65e5\u672c \u8a9e", "a", "b", "\u00e9\xe3\x80"};
        EXPECT_EQ(all_args(Scan(parse_line("\u00e9 '\u65e5\u672c \u8a9e' a\u3000b \\\u00e9\xe3\x80"))), expected);
    });
}

TEST(ClGetopt, ScansWordsOfOptions)
{
    const struct {
        Words words;
        const char *options;
        const char *calls;
        Words results;
    } cases[] = {
        {{"-ab", "file"}, "ab", "oaoaa", {"a", "?304,,-ab", "b", "arg:file", "none"}},
        {{"-a", "-b"}, "[ab]c", "ooo", {"a", "?303,b,-b", "end"}},
        {{"-acb"}, "c[a:b]", "ooo", {"a", "c", "?303,b,-acb"}},
        {{"-a", "-b"}, "[a][b]", "oo", {"a", "b"}},
        {{"-a", "-c"}, "[ab c", "oo", {"a", "?303,c,-c"}}, // a group that is not closed
        {{"-x", "-a"}, "a", "ooo", {"?302,x,-x", "a", "end"}},
        {{"-:", "-[", "-]"}, "[a:]", "ooo", {"?302,:,-:", "?302,[,-[", "?302,],-]"}},
        {{"-d", "DIR", "-v"}, "d:v", "oaoo", {"d", "arg:DIR", "v", "end"}},
        {{"--", "-x"}, "x", "ooana", {"end", "end", "arg:-x", "none", "none"}},
        {{"-a", "--", "-x", "--"}, "ax", "ooaa", {"a", "end", "arg:-x", "arg:--"}},
        {{"---x", "-a-b", "-a-", "f"}, "abx", "oooooa", {"x", "a", "b", "a", "end", "arg:f"}},
        {{"-", "---", "-x", "-"}, "x", "oooa", {"x", "end", "end", "none"}},
        {{"-", "--", "-x"}, "x", "oa", {"end", "arg:-x"}},
        {{"-"}, "x", "a", {"arg:-"}},
        {{"", "-x"}, "x", "oaoo", {"end", "arg:", "x", "end"}},
        {{"f", "-x"}, "x", "onnao", {"end", "arg:f", "none", "arg:-x", "end"}},
        {{"-\xe9"}, "\xe9", "o", {"\xe9"}},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words) + " by " + one.options);
        const Scan scan(parse_words(one.words));
        EXPECT_EQ(run(scan, one.options, one.calls), one.results);
    }
}

TEST(ClGetopt, GivesLongOptionsWholeOnlyWhenAskedFor)
{
    const struct {
        Words words;
        const char *calls;
        Words results;
    } cases[] = {
        {{"--long=1", "-a", "--", "--not"}, "lllaa", {"long:long=1", "a", "end", "arg:--not", "none"}},
        {{"-", "--long", "f"}, "lla", {"long:long", "end", "arg:f"}},
        {{"---x", "--x"}, "llo", {"long:-x", "long:x", "end"}},
        {{"--ab"}, "ol", {"a", "long:ab"}},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        const Scan scan(parse_words(one.words));
        EXPECT_EQ(run(scan, "ab", one.calls), one.results);
    }
}

TEST(ClErrors, EverySuccessClearsTheLastOne)
{
    const Scan scan(parse_line("-x f -y z"));
    const std::vector<void (*)(cl_handle *)> successes = {
        [](cl_handle *clh) { cl_getarg(clh); },       [](cl_handle *clh) { cl_getname(clh); },
        [](cl_handle *clh) { cl_getopt(clh, "y"); },  [](cl_handle *clh) { cl_getarg_noopt(clh); },
        [](cl_handle *clh) { cl_setoffset(clh, 0); },
    };
    for (const auto &success : successes) {
        cl_setoffset(scan, 0);
        ASSERT_EQ(cl_getopt(scan, ""), '?');
        success(scan);
        EXPECT_EQ(error_text(scan), "?0,,");
    }
}

TEST(ClOffset, KeepsTheEndOfOptionsAndTheLettersSeen)
{
    const Scan scan(parse_words({"-a", "--", "-b"}));
    const int start = cl_getoffset(scan);
    EXPECT_EQ(run(scan, "[a]b", "oo"), (Words{"a", "end"}));
    cl_setoffset(scan, start);
    EXPECT_EQ(run(scan, "[a]b", "ooaa"), (Words{"?303,a,-a", "end", "arg:--", "arg:-b"}));
}

TEST(ClMatch, AcceptsNamesCutOffBehindTheMark)
{
    const struct {
        const char *word;
        const char *name;
        int matches;
    } cases[] = {
        {"che", "ch[eckout]", 1}, {"c", "ch[eckout]", 0}, {"checkout", "CH[ECKOUT]", 1}, {"checkout]", "ch[eckout]", 1},
        {"lists", "list", 0},     {"", "[list]", 1},      {"abc", "a[b[c]", 1},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(cl_match(one.word, one.name), one.matches) << one.word;
    }
}

TEST(ClMatch, FoldsByTheLocale)
{
    test::in_child([] {
        EXPECT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
        EXPECT_EQ(cl_match("\u00c9TA", "\u00e9[tat]"), 1);
        EXPECT_EQ(cl_match("\u00e9t\u00c0", "\u00c9[T\u00e0]"), 1);
    });
}

TEST(ClSubcommand, GivesTheFirstNameThatMatches)
{
    const char *const names[] = {"put", "l[ist]", "li[mit]"};
    const Scan scan(parse_line("LIST lim x put -ab"));
    EXPECT_EQ(cl_get_subcommand(scan, 3, names), 1);
    EXPECT_EQ(cl_get_subcommand(scan, 3, names), 2);
    EXPECT_EQ(cl_get_subcommand(scan, 3, names), -1);
    EXPECT_EQ(cl_errno(scan), 0) << "a word that no name matches is no error of the scan";
    EXPECT_EQ(cl_get_subcommand(scan, 0, names), -1);
    EXPECT_EQ(cl_getopt(scan, "ab"), 'a') << "words without a match are consumed";
    EXPECT_EQ(cl_get_subcommand(scan, 3, names), -1);
    EXPECT_EQ(cl_errno(scan), CL_BAD_ARGUMENT);
    EXPECT_EQ(cl_getopt(scan, "ab"), 'b');
    EXPECT_EQ(cl_get_subcommand(scan, 3, names), -1);
    EXPECT_EQ(cl_errno(scan), 0);
}

TEST(ClMemory, AFailureAtAnyAllocationFreesEverything)
{
    cl_handle *clh = nullptr;
    int failures = 0;
    const int held_before = cl_mallocs - cl_frees;
    for (; clh == nullptr; ++failures) {
        ASSERT_LT(failures, 100);
        cl_brkit = failures + 1;
        clh = parse_line("a 'b' c");
        EXPECT_EQ(cl_brkit, clh == nullptr ? 0 : 1);
        EXPECT_EQ(cl_mallocs - cl_frees, held_before + (clh == nullptr ? 0 : failures));
    }
    cl_brkit = 0;
    EXPECT_GT(failures, 1);
    cl_destroy(&clh);
    EXPECT_EQ(cl_mallocs - cl_frees, held_before);
}

TEST(ClHandleDeathTest, AWrongHandleEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    alignas(16) char block[256] = {};
    auto *const wrong = reinterpret_cast<cl_handle *>(block);
    cl_handle *none = nullptr;
    const char *const message = "PFM_ASSERT:\\(clh->cl_magic == CL_MAGIC\\) failed: 'lib/ks/cl'";
    EXPECT_DEATH(cl_getopt(wrong, "x"), message);
    EXPECT_DEATH(cl_destroy(&none), message);
    int err = 0;
    EXPECT_DEATH(cl_parse_line(nullptr, &err), "line != NULL");
    EXPECT_DEATH(cl_parse_argv(1, nullptr, &err), "argv != NULL");
}

} // namespace
