// docs/signals.md against the calls that are in the library.
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "meta/command.h"
#include "meta/source_tree.h"

namespace {

using Names = std::set<std::string>;

std::string page_text()
{
    return meta::read_source("docs/signals.md").text;
}

// First words of the lists that scripts/signal-calls prints, and what stands in them.
std::map<std::string, Names> calls_found()
{
    std::map<std::string, Names> lists;
    const std::string output = meta::output_of(KORVAKS_SOURCE_DIR "/scripts/signal-calls " KORVAKS_LIBRARY);
    for (const std::string &line : meta::split_lines(output)) {
        const auto words = meta::split_words(line);
        if (words.size() >= 2)
            lists[words[0]].insert(words[1]);
    }
    return lists;
}

Names names_in(const std::vector<meta::Row> &rows)
{
    Names names;
    for (const auto &row : rows)
        for (const auto &name : meta::quoted_words(row.at(0)))
            names.insert(name);
    return names;
}

TEST(SignalsPage, ListsWhatAHandlerReaches)
{
    const std::string page = page_text();
    auto found = calls_found();
    ASSERT_GT(found["library"].size(), 10U) << "the walk over the calls did not get far";
    EXPECT_EQ(names_in(meta::table_below(page, "## Functions of the platform")), found["outside"]);
    EXPECT_EQ(names_in(meta::table_below(page, "## Where the walk ends")), found["stop"]);
}

TEST(SignalsPage, GivesAReasonForEachFunctionThatIsNotSafe)
{
    const std::string page = page_text();
    for (const auto &row : meta::table_below(page, "## Functions of the platform")) {
        SCOPED_TRACE(row.at(0));
        EXPECT_TRUE(row.at(1) == "yes" || (row.at(1) == "no" && row.at(2).size() > 10));
    }
}

} // namespace
