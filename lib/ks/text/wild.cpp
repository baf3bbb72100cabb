// Patterns as text: compiling them, and the small questions about them.
#include "text/wild_impl.h"

#include <algorithm>
#include <climits>

namespace ks::wild {

namespace {

constexpr std::string_view levels_text = "...";

// Reads a pattern from the front. Each step returns false when the pattern is refused.
class Compiler {
  public:
    Compiler(std::string_view pattern, char *buf, std::size_t size) : left_(pattern), buf_(buf), size_(size) {}

    int run(bool &out_has_wild)
    {
        bool goes_on = take_levels();
        while (goes_on && !left_.empty())
            goes_on = is_in_set_ ? take_in_set() : take();
        if (goes_on && is_in_set_)
            return WILD_MALFORMED;
        if (!goes_on || !put('\0'))
            return refusal_;
        out_has_wild = has_wild_;
        return static_cast<int>(used_);
    }

  private:
    bool take()
    {
        switch (left_.front()) {
        case '*':
            return take_wild(item_run);
        case '?':
            return take_wild(item_any);
        case '[':
            is_in_set_ = true;
            return take_wild(item_set);
        case ']':
            return refuse();
        case '\\':
            return take_escaped();
        case '/':
            return take_separator();
        default:
            return take_character();
        }
    }

    bool take_in_set()
    {
        switch (left_.front()) {
        case '[':
        case item_mark: // would end the set
            return refuse();
        case ']':
            is_in_set_ = false;
            left_.remove_prefix(1);
            return put(item_mark);
        case '\\':
            return take_escaped();
        default:
            return take_character();
        }
    }

    bool take_wild(Item code)
    {
        left_.remove_prefix(1);
        has_wild_ = true;
        return put(item_mark) && put(code);
    }

    // At a backslash. One at the end stands for itself.
    bool take_escaped()
    {
        if (left_.size() > 1)
            left_.remove_prefix(1);
        if (left_.front() == item_mark && is_in_set_)
            return refuse();
        return left_.front() == '/' && !is_in_set_ ? take_separator() : take_character();
    }

    bool take_separator() { return take_character() && take_levels(); }

    // "..." is an item where it is a component of its own.
    bool take_levels()
    {
        const std::size_t size = levels_text.size();
        if (!left_.starts_with(levels_text) || (left_.size() > size && left_[size] != '/'))
            return true;
        left_.remove_prefix(size - 1);
        return take_wild(item_levels);
    }

    bool take_character()
    {
        if (left_.front() == item_mark && !put(item_mark))
            return false;
        std::size_t length = std::min(character_length(left_.data()), left_.size());
        for (; length > 0; --length) {
            if (!put(left_.front()))
                return false;
            left_.remove_prefix(1);
        }
        return true;
    }

    bool put(char c)
    {
        if (used_ >= size_)
            return false;
        buf_[used_++] = c;
        return true;
    }

    bool refuse()
    {
        refusal_ = WILD_MALFORMED;
        return false;
    }

    std::string_view left_;
    char *buf_;
    std::size_t size_;
    std::size_t used_ = 0;
    int refusal_ = WILD_LIMIT;
    bool is_in_set_ = false;
    bool has_wild_ = false;
};

} // namespace

int compile(std::string_view pattern, char *buf, std::size_t size, bool &out_has_wild)
{
    return Compiler(pattern, buf, std::min(size, std::size_t{INT_MAX})).run(out_has_wild);
}

bool Text::reserve(std::size_t count)
{
    constexpr std::size_t first_capacity = 256;
    std::size_t wanted = 0;
    if (__builtin_add_overflow(size, count, &wanted) || __builtin_add_overflow(wanted, std::size_t{1}, &wanted))
        return false;
    if (wanted <= capacity)
        return true;
    std::size_t doubled = 0;
    if (__builtin_mul_overflow(capacity, std::size_t{2}, &doubled))
        return false;
    const std::size_t grown_capacity = std::max({wanted, doubled, first_capacity});
    char *grown = static_cast<char *>(heap_try_malloc(grown_capacity));
    if (grown == nullptr)
        return false;
    if (size > 0)
        std::memcpy(grown, data, size);
    grown[size] = '\0';
    stg_free_int(data, 1);
    data = grown;
    capacity = grown_capacity;
    return true;
}

bool Text::append(std::string_view text)
{
    if (!reserve(text.size()))
        return false;
    if (!text.empty())
        std::memcpy(data + size, text.data(), text.size());
    cut(size + text.size());
    return true;
}

void Text::release()
{
    stg_free_int(data, 1);
    *this = Text{};
}

bool append_transformed(Text &list, std::string_view word)
{
    const bool is_quoted = word.find(' ') != std::string_view::npos;
    if (!is_quoted && word.find('"') == std::string_view::npos)
        return list.append(word);
    std::size_t most = 0; // every byte behind a backslash, in quotes
    if (__builtin_mul_overflow(word.size(), std::size_t{2}, &most) ||
        __builtin_add_overflow(most, std::size_t{2}, &most) || !list.reserve(most))
        return false;
    char *at = list.data + list.size;
    if (is_quoted)
        *at++ = '"';
    for (const char c : word) {
        if (c == '"')
            *at++ = '\\';
        *at++ = c;
    }
    if (is_quoted)
        *at++ = '"';
    list.cut(static_cast<std::size_t>(at - list.data));
    return true;
}

} // namespace ks::wild

extern "C" {

int wild_compile_pattern(const char *pattern, size_t size, char *buf, int *out_has_wild)
{
    constexpr std::size_t spare = 4;
    // A size that became large by a change of sign is none.
    if (size <= spare || size > PTRDIFF_MAX)
        return WILD_LIMIT;
    bool has_wild = false;
    const int length = ks::wild::compile(pattern, buf, size - spare, has_wild);
    if (length > 0 && out_has_wild != nullptr)
        *out_has_wild = has_wild ? 1 : 0;
    return length;
}

int wild_is_any_pat(const char *compiled)
{
    return ks::wild::is_item(compiled, ks::wild::item_run) && compiled[2] == '\0' ? 1 : 0;
}

int wild_contains_wildcard_symbols(const char *s)
{
    if (s == nullptr)
        return 0;
    const bool holds_symbol =
        strutl_find_char_from(s, 0, "[?*~", nullptr, nullptr) == 0 || strutl_find_str(s, 0, "...", nullptr) == 0;
    return holds_symbol ? 1 : 0;
}

char *transform_string(const char *s)
{
    ks::wild::Text copy;
    if (ks::wild::append_transformed(copy, s))
        return copy.data;
    errno = ENOMEM;
    return nullptr;
}
}
