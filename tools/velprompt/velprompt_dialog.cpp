// Questions as dialogs. Each text reaches the dialog program as plain text: behind "--" or in an option's own word, and
// with what the program would take for markup written so that it shows as itself.
#include "velprompt.h"

#include <algorithm>
#include <cstdlib>

#include <fcntl.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string_view>

namespace velprompt {

namespace {

using Words = std::vector<std::string>;

// The value, "" when it is not set.
std::string environment(const char *name)
{
    const char *value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool is_installed(const std::string &program)
{
    std::string path = environment("PATH");
    for (path += ':'; !path.empty(); path.erase(0, path.find(':') + 1)) {
        const std::string directory = path.substr(0, path.find(':'));
        if (access(((directory.empty() ? "." : directory) + "/" + program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

std::string replaced(std::string text, std::string_view from, std::string_view to)
{
    for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

void add(Words &words, const Words &more)
{
    words.insert(words.end(), more.begin(), more.end());
}

Answer without_last_feed(Answer answer)
{
    if (answer && answer->ends_with('\n'))
        answer->pop_back();
    return answer;
}

Answer if_not_empty(Answer answer)
{
    return answer && !answer->empty() ? answer : std::nullopt;
}

// --- zenity ---

// zenity expands backslashes in a label, but for that of a question without markup.
std::string zenity_plain(const std::string &text)
{
    return replaced(text, "\\", "\\\\");
}

std::string zenity_marked(const std::string &text)
{
    return replaced(replaced(replaced(zenity_plain(text), "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
}

// An underscore would mark a key.
std::string zenity_label(const std::string &text)
{
    return replaced(zenity_plain(text), "_", "__");
}

std::string icon_of(const std::string &type)
{
    if (type == "error" || type == "warning")
        return "dialog-" + type;
    return "dialog-question";
}

// Each allowed word is a button, and its name is the evidence that it was pressed: a dialog that is closed, or that
// cannot be shown, prints nothing.
Answer ask_zenity_choice(const Question &question)
{
    Words words = {"zenity",
                   "--question",
                   "--switch",
                   "--no-markup",
                   "--text=" + question.prompt,
                   "--icon-name=" + icon_of(question.type),
                   "--title=velprompt"};
    std::vector<std::string> buttons = words_of(question.mask);
    std::stable_partition(buttons.begin(), buttons.end(), [&](const auto &word) { return word == question.dflt; });
    for (const std::string &word : buttons) // the first one is chosen by Return
        words.push_back("--extra-button=" + word);
    return if_not_empty(without_last_feed(run({words, {}, 1, 1})));
}

Answer ask_zenity_text(const Question &question)
{
    if (question.multi_line)
        return without_last_feed(run(
            {{"zenity", "--text-info", "--editable", "--title=" + question.prompt}, question.dflt.value_or(""), 1, 0}));
    Words words = {"zenity", "--entry", "--title=velprompt", "--text=" + zenity_label(question.prompt)};
    if (question.kind == Kind::password)
        words.push_back("--hide-text");
    if (question.dflt)
        words.push_back("--entry-text=" + *question.dflt);
    return without_last_feed(run({words, {}, 1, 0}));
}

Answer ask_zenity_file(const Question &question)
{
    Words words = {"zenity", "--file-selection", "--title=" + question.prompt};
    const std::string directory = question.directory.empty() ? "" : question.directory + "/";
    const std::string file = question.dflt.value_or("");
    if (!directory.empty() || !file.empty())
        words.push_back("--filename=" + (file.starts_with('/') ? "" : directory) + file);
    if (!question.pattern.empty())
        words.push_back("--file-filter=" + question.pattern);
    return if_not_empty(without_last_feed(run({words, {}, 1, 0})));
}

Answer ask_zenity_list(const Question &question)
{
    Words words = {"zenity",          "--list",        "--title=velprompt", "--text=" + zenity_marked(question.prompt),
                   "--column=number", "--column=item", "--hide-column=1",   "--print-column=1",
                   "--hide-header",   "--separator=,", "--width=400",       "--height=400"};
    if (question.multi)
        words.push_back("--multiple");
    // The cells are read as lines; as words, one with a dash in front would be an option.
    std::string cells;
    for (std::size_t i = 0; i < question.items.size(); ++i)
        cells += std::to_string(i + 1) + "\n" + question.items[i] + "\n";
    return if_not_empty(without_last_feed(run({words, cells, 1, 0})));
}

// --- whiptail ---

constexpr int answer_fd = 3;

// whiptail makes a line feed of a backslash and an "n".
std::string whiptail_plain(const std::string &text)
{
    const bool is_utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return replaced(text, "\\n", is_utf8 ? "\\\u200bn" : "\\ n");
}

Words whiptail(const Words &options, const std::string &box, const Words &arguments)
{
    Words words = {"whiptail", "--output-fd", std::to_string(answer_fd)};
    add(words, options);
    add(words, {box, "--"});
    add(words, arguments);
    return words;
}

Answer run_whiptail(const Words &words)
{
    return run({words, {}, answer_fd, 0});
}

// The words stand in a menu, so that the chosen one is the evidence.
Answer ask_whiptail_choice(const Question &question)
{
    Words arguments = {whiptail_plain(question.prompt), "0", "0", "0"};
    for (const std::string &word : words_of(question.mask))
        add(arguments, {word, word});
    return if_not_empty(
        run_whiptail(whiptail({"--notags", "--default-item", question.dflt.value_or("")}, "--menu", arguments)));
}

// The size of a box for a password, whose question whiptail has no room for when it chooses the size itself.
Words password_box_size(const std::string &text)
{
    constexpr int frame = 6;
    winsize terminal{24, 80, 0, 0};
    (void)ioctl(STDIN_FILENO, TIOCGWINSZ, &terminal); // else the usual size
    const int width = std::clamp(static_cast<int>(text.size()) + frame, 30, std::max(30, terminal.ws_col - 4));
    const int lines = static_cast<int>(text.size()) / (width - frame) + 1 +
                      static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    return {text, std::to_string(lines + frame), std::to_string(width)};
}

Answer ask_whiptail_text(const Question &question)
{
    const std::string text = whiptail_plain(question.prompt);
    if (question.kind == Kind::password)
        return run_whiptail(whiptail({}, "--passwordbox", password_box_size(text)));
    return run_whiptail(whiptail({}, "--inputbox", {text, "0", "0", question.dflt.value_or("")}));
}

Answer ask_whiptail_list(const Question &question)
{
    Words arguments = {whiptail_plain(question.prompt), "0", "0", "0"};
    for (std::size_t i = 0; i < question.items.size(); ++i) {
        add(arguments, {std::to_string(i + 1), whiptail_plain(question.items[i])});
        if (question.multi)
            arguments.push_back("off");
    }
    Words options = {"--notags"};
    if (question.multi)
        options.push_back("--separate-output");
    Answer answer =
        without_last_feed(run_whiptail(whiptail(options, question.multi ? "--checklist" : "--menu", arguments)));
    if (answer)
        std::replace(answer->begin(), answer->end(), '\n', ',');
    return if_not_empty(answer);
}

bool has_terminal()
{
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal < 0)
        return false;
    close(terminal);
    return true;
}

} // namespace

bool has_zenity()
{
    return (!environment("DISPLAY").empty() || !environment("WAYLAND_DISPLAY").empty()) && is_installed("zenity");
}

bool has_whiptail()
{
    const std::string type = environment("TERM");
    return !type.empty() && type != "dumb" && isatty(STDIN_FILENO) == 1 && has_terminal() && is_installed("whiptail");
}

Answer ask_zenity(const Question &question)
{
    switch (question.kind) {
    case Kind::yes_no:
    case Kind::proceed:
        return ask_zenity_choice(question);
    case Kind::list:
        return ask_zenity_list(question);
    case Kind::file:
        return ask_zenity_file(question);
    default:
        return ask_zenity_text(question);
    }
}

Answer ask_whiptail(const Question &question)
{
    if (is_choice(question))
        return ask_whiptail_choice(question);
    return question.kind == Kind::list ? ask_whiptail_list(question) : ask_whiptail_text(question);
}

} // namespace velprompt
