// Matching a string against a compiled pattern.
//
// Most items match or not, and then the next one is looked at. Two leave a choice: `*` may take
// more characters, "..." more components. A choice is gone back to when what follows it does not match.
// What keeps this from trying everything against everything:
//
//  - The places at which one and the same choice is reached never go back. What was tried from an earlier
//    place, up to the end of its component (for "...", and for `*` outside path mode: of the string), need
//    not be tried again, and so each choice remembers how far it has been tried. Each is thus tried once at
//    most from every place of the string.
//  - A choice that extends to the string's end makes all earlier ones superfluous: they could only
//    lead to the same choice further right, where it will be tried anyhow, and are given up. (A "..."
//    at the end of a pattern does not, as they could also lead to the string's end.)
//  - So does any other `*` for the `*` before it, unless that could lead into a later component. Between the two
//    that takes an item that takes a '/' or something else: `?` or a set. (A '/' fits only one
//    end of the `*` before it.)
#include "text/wild_impl.h"

#include "kernel/stg_quiet.h"

#include <algorithm>
#include <climits>
#include <iterator>

namespace ks::wild {

namespace {

// Where a try has come to: the next item, and the next character.
struct Place {
    const char *item;
    const char *at;
};

constexpr Place nowhere{nullptr, nullptr};

// What a walk along items that leave no choice has come to.
enum class End {
    mismatch,
    match,
    run,
    levels,
};

struct Walked {
    End end;
    bool may_cross; // `?` or a set was taken
    Place place;    // of the choice
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

Place take_set(Place place, const Character &current)
{
    const char *members = place.item + 2;
    const char *mark = end_of_set(members);
    if (mark == nullptr || !is_in_set(members, current))
        return nowhere;
    return {mark + 1, place.at + current.length};
}

Place take_character(Place place, const Character &current)
{
    const Character wanted{place.item, character_length(place.item)};
    return wanted == current ? Place{place.item + wanted.length, place.at + current.length} : nowhere;
}

Place take_separator(Place place)
{
    if (*place.at != '/')
        return nowhere;
    const Place behind{skip_slashes(place.item), skip_slashes(place.at)};
    return *behind.at == '\0' && is_item(behind.item, item_run) ? nowhere : behind;
}

// Takes one item that is neither plain nor a choice nor a separator, not at the string's end: the place behind it in
// both, or nowhere.
Place take_item(Place place)
{
    const Character current{place.at, character_length(place.at)};
    if (*place.item != item_mark)
        return take_character(place, current);
    switch (place.item[1]) {
    case item_mark_itself:
        return *place.at == item_mark ? Place{place.item + 2, place.at + 1} : nowhere;
    case item_any:
        return {place.item + 2, place.at + current.length};
    case item_set:
        return take_set(place, current);
    default:
        return nowhere; // no pattern that was compiled here
    }
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

template <bool is_path> Place skip_equal(Place place)
{
    while (is_plain<is_path>(*place.item) && *place.item == *place.at) {
        ++place.item;
        ++place.at;
    }
    return place;
}

// Takes what leaves no choice, up to what does. Inlined, so that the place lives in registers.
template <bool is_path> [[gnu::always_inline]] inline Walked walk(Place place)
{
    bool may_cross = false;
    const auto ended = [&](bool matches) { return Walked{matches ? End::match : End::mismatch, may_cross, nowhere}; };
    for (;;) {
        place = skip_equal<is_path>(place);
        if (is_plain<is_path>(*place.item))
            return ended(false);
        if (*place.at == '\0')
            return ended(is_optional<is_path>(place.item));
        if (*place.item == '\0')
            return ended(is_used_up<is_path>(place.at));
        if (is_item(place.item, item_run))
            return {End::run, may_cross, place};
        if (is_item(place.item, item_levels))
            return {End::levels, may_cross, place};
        may_cross = may_cross || is_item(place.item, item_any) || is_item(place.item, item_set);
        place = is_path && *place.item == '/' ? take_separator(place) : take_item(place);
        if (place.item == nullptr)
            return ended(false);
    }
}

// Behind a `*`, and others that follow it.
const char *skip_runs(const char *item)
{
    do
        item += 2;
    while (is_item(item, item_run));
    return item;
}

// Where a `*` at `at` ends at the latest.
template <bool is_path> const char *end_of_run(const char *at)
{
    return is_path ? strchrnul(at, '/') : at + std::strlen(at);
}

// Whether a `*` cannot take a character. Where its rest begins so, that fits only at the `*`'s end.
template <bool is_path> bool ends_run(char c)
{
    return c == '\0' || (is_path && c == '/');
}

// A `*` or "..." on the way here, or one that was: then it says how far it has been tried.
struct Choice {
    const char *rest;
    const char *next;    // where the rest is tried next, nullptr: nowhere
    const char *barrier; // what was tried reaches up to here; of `*` in path mode only, and of "..."
    bool is_levels;
};

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

    // Goes on from the first choice.
    bool run(Walked walked)
    {
        while (walked.end != End::match) {
            const bool goes_on = (walked.end == End::run && enter_run(walked)) ||
                                 (walked.end == End::levels && enter_levels(walked.place));
            if (!goes_on && !go_back())
                return false;
            walked = walk<is_path>(place_);
        }
        return true;
    }

  private:
    // To the first try of a `*`; false when there is none.
    bool enter_run(const Walked &walked)
    {
        const char *at = walked.place.at;
        if (was_tried(at))
            return false;
        const char *rest = skip_runs(walked.place.item);
        const bool is_end_only = ends_run<is_path>(*rest);
        const char *end = is_path || is_end_only ? end_of_run<is_path>(at) : nullptr;
        if (!is_path || *end == '\0')
            give_up_choices();
        else if (count_ > 0 && !walked.may_cross)
            give_up_latest_run();
        return push({rest, is_end_only ? end : at, end, false}) && retry(choices_[count_ - 1]);
    }

    // The same for "...".
    bool enter_levels(const Place &place)
    {
        if (was_tried(place.at))
            return false;
        const char *end = place.at + std::strlen(place.at);
        const char *rest = skip_slashes(place.item + 2);
        if (!is_ended_by_levels(rest)) {
            give_up_choices();
            return push({rest, place.at, end, true}) && retry(choices_[0]);
        }
        // What it leaves of the string must be empty, so that the string ends in '/'.
        if (end[-1] == '/') {
            place_ = {"", end};
            return true;
        }
        (void)push({rest, nullptr, end, true}); // to be remembered
        return false;
    }

    static bool is_ended_by_levels(const char *item)
    {
        while (*item == '/' || is_item(item, item_levels))
            item += *item == '/' ? 1 : 2;
        return *item == '\0';
    }

    // Whether the choice that is reached next has been tried from here on.
    bool was_tried(const char *at) const { return count_ < known_ && at <= choices_[count_].barrier; }

    void give_up_choices() { count_ = known_ = 0; }

    // Where it is the only choice its place is free, otherwise it must remember.
    void give_up_latest_run()
    {
        Choice &latest = choices_[count_ - 1];
        if (latest.is_levels)
            return;
        if (count_ == 1)
            give_up_choices();
        else
            latest.next = nullptr;
    }

    bool push(const Choice &choice)
    {
        if (count_ == capacity_ && !grow(choice.rest))
            return false;
        choices_[count_++] = choice;
        known_ = std::max(known_, count_);
        return true;
    }

    // Once and for all: there are no more choices than items, which have two bytes. Without memory
    // nothing more is tried.
    bool grow(const char *rest)
    {
        const std::size_t most = capacity_ + 1 + std::strlen(rest) / 2;
        auto *grown = static_cast<Choice *>(heap_try_malloc(most * sizeof(Choice)));
        if (grown == nullptr) {
            errno = ENOMEM;
            give_up_choices();
            return false;
        }
        std::memcpy(grown, choices_, count_ * sizeof(Choice));
        choices_ = grown;
        capacity_ = most;
        return true;
    }

    // To the latest choice that has something left.
    bool go_back()
    {
        for (; count_ > 0; --count_) {
            if (retry(choices_[count_ - 1]))
                return true;
        }
        return false;
    }

    bool retry(Choice &choice)
    {
        if (choice.next == nullptr)
            return false;
        const char *at = find_start(choice);
        choice.next = at == nullptr ? nullptr : next_start(choice, at);
        place_ = {choice.rest, at};
        return at != nullptr;
    }

    // The first place within reach where the rest may match, or nullptr.
    static const char *find_start(const Choice &choice)
    {
        const char first = *choice.rest;
        const char *at = choice.next;
        if (choice.is_levels || !is_plain<is_path>(first))
            return at;
        for (; *at != first; at += character_length(at)) {
            if (ends_run<is_path>(*at))
                return nullptr;
        }
        return at;
    }

    static const char *next_start(const Choice &choice, const char *at)
    {
        if (choice.is_levels) {
            const char *slash = std::strchr(at, '/');
            return slash == nullptr ? nullptr : slash + 1;
        }
        return ends_run<is_path>(*at) ? nullptr : at + character_length(at);
    }

    Place place_ = nowhere;    // of the next try
    Choice first_choices_[32]; // not initialised: most patterns use one
    Choice *choices_ = first_choices_;
    std::size_t capacity_ = std::size(first_choices_);
    std::size_t count_ = 0;
    std::size_t known_ = 0; // those above `count_` up to this one were left and are remembered
};

enum class Verdict {
    open,
    no,
    yes,
};

// Behind the last `*`, before the string's end: most patterns end in plain text, and then the end of the
// string decides, in path mode where it is no '/'.
template <bool is_path> Verdict judge_by_end(const char *rest, const char *at)
{
    std::size_t size = 0;
    while (is_plain<is_path>(rest[size]))
        ++size;
    if (rest[size] != '\0')
        return Verdict::open;
    std::size_t taken = std::strlen(at); // by the `*`
    if (is_path && at[taken - 1] == '/')
        return Verdict::open;
    if (taken < size)
        return Verdict::no;
    while (size > 0) { // most differ in the last character
        if (at[--taken] != rest[--size])
            return Verdict::no;
    }
    if (is_path && std::memchr(at, '/', taken) != nullptr)
        return Verdict::no;
    // Else the end might begin inside a character.
    return taken == 0 || static_cast<unsigned char>(at[taken - 1]) < 0x80 ? Verdict::yes : Verdict::open;
}

// Away from match(), which does without its room most of the time.
template <bool is_path> [[gnu::noinline]] bool match_by_choices(End first, Place place)
{
    Matcher<is_path> matcher; // not "Matcher()", which would clear the choices
    return matcher.run({first, false, place});
}

template <bool is_path> bool match(const char *compiled, const char *string)
{
    Place place{compiled, string};
    for (;;) {
        const Walked walked = walk<is_path>(place);
        if (walked.end == End::match || walked.end == End::mismatch)
            return walked.end == End::match;
        if (walked.end == End::levels)
            return match_by_choices<is_path>(walked.end, walked.place);
        place = {skip_runs(walked.place.item), walked.place.at};
        if (!ends_run<is_path>(*place.item)) {
            const Verdict verdict = judge_by_end<is_path>(place.item, place.at);
            return verdict == Verdict::open ? match_by_choices<is_path>(walked.end, walked.place)
                                            : verdict == Verdict::yes;
        }
        place.at = end_of_run<is_path>(place.at);
    }
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
