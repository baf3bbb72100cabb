// Lines of text as words and options: the words against a plain reading, the scan by what it promises.
#include "fuzz/fuzz_support.h"

#include <korvaks/cl.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace {

using Words = std::vector<std::string>;

// The rules of the header, for the C locale.
Words split_plainly(const std::string &line)
{
    Words words;
    std::optional<std::string> word;
    const auto end_word = [&] {
        if (word)
            words.push_back(*std::exchange(word, std::nullopt));
    };
    bool is_escaped = false;
    char quote = '\0';
    for (const char c : line) {
        if (quote == '\0' && std::strchr(" \t\v\f\r", c) != nullptr) {
            end_word();
        } else if (!is_escaped && c == '\n') {
            break;
        } else if (!is_escaped && c == '\\') {
            is_escaped = true;
        } else if (!is_escaped && quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
            word = word.value_or("");
        } else if (!is_escaped && c == quote) {
            quote = '\0';
        } else {
            is_escaped = false;
            word = word.value_or("") + c;
        }
    }
    end_word();
    return words;
}

cl_handle *parse(const std::string &line)
{
    int error = -1;
    cl_handle *clh = cl_parse_line(fuzz::ExactText(line), &error);
    FUZZ_REQUIRE(clh != nullptr && error == CL_NO_ERROR);
    return clh;
}

void check_words(const std::string &line, const Words &words)
{
    cl_handle *clh = parse(line);
    int offset = 0;
    for (const std::string &word : words) {
        FUZZ_REQUIRE(cl_getoffset(clh) == offset);
        const char *got = cl_getarg(clh);
        FUZZ_REQUIRE(got != nullptr && word == got);
        offset += static_cast<int>(word.size()) + 1;
    }
    FUZZ_REQUIRE(cl_getoffset(clh) == offset);
    FUZZ_REQUIRE(cl_getarg(clh) == nullptr && cl_errno(clh) == CL_NO_ERROR);
    cl_destroy(&clh);
    FUZZ_REQUIRE(clh == nullptr);
}

// Where cl_setoffset() ends up: a place at a word's end is the start of the next word.
int place_of(const Words &words, int offset)
{
    int start = 0;
    offset = std::max(offset, 0);
    for (const std::string &word : words) {
        const int end = start + static_cast<int>(word.size());
        if (offset < end)
            return std::max(offset, start);
        start = end + 1;
    }
    return start;
}

struct Scan {
    cl_handle *clh;
    const Words &words;
    std::string options;
    std::string text{}; // all words, each with its NUL
};

// True when an option was found.
bool check_option(const Scan &scan)
{
    const int before = cl_getoffset(scan.clh);
    char *made = nullptr;
    const int letter = cl_getopt_long(scan.clh, scan.options.c_str(), &made);
    const fuzz::Given<char> name(made);
    FUZZ_REQUIRE(cl_getoffset(scan.clh) >= before && letter >= 0 && letter <= 255);
    FUZZ_REQUIRE(letter == '?' || cl_errno(scan.clh) == CL_NO_ERROR);
    FUZZ_REQUIRE((*cl_estr(scan.clh) != '\0') == (cl_errno(scan.clh) != CL_NO_ERROR));
    FUZZ_REQUIRE(made == nullptr ||
                 std::find(scan.words.begin(), scan.words.end(), std::string("--") + made) != scan.words.end());
    return letter != 0 || made != nullptr;
}

void check_argument(const Scan &scan, bool is_option_refused)
{
    const int before = cl_getoffset(scan.clh);
    const char *word = is_option_refused ? cl_getarg_noopt(scan.clh) : cl_getarg(scan.clh);
    const std::size_t length = word == nullptr ? 0 : std::strlen(word) + 1;
    FUZZ_REQUIRE(word == nullptr || scan.text.compare(static_cast<std::size_t>(before), length, word, length) == 0);
    FUZZ_REQUIRE(cl_getoffset(scan.clh) == before + static_cast<int>(length));
    FUZZ_REQUIRE(word == nullptr || !is_option_refused || *word != '-');
}

void check_step(const Scan &scan, std::uint8_t step)
{
    if (step % 5 < 2) {
        (void)check_option(scan);
    } else if (step % 5 < 4) {
        check_argument(scan, step % 5 == 3);
    } else {
        const auto offset = static_cast<std::int8_t>(step);
        cl_setoffset(scan.clh, offset);
        FUZZ_REQUIRE(cl_getoffset(scan.clh) == place_of(scan.words, offset));
    }
}

} // namespace

FUZZ_TARGET(input)
{
    const std::string options = input.take_text();
    const std::string line = input.take_text();
    const Words words = split_plainly(line);
    check_words(line, words);

    Scan scan{parse(line), words, options};
    for (const std::string &word : words)
        scan.text += word + '\0';
    while (input.left() > 0)
        check_step(scan, input.take_byte());
    // Pulling options ends, wherever the scan stands.
    for (std::size_t pulled = 0; check_option(scan); ++pulled)
        FUZZ_REQUIRE(pulled <= scan.text.size());
    cl_destroy(&scan.clh);
}
