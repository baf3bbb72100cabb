// Words that a user wrote, scanned in any order of calls: what comes out of them is in them or in the table.
#include "fuzz/fuzz_support.h"

#include <korvaks/clp.h>

#include <algorithm>

namespace {

const clp_flag_desc flags[] = {{"-a[ll]", 1, 0},
                               CLP_START_MUTUAL_EXCLUSION,
                               {"-b", 2, 0},
                               {"-ab[a]", 3, CLP_REPEATABLE_FLAG},
                               {"-c[ab]", 2, CLP_ALIAS_FLAG},
                               CLP_END_MUTUAL_EXCLUSION,
                               {"-old", 4, CLP_OBSOLETE_FLAG | CLP_REPEATABLE_FLAG},
                               {"-c", 3, CLP_ALIAS_FLAG},
                               {nullptr, 0, 0}};

// Uses a flag at most once that may not be repeated.
struct Scan {
    clp_handle *hdl;
    std::vector<std::string> words;
    std::size_t at = 0;
    bool is_ended = false;
    std::vector<std::uint32_t> used{};

    void next_flag()
    {
        std::uint32_t value = 0;
        const int result = clp_get_next_flag_value(hdl, 0, &value);
        const std::string word = at < words.size() ? words[at] : "";
        const bool ends_now = !is_ended && word == "--";
        FUZZ_REQUIRE(result == 0 ? !is_ended && value >= 1 && value <= 4 : value == UINT32_MAX);
        FUZZ_REQUIRE(result == (is_ended || ends_now || word[0] != '-' ? 2 : result % 2));
        FUZZ_REQUIRE(result != 0 || value > 2 || std::find(used.begin(), used.end(), value) == used.end());
        used.push_back(value);
        is_ended = is_ended || ends_now;
        at += ends_now || result == 0 ? 1 : 0;
    }

    void next_word()
    {
        char *word = nullptr;
        FUZZ_REQUIRE(clp_get_next_arg(hdl, &word) == (at < words.size() ? 0 : 2));
        FUZZ_REQUIRE(at < words.size() ? words[at] == word : word == nullptr);
        at += word != nullptr ? 1 : 0;
    }

    void word_back()
    {
        FUZZ_REQUIRE(clp_unget_arg(hdl) == (at > 0 ? 0 : 2));
        at -= at > 0 ? 1 : 0;
    }

    // Changes words and place: of it only what must hold of any list.
    void next_of_list()
    {
        char *word = nullptr;
        FUZZ_REQUIRE((clp_get_next_subarg(hdl, &word) == 0) == (word != nullptr));
        FUZZ_REQUIRE(word == nullptr || std::string(word).find(',') == std::string::npos);
        at = static_cast<std::size_t>(hdl->index);
        for (std::size_t i = 0; i < words.size(); ++i)
            words[i] = hdl->argv[i];
    }
};

} // namespace

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    std::vector<std::string> words(input.take_byte() % 12);
    std::vector<char *> argv;
    for (std::string &word : words) {
        word = input.take_text();
        argv.push_back(word.data());
    }
    Scan scan{clp_create_hdl_using_argv(static_cast<int>(argv.size()), argv.data(), flags, STG_AREA_NULL), words};
    void (Scan::*const steps[])() = {&Scan::next_flag, &Scan::next_word, &Scan::word_back, &Scan::next_of_list};
    while (input.left() > 0) {
        (scan.*steps[input.take_byte() % 4])();
        FUZZ_REQUIRE(static_cast<std::size_t>(scan.hdl->index) == scan.at && scan.at <= words.size());
    }
    clp_destroy_hdl(&scan.hdl);
}
