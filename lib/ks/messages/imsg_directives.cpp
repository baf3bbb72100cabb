// Whether a translated text may be formatted with the arguments that were written for another text.
//
// A text whose directives are those of the default text, in their order, always may. Any other one is taken apart:
// each argument must be used, and be used as in the default text, and nothing may be written through one, read
// behind what a precision allows, or blown up by a hostile width.
#include "messages/imsg_impl.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace {

constexpr std::size_t arguments_max = 32;
constexpr int digits_max = 4; // of a width, precision or position: a text must not make a message of gigabytes

enum class Conversion : std::uint8_t {
    none, // the argument is not used
    width,
    precision,
    signed_integer,
    unsigned_integer,
    floating,
    character,
    string,
    pointer,
    error_text, // takes no argument, as all below
    percent,
    written_through,
    unknown,
};

// A width or precision.
struct Number {
    bool is_given = false;
    bool is_argument = false;
    int value = 0; // of an argument: its position, 0 for the next one
};

struct Directive {
    std::string_view text; // from the "%" to the conversion
    int position = 0;      // of its value; 0: the next argument
    Number width;
    Number precision;
    std::string_view length; // "ll"
    Conversion conversion = Conversion::unknown;
    bool has_long_number = false;
};

// Reads the parts of a directive.
class Reader {
  public:
    explicit Reader(const char *at) : at_(at) {}

    const char *at() const { return at_; }
    bool has_long_number() const { return has_long_number_; }

    bool skip(char c)
    {
        const bool is_there = *at_ == c;
        at_ += is_there ? 1 : 0;
        return is_there;
    }

    std::string_view take_all_of(const char *set)
    {
        const std::string_view taken(at_, std::strspn(at_, set));
        at_ += taken.size();
        return taken;
    }

    int take_digits()
    {
        int value = 0;
        const std::string_view digits = take_all_of("0123456789");
        if (digits.size() > digits_max)
            has_long_number_ = true;
        else
            for (const char digit : digits)
                value = value * 10 + (digit - '0');
        return value;
    }

    // "2$", or 0 and nothing is taken.
    int take_position()
    {
        const char *const before = at_;
        const int position = take_digits();
        if (position > 0 && skip('$'))
            return position;
        at_ = before;
        return 0;
    }

    Number take_number()
    {
        if (skip('*'))
            return {true, true, take_position()};
        const char *const before = at_;
        const int value = take_digits();
        return {at_ != before, false, value};
    }

    // Doubled letters and, of C23, "w32" and "wf32" included.
    std::string_view take_length()
    {
        const char *const before = at_;
        if (skip('w')) {
            (void)skip('f');
            (void)take_digits();
        } else {
            (void)take_all_of("hlqLjzZt");
        }
        return {before, static_cast<std::size_t>(at_ - before)};
    }

  private:
    const char *at_;
    bool has_long_number_ = false;
};

bool is_one_of(std::string_view text, std::initializer_list<std::string_view> others)
{
    for (const std::string_view other : others) {
        if (text == other)
            return true;
    }
    return false;
}

// What a conversion makes of its argument, when the length can stand before it.
Conversion conversion_of(char letter, std::string_view length)
{
    const bool is_plain = length.empty();
    const bool is_integer = is_one_of(length, {"", "hh", "h", "l", "ll", "q", "L", "j", "z", "Z", "t"});
    Conversion conversion = Conversion::unknown;
    bool is_right = is_plain;
    if (letter == 'd' || letter == 'i') {
        conversion = Conversion::signed_integer;
        is_right = is_integer;
    } else if (letter != '\0' && std::strchr("ouxX", letter) != nullptr) {
        conversion = Conversion::unsigned_integer;
        is_right = is_integer;
    } else if (letter != '\0' && std::strchr("aAeEfFgG", letter) != nullptr) {
        conversion = Conversion::floating;
        is_right = is_one_of(length, {"", "l", "L"});
    } else if (letter == 'c' || letter == 's') {
        conversion = letter == 'c' ? Conversion::character : Conversion::string;
        is_right = is_one_of(length, {"", "l"});
    } else if (letter == 'p') {
        conversion = Conversion::pointer;
    } else if (letter == 'm') {
        conversion = Conversion::error_text;
    } else if (letter == 'n') {
        return Conversion::written_through; // whatever its length
    }
    return is_right ? conversion : Conversion::unknown;
}

// Reads what begins with the "%" at `format`.
Directive read_directive(const char *format)
{
    Directive directive;
    Reader reader(format + 1);
    directive.position = reader.take_position();
    (void)reader.take_all_of(" #'+-0I");
    directive.width = reader.take_number();
    if (reader.skip('.')) {
        directive.precision = reader.take_number();
        directive.precision.is_given = true; // "%.f"
    }
    directive.length = reader.take_length();
    const char letter = *reader.at();
    const std::size_t size = static_cast<std::size_t>(reader.at() - format) + (letter != '\0' ? 1 : 0);
    directive.text = {format, size};
    directive.has_long_number = reader.has_long_number();
    directive.conversion = directive.text == "%%" ? Conversion::percent : conversion_of(letter, directive.length);
    return directive;
}

// The next directive that is not "%%"; false at the end.
bool next_directive(const char *&at, Directive &out)
{
    while ((at = std::strchr(at, '%')) != nullptr) {
        out = read_directive(at);
        at += out.text.size();
        if (out.conversion != Conversion::percent)
            return true;
    }
    return false;
}

// Whether the directives are the same ones in the same order, of whatever kind they are. What writes through an
// argument never is: the C library ends a process over a "%n" in memory that can be written to.
bool has_equal_directives(const char *text, const char *default_text)
{
    for (;;) {
        Directive directive;
        Directive default_directive;
        const bool is_one = next_directive(text, directive);
        if (is_one != next_directive(default_text, default_directive))
            return false;
        if (!is_one)
            return true;
        if (directive.text != default_directive.text || directive.conversion == Conversion::written_through)
            return false;
    }
}

// What a text does with one argument.
struct Use {
    Conversion conversion = Conversion::none;
    std::string_view length{};
    Number precision{}; // its position, where it is an argument, is counted from 1
};

constexpr const char *mixes_positions = "mixes positions and plain directives";
constexpr const char *takes_other_arguments = "takes other arguments";
constexpr const char *drops_precision = "drops or exceeds a precision";

// What a text does with all of its arguments.
class Uses {
  public:
    // Why the text cannot be taken apart; NULL when it can.
    const char *read(const char *text)
    {
        Directive directive;
        while (next_directive(text, directive)) {
            if (directive.has_long_number)
                return "holds a number of more than 4 digits";
            if (directive.conversion == Conversion::written_through)
                return "writes through an argument";
            if (directive.conversion == Conversion::unknown)
                return "holds a directive that is not known";
            if (const char *refusal = add(directive); refusal != nullptr)
                return refusal;
        }
        for (std::size_t i = 0; i < count_; ++i) {
            if (uses_[i].conversion == Conversion::none)
                return takes_other_arguments; // leaves one out
        }
        return nullptr;
    }

    // Why a text with these uses cannot stand for one with those of `other`.
    const char *refusal_in_place_of(const Uses &other) const
    {
        if (count_ != other.count_ || error_texts_ != other.error_texts_)
            return takes_other_arguments;
        for (std::size_t i = 0; i < count_; ++i) {
            if (uses_[i].conversion != other.uses_[i].conversion || uses_[i].length != other.uses_[i].length)
                return takes_other_arguments;
            if (!keeps_precision(uses_[i], other.uses_[i].precision))
                return drops_precision;
        }
        return nullptr;
    }

  private:
    // A string is read as far as its precision says, and may have no end behind that.
    static bool keeps_precision(const Use &use, const Number &wanted)
    {
        if (!wanted.is_given)
            return true;
        if (!use.precision.is_given)
            return false;
        if (use.conversion != Conversion::string)
            return true;
        return use.precision.is_argument == wanted.is_argument &&
               (wanted.is_argument ? use.precision.value == wanted.value : use.precision.value <= wanted.value);
    }

    const char *add(const Directive &directive)
    {
        if (directive.conversion == Conversion::error_text) {
            ++error_texts_;
            return directive.width.is_argument || directive.precision.is_argument ? takes_other_arguments : nullptr;
        }
        Number precision = directive.precision;
        if (directive.width.is_argument && place(directive.width.value, {Conversion::width}) == 0)
            return refusal_;
        if (precision.is_argument) {
            precision.value = place(precision.value, {Conversion::precision});
            if (precision.value == 0)
                return refusal_;
        }
        return place(directive.position, {directive.conversion, directive.length, precision}) == 0 ? refusal_ : nullptr;
    }

    // Notes a use of the argument at a position, 0 for the next one. Its position; 0 when that cannot be, with the
    // reason in `refusal_`.
    int place(int position, const Use &use)
    {
        const bool is_plain = position == 0;
        if (count_ != 0 && is_plain != is_plain_)
            return refuse(mixes_positions);
        is_plain_ = is_plain;
        const std::size_t index = is_plain ? count_ : static_cast<std::size_t>(position) - 1;
        if (index >= arguments_max)
            return refuse("takes more arguments than can be compared");
        Use &noted = uses_[index];
        if (noted.conversion != Conversion::none && (noted.conversion != use.conversion || noted.length != use.length))
            return refuse(takes_other_arguments);
        // Used again, with a bound and without one: neither is what the other text promised.
        if (noted.conversion != Conversion::none && !is_same(noted.precision, use.precision))
            return refuse(drops_precision);
        noted = use;
        count_ = std::max(count_, index + 1);
        return static_cast<int>(index) + 1;
    }

    static bool is_same(const Number &a, const Number &b)
    {
        return a.is_given == b.is_given && a.is_argument == b.is_argument && a.value == b.value;
    }

    int refuse(const char *reason)
    {
        refusal_ = reason;
        return 0;
    }

    std::array<Use, arguments_max> uses_{};
    std::size_t count_ = 0;
    int error_texts_ = 0; // "%m"
    bool is_plain_ = true;
    const char *refusal_ = nullptr;
};

} // namespace

namespace ks::imsg {

const char *refusal_of(const char *text, const char *default_text)
{
    if (has_equal_directives(text, default_text))
        return nullptr;
    Uses of_text;
    if (const char *refusal = of_text.read(text); refusal != nullptr)
        return refusal;
    Uses of_default;
    if (of_default.read(default_text) != nullptr)
        return "has not the directives of a default text that cannot be compared";
    return of_text.refusal_in_place_of(of_default);
}

} // namespace ks::imsg
