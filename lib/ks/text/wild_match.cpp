// Matching a string against a compiled pattern.
//
// Most items match or not, and then the next one is looked at. Two leave a choice: `*` may take
// more characters, "..." more components. A choice is gone back to when what follows it does not match.
// What keeps this from trying everything against everything:
//
//  - When a "..." is reached, every earlier choice is given up. They could only lead to the same "..."
//    further right, behind a '/', and there it will be tried anyhow. (At the end of a pattern they
//    could also lead to the string's end; there it is decided at once and nothing is given up.)
//  - When a `*` is reached, the same holds for the `*` before it, unless it could come to lie in
//    another component, which the new one does not extend to. Between the two that takes an item that takes
//    a '/' or something else: `?` or a set. (A '/' fits only one end of the `*` before it.)
//  - A `*` that is kept remembers the component that it was tried in to the end. Positions at which it
//    is reached never go back, so that one in that component has been tried.
#include "text/wild_impl.h"

#include "kernel/ks_heap.h"

#include <algorithm>
#include <climits>
#include <iterator>

namespace ks::wild {

namespace {

// A `*` on the way here. The next try is `rest` at `next`.
struct Choice {
    const char *rest;
    const char *next;    // first position not tried, nullptr: none is left
    const char *barrier; // where it ends in path mode; only of those that stand above another one
};

enum class Step {
    matched,
    failed,
    run,
    levels,
};

const char *skip_slashes(const char *at)
{
    while (*at == '/')
        ++at;
    return at;
}

struct Character {
    const char *text;
    std::size_t length;

    bool operator==(const Character &other) const
    {
        if (length != other.length)
            return false;
        return length == 1 ? *text == *other.text : std::memcmp(text, other.text, length) == 0;
    }
};

// One character as a string, for strcoll().
struct CharacterText {
    char text[MB_LEN_MAX + 1];

    explicit CharacterText(const Character &from)
    {
        std::memcpy(text, from.text, from.length);
        text[from.length] = '\0';
    }
};

bool is_between(const Character &low, const Character &at, const Character &high)
{
    if (MB_CUR_MAX > 1) {
        const ErrnoSaver saver;
        const CharacterText text(at);
        return std::strcoll(CharacterText(low).text, text.text) <= 0 &&
               std::strcoll(text.text, CharacterText(high).text) <= 0;
    }
    // Kept exactly: patterns in use rely on ranges of bytes being signed, 0x80 and above before ASCII.
    const auto value = static_cast<signed char>(*at.text);
    return static_cast<signed char>(*low.text) <= value && value <= static_cast<signed char>(*high.text);
}

// Whether a character is in the set whose members end at the next item_mark.
bool is_in_set(const char *member, const Character &at)
{
    Character before{nullptr, 0}; // the member before this one
    while (*member != item_mark) {
        const bool is_range = *member == '-' && before.text != nullptr;
        if (is_range)
            ++member;
        // Kept exactly: a '-' at the end ends the search, so that [a-] matches only "a".
        if (*member == item_mark)
            return false;
        const Character current{member, character_length(member)};
        if (current == at || (is_range && is_between(before, at, current)))
            return true;
        before = current;
        member += current.length;
    }
    return false;
}

// The item_mark that ends a set, or nullptr.
const char *end_of_set(const char *member)
{
    while (*member != item_mark && *member != '\0')
        ++member;
    return *member == item_mark ? member : nullptr;
}

// ASCII that stands for itself.
template <bool is_path> bool is_plain(char c)
{
    constexpr unsigned first = item_mark + 1;
    return static_cast<unsigned char>(c) - first < 0x80 - first && (c != '/' || !is_path);
}

// Takes one item that is neither plain nor leaves a choice, and goes on behind it in both.
bool take_item(const char *&item, const char *&at, bool &may_cross)
{
    const Character current{at, character_length(at)};
    const char *end = item + 2;
    if (*item != item_mark) {
        const Character wanted{item, character_length(item)};
        if (!(wanted == current))
            return false;
        end = item + wanted.length;
    } else if (is_item(item, item_mark_itself)) {
        if (*at != item_mark)
            return false;
    } else if (is_item(item, item_any)) {
        may_cross = true;
    } else if (is_item(item, item_set)) {
        may_cross = true;
        const char *mark = end_of_set(end);
        if (mark == nullptr || !is_in_set(end, current))
            return false;
        end = mark + 1;
    } else {
        return false; // no pattern that was compiled here
    }
    item = end;
    at += current.length;
    return true;
}

bool take_separator(const char *&item, const char *&at)
{
    if (*at != '/')
        return false;
    item = skip_slashes(item);
    at = skip_slashes(at);
    return *at != '\0' || !is_item(item, item_run);
}

// What may be left of the pattern at the end of the string.
template <bool is_path> bool is_optional(const char *item)
{
    while (is_item(item, item_run) || is_item(item, item_levels))
        item += 2;
    while (is_path && *item == '/') {
        ++item;
        if (is_item(item, item_levels))
            item += 2;
    }
    return *item == '\0';
}

// What may be left of the string at the end of the pattern.
template <bool is_path> bool is_used_up(const char *at)
{
    return *(is_path ? skip_slashes(at) : at) == '\0';
}

// Takes what leaves no choice, and goes on to what does; a `*` that fits in one way only is none. It works on copies
// and is inlined, so that they live in registers.
template <bool is_path>
[[gnu::always_inline]] inline Step advance(const char *&io_item, const char *&io_at, bool &may_cross)
{
    const char *item = io_item;
    const char *at = io_at;
    Step step = Step::failed;
    for (;;) {
        for (; is_plain<is_path>(*item) && *item == *at; ++at)
            ++item;
        if (is_plain<is_path>(*item))
            return Step::failed;
        if (*at == '\0')
            return is_optional<is_path>(item) ? Step::matched : Step::failed;
        if (*item == '\0')
            return is_used_up<is_path>(at) ? Step::matched : Step::failed;
        if (is_path && *item == '/') {
            if (!take_separator(item, at))
                return Step::failed;
            continue;
        }
        if (is_item(item, item_levels)) {
            step = Step::levels;
            break;
        }
        if (is_item(item, item_run)) {
            while (is_item(item, item_run))
                item += 2;
            if (*item == '\0' && !is_path)
                return Step::matched;
            if (*item != '\0' && (*item != '/' || !is_path)) {
                step = Step::run;
                break;
            }
            at = strchrnul(at, '/');
            continue;
        }
        io_item = item;
        io_at = at;
        if (!take_item(io_item, io_at, may_cross))
            return Step::failed;
        item = io_item;
        at = io_at;
    }
    io_item = item;
    io_at = at;
    return step;
}

template <bool is_path> class Matcher {
  public:
    Matcher() = default;
    ~Matcher()
    {
        if (choices_ != first_choices_)
            stg_free_int(choices_, 1);
    }
    Matcher(const Matcher &) = delete;
    Matcher &operator=(const Matcher &) = delete;

    // Goes on from a first choice.
    bool run(Step step, const char *item, const char *at)
    {
        item_ = item;
        at_ = at;
        for (;;) {
            const bool goes_on = (step == Step::run && enter_run()) || (step == Step::levels && enter_levels());
            if (!goes_on && !go_back())
                return false;
            step = advance<is_path>(item_, at_, may_cross_);
            if (step == Step::matched)
                return true;
        }
    }

  private:
    // Behind a `*`: goes on where that may match; false when it cannot.
    bool enter_run()
    {
        Choice *choice = push(item_);
        if (choice == nullptr)
            return false;
        choice->rest = item_;
        choice->next = at_;
        return retry(*choice);
    }

    bool enter_levels()
    {
        if (is_ended_by_levels(item_)) {
            item_ = "";
            at_ += std::strlen(at_);
            return at_[-1] == '/';
        }
        count_ = 0;
        levels_rest_ = skip_slashes(item_ + 2);
        levels_at_ = at_;
        item_ = levels_rest_;
        may_cross_ = false;
        return true;
    }

    // Nothing but levels is left: what they leave of the string must be empty, so that it ends in '/'.
    static bool is_ended_by_levels(const char *item)
    {
        while (*item == '/' || is_item(item, item_levels))
            item += *item == '/' ? 1 : 2;
        return *item == '\0';
    }

    // A place for a choice at `at_`; nullptr when it needs none, or there is none.
    Choice *push(const char *rest)
    {
        const bool is_alone = count_ == 0 || (count_ == 1 && !may_cross_);
        if (!is_path || is_alone) {
            count_ = 1;
            return &choices_[0];
        }
        const char *barrier = strchrnul(at_, '/');
        if (*barrier == '\0') {
            count_ = 1;
            return &choices_[0];
        }
        if (!may_cross_)
            choices_[count_ - 1].next = nullptr;
        if (count_ < known_ && choices_[count_].rest == rest && at_ <= choices_[count_].barrier)
            return nullptr;
        if (count_ == capacity_ && !grow())
            return nullptr;
        choices_[count_].barrier = barrier;
        ++count_;
        known_ = std::max(known_, count_);
        return &choices_[count_ - 1];
    }

    bool grow()
    {
        if (is_exhausted_)
            return false;
        std::size_t bytes = 0;
        if (!__builtin_mul_overflow(capacity_, 2 * sizeof(Choice), &bytes)) {
            auto *grown = static_cast<Choice *>(heap_try_malloc(bytes));
            if (grown != nullptr) {
                std::memcpy(grown, choices_, known_ * sizeof(Choice));
                if (choices_ != first_choices_)
                    stg_free_int(choices_, 1);
                choices_ = grown;
                capacity_ *= 2;
                return true;
            }
        }
        is_exhausted_ = true;
        return false;
    }

    // To the latest choice that has something left.
    bool go_back()
    {
        if (is_exhausted_) {
            errno = ENOMEM;
            return false;
        }
        for (; count_ > 0; --count_) {
            if (retry(choices_[count_ - 1]))
                return true;
        }
        return retry_levels();
    }

    bool retry(Choice &choice)
    {
        if (choice.next == nullptr)
            return false;
        at_ = find_start(choice.rest, choice.next);
        if (at_ == nullptr) {
            choice.next = nullptr;
            return false;
        }
        item_ = choice.rest;
        const bool is_last = *at_ == '\0' || (is_path && *at_ == '/');
        choice.next = is_last ? nullptr : at_ + character_length(at_);
        may_cross_ = false;
        return true;
    }

    // The first position from `at` on within reach of a `*` where `rest` may match, or nullptr.
    static const char *find_start(const char *rest, const char *at)
    {
        if (!is_plain<is_path>(*rest))
            return at;
        while (*at != *rest) {
            if (*at == '\0' || (is_path && *at == '/'))
                return nullptr;
            at += character_length(at);
        }
        return at;
    }

    // Goes on behind the next '/'.
    bool retry_levels()
    {
        if (levels_rest_ == nullptr)
            return false;
        const char *slash = std::strchr(levels_at_, '/');
        if (slash == nullptr)
            return false;
        levels_at_ = slash + 1;
        item_ = levels_rest_;
        at_ = levels_at_;
        may_cross_ = false;
        return true;
    }

    bool may_cross_ = false; // `?` or a set was taken since the latest choice
    bool is_exhausted_ = false;
    const char *item_ = nullptr;
    const char *at_ = nullptr;

    const char *levels_rest_ = nullptr; // of the latest "..."
    const char *levels_at_ = nullptr;

    Choice first_choices_[32]; // not initialised: most patterns use one
    Choice *choices_ = first_choices_;
    std::size_t capacity_ = std::size(first_choices_);
    std::size_t count_ = 0;
    std::size_t known_ = 0; // those above `count_` up to this one were left and are remembered
};

// Behind the last `*`: most patterns end in plain text, and then the string's own end decides. False when it
// does not.
template <bool is_path> bool is_decided_by_end(const char *rest, const char *at, bool &out_matches)
{
    std::size_t size = 0;
    while (is_plain<is_path>(rest[size]))
        ++size;
    if (rest[size] != '\0')
        return false;
    std::size_t length = std::strlen(at);
    if (is_path && at[length - 1] == '/')
        return false;
    out_matches = length >= size;
    while (out_matches && size > 0)
        out_matches = at[--length] == rest[--size];
    if (!out_matches || length == 0)
        return true;
    if (is_path && std::memchr(at, '/', length) != nullptr)
        out_matches = false;
    return static_cast<unsigned char>(at[length - 1]) < 0x80; // else the end might begin inside a character
}

// Away from match(), which does without its room most of the time.
template <bool is_path> __attribute__((noinline)) bool match_by_choices(Step step, const char *item, const char *at)
{
    Matcher<is_path> matcher; // not "Matcher()", which would clear the choices
    return matcher.run(step, item, at);
}

template <bool is_path> bool match(const char *item, const char *at)
{
    bool may_cross = false;
    const Step step = advance<is_path>(item, at, may_cross);
    if (step == Step::matched || step == Step::failed)
        return step == Step::matched;
    bool matches = false;
    if (step == Step::run && is_decided_by_end<is_path>(item, at, matches))
        return matches;
    return match_by_choices<is_path>(step, item, at);
}

} // namespace

bool match_name(const char *compiled, const char *name)
{
    return match<true>(compiled, name);
}

} // namespace ks::wild

extern "C" int wild_match(const char *compiled, const char *string, int path_mode)
{
    using ks::wild::match;
    return (path_mode != 0 ? match<true>(compiled, string) : match<false>(compiled, string)) ? 1 : 0;
}
