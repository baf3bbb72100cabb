#include "meta/source_tree.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <sstream>

#include <fnmatch.h>

#include "harness/child.h"

namespace meta {

namespace {

const std::filesystem::path checkout = KORVAKS_SOURCE_DIR;

std::string trimmed(const std::string &text)
{
    const auto first = text.find_first_not_of(" \t");
    const auto last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// "| a | b |" as {"a", "b"}
Row cells_of(const std::string &line)
{
    Row cells;
    std::istringstream in(line.substr(1));
    for (std::string cell; std::getline(in, cell, '|');)
        cells.push_back(trimmed(cell));
    return cells;
}

bool is_left_out(const std::filesystem::path &directory)
{
    const std::string name = directory.filename();
    return name.starts_with(".git") || name.starts_with("build") || name == ".cache";
}

} // namespace

SourceFile read_source(const std::string &path)
{
    return {path, test::read_file(checkout / path)};
}

std::vector<SourceFile> read_tree(const std::vector<std::string> &directories)
{
    std::vector<SourceFile> files;
    for (const auto &directory : directories) {
        std::filesystem::recursive_directory_iterator entry(checkout / directory);
        for (; entry != std::filesystem::recursive_directory_iterator(); ++entry) {
            if (entry->is_directory() && is_left_out(entry->path()))
                entry.disable_recursion_pending();
            else if (entry->is_regular_file())
                files.push_back(read_source(std::filesystem::relative(entry->path(), checkout)));
        }
    }
    std::sort(files.begin(), files.end(), [](const auto &a, const auto &b) { return a.path < b.path; });
    return files;
}

std::vector<Row> table_below(const std::string &page, const std::string &heading)
{
    std::vector<Row> rows;
    bool below = false;
    for (const auto &line : split_lines(page)) {
        if (line.starts_with("## "))
            below = line == heading;
        else if (below && line.starts_with("|"))
            rows.push_back(cells_of(line));
    }
    // the head and the line under it
    rows.erase(rows.begin(), rows.begin() + std::min<std::ptrdiff_t>(2, std::ssize(rows)));
    return rows;
}

std::vector<std::string> quoted_words(const std::string &text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string between, word; std::getline(in, between, '`') && std::getline(in, word, '`');)
        words.push_back(word);
    return words;
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> split_words(const std::string &text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

bool matches(const std::string &pattern, const std::string &name)
{
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

std::string without_comments(const std::string &text)
{
    std::string code;
    for (std::size_t at = 0; at < text.size();) {
        if (text.compare(at, 2, "//") == 0) {
            at = std::min(text.find('\n', at), text.size());
        } else if (text.compare(at, 2, "/*") == 0) {
            const auto end = std::min(text.find("*/", at + 2), text.size() - 2) + 2;
            code.append(static_cast<std::size_t>(std::count(&text[at], &text[end], '\n')), '\n');
            at = end;
        } else {
            code += text[at++];
        }
    }
    return code;
}

std::string lines_of(const std::vector<std::string> &items)
{
    std::string text;
    for (const auto &item : items)
        text += item + "\n";
    return text;
}

} // namespace meta
