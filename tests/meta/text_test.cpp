// The texts of the checkout: nothing is left unfinished.
#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

#include "harness/match.h"
#include "meta/source_tree.h"

namespace {

// The words in two halves, so that this file does not hold them.
const std::vector<std::pair<std::string, std::string>> unfinished_marks = {
    {"TO", "DO"},          {"FIX", "ME"},       {"X", "XX"}, {"HA", "CK"}, {"not imple", "mented"},
    {"unimple", "mented"}, {"place", "holder"},
};

bool is_unfinished(const std::string &line)
{
    return std::any_of(unfinished_marks.begin(), unfinished_marks.end(), [&](const auto &mark) {
        const std::string word = mark.first + mark.second;
        return line.find(word) != std::string::npos &&
               test::matches(line, "(.*[^[:alnum:]_])?" + word + "([^[:alnum:]_].*)?");
    });
}

std::vector<std::string> unfinished_lines(const meta::SourceFile &file)
{
    std::vector<std::string> found;
    int number = 0;
    for (const auto &line : meta::split_lines(file.text)) {
        ++number;
        if (is_unfinished(line))
            found.push_back(file.path + ":" + std::to_string(number) + ": " + line);
    }
    return found;
}

// Corpora of the fuzz targets are bytes, not text.
bool is_text(const meta::SourceFile &file)
{
    return file.text.find('\0') == std::string::npos && file.path.find("corpus") == std::string::npos;
}

TEST(Texts, NothingIsLeftUnfinished)
{
    EXPECT_EQ(unfinished_lines({"made/up", "a\nb // TO"
                                           "DO\nXXXXXX mkdtemp\n"}),
              std::vector<std::string>{"made/up:2: b // TO"
                                       "DO"});

    std::size_t seen = 0;
    for (const auto &file : meta::read_tree({"."})) {
        if (!is_text(file))
            continue;
        ++seen;
        EXPECT_EQ(meta::lines_of(unfinished_lines(file)), "");
    }
    EXPECT_GT(seen, 20u);
}

TEST(Texts, SourcesKeepToOneWay)
{
    const std::string bare =
        "(.*[^:_[:alnum:].>\"])?(mem(cpy|set|cmp|move|chr)|str(len|n?cmp|r?chr|str)|v?snprintf|malloc|"
        "free|getenv|abort|setlocale)\\(.*";
    const std::string others =
        ".*__attribute__.*|using namespace .*|namespace [a-z]+ = .*|namespace .* \\{ *namespace.*";
    for (const auto &file : meta::read_tree({"lib", "tools"})) {
        if (!file.path.ends_with(".cpp") && !file.path.ends_with(".h"))
            continue;
        for (const auto &line : meta::split_lines(file.text)) {
            const std::string code = line.substr(0, std::min(line.find("//"), line.find('"')));
            EXPECT_FALSE(test::matches(code, bare) || test::matches(code, others)) << file.path << ": " << line;
        }
    }
}

TEST(Texts, FilesEndWithALineBreak)
{
    for (const auto &file : meta::read_tree({"."}))
        EXPECT_TRUE(!is_text(file) || file.text.empty() || file.text.ends_with('\n')) << file.path;
}

} // namespace
