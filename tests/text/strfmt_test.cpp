// The report language: what a directive hands over, tabulation, escapes, errors with their place, and
// the two kinds of buffers with every size against the text in full.
#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strfmt.h>

#include <array>
#include <cstdio>
#include <ctime>

#include "harness/child.h"
#include "harness/locale.h"

namespace {

// Renders "x" as all that is handed over, "s" as the text in the width, "c" as "(text)" cut as
// snprintf() cuts, "m" as as many letters as the precision says, for which it asks for space, and rejects "r".
int render(void *client, char *out, size_t space, const strfmt_directive *directive)
{
    ++*static_cast<int *>(client);
    int length = 0;
    const char *text = directive->text;
    switch (directive->conversion) {
    case 'x':
        length = snprintf(out, space, "<%d|%d|%s|%s|%s>", directive->width, directive->precision, text,
                          directive->argument, directive->modifiers);
        break;
    case 's':
        length = snprintf(out, space, "%*s", directive->width == STRFMT_NONE ? 0 : directive->width, text);
        break;
    case 'c':
        return snprintf(out, space, "(%s)", text) < 0 ? 1 : 0;
    case 'm':
        space = static_cast<size_t>(directive->precision) + 1;
        out = strfmt_more_space(directive, space);
        return out == nullptr || snprintf(out, space, "%s", std::string(space - 1, 'm').c_str()) < 0 ? STRFMT_FULL : 0;
    default:
        (void)snprintf(out, space, "half a value");
        return -1;
    }
    return static_cast<size_t>(length) >= space ? STRFMT_FULL : 0;
}

struct Outcome {
    std::string text;
    int result = 0;
    int calls = 0;
};

Outcome format(const std::string &control, size_t size = 4000)
{
    Outcome outcome;
    std::string buffer(size + 8, '#');
    outcome.result = strfmt_gsprintf(buffer.data(), size, "xscmr", control.c_str(), &outcome.calls, render);
    outcome.text = buffer.c_str();
    EXPECT_EQ(buffer.substr(size), "########") << control;
    return outcome;
}

Outcome format_growing(const std::string &control, size_t size)
{
    Outcome outcome;
    char *buffer = size == 0 ? nullptr : static_cast<char *>(stg_malloc(size));
    outcome.result = strfmt_gsprintf_fmt(&buffer, size, "xscmr", control.c_str(), &outcome.calls, render);
    outcome.text = buffer;
    stg_free(buffer);
    return outcome;
}

TEST(Strfmt, HandsOverDirectives)
{
    const std::string none = std::to_string(STRFMT_NONE);
    const std::string longest(STRFMT_BRACKET_MAX, 'b');
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"%%%5.2x%-.-x%%", "%<5|2|||><" + none + "|" + none + "|||>%"},
        {"%1048576.-2147483647x", "<1048576|" + none + "|||>"},
        {"%[a:b:c]x", "<" + none + "|" + none + "|a|b:c|>"},
        {"%[a [b] c:]l[]x", "<" + none + "|" + none + "|||l>"},
        {"%[" + longest + ":" + longest + "]x", "<" + none + "|" + none + "|" + longest + "|" + longest + "|>"},
        {"a\\tb\\n\\r\\101\\1011\\7\\q\\\\\\%x\\8", "a\tb\n\rAA1\aq\\%x8"},
    };
    for (const auto &[control, text] : rows)
        EXPECT_EQ(format(control).text, text) << control;
    EXPECT_EQ(format("a\\0b").text, "a"); // a NUL ends what a C caller sees
}

TEST(Strfmt, Tabulates)
{
    const std::string x29(29, 'x');
    const std::string x40(40, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {x29 + "%T[30]t|", x29 + "\t|"},
        {x29 + "%N[30]t|", x29 + "\n" + std::string(29, ' ') + "|"},
        {"12345%[10]t|", "12345" + std::string(4, ' ') + "|"},
        {x40 + "%NTS[10]t%NT[10]t|", x40 + " \t|"},
        {"long line\n\tx%[12]t|", "long line\n\tx" + std::string(2, ' ') + "|"},
        {"%[value]s%[8]t|", "value" + std::string(2, ' ') + "|"},
        {"%[0]t%N[0]t|", "\n|"},
    };
    for (const auto &[control, text] : rows)
        EXPECT_EQ(format(control).text, text) << control;
    char out[8]; // built in, whatever the caller's letters are
    EXPECT_EQ(strfmt_gsprintf(out, sizeof out, "xt", "%[3]t|", nullptr, nullptr), 0);
    EXPECT_STREQ(out, "  |");
}

// What is cut holds no part of a character. The second byte of some is a backslash, or a bracket.
TEST(Strfmt, StepsByCharacters)
{
    test::in_child([] {
        imsg_suppress_prefix(1);
        const auto check = [none = std::to_string(STRFMT_NONE)](const std::string &character) {
            EXPECT_EQ(format(character + "\\" + character + "%[" + character + "]c").text,
                      character + character + "(" + character + ")");
            EXPECT_EQ(format("%" + character + "x").text, "<" + none + "|" + none + "|||" + character + ">");
            EXPECT_EQ(format(character + character, 4).text, character);
        };
        if (const test::ScopedLocale utf8("C.UTF-8"); true)
            check("\xC3\xA4");
        const test::CompiledLocale shift_jis("ja_JP", "SHIFT_JIS");
        for (const char *character : {"\x83\x5C", "\x83\x5B"}) {
            if (shift_jis.is_there())
                check(character);
        }
    });
}

// Every size of a fixed buffer that is too small is said to be (that it holds the beginning is the fuzz target's to
// say); a growing one of any size at first holds the whole text.
TEST(Strfmt, CutsOrGrows)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        const std::string control = "text %12[value]s%[30]t\\n%3.4[a:b]qx%N[4]t%[cut]c%[20]t.";
        const Outcome whole = format(control);
        EXPECT_EQ(format("%3000s%.1000m").text, std::string(3000, ' ')); // there is no more space
        for (size_t size = 1; size <= whole.text.size() + 1; ++size) {
            EXPECT_EQ(format(control, size).result, size <= whole.text.size() ? 1 : 0) << size;
            const Outcome grown = format_growing(control, size);
            EXPECT_EQ(grown.text, whole.text);
            EXPECT_EQ(grown.calls, whole.calls); // once for each directive, whatever the space was
        }
    });
    EXPECT_EQ(result.err.find("Supplied buffer too small.\nSupplied buffer too small.\n"), 0u);
    EXPECT_EQ(strfmt_gsprintf(nullptr, 10, "x", "%x", nullptr, render), 0);
    char byte = 'b';
    EXPECT_EQ(strfmt_gsprintf(&byte, 0, "x", "%x", nullptr, render), 0);
    EXPECT_EQ(byte, 'b');
    EXPECT_EQ(strfmt_gsprintf_fmt(nullptr, 1, "x", "%x", nullptr, render), 0);
}

TEST(Strfmt, GrowsPastLongValues)
{
    std::string control = "%[v]c%1048576s%.5000000m";
    control += "\\n%20000s%[40000]t"; // blanks of the procedure's, then of the tab
    const Outcome outcome = format_growing(control, 3);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.text.size(), 3u + 1048576 + 5000000 + 40000);
}

// A line is measured once, not for each column in it.
TEST(Strfmt, TakesTimeAsItWrites)
{
    std::string control;
    for (int i = 0; i < 50000; ++i)
        control += "%S[1]t";
    const std::clock_t start = std::clock();
    EXPECT_EQ(format_growing(control, 3).text.size(), 50000u);
    EXPECT_LT(std::clock() - start, 2 * CLOCKS_PER_SEC);
}

TEST(Strfmt, ReportsTheBadPlace)
{
    const std::string too_long(STRFMT_BRACKET_MAX + 1, 'b');
    // The control string, the text before the bad place, and what is from there on.
    const std::array<std::string, 3> rows[] = {
        {"a%5 d", "a", " d"},
        {"%[a[b]x", "", "[a[b]x"},
        {"%[" + too_long + "]x", "", "[" + too_long + "]x"},
        {"%1.2147483648x", "", "8x"},
        {"<%[a]r>", "<", "%[a]r>"},
        {"%[]t", "", "%[]t"},
        {"%[3:4]t", "", "%[3:4]t"},
        {"%[1048577]t", "", "%[1048577]t"},
        {"x\\400y", "x", "\\400y"},
    };
    for (const auto &[control, text, rest] : rows) {
        const auto result = test::run_child([&control = control] {
            imsg_suppress_prefix(1);
            const Outcome outcome = format(control);
            fputs(outcome.text.c_str(), stdout);
            return outcome.result;
        });
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.out, text);
        EXPECT_EQ(result.err, "Bad format in control string at or near \"" + rest + "\".\n");
    }
}

} // namespace
