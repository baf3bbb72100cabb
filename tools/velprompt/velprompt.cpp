// The command line, the questions in plain text, and what the calling program gets.
#include "velprompt.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_prompt.h>
#include <korvaks/ks_product.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velprompt {

namespace {

// Exit statuses. A question with yes and no has 0 and 1 for them.
constexpr int answered = 0;
constexpr int cancelled = 1;
constexpr int failed = 2; // or aborted

void complain(const char *format, const std::string &subject, const char *reason)
{
    (void)imsg_print_shared(IMSG_ERROR, "", format, IMSG_RAW, subject.c_str(), reason); // the exit status tells, too
}

// --- Choices ---

// The words of the library's messages for the choices, and the untranslated ones.
struct ChoiceWord {
    unsigned choice;
    int message;
    const char *plain;
};
constexpr ChoiceWord choice_words[] = {
    {IMSG_CHOICE_ABORT, 12, "abort"},
    {IMSG_CHOICE_PROCEED, 13, "proceed"},
    {IMSG_CHOICE_YES, 10, "yes"},
    {IMSG_CHOICE_NO, 11, "no"},
};

unsigned choice_of(const std::string &word)
{
    for (const ChoiceWord &each : choice_words) {
        char translated[64];
        (void)imsg_snprintf(translated, sizeof translated, &_imsg_ks_msg_table, each.message); // a longer one is cut
        if (word == translated || word == each.plain)
            return each.choice;
    }
    return 0;
}

unsigned choices_of(const std::string &set)
{
    unsigned choices = 0;
    for (const std::string &word : words_of(set))
        choices |= choice_of(word);
    return choices;
}

// The rules of the prompts on what is allowed, for those who show it as a dialog.
void settle_mask(Question &question)
{
    if (choices_of(question.mask) == 0)
        question.mask = question.kind == Kind::yes_no ? "abort,yes,no" : "abort,proceed";
    const std::string dflt = question.dflt.value_or("");
    const std::vector<std::string> words = words_of(question.mask);
    if (choice_of(dflt) != 0 && std::find(words.begin(), words.end(), dflt) == words.end())
        question.mask += "," + dflt;
}

int status_of(unsigned choice)
{
    if (choice == IMSG_CHOICE_YES || choice == IMSG_CHOICE_PROCEED)
        return answered;
    return choice == IMSG_CHOICE_NO ? 1 : failed;
}

// --- Plain text ---

int kind_of(const std::string &type)
{
    if (type == "error")
        return IMSG_ERROR;
    return type == "warning" ? IMSG_WARNING : IMSG_OK;
}

unsigned ask_plain_choice(const Question &question)
{
    const unsigned mask = choices_of(question.mask);
    const unsigned dflt = choices_of(question.dflt.value_or(""));
    const auto ask = question.kind == Kind::yes_no ? imsg_prompt_yes_no : imsg_prompt_proceed;
    return ask(kind_of(question.type), question.prompt.c_str(), mask, dflt);
}

// `text` was stored by the call that gave the result.
Answer taken(int result, char *const &text)
{
    if (result != IMSG_PROMPT_ANSWERED)
        return std::nullopt;
    Answer answer(text);
    stg_free(text);
    return answer;
}

Answer ask_plain_list(const Question &question)
{
    std::vector<char *> items;
    for (const std::string &item : question.items)
        items.push_back(const_cast<char *>(item.c_str())); // which the prompt does not change
    int *selection = nullptr;
    if (imsg_prompt_list(question.prompt.c_str(), items.data(), static_cast<int>(items.size()), question.multi ? 1 : 0,
                         &selection) != IMSG_PROMPT_ANSWERED)
        return std::nullopt;
    std::string numbers;
    for (const int *number = selection; *number != 0; ++number)
        numbers += (numbers.empty() ? "" : ",") + std::to_string(*number);
    stg_free(selection);
    return numbers;
}

Answer ask_plain(const Question &question)
{
    char *text = nullptr;
    const char *prompt = question.prompt.c_str();
    const char *dflt = question.dflt ? question.dflt->c_str() : nullptr;
    if (question.kind == Kind::list)
        return ask_plain_list(question);
    if (question.kind == Kind::password)
        return taken(imsg_prompt_password(prompt, &text), text);
    return taken(imsg_prompt_text(prompt, dflt, question.multi_line ? 1 : 0, &text), text);
}

// --- The command line ---

bool read_items(const char *path, std::vector<std::string> &items)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        items.push_back(line);
    if (file.eof() && !items.empty())
        return true;
    complain("Unable to read items from \"%s\": %s\n", path, file.eof() ? "it is empty" : imsg_strerror(errno));
    return false;
}

void split_items(const std::string &text, std::vector<std::string> &items)
{
    for (std::size_t from = 0, to = 0; to != text.npos; from = to + 1) {
        to = text.find('\n', from);
        items.push_back(text.substr(from, to == text.npos ? to : to - from));
    }
}

// An option without a value; false when it is none.
bool take_switch(const std::string &option, Question &question)
{
    if (option == "-multi_line")
        return question.multi_line = true;
    if (option == "-choices")
        return question.multi = true;
    return option == "-prefer_gui"; // a dialog is preferred anyway
}

bool take_option(const std::string &option, const char *value, Question &question)
{
    if (option == "-prompt")
        question.prompt = value;
    else if (option == "-type")
        question.type = value;
    else if (option == "-default")
        question.dflt = value;
    else if (option == "-mask")
        question.mask = value;
    else if (option == "-outfile")
        question.outfile = value;
    else if (option == "-pattern")
        question.pattern = value;
    else if (option == "-directory")
        question.directory = value;
    else if (option == "-items")
        split_items(value, question.items);
    else if (option == "-dfile")
        return read_items(value, question.items);
    else {
        complain("Unknown option \"%s\"%s\n", option, "");
        return false;
    }
    return true;
}

bool take_kind(const std::string &word, Question &question)
{
    constexpr const char *names[] = {"yes_no", "proceed", "text", "password", "file", "list"};
    const auto *const found = std::find(std::begin(names), std::end(names), word);
    if (found == std::end(names)) {
        complain("Unknown question \"%s\"%s\n", word, "");
        return false;
    }
    question.kind = static_cast<Kind>(found - std::begin(names));
    return true;
}

bool read_command_line(int argc, char **argv, Question &question)
{
    if (argc < 2) {
        complain("usage: %s yes_no|proceed|text|password|file|list -prompt TEXT ...%s\n", "velprompt", "");
        return false;
    }
    if (!take_kind(argv[1], question))
        return false;
    for (int i = 2; i < argc; ++i) {
        if (take_switch(argv[i], question))
            continue;
        if (i + 1 == argc) {
            complain("Option \"%s\" has no value%s\n", argv[i], "");
            return false;
        }
        if (!take_option(argv[i], argv[i + 1], question))
            return false;
        ++i;
    }
    if (!is_choice(question) && question.outfile.empty()) {
        complain("Option \"%s\" is missing%s\n", "-outfile", "");
        return false;
    }
    return true;
}

// --- The answer ---

bool write_all(int fd, const std::string &text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            return false;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}

// The answer may be a password: nobody else reads the file. What is no file, such as /dev/null, keeps its mode.
bool hide_from_others(int fd)
{
    struct stat info;
    return fstat(fd, &info) == 0 && (!S_ISREG(info.st_mode) || fchmod(fd, 0600) == 0);
}

bool write_answer(const std::string &path, const std::string &text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool is_written = fd >= 0 && hide_from_others(fd) && write_all(fd, text);
    if (!is_written)
        complain("Unable to write the answer to \"%s\": %s\n", path, imsg_strerror(errno));
    if (fd >= 0)
        close(fd);
    return is_written;
}

int ask_choice(Question &question)
{
    const bool by_zenity = has_zenity();
    if (!by_zenity && !has_whiptail())
        return status_of(ask_plain_choice(question));
    settle_mask(question);
    const Answer answer = by_zenity ? ask_zenity(question) : ask_whiptail(question);
    return answer ? status_of(choice_of(*answer)) : failed;
}

// whiptail has no way to type several lines.
Answer ask_text(const Question &question)
{
    if (has_zenity())
        return ask_zenity(question);
    return !question.multi_line && has_whiptail() ? ask_whiptail(question) : ask_plain(question);
}

int ask(Question &question)
{
    if (is_choice(question))
        return ask_choice(question);
    const Answer answer = ask_text(question);
    if (!answer)
        return cancelled;
    return write_answer(question.outfile, *answer) ? answered : failed;
}

} // namespace

std::vector<std::string> words_of(const std::string &set)
{
    std::vector<std::string> words;
    for (std::size_t from = 0; from < set.size();) {
        const std::size_t to = std::min(set.find(',', from), set.size());
        words.push_back(set.substr(from, to - from));
        from = to + 1;
    }
    return words;
}

} // namespace velprompt

int main(int argc, char **argv)
{
    std::setlocale(LC_ALL, "");
    imsg_set_app_name("velprompt"); // the first word is the quoted path
    ks_set_force_gui(0);            // the prompts of this program do not go to itself
    velprompt::Question question;
    return velprompt::read_command_line(argc, argv, question) ? velprompt::ask(question) : velprompt::failed;
}
