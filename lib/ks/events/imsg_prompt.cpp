// The prompts: which way each question goes.
#include "events/imsg_prompt_impl.h"

#include "messages/imsg_impl.h"

#include <korvaks/ks_product.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

using ks::prompt::here;
using ks::prompt::ToolWords;

constinit imsg_prompt_procs installed_procs{}; // guarded by ks_product_crit
constinit void *installed_info = nullptr;      // guarded by ks_product_crit

// Who may answer now. Procedures are there only while the process runs under a front end.
struct Audience {
    bool is_daemon;
    imsg_prompt_procs procs;
    void *info;
};

Audience find_audience()
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    const bool has_front_end = imsg_in_gui() != 0;
    return {ks::imsg::state.is_daemon, has_front_end ? installed_procs : imsg_prompt_procs{}, installed_info};
}

bool is_daemon()
{
    return find_audience().is_daemon;
}

void require_question(const char *question)
{
    here.require(question != nullptr, "question != NULL");
}

// Puts an option and its value behind the words, where there is one.
void add(ToolWords &words, const char *option, const char *value)
{
    std::size_t count = 0;
    while (words[count] != nullptr)
        ++count;
    if (value == nullptr)
        return;
    words[count] = option;
    words[count + 1] = value;
}

// What stands for the name of the file until there is one.
constexpr char no_file_yet[] = "";

ToolWords list_words(const char *header, const char *items_option, const char *items, bool multi)
{
    ToolWords words{"list", "-prompt", header, items_option, items};
    std::size_t count = 5;
    if (multi)
        words[count++] = "-choices";
    words[count++] = ks::prompt::outfile_mark;
    words[count++] = no_file_yet;
    words[count] = "-prefer_gui";
    return words;
}

// The items as one argument of the tool: a line each.
bool join_items(char *const *items, int item_count, ks::prompt::Text &out_text)
{
    for (int i = 0; i < item_count; ++i) {
        if ((i > 0 && !append(out_text, "\n")) || !append(out_text, items[i]))
            return false;
        char *const last = out_text.bytes + out_text.length;
        std::replace(last - std::strlen(items[i]), last, '\n', ' ');
    }
    return true;
}

unsigned ask_choice(const ks::prompt::Choices &choices, imsg_prompt_choice_proc imsg_prompt_procs::*proc, int kind,
                    const char *question, unsigned mask, unsigned dflt)
{
    require_question(question);
    const Audience audience = find_audience();
    if (audience.is_daemon)
        return IMSG_CHOICE_ABORT;
    if (audience.procs.*proc != nullptr)
        return (audience.procs.*proc)(kind, question, mask, dflt, audience.info);
    if (ks_force_gui() != 0)
        return ks::prompt::ask_choice_by_tool(choices, question, kind, mask, dflt);
    return ks::prompt::ask_choice(choices, question, mask, dflt);
}

unsigned ask_choice_by_tool(const ks::prompt::Choices &choices, int kind, const char *question, unsigned mask,
                            unsigned dflt)
{
    require_question(question);
    return is_daemon() ? IMSG_CHOICE_ABORT : ks::prompt::ask_choice_by_tool(choices, question, kind, mask, dflt);
}

// The items of a file, for those who do not read the file themselves.
int ask_txt_list(const Audience &audience, const char *header, const char *item_file, int **out_selection)
{
    ks::prompt::ItemFile file;
    int result = IMSG_PROMPT_CANCELLED;
    run_and_release(file, [&](ks::prompt::ItemFile &held) {
        if (!read_items(item_file, held))
            return;
        if (audience.procs.list != nullptr)
            result = audience.procs.list(header, held.items, held.count, 1, out_selection, audience.info);
        else
            result = ks::prompt::ask_list(header, held.items, held.count, true, out_selection);
    });
    return result;
}

} // namespace

extern "C" {

void imsg_use_prompt_procs(const imsg_prompt_procs *procs, void *info)
{
    const bool is_table = procs != nullptr && info != nullptr;
    const ks::IoLockGuard lock(ks::ks_product_crit);
    installed_procs = is_table ? *procs : imsg_prompt_procs{};
    installed_info = is_table ? info : nullptr;
}

unsigned imsg_prompt_yes_no(int kind, const char *question, unsigned mask, unsigned dflt)
{
    return ask_choice(ks::prompt::yes_no, &imsg_prompt_procs::yes_no, kind, question, mask, dflt);
}

unsigned imsg_prompt_proceed(int kind, const char *question, unsigned mask, unsigned dflt)
{
    return ask_choice(ks::prompt::proceed, &imsg_prompt_procs::proceed, kind, question, mask, dflt);
}

int imsg_prompt_text(const char *question, const char *dflt, int multi_line, char **out_answer)
{
    require_question(question);
    const Audience audience = find_audience();
    if (audience.is_daemon)
        return IMSG_PROMPT_CANCELLED;
    if (audience.procs.text != nullptr)
        return audience.procs.text(question, dflt, multi_line, out_answer, audience.info);
    if (ks_force_gui() != 0)
        return imsg_velprompt_text(question, dflt, multi_line, out_answer);
    return ks::prompt::ask_text(question, dflt, multi_line != 0, out_answer);
}

int imsg_prompt_password(const char *question, char **out_answer)
{
    require_question(question);
    const Audience audience = find_audience();
    if (audience.is_daemon)
        return IMSG_PROMPT_CANCELLED;
    if (audience.procs.password != nullptr)
        return audience.procs.password(question, out_answer, audience.info);
    if (ks_force_gui() != 0)
        return imsg_velprompt_password(question, out_answer);
    return ks::prompt::ask_password(question, out_answer);
}

int imsg_prompt_file(const char *question, const char *dflt, const char *pattern, const char *directory,
                     char **out_answer)
{
    require_question(question);
    const Audience audience = find_audience();
    if (audience.is_daemon)
        return IMSG_PROMPT_CANCELLED;
    if (audience.procs.file != nullptr)
        return audience.procs.file(question, dflt, pattern, directory, out_answer, audience.info);
    if (ks_force_gui() != 0)
        return imsg_velprompt_file(question, dflt, pattern, directory, out_answer);
    return ks::prompt::ask_text(question, dflt, false, out_answer);
}

int imsg_prompt_list(const char *header, char *const *items, int item_count, int multi, int **out_selection)
{
    require_question(header);
    const Audience audience = find_audience();
    if (audience.is_daemon || item_count <= 0)
        return IMSG_PROMPT_CANCELLED;
    if (audience.procs.list != nullptr)
        return audience.procs.list(header, items, item_count, multi, out_selection, audience.info);
    if (ks_force_gui() != 0)
        return imsg_velprompt_list(header, items, item_count, multi, out_selection);
    return ks::prompt::ask_list(header, items, item_count, multi != 0, out_selection);
}

int imsg_prompt_txt_list(const char *header, const char *item_file, int **out_selection)
{
    require_question(header);
    const Audience audience = find_audience();
    if (audience.is_daemon)
        return IMSG_PROMPT_CANCELLED;
    if (audience.procs.list == nullptr && ks_force_gui() != 0)
        return imsg_velprompt_txt_list(header, item_file, out_selection);
    return ask_txt_list(audience, header, item_file, out_selection);
}

unsigned imsg_velprompt_yes_no(int kind, const char *question, unsigned mask, unsigned dflt)
{
    return ask_choice_by_tool(ks::prompt::yes_no, kind, question, mask, dflt);
}

unsigned imsg_velprompt_proceed(int kind, const char *question, unsigned mask, unsigned dflt)
{
    return ask_choice_by_tool(ks::prompt::proceed, kind, question, mask, dflt);
}

int imsg_velprompt_text(const char *question, const char *dflt, int multi_line, char **out_answer)
{
    require_question(question);
    if (is_daemon())
        return IMSG_PROMPT_CANCELLED;
    ToolWords words{"text", "-prompt", question, ks::prompt::outfile_mark, no_file_yet};
    if (multi_line != 0)
        words[5] = "-multi_line";
    add(words, "-default", dflt);
    return ks::prompt::ask_text_by_tool(words, out_answer);
}

int imsg_velprompt_password(const char *question, char **out_answer)
{
    require_question(question);
    if (is_daemon())
        return IMSG_PROMPT_CANCELLED;
    return ks::prompt::ask_text_by_tool({"password", "-prompt", question, ks::prompt::outfile_mark, no_file_yet},
                                        out_answer);
}

int imsg_velprompt_file(const char *question, const char *dflt, const char *pattern, const char *directory,
                        char **out_answer)
{
    require_question(question);
    if (is_daemon())
        return IMSG_PROMPT_CANCELLED;
    ToolWords words{"file", "-prompt", question, ks::prompt::outfile_mark, no_file_yet};
    add(words, "-pattern", pattern);
    add(words, "-directory", directory);
    add(words, "-default", dflt);
    return ks::prompt::ask_text_by_tool(words, out_answer);
}

int imsg_velprompt_list(const char *header, char *const *items, int item_count, int multi, int **out_selection)
{
    require_question(header);
    if (is_daemon() || item_count <= 0)
        return IMSG_PROMPT_CANCELLED;
    ks::prompt::Text joined;
    int result = IMSG_PROMPT_CANCELLED;
    run_and_release(joined, [&](ks::prompt::Text &held) {
        if (!join_items(items, item_count, held))
            return;
        const ToolWords words = list_words(header, "-items", held.bytes, multi != 0);
        result = ks::prompt::ask_list_by_tool(words, item_count, multi != 0, out_selection);
    });
    return result;
}

int imsg_velprompt_txt_list(const char *header, const char *item_file, int **out_selection)
{
    require_question(header);
    if (is_daemon())
        return IMSG_PROMPT_CANCELLED;
    return ks::prompt::ask_list_by_tool(list_words(header, "-dfile", item_file, true), INT_MAX, true, out_selection);
}
}
