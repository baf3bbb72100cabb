// Command strings: their words against the rules written down plainly, and words that were joined read back.
#include "fuzz/fuzz_support.h"

#include "harness/clp_model.h"

#include <korvaks/clp.h>

#include <algorithm>

namespace {

using Words = std::vector<std::string>;

// Parses in the heap, where a sanitizer sees every block's end; true on success.
bool parse(const std::string &line, Words &words)
{
    int argc = -1;
    char **argv = nullptr;
    const int result = clp_parse_string(fuzz::ExactText(line), STG_AREA_HEAP, &argc, &argv);
    FUZZ_REQUIRE(result == 0 || (result == 1 && argc == -1 && argv == nullptr));
    words.clear();
    for (int i = 0; i < argc; ++i) {
        words.emplace_back(argv[i]);
        stg_free(argv[i]);
    }
    FUZZ_REQUIRE(result != 0 || argv[argc] == nullptr);
    stg_free(argv);
    return result == 0;
}

bool begins_with_open_quote(const std::string &word)
{
    return (word[0] == '\'' || word[0] == '"') && word.back() != word[0];
}

void check_joining(const Words &words, char escape)
{
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    char *made = nullptr;
    const int result = clp_argv_to_string(static_cast<int>(argv.size()), argv.data(), STG_AREA_HEAP, escape, &made);
    const fuzz::Given<char> text(made);
    FUZZ_REQUIRE((result == 1) == std::any_of(words.begin(), words.end(), begins_with_open_quote));
    FUZZ_REQUIRE((result == 1) == (made == nullptr));
    Words again;
    if (made != nullptr && std::all_of(words.begin(), words.end(), test::survives_joining))
        FUZZ_REQUIRE(parse(made, again) && again == words);
}

} // namespace

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    const auto escape = static_cast<char>(input.take_byte());
    // One byte stands for a long stretch, so that the limit of a word comes into reach.
    std::string line;
    for (const char c : input.take_text())
        line.append(c == '\x01' ? 2700 : 1, c == '\x01' ? 'x' : c);
    const test::SplitWords expected = test::split_by_rules(line);
    Words words;
    FUZZ_REQUIRE(parse(line, words) == (expected.message == -1));
    FUZZ_REQUIRE(words == expected.words);
    check_joining(words, escape);
    Words raw; // words as they come, with quotes and backslashes in them
    while (input.left() > 0)
        raw.push_back(input.take_text());
    check_joining(raw, escape);
}
