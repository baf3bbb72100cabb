// Choices: sets of answers, their words, and what a typed answer means.
#include "events/imsg_prompt_impl.h"

#include "messages/imsg_msg.h"

#include <korvaks/strutl.h>

#include <cstring>

namespace ks::prompt {

namespace {

struct ChoiceWord {
    unsigned choice;
    ImsgMsg message;
};

// In the order in which a set is written.
constexpr ChoiceWord choice_words[] = {
    {IMSG_CHOICE_ABORT, imsg_msg_abort},
    {IMSG_CHOICE_PROCEED, imsg_msg_proceed},
    {IMSG_CHOICE_YES, imsg_msg_yes},
    {IMSG_CHOICE_NO, imsg_msg_no},
};

using Word = std::array<char, 64>;

Word word_of(ImsgMsg message)
{
    Word word{};
    (void)imsg_snprintf(word.data(), word.size(), &_imsg_ks_msg_table,
                        static_cast<int>(message)); // a longer one is cut
    return word;
}

bool fold(const char *text, Word &out_folded)
{
    return strutl_cvt_case_string(text, 0, out_folded.size(), out_folded.data()) != 0;
}

bool begins_with(const char *word, const Word &folded_answer)
{
    Word folded_word{};
    return fold(word, folded_word) &&
           std::strncmp(folded_word.data(), folded_answer.data(), std::strlen(folded_answer.data())) == 0;
}

} // namespace

void settle(const Choices &choices, unsigned &mask, unsigned &dflt)
{
    mask &= choices.all;
    if (mask == 0)
        mask = choices.all;
    const bool is_choice = (dflt & choices.all) == dflt && (dflt & (dflt - 1)) == 0 && dflt != 0;
    if (!is_choice) {
        const unsigned wanted = mask & (choices.affirmative | IMSG_CHOICE_NO);
        dflt = (wanted & choices.affirmative) != 0 ? choices.affirmative : wanted;
        if (dflt == 0)
            dflt = IMSG_CHOICE_ABORT;
    }
    mask |= dflt;
}

ChoiceText text_of_choices(unsigned set, const char *separator)
{
    ChoiceText text{};
    for (const ChoiceWord &each : choice_words) {
        if ((set & each.choice) == 0)
            continue;
        if (text[0] != '\0')
            (void)strutl_concat(text.data(), text.size(), 2, text.data(), separator);
        const std::size_t length = std::strlen(text.data());
        (void)strutl_cpy_buf(text.data() + length, word_of(each.message).data(), text.size() - length);
    }
    return text;
}

unsigned choices_meant(std::string_view answer, const Choices &choices, unsigned mask)
{
    Word typed{};
    Word folded{};
    if (answer.size() >= typed.size() || answer.find('\0') != answer.npos)
        return 0; // longer than any word
    std::memcpy(typed.data(), answer.data(), answer.size());
    if (!fold(typed.data(), folded))
        return 0;
    // Abort can always be said where nothing else is allowed.
    const unsigned others = choices.all & ~IMSG_CHOICE_ABORT;
    const unsigned allowed = (mask & others) == 0 ? mask | IMSG_CHOICE_ABORT : mask;
    unsigned meant = 0;
    for (const ChoiceWord &each : choice_words) {
        if ((choices.all & allowed & each.choice) != 0 && begins_with(word_of(each.message).data(), folded))
            meant |= each.choice;
    }
    return meant;
}

} // namespace ks::prompt
