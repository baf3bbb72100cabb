// Splits a line of text into words.
//
// The line is walked twice by the same rules: once to count words and bytes, once to store them. So
// what is allocated is exactly what is filled, whatever quotes, escapes and the locale make of it.
#include "command/cl_impl.h"

#include <korvaks/strutl.h>

#include <cstring>

namespace {

using ks::cl::create_handle;
using ks::cl::Extent;
using ks::cl::move_to_word;
using ks::cl::WordStore;

// Counts what WordStore will be given.
class WordMeter {
  public:
    void begin_word() { ++extent_.words; }
    void append(const char *, std::size_t count) { extent_.bytes += count; }
    void end_word() { ++extent_.bytes; }

    const Extent &extent() const { return extent_; }

  private:
    Extent extent_; // no sum overflows: every byte counted stands for one of the line or a word's end
};

template <typename Words> class LineSplitter {
  public:
    explicit LineSplitter(Words &words) : words_(words) {}

    void split(const char *line)
    {
        const char *const end = line + std::strlen(line);
        std::size_t length = 0;
        for (const char *at = line; at < end; at += length) {
            const bool is_blank = is_blank_at(at, end, length);
            if (!take(at, length, is_blank))
                break;
        }
        end_word();
    }

  private:
    // A newline is no blank: it ends the line, or stands for itself when it is escaped.
    static bool is_blank_at(const char *at, const char *end, std::size_t &out_length)
    {
        const auto available = static_cast<std::size_t>(end - at);
        return strutl_test_char(at, available, STRUTL_SPACE, &out_length) != 0 && *at != '\n';
    }

    // False at the end of the line.
    bool take(const char *at, std::size_t length, bool is_blank)
    {
        // Kept exactly: a blank is tested before the escape, so a backslash does not protect it and
        // stays pending for the next character that is no blank. Command files rely on it.
        if (is_blank && quote_ == '\0') {
            end_word();
            return true;
        }
        if (!is_escaped_ && take_special(*at))
            return *at != '\n';
        is_escaped_ = false;
        begin_word();
        words_.append(at, length);
        return true;
    }

    // Acts on a character that has a meaning of its own; false when it has none.
    bool take_special(char c)
    {
        if (c == '\n')
            return true;
        if (c == '\\') {
            is_escaped_ = true;
            return true;
        }
        if (quote_ == '\0' && (c == '\'' || c == '"')) {
            quote_ = c;
            begin_word();
            return true;
        }
        if (quote_ == '\0' || c != quote_)
            return false;
        quote_ = '\0';
        return true;
    }

    void begin_word()
    {
        if (!is_in_word_)
            words_.begin_word();
        is_in_word_ = true;
    }

    void end_word()
    {
        if (is_in_word_)
            words_.end_word();
        is_in_word_ = false;
    }

    Words &words_;
    bool is_in_word_ = false;
    bool is_escaped_ = false;
    char quote_ = '\0'; // the quote that closes the stretch; NUL outside quotes
};

} // namespace

extern "C" cl_handle *cl_parse_line(const char *line, int *err)
{
    ks::cl::here.require(line != nullptr, "line != NULL");
    WordMeter meter;
    LineSplitter(meter).split(line);
    cl_handle *const clh = create_handle(meter.extent());
    *err = clh == nullptr ? CL_OUT_OF_MEMORY : CL_NO_ERROR;
    if (clh == nullptr)
        return nullptr;
    WordStore store(clh);
    LineSplitter(store).split(line);
    move_to_word(clh, 0);
    return clh;
}
