// The rules by which a command string becomes words, written down plainly for the C locale. Slow and obvious, to
// hold clp_parse_string() against.
#pragma once

#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace test {

struct SplitWords {
    int message = -1; // the one that was printed instead of a success
    std::vector<std::string> words{};

    bool operator==(const SplitWords &) const = default;
};

inline SplitWords split_by_rules(const std::string &line)
{
    const auto is_one_of = [](const char *set, char c) { return c != '\0' && std::strchr(set, c) != nullptr; };
    constexpr const char *blanks = " \t\n\v\f\r";
    std::istringstream in(line);
    const auto runs = std::distance(std::istream_iterator<std::string>(in), {});
    SplitWords result;
    for (std::size_t at = 0; std::ssize(result.words) < runs;) {
        at = line.find_first_not_of(blanks, at);
        if (at == std::string::npos)
            break;
        std::string word;
        char quote = '\0';
        for (bool is_done = false; !is_done;) {
            const char c = at < line.size() ? line[at] : '\0';
            const bool is_pair = c == '\\' && at + 1 < line.size() && is_one_of("'\"\\", line[at + 1]);
            if (c == '\0' && quote != '\0')
                return {4, {}};
            if (quote == '\0' && (c == '\0' || is_one_of(blanks, c)))
                break;
            if (quote == '\0' && is_one_of("'\"", c))
                quote = c;
            else if (is_pair)
                word += quote != '\0' ? line.substr(at++, 2) : line.substr(++at, 1);
            else if (c == quote)
                is_done = true;
            else
                word += c;
            ++at;
            if (word.size() >= 8192)
                return {17, {}};
        }
        result.words.push_back(word);
    }
    return result;
}

// Words that come back from a string in which they were joined.
inline bool survives_joining(const std::string &word)
{
    return !word.empty() && word.size() < 8192 && word.find_first_of("'\"\\\v\f") == std::string::npos;
}

} // namespace test
