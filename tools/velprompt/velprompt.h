// velprompt: asks the user a question for another program (docs/prompts.md).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velprompt {

enum class Kind { yes_no, proceed, text, password, file, list };

// What the command line asks for.
struct Question {
    Kind kind = Kind::text;
    std::string prompt;
    std::string type;
    std::optional<std::string> dflt;
    std::string mask;
    std::string outfile;
    std::string pattern;
    std::string directory;
    std::vector<std::string> items;
    bool multi_line = false;
    bool multi = false;
};

inline bool is_choice(const Question &question)
{
    return question.kind == Kind::yes_no || question.kind == Kind::proceed;
}

// What the user said: a word of the mask, a text, or the numbers of items with commas between them. Nothing: cancelled.
using Answer = std::optional<std::string>;

// The words of a choice set.
std::vector<std::string> words_of(const std::string &set);

// velprompt_dialog.cpp
// Whether a dialog can be shown: by zenity on a graphical display, by whiptail on a text terminal.
bool has_zenity();
bool has_whiptail();
Answer ask_zenity(const Question &question);
Answer ask_whiptail(const Question &question);

// velprompt_child.cpp
// Runs a program: its standard input reads `input`, or is the terminal; its answer is what it writes to descriptor
// `answer_fd`. Nothing when it did not end with exit status 0 or `also_good`. A signal that asks this process to end is
// handed on to it, and ends this process when it is gone and the terminal is as it was.
struct Run {
    std::vector<std::string> words;
    std::optional<std::string> input;
    int answer_fd = 1;
    int also_good = 0;
};
Answer run(const Run &run);

} // namespace velprompt
