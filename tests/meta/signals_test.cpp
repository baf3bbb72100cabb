// docs/signals.md against the calls that are in the library.
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "meta/command.h"
#include "meta/source_tree.h"

namespace {

using Names = std::set<std::string>;

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

// Of the table below a heading.
Names names_in(const std::string &page, const std::string &heading)
{
    Names names;
    for (const auto &row : meta::table_below(page, heading))
        for (const auto &name : meta::quoted_words(row.at(0)))
            names.insert(name);
    return names;
}

TEST(SignalsPage, ListsWhatAHandlerReachesWithAReasonForWhatIsNotSafe)
{
    const std::string page = meta::read_source("docs/signals.md").text;
    auto found = calls_found();
    ASSERT_GT(found["library"].size(), 10U) << "the walk over the calls did not get far";
    EXPECT_EQ(names_in(page, "## Functions of the platform"), found["outside"]);
    EXPECT_EQ(names_in(page, "## Where the walk ends"), found["stop"]);
    const Names admitted = names_in(page, "## Functions that compilers put in");
    for (const std::string &name : found["compiler"])
        EXPECT_TRUE(admitted.contains(name)) << name;
    for (const auto &row : meta::table_below(page, "## Functions of the platform"))
        EXPECT_TRUE(row.at(1) == "yes" || (row.at(1) == "no" && row.at(2).size() > 10)) << row.at(0);
}

} // namespace
