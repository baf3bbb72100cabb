// What the checks of the source tree share: its files, and tables in its documentation.
#pragma once

#include <string>
#include <vector>

namespace meta {

struct SourceFile {
    std::string path; // relative to the checkout
    std::string text;

    std::string name() const { return path.substr(path.rfind('/') + 1); }
};

// The files below some directories of the checkout, sorted; build directories and version control left out.
std::vector<SourceFile> read_tree(const std::vector<std::string> &directories);

SourceFile read_source(const std::string &path);

// The rows under the head of the first table that follows a heading ("## Files") of a page.
using Row = std::vector<std::string>;
std::vector<Row> table_below(const std::string &page, const std::string &heading);

// The words between backticks.
std::vector<std::string> quoted_words(const std::string &text);

std::vector<std::string> split_lines(const std::string &text);

// The words between blanks.
std::vector<std::string> split_words(const std::string &text);

// Whether a file-name pattern matches all of a name.
bool matches(const std::string &pattern, const std::string &name);

// Source text without comments; line breaks stay.
std::string without_comments(const std::string &text);

// One item per line, for messages of failed expectations.
std::string lines_of(const std::vector<std::string> &items);

} // namespace meta
