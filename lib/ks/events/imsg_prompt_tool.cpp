// Questions through the prompting tool, a child process that writes its answer to a file.
#include "events/children.h"
#include "events/imsg_prompt_impl.h"

#include "kernel/kernel.h"

#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ks::prompt {

namespace {

constexpr const char *tool_name = "velprompt";
constexpr int cannot_start = 127; // the child's status, as a shell's

// A run of the tool, and what is left to undo when it does not come to its end.
struct ToolRun {
    pid_t pid = 0;          // while it runs
    int exit_status = -1;   // -1: none, or not by exit
    char outfile[PATH_MAX]; // "": none

    ToolRun() { outfile[0] = '\0'; }
};

bool has_ended(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, WNOHANG) != 0; // dead, or somebody else has reaped it
}

// Tells the tool to end, and after a second makes it.
void end_tool(pid_t pid)
{
    constexpr int step_ms = 10;
    (void)kill(pid, SIGTERM); // fails only when it has ended
    (void)kill(pid, SIGCONT);
    for (int waited_ms = 0; waited_ms < 1000; waited_ms += step_ms) {
        if (has_ended(pid))
            return;
        (void)poll(nullptr, 0, step_ms);
    }
    (void)kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR)
        ;
}

void release(ToolRun &run)
{
    const ErrnoSaver saver;
    if (run.pid > 0)
        end_tool(std::exchange(run.pid, 0));
    if (run.outfile[0] != '\0')
        (void)unlink(run.outfile);
    run.outfile[0] = '\0';
}

// Called with raises held off but where it waits in vain: a raise leaves from there. A status that the program
// has reaped is lost, and with it the answer. A tool that cannot be waited for is still there when this returns.
void wait_for_tool(ToolRun &run)
{
    int32_t status = 0;
    while (wait_for_child(run.pid, status) != 0) {
        if (errno == ECHILD)
            run.pid = 0;
        if (errno != EINTR)
            return;
        pfm_enable();
        if (fault_block_of_caller()->pfm_inh_count != 0)
            (void)poll(nullptr, 0, 20); // a caller that takes neither raise nor stop
        pfm_inhibit();
    }
    run.pid = 0;
    run.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Between fork and exec the child does what is async-signal-safe.
void start_tool(ToolRun &run, const char *path, char *const argv[])
{
    run.pid = vlthread_fork(VLTHREAD_FORK_EXEC);
    if (run.pid == 0) {
        (void)execv(path, argv);
        _exit(cannot_start);
    }
}

void run_tool(ToolRun &run, ToolWords &words)
{
    char path[KS_PATH_SIZE];
    char quoted[KS_PATH_SIZE];
    std::array<const char *, std::tuple_size_v<ToolWords> + 1> argv{};
    if (*ks_product_tool_dir(path, tool_name) == '\0' || *ks_product_tool_dir_quoted(quoted, tool_name) == '\0')
        return;
    argv[0] = quoted;
    std::copy(words.begin(), words.end(), argv.begin() + 1);
    if (const auto prepare = before_child_start.load(std::memory_order_acquire))
        prepare();
    pfm_inhibit();
    start_tool(run, path, const_cast<char *const *>(argv.data())); // exec changes nothing in them
    if (run.pid > 0)
        wait_for_tool(run);
    pfm_enable();
}

// Puts the name of the file for the answer into the words; false where it cannot be made.
bool make_outfile(ToolRun &run, ToolWords &words)
{
    if (fileutl_tmpfile_ext("velprompt", ".txt", run.outfile, sizeof run.outfile) != 0)
        return false;
    *(std::find(words.begin(), words.end(), outfile_mark) + 1) = run.outfile;
    return true;
}

// The answer that the tool has written; NULL for none.
char *answer_of_tool(ToolRun &run, ToolWords &words)
{
    if (!make_outfile(run, words))
        return nullptr;
    run_tool(run, words);
    return run.exit_status == 0 ? imsg_read_outfile(run.outfile) : nullptr;
}

char *ask_tool(ToolWords &words)
{
    ToolRun run;
    char *answer = nullptr;
    run_and_release(run, [&](ToolRun &held) { answer = answer_of_tool(held, words); });
    return answer;
}

const char *type_of(int kind)
{
    if (kind >= IMSG_ERROR && kind <= IMSG_TRACE_MORE)
        return "error";
    return kind == IMSG_WARNING || kind == IMSG_WARNING_MORE ? "warning" : "ok";
}

} // namespace

unsigned ask_choice_by_tool(const Choices &choices, const char *question, int kind, unsigned mask, unsigned dflt)
{
    const bool is_yes_no = choices.affirmative == IMSG_CHOICE_YES;
    const ChoiceText default_text = text_of_choices(dflt, ",");
    const ChoiceText mask_text = text_of_choices(mask, ",");
    ToolWords words{is_yes_no ? "yes_no" : "proceed",
                    "-prompt",
                    question,
                    "-type",
                    type_of(kind),
                    "-default",
                    default_text.data(),
                    "-mask",
                    mask_text.data()};
    ToolRun run;
    run_and_release(run, [&](ToolRun &held) { run_tool(held, words); });
    if (run.exit_status == 0)
        return choices.affirmative;
    return is_yes_no && run.exit_status == 1 ? IMSG_CHOICE_NO : IMSG_CHOICE_ABORT;
}

int ask_text_by_tool(ToolWords words, char **out_answer)
{
    char *answer = ask_tool(words);
    if (answer == nullptr)
        return IMSG_PROMPT_CANCELLED;
    *out_answer = answer;
    return IMSG_PROMPT_ANSWERED;
}

int ask_list_by_tool(ToolWords words, int item_count, bool multi, int **out_selection)
{
    Numbers numbers{};
    char *answer = ask_tool(words);
    if (answer == nullptr)
        return IMSG_PROMPT_CANCELLED;
    const std::size_t length = std::strcspn(answer, "\n");
    const Selected selected = read_numbers({answer, length}, item_count, multi, numbers);
    stg_free_int(answer, 1);
    int *copy = selected == Selected::some ? copy_of_numbers(numbers) : nullptr;
    if (copy == nullptr)
        return IMSG_PROMPT_CANCELLED;
    *out_selection = copy;
    return IMSG_PROMPT_ANSWERED;
}

} // namespace ks::prompt
