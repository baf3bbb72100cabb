// A slow, obvious reading of wildcard patterns: text becomes items, and every choice is tried.
#pragma once

#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test::wild {

using Chars = std::vector<std::string>;

// In the tests' UTF-8, "\xC3\xA9" is the only character of more than one byte.
inline Chars split_chars(const std::string &text, bool is_utf8)
{
    Chars chars;
    for (std::size_t at = 0; at < text.size(); at += chars.back().size())
        chars.push_back(text.substr(at, is_utf8 && text.compare(at, 2, "\xC3\xA9") == 0 ? 2 : 1));
    return chars;
}

struct Item {
    enum Kind { character, run, any, set, levels } kind;
    std::string text; // of a character
    Chars members;
};
using Items = std::vector<Item>;

// The items of a pattern, or nothing for a malformed one.
inline std::optional<Items> parse(const std::string &pattern, bool is_utf8)
{
    const Chars in = split_chars(pattern, is_utf8);
    Items out;
    bool is_open = false;
    const auto is = [&](std::size_t at, const char *c) { return at < in.size() && in[at] == c; };
    for (std::size_t at = 0; at < in.size(); ++at) {
        const bool is_escaped = in[at] == "\\" && at + 1 < in.size();
        at += is_escaped ? 1 : 0;
        const std::string &c = in[at];
        const bool is_levels = c == "." && is(at + 1, ".") && is(at + 2, ".") &&
                               (at + 3 == in.size() || is(at + 3, "/")) && (out.empty() || out.back().text == "/");
        if (is_open && ((!is_escaped && c == "[") || c == "\1"))
            return std::nullopt;
        if (!is_escaped && c == "]") {
            if (!std::exchange(is_open, false))
                return std::nullopt;
        } else if (is_open) {
            out.back().members.push_back(c);
        } else if (!is_escaped && (c == "*" || c == "?")) {
            out.push_back({c == "*" ? Item::run : Item::any, "", {}});
        } else if (!is_escaped && c == "[") {
            is_open = true;
            out.push_back({Item::set, "", {}});
        } else if (!is_escaped && is_levels) {
            out.push_back({Item::levels, "", {}});
            at += 2;
        } else {
            out.push_back({Item::character, c, {}});
        }
    }
    return is_open ? std::nullopt : std::optional(out);
}

class Model {
  public:
    Model(const Items &items, const std::string &string, bool is_path, bool is_utf8)
        : items_(items), chars_(split_chars(string, is_utf8)), is_path_(is_path), is_utf8_(is_utf8)
    {
    }
    bool matches() const { return matches(0, 0); }

  private:
    bool is_slash(std::size_t at) const { return at < chars_.size() && chars_[at] == "/"; }
    bool is_slash_item(std::size_t i) const { return i < items_.size() && items_[i].text == "/"; }
    bool is(std::size_t i, Item::Kind kind) const { return i < items_.size() && items_[i].kind == kind; }

    bool tail(std::size_t i) const
    {
        while (is(i, Item::run) || is(i, Item::levels))
            ++i;
        while (is_path_ && is_slash_item(i))
            i += is(i + 1, Item::levels) ? 2 : 1;
        return i == items_.size();
    }

    bool matches(std::size_t i, std::size_t at) const
    {
        if (at == chars_.size())
            return tail(i);
        if (i == items_.size())
            return is_path_ && is_slash(at) && slashes(i, at);
        switch (items_[i].kind) {
        case Item::run:
            for (;; ++at) {
                if (matches(i + 1, at))
                    return true;
                if (at == chars_.size() || (is_path_ && is_slash(at)))
                    return false;
            }
        case Item::any:
            return matches(i + 1, at + 1);
        case Item::set:
            return in_set(items_[i].members, chars_[at]) && matches(i + 1, at + 1);
        case Item::levels:
            return levels(i, at);
        default:
            return items_[i].text == chars_[at] && (is_path_ && is_slash(at) ? slashes(i, at) : matches(i + 1, at + 1));
        }
    }

    bool slashes(std::size_t i, std::size_t at) const
    {
        while (is_slash_item(i))
            ++i;
        while (is_slash(at))
            ++at;
        return !(at == chars_.size() && is(i, Item::run)) && matches(i, at);
    }

    bool levels(std::size_t i, std::size_t at) const
    {
        for (++i; is_slash_item(i);)
            ++i;
        bool found = matches(i, at);
        for (; !found && at < chars_.size(); ++at)
            found = is_slash(at) && matches(i, at + 1);
        return found;
    }

    bool not_above(const std::string &a, const std::string &b) const
    {
        if (is_utf8_)
            return std::strcoll(a.c_str(), b.c_str()) <= 0;
        return static_cast<signed char>(a[0]) <= static_cast<signed char>(b[0]);
    }

    bool in_set(const Chars &members, const std::string &c) const
    {
        for (std::size_t m = 0; m < members.size(); ++m) {
            const bool is_range = m > 0 && members[m] == "-";
            m += is_range ? 1 : 0;
            if (m == members.size())
                return false;
            if (members[m] == c || (is_range && not_above(members[m - 2], c) && not_above(c, members[m])))
                return true;
        }
        return false;
    }

    const Items &items_;
    Chars chars_;
    bool is_path_;
    bool is_utf8_;
};

} // namespace test::wild
