// Command strings: a string into words, and words into a string.
#include "command/clp_impl.h"

#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <cctype>
#include <climits>
#include <cstring>

namespace {

using ks::clp::fail;
using ks::clp::here;
using ks::clp::Result;
using ks::clp::Split;
using ks::clp::Words;

constexpr std::size_t token_bytes = sizeof(clp_tls::token);
static_assert(token_bytes == 8192);

// By bytes: no byte of a longer character is white space in any encoding of a locale.
bool is_blank(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_quote(char c)
{
    return c == '\'' || c == '"';
}

// Runs of characters that are no blanks.
std::size_t count_runs(const char *text)
{
    std::size_t runs = 0;
    bool is_in_run = false;
    for (; *text != '\0'; ++text) {
        const bool is_blank_here = is_blank(*text);
        runs += !is_blank_here && !is_in_run ? 1 : 0;
        is_in_run = !is_blank_here;
    }
    return runs;
}

enum class Token {
    word,
    end, // nothing but blanks was left
    unterminated_quote,
    too_long,
};

// Reads one word after another into the thread's buffer.
class Tokenizer {
  public:
    Tokenizer(const char *text, char (&buffer)[token_bytes])
        : at_(text), end_(text + std::strlen(text)), buffer_(buffer), has_long_characters_(MB_CUR_MAX > 1)
    {
    }

    const char *word() const { return buffer_; }

    Token next()
    {
        while (is_blank(*at_))
            ++at_;
        if (*at_ == '\0')
            return Token::end;
        length_ = 0;
        while (length_ < token_bytes) {
            if (is_at_end_of_word()) {
                buffer_[length_] = '\0';
                return Token::word;
            }
            if (*at_ == '\0')
                return Token::unterminated_quote;
            take();
        }
        return Token::too_long;
    }

  private:
    bool is_at_end_of_word()
    {
        if (quote_ == '\0')
            return *at_ == '\0' || is_blank(*at_);
        // Kept exactly: the quote that closes ends the word, whatever follows it. Command files rely
        // on it.
        if (*at_ != quote_)
            return false;
        ++at_;
        quote_ = '\0';
        return true;
    }

    void take()
    {
        const bool is_escape = *at_ == '\\' && (is_quote(at_[1]) || at_[1] == '\\');
        if (is_escape && quote_ != '\0') {
            copy(2);
        } else if (is_escape) {
            ++at_;
            copy(1);
        } else if (quote_ == '\0' && is_quote(*at_)) {
            quote_ = *at_++;
        } else {
            copy(character_length());
        }
    }

    std::size_t character_length() const
    {
        const bool is_ascii = static_cast<unsigned char>(*at_) < 0x80; // a whole character in every locale
        if (is_ascii || !has_long_characters_)
            return 1;
        return static_cast<std::size_t>(strutl_mblen(at_, static_cast<std::size_t>(end_ - at_)));
    }

    // What does not fit any more fills the buffer.
    void copy(std::size_t count)
    {
        if (count < token_bytes - length_)
            std::memcpy(buffer_ + length_, at_, count);
        else
            count = token_bytes - length_;
        length_ += count;
        at_ += count;
    }

    const char *at_;
    const char *end_;
    char *buffer_;
    std::size_t length_ = 0;
    char quote_ = '\0'; // the quote that closes; NUL outside quotes
    bool has_long_characters_;
};

// An area keeps what it gave out; only blocks of the heap go one by one.
void give_back(const Words &words, const stg_area *area)
{
    if (area != STG_AREA_HEAP)
        return;
    for (int i = 0; i < words.count; ++i)
        stg_free(words.vector[i]);
    stg_free(words.vector);
}

// At most `limit` words; any more are dropped in silence, which command files rely on.
Split collect(Tokenizer &tokenizer, std::size_t limit, stg_area *area, Words &words)
{
    while (static_cast<std::size_t>(words.count) < limit) {
        const Token token = tokenizer.next();
        if (token == Token::unterminated_quote)
            return Split::unterminated_quote;
        if (token == Token::too_long)
            return Split::word_too_long;
        if (token == Token::end)
            break;
        char *const copy = stg_area_strdup(area, tokenizer.word());
        if (copy == nullptr)
            break; // Kept exactly: the words so far are the result
        words.vector[words.count++] = copy;
    }
    words.vector[words.count] = nullptr;
    return Split::done;
}

// --- Joining ---

enum class Form {
    plain,
    escaped,       // quoted by the caller
    double_quoted, // needs quotes
    unterminated,
};

Form form_of(const char *word, std::size_t length, char escape)
{
    if (is_quote(word[0])) {
        if (word[length - 1] != word[0])
            return Form::unterminated;
        return escape != '\0' ? Form::escaped : Form::plain;
    }
    return std::strpbrk(word, " \t\r\n?*~[]") != nullptr ? Form::double_quoted : Form::plain;
}

char *append(char *to, const char *from, std::size_t length)
{
    std::memcpy(to, from, length);
    return to + length;
}

char *append_word(char *to, const char *word, char escape)
{
    const std::size_t length = std::strlen(word);
    switch (form_of(word, length, escape)) {
    case Form::escaped:
        *to++ = escape;
        to = append(to, word, length - 1);
        *to++ = escape;
        *to++ = word[0];
        return to;
    case Form::double_quoted:
        *to++ = '"';
        to = append(to, word, length);
        *to++ = '"';
        return to;
    default:
        return append(to, word, length);
    }
}

enum class Measure {
    done,
    too_large,
    unterminated_quote,
};

// Each word may grow by two bytes, and one more separates it from the next or ends the string.
Measure measure(int argc, char *const *argv, std::size_t &out_size)
{
    std::size_t size = 0;
    for (int i = 0; i < argc; ++i) {
        here.require(argv[i] != nullptr, "argv[i] != NULL");
        const std::size_t length = std::strlen(argv[i]);
        if (form_of(argv[i], length, '\0') == Form::unterminated)
            return Measure::unterminated_quote;
        if (__builtin_add_overflow(size, length + 3, &size))
            return Measure::too_large;
    }
    out_size = size > 0 ? size : 1;
    return Measure::done;
}

} // namespace

namespace ks::clp {

Split split(const char *command, stg_area *area, Words &out_words)
{
    const std::size_t limit = count_runs(command);
    if (limit >= INT_MAX)
        return Split::no_memory;
    Words words;
    words.vector = static_cast<char **>(stg_alloc(area, (limit + 1) * sizeof(char *)));
    if (words.vector == nullptr)
        return Split::no_memory;
    Tokenizer tokenizer(command, ks_tls_get()->clp.token);
    const Split outcome = collect(tokenizer, limit, area, words);
    if (outcome == Split::done)
        out_words = words;
    else
        give_back(words, area);
    return outcome;
}

Result report_split(Split outcome)
{
    switch (outcome) {
    case Split::done:
        return success;
    case Split::no_memory:
        return failure; // the storage module reported it
    case Split::unterminated_quote:
        return fail(clp_msg_unterminated_quote);
    case Split::word_too_long:
        return fail(clp_msg_token_too_long, static_cast<int>(token_bytes));
    }
    return failure;
}

} // namespace ks::clp

extern "C" {

int clp_parse_string(const char *command, stg_area *area, int *out_argc, char ***out_argv)
{
    here.require(command != nullptr, "command != NULL");
    Words words;
    const Split outcome = ks::clp::split(command, area, words);
    if (outcome != Split::done)
        return ks::clp::report_split(outcome);
    *out_argc = words.count;
    *out_argv = words.vector;
    return ks::clp::success;
}

int clp_argv_to_string(int argc, char *const *argv, stg_area *area, int escape, char **out_str)
{
    here.require(argc <= 0 || argv != nullptr, "argv != NULL");
    std::size_t size = 0;
    const Measure measured = measure(argc, argv, size);
    if (measured == Measure::unterminated_quote)
        return fail(clp_msg_unterminated_quote);
    auto *const text = measured == Measure::done ? static_cast<char *>(stg_alloc(area, size)) : nullptr;
    if (text == nullptr)
        return ks::clp::failure;
    char *to = text;
    for (int i = 0; i < argc; ++i) {
        if (i > 0)
            *to++ = ' ';
        to = append_word(to, argv[i], static_cast<char>(escape));
    }
    *to = '\0';
    *out_str = text;
    return ks::clp::success;
}
}
