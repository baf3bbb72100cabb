// The report language: a control string is walked once, text is copied in runs, and each directive is
// parsed, then rendered by the caller's procedure or, for "t", here.
//
// A walk passes delivery checks of raises, so that nothing in it has a destructor.
#include <korvaks/strfmt.h>

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "text/strfmt_impl.h"
#include "util/strutl_msg.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace ks::strfmt {

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_ascii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

std::size_t length_of_character(const char *at)
{
    return is_ascii(*at) ? 1 : static_cast<std::size_t>(strutl_mblen(at, MB_LEN_MAX));
}

bool is_space(const char *at)
{
    return is_ascii(*at) ? std::isspace(*at) != 0 : strutl_test_char(at, MB_LEN_MAX, STRUTL_SPACE, nullptr) != 0;
}

// Takes digits; `out_value` stays as it is without any. A number above `most` is false, and `at` then at the digit
// that makes it one.
bool take_number(const char *&at, int most, int &out_value)
{
    if (!is_digit(*at))
        return true;
    int value = 0;
    for (; is_digit(*at); ++at) {
        const int digit = *at - '0';
        if (value > (most - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    out_value = value;
    return true;
}

bool take_signed_number(const char *&at, int most, int &out_value)
{
    const bool is_negative = *at == '-';
    if (is_negative)
        ++at;
    if (!take_number(at, most, out_value))
        return false;
    if (is_negative && out_value != STRFMT_NONE)
        out_value = -out_value;
    return true;
}

// A text of bounded length that is part of a directive.
struct Part {
    char text[STRFMT_BRACKET_MAX + 1];
    std::size_t length;

    void clear()
    {
        length = 0;
        text[0] = '\0';
    }

    bool append(const char *bytes, std::size_t count)
    {
        if (count > STRFMT_BRACKET_MAX - length)
            return false;
        std::memcpy(text + length, bytes, count);
        length += count;
        text[length] = '\0';
        return true;
    }
};

// A directive with the places of its texts.
class Directive {
  public:
    explicit Directive(Output &output) : output_(output) {}

    // Parses what follows a "%". On success `at` is behind the conversion letter, otherwise at the bad
    // place, which is the "%" itself when the control string ends too early.
    bool parse(const char *&at, const char *conversions);

    const strfmt_directive &record() const { return record_; }
    bool has_modifier(char c) const { return std::strchr(modifiers_.text, c) != nullptr; }

    // The column that a "t" names; false when it names none.
    bool column(int &out_column) const
    {
        const char *at = text_.text;
        return is_digit(*at) && take_number(at, STRFMT_WIDTH_MAX, out_column) && *at == '\0' && argument_.length == 0;
    }

  private:
    bool take_bracket(const char *&at);

    Output &output_;
    strfmt_directive record_;
    Part text_;
    Part argument_;
    Part modifiers_;
};

// "[text]" or "[text:argument]"; ":" is no part of a multibyte character in any locale's encoding.
bool Directive::take_bracket(const char *&at)
{
    std::size_t close = 0;
    if (strutl_find_end_delim(at, 0, '[', ']', &close) != 0)
        return false;
    const char *inside = at + 1;
    const std::size_t length = close - 1;
    const auto *colon = static_cast<const char *>(std::memchr(inside, ':', length));
    const std::size_t text_length = colon == nullptr ? length : static_cast<std::size_t>(colon - inside);
    text_.clear();
    argument_.clear();
    if (!text_.append(inside, text_length) ||
        (colon != nullptr && !argument_.append(colon + 1, length - text_length - 1)))
        return false;
    at = inside + close;
    return true;
}

bool Directive::parse(const char *&at, const char *conversions)
{
    const char *start = at - 1;
    record_ = {STRFMT_NONE, STRFMT_NONE, text_.text, argument_.text, modifiers_.text, '\0', &output_};
    text_.clear();
    argument_.clear();
    modifiers_.clear();
    if (!take_signed_number(at, STRFMT_WIDTH_MAX, record_.width))
        return false;
    if (*at == '.' && !take_signed_number(++at, STRFMT_NONE, record_.precision))
        return false;
    while (*at != '\0') {
        if (is_space(at))
            return false;
        if (*at == '[') {
            if (!take_bracket(at))
                return false;
            continue;
        }
        if (*at == tab_letter || (is_ascii(*at) && std::strchr(conversions, *at) != nullptr)) {
            record_.conversion = *at++;
            return true;
        }
        const std::size_t length = length_of_character(at);
        if (!modifiers_.append(at, length))
            return false;
        at += length;
    }
    at = start;
    return false;
}

// What became of a step. Behind anything but `done` the walk ends.
enum class Step {
    done,
    bad,       // the control string is wrong
    full,      // the buffer is
    exhausted, // reported by the storage module
};

// One walk over a control string.
class Walk {
  public:
    Walk(Output &output, const char *conversions, const char *control, void *client, strfmt_callback callback)
        : output_(output), conversions_(conversions), at_(control), client_(client), callback_(callback),
          directive_(output)
    {
    }

    Step run()
    {
        constexpr unsigned steps_between_checks = 256;
        Step step = Step::done;
        for (unsigned steps = 1; step == Step::done && *at_ != '\0'; ++steps) {
            if (steps % steps_between_checks == 0)
                pfm_test_raise(nullptr); // a user's format may take long
            if (*at_ == '%')
                step = percent();
            else if (*at_ == '\\')
                step = escape();
            else
                step = plain_text();
        }
        return step;
    }

    // Where the walk has come to; behind Step::bad the bad place.
    const char *at() const { return at_; }

  private:
    Step put(const char *bytes, std::size_t count) { return output_.put(bytes, count) ? Step::done : full(); }
    Step fill(int count) { return output_.fill(std::max(count, 0)) ? Step::done : full(); }
    Step full() const { return output_.is_exhausted() ? Step::exhausted : Step::full; }

    Step plain_text()
    {
        const char *start = at_;
        while (*at_ != '\0' && *at_ != '%' && *at_ != '\\')
            at_ += length_of_character(at_);
        return put(start, static_cast<std::size_t>(at_ - start));
    }

    Step escape();
    Step octal_escape();
    Step percent();
    Step tabulate();
    Step render();

    Output &output_;
    const char *conversions_;
    const char *at_;
    void *client_;
    strfmt_callback callback_;
    Directive directive_;
};

Step Walk::escape()
{
    constexpr char letters[] = "ntr";
    constexpr char meanings[] = "\n\t\r";
    const char *after = at_ + 1;
    if (*after >= '0' && *after <= '7')
        return octal_escape();
    if (*after == '\0')
        --after; // a backslash at the end stands for itself
    const char *start = after;
    std::size_t length = length_of_character(after);
    at_ = after + length;
    if (const char *letter = std::strchr(letters, *after); letter != nullptr) {
        start = meanings + (letter - letters);
        length = 1;
    }
    return put(start, length);
}

Step Walk::octal_escape()
{
    constexpr int digits_max = 3;
    int value = 0;
    const char *digit = at_ + 1;
    for (int i = 0; i < digits_max && *digit >= '0' && *digit <= '7'; ++i, ++digit)
        value = value * 8 + (*digit - '0');
    if (value > UCHAR_MAX)
        return Step::bad;
    at_ = digit;
    const char byte = static_cast<char>(value);
    return put(&byte, 1);
}

Step Walk::percent()
{
    const char *start = at_++;
    if (*at_ == '%')
        return put(at_++, 1);
    if (!directive_.parse(at_, conversions_))
        return Step::bad;
    const char *behind = at_;
    at_ = start; // the bad place, if it comes to that
    const Step step = directive_.record().conversion == tab_letter ? tabulate() : render();
    if (step == Step::done)
        at_ = behind;
    return step;
}

Step Walk::tabulate()
{
    int column = 0;
    if (!directive_.column(column))
        return Step::bad;
    const int width = output_.line_width();
    const bool blank = directive_.has_modifier('S');
    const bool tab = !blank && directive_.has_modifier('T');
    const bool new_line = !blank && !tab && directive_.has_modifier('N');
    const bool must_separate = blank || tab || new_line;
    if (width < column - (must_separate ? 1 : 0))
        return fill(column - width - 1);
    if (blank || tab)
        return put(blank ? " " : "\t", 1);
    if (!new_line)
        return Step::done;
    const Step step = put("\n", 1);
    return step == Step::done ? fill(column - 1) : step;
}

Step Walk::render()
{
    here.require(callback_ != nullptr, "callback != NULL");
    const strfmt_directive &directive = directive_.record();
    const int width = directive.width == STRFMT_NONE ? 0 : std::abs(directive.width);
    if (output_.is_growing() && !output_.make_space(STRFMT_SPACE_MIN + static_cast<std::size_t>(width)))
        return full();
    const int answer = callback_(client_, output_.end(), output_.space(), &directive);
    if (answer != 0 && answer != STRFMT_FULL) {
        output_.terminate();
        return Step::bad;
    }
    const bool is_terminated = output_.take_rendered();
    // What fills a growing block to its end may have been cut by a procedure that says nothing of it.
    const bool may_be_cut = output_.is_growing() && output_.space() == 1;
    return answer == 0 && is_terminated && !may_be_cut ? Step::done : full();
}

int format(Output &output, const char *conversions, const char *control, void *client, strfmt_callback callback)
{
    Walk walk(output, conversions == nullptr ? "" : conversions, control == nullptr ? "" : control, client, callback);
    const Step step = walk.run();
    if (step == Step::bad)
        (void)imsg_print(msg_error, &_strutl_ks_msg_table, strutl_msg_bad_format, walk.at());
    else if (step == Step::full)
        (void)imsg_print(msg_error, &_strutl_ks_msg_table, strutl_msg_buffer_too_small);
    return step == Step::done ? 0 : 1;
}

} // namespace

} // namespace ks::strfmt

extern "C" {

int strfmt_gsprintf(char *out, size_t out_size, const char *conversions, const char *control, void *client,
                    strfmt_callback callback)
{
    if (out == nullptr || out_size == 0)
        return 0;
    ks::strfmt::Output output(out, out_size);
    return ks::strfmt::format(output, conversions, control, client, callback);
}

int strfmt_gsprintf_fmt(char **out, size_t size, const char *conversions, const char *control, void *client,
                        strfmt_callback callback)
{
    if (out == nullptr)
        return 0;
    ks::strfmt::Output output(out, size);
    if (!output.is_usable())
        return 1;
    return ks::strfmt::format(output, conversions, control, client, callback);
}

char *strfmt_more_space(const strfmt_directive *directive, size_t bytes)
{
    auto &output = *static_cast<ks::strfmt::Output *>(directive->output);
    return output.make_space(bytes == 0 ? 0 : bytes - 1) ? output.end() : nullptr;
}
}
