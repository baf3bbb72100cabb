// Prompts: typed at a terminal, read from streams, answered by a front end and by the tool.
#include "harness/child.h"
#include "harness/forked.h"
#include "harness/terminal.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_prompt.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using test::ChildResult;
using test::Terminal;
using namespace std::string_literals;

constexpr unsigned abort_bit = IMSG_CHOICE_ABORT, yes = IMSG_CHOICE_YES, no = IMSG_CHOICE_NO;

// Runs `ask` with its standard input on `input`; what it prints is in the result.
ChildResult answered(const std::string &input, const std::function<void()> &ask)
{
    const test::TempDir dir;
    test::write_file(dir.file("input"), input);
    return test::run_child([&] {
        const int file = open(dir.file("input").c_str(), O_RDONLY);
        dup2(file, STDIN_FILENO);
        ks_system_init();
        ask();
        return 0;
    });
}

void print_answer(int result, char *const &text)
{
    printf("%d %s|", result, result == IMSG_PROMPT_ANSWERED ? text : "");
    if (result == IMSG_PROMPT_ANSWERED)
        stg_free(text);
}

void print_numbers(int result, int *const &numbers)
{
    printf("%d", result);
    for (int i = 0; result == IMSG_PROMPT_ANSWERED && numbers[i] != 0; ++i)
        printf(" %d", numbers[i]);
    printf("|");
}

TEST(ImsgPrompt, ChoicesFollowMaskAndDefault)
{
    struct Case {
        std::string typed;
        unsigned mask, dflt, chosen;
        std::string said = "";
    };
    const std::string again = "Please answer with one of the following: ";
    const std::vector<Case> cases = {
        {"YE\n", 0, 0, yes},
        {" \tyes", 0, no, yes},
        {"\n", 0, no, no},
        {"\n", abort_bit, 0, abort_bit},
        {"\n", IMSG_CHOICE_PROCEED, 0, yes, "? [yes] "},
        {"\n", no, yes | no, no},
        {"yess\nn\n", 0, 0, no, again + "abort, yes, no\n? [yes] "},
        {"a\nn\n", yes | no, no, no, "? [no] " + again + "yes, no\n? [no] "},
        {"a\n", abort_bit, abort_bit, abort_bit},
        {"y\0\nno\n"s, 0, 0, no, again},
        {std::string(10 << 20, 'y') + "\n", 0, no, no, "Unable to process input: Input buffer overflow\n"}};
    for (const Case &each : cases) {
        const auto result =
            answered(each.typed, [&] { printf("%u", imsg_prompt_yes_no(IMSG_WARNING, "?", each.mask, each.dflt)); });
        EXPECT_EQ(result.out, std::to_string(each.chosen)) << each.typed.substr(0, 20);
        EXPECT_NE(result.err.find(each.said), std::string::npos) << result.err;
    }
    const auto result = answered("x\nP\n", [] { printf("%u", imsg_prompt_proceed(IMSG_OK, "Go? ", 0, abort_bit)); });
    EXPECT_EQ(result.out, "2");
    EXPECT_EQ(result.err, "Go?  [abort] " + again + "abort, proceed\nGo?  [abort] ");
}

TEST(ImsgPrompt, TextsAndTheRestOfTheInput)
{
    const auto result = answered("one\n\n\xff\xfe\na\0b\nx\n\n.\n.\n.\nlast\nend"s, [] {
        char *text = nullptr;
        print_answer(imsg_prompt_text("1", nullptr, 0, &text), text);
        print_answer(imsg_prompt_text("2", "default", 0, &text), text);
        print_answer(imsg_prompt_password("3", &text), text);
        print_answer(imsg_prompt_file("4", nullptr, "*", "/", &text), text);
        print_answer(imsg_prompt_text("5", "d", 1, &text), text);
        print_answer(imsg_prompt_text("6\n", "d\ne", 1, &text), text);
        print_answer(imsg_prompt_text("7", nullptr, 1, &text), text);
        printf("%c", getchar()); // what the prompts have not asked for
        print_answer(imsg_prompt_text("8", nullptr, 1, &text), text);
        print_answer(imsg_prompt_text("9", nullptr, 0, &text), text);
    });
    EXPECT_EQ(result.out, "2 one|2 default|2 \xff\xfe|1 |Default:\n2 x\n|Default:\n2 d\ne|2 |l2 ast\nend|1 |");
    EXPECT_EQ(result.err, "12 [default] 34noname: Error: Unable to process input: Invalid or incomplete multibyte or "
                          "wide character\nd\n5  (\".\" to accept default)\nd\ne\n6  (\".\" to accept default)\n789");
}

TEST(ImsgPrompt, AnAnswerAboveTheLimitIsSkipped)
{
    const std::string longest(IMSG_INPUT_MAX, 'x');
    const auto result = answered(longest + "\n" + longest + "x\na\n" + longest + "\n.\nnext\n", [] {
        char *text = nullptr;
        for (const int multi_line : {0, 0, 1, 0}) {
            const int answer = imsg_prompt_text("", nullptr, multi_line, &text);
            printf("%d %zu|", answer, answer == IMSG_PROMPT_ANSWERED ? strlen(text) : 0);
        }
    });
    EXPECT_EQ(result.out, "2 1048576|1 0|1 0|2 4|");
}

TEST(ImsgPrompt, ListsTakeNumbersInRange)
{
    std::string many = "1";
    for (int i = 1; i < IMSG_SELECTION_MAX; ++i)
        many += i % 2 != 0 ? " 2" : ",\t3";
    const std::vector<std::pair<std::string, std::string>> single = {
        {"4\n1\n", "2 1|"}, {"0\n", "1|"}, {"x\n\n-1\n3x\n99999999999\n1 2\n 3 \n", "2 3|"}, {"", "1|"}};
    const std::vector<std::pair<std::string, std::string>> multi = {
        {"1, 3 2\n", "2 1 3 2|"}, {"1,4\n2\n", "2 2|"}, {"3 0 1\n", "2 3|"}, {many + " 1\n1\n", "2 1|"}};
    char a[] = "a", b[] = "b", c[] = "c";
    char *const items[] = {a, b, c};
    for (const auto *cases : {&single, &multi}) {
        for (const auto &[typed, expected] : *cases) {
            const auto result = answered(typed, [&] {
                int *numbers = nullptr;
                print_numbers(imsg_prompt_list("Which?", items, 3, cases == &multi, &numbers), numbers);
            });
            EXPECT_EQ(result.out, expected) << typed;
            EXPECT_TRUE(
                result.err.starts_with("Which?\n\n1)\ta\n2)\tb\n3)\tc\n\nEnter a value from 1-3, 0 to Cancel: \n"));
        }
    }
    const auto result = answered(many + "\n2 1\n1\n", [&] {
        const test::TempDir dir;
        test::write_file(dir.file("items"), "one\n\ntwo");
        int *numbers = nullptr;
        print_numbers(imsg_prompt_list("", items, 3, 1, &numbers), numbers);
        print_numbers(imsg_prompt_txt_list("", dir.file("items").c_str(), &numbers), numbers);
        print_numbers(imsg_prompt_txt_list("", dir.path().c_str(), &numbers), numbers);
        print_numbers(imsg_prompt_list("", items, 0, 1, &numbers), numbers);
    });
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), ' '), IMSG_SELECTION_MAX + 2);
    EXPECT_TRUE(result.out.ends_with("|2 2 1|1|1|")) << result.out;
}

// --- At a terminal ---

// A raise must find the terminal as it was; with a record, for which the question is asked again.
int ask_password_twice()
{
    ks_system_init();
    char *text = nullptr;
    pfm_cleanup_rec record{};
    record.status = sigsetjmp(record.jump, 1);
    if (pfm_cleanup_start(&record, 0) != 0) {
        puts("raised");
        pfm_cleanup_reset(&record);
    }
    print_answer(imsg_prompt_password("Secret: ", &text), text);
    pfm_cleanup_rls(&record);
    return 0;
}

TEST(ImsgPrompt, APasswordIsNotShownAndTheEchoComesBack)
{
    for (const std::string keys : {"\003", ""}) {
        Terminal terminal(ask_password_twice);
        terminal.shown_until("Secret: ");
        EXPECT_FALSE(terminal.echoes());
        if (keys.empty())
            kill(terminal.pid(), SIGTERM);
        else
            terminal.type(keys);
        terminal.shown_until("raised");
        terminal.shown_until("Secret: ");
        EXPECT_FALSE(terminal.echoes());
        terminal.type("open\n");
        EXPECT_EQ(terminal.shown_until("|"), "\r\n2 open|");
        EXPECT_TRUE(terminal.echoes());
    }
    Terminal unprotected([] { // a thread that nothing wakes, and no record
        char *text = nullptr;
        ks_system_init();
        std::thread([&] { (void)imsg_prompt_password("Secret: ", &text); }).join();
        return 0;
    });
    unprotected.shown_until("Secret: ");
    kill(unprotected.pid(), SIGTERM);
    unprotected.shown_until("");
    EXPECT_TRUE(unprotected.echoes());
}

// A job of a shell: it is stopped by the key, and the shell's terminal is as it was.
TEST(ImsgPrompt, AStopFindsTheTerminalAsItWas)
{
    Terminal terminal([] {
        std::signal(SIGTTOU, SIG_IGN);
        const pid_t job = fork();
        setpgid(job, job);
        tcsetpgrp(STDIN_FILENO, job == 0 ? getpid() : job);
        if (job == 0)
            exit(ask_password_twice());
        int status = 0;
        waitpid(job, &status, WUNTRACED);
        printf("stopped %d\n", WIFSTOPPED(status));
        fflush(stdout);
        tcsetpgrp(STDIN_FILENO, getpgrp());
        getchar();
        tcsetpgrp(STDIN_FILENO, job);
        kill(-job, SIGCONT);
        return test::exit_status_of(job);
    });
    terminal.shown_until("Secret: ");
    terminal.type("\032");
    terminal.shown_until("stopped 1");
    EXPECT_TRUE(terminal.echoes());
    terminal.type("\n");
    for (int waited_ms = 0; terminal.echoes() && waited_ms < 20000; ++waited_ms)
        usleep(1000);
    EXPECT_FALSE(terminal.echoes());
    terminal.type("open\n");
    EXPECT_TRUE(terminal.shown_at_end().ends_with("\r\n2 open|"));
}

int question_is_shown[2]; // a pipe

void *print_meanwhile(void *)
{
    char go;
    EXPECT_EQ(read(question_is_shown[0], &go, 1), 1);
    stg_free(stg_malloc(100000));
    const pid_t child = vlthread_fork(VLTHREAD_FORK_PLAIN);
    if (child == 0) { // which has no question to wait for
        imsg_print_shared(IMSG_OUTPUT, "", "child\n", IMSG_RAW);
        _exit(7);
    }
    EXPECT_EQ(test::exit_status_of(child), 7);
    pfm_inhibit(); // others may wait for it
    imsg_print_shared(IMSG_OUTPUT, "", "inhibited\n", IMSG_RAW);
    pfm_enable();
    imsg_print_shared(IMSG_OUTPUT, "", "kept waiting\n", IMSG_RAW);
    return nullptr;
}

TEST(ImsgPrompt, OthersPrintWhenTheAnswerIsThere)
{
    ASSERT_EQ(pipe(question_is_shown), 0);
    Terminal terminal([] {
        ks_system_init();
        vlthread_t printer;
        vlthread_create(&printer, nullptr, print_meanwhile, nullptr);
        char *text = nullptr;
        print_answer(imsg_prompt_text("Name? ", nullptr, 0, &text), text);
        vlthread_join(printer, nullptr);
        return 0;
    });
    terminal.shown_until("Name? ");
    EXPECT_EQ(write(question_is_shown[1], "", 1), 1);
    EXPECT_EQ(terminal.shown_until("inhibited\r\n"), "child\r\ninhibited\r\n");
    terminal.type("Ann\n");
    const std::string shown = terminal.shown_at_end();
    EXPECT_TRUE(shown == "Ann\r\n2 Ann|kept waiting\r\n" || shown == "Ann\r\nkept waiting\r\n2 Ann|") << shown;
}

// --- Answered by others ---

TEST(ImsgPrompt, AFrontEndAnswersWithItsProcedures)
{
    const auto result = answered("typed\n", [] {
        static int info = 0;
        imsg_prompt_procs procs{};
        procs.text = [](const char *, const char *, int, char **out, void *) { return *out = stg_strdup("t"), 2; };
        procs.password = [](const char *, char **out, void *) { return *out = stg_strdup("p"), 2; };
        procs.file = [](const char *, const char *, const char *pattern, const char *directory, char **out, void *) {
            return *out = stg_strdup((std::string(pattern) + directory).c_str()), 2;
        };
        procs.list = [](const char *, char *const *items, int count, int multi, int **, void *) {
            return printf("%s %d %d:", items[count - 1], count, multi), 1;
        };
        procs.yes_no = [](int kind, const char *, unsigned mask, unsigned dflt, void *given) {
            return given == &info ? static_cast<unsigned>(kind) + mask + dflt : 0;
        };
        char *text = nullptr;
        int *numbers = nullptr;
        const test::TempDir dir;
        test::write_file(dir.file("items"), "one\ntwo\n");
        imsg_use_prompt_procs(&procs, &info);
        print_answer(imsg_prompt_text("", nullptr, 0, &text), text); // no front end yet
        imsg_redirect_output([](void *, const char *) {}, nullptr, nullptr, nullptr);
        print_answer(imsg_prompt_text("", nullptr, 0, &text), text);
        print_answer(imsg_prompt_password("", &text), text);
        print_answer(imsg_prompt_file("", nullptr, "a", "b", &text), text);
        print_numbers(imsg_prompt_txt_list("", dir.file("items").c_str(), &numbers), numbers);
        printf("%u|%u|", imsg_prompt_yes_no(100, "", 20, 3), imsg_prompt_proceed(0, "", 0, abort_bit));
        imsg_use_prompt_procs(&procs, nullptr);
        print_answer(imsg_prompt_text("", nullptr, 0, &text), text);
    });
    EXPECT_EQ(result.out, "2 typed|2 t|2 p|2 ab|two 2 1:1|123|1|1 |");
}

// A tool that shows its arguments and does what the test says.
class ImsgPromptTool : public testing::Test {
  protected:
    ChildResult run_with_tool(const std::string &script, const std::function<void()> &ask)
    {
        std::filesystem::create_directories(dir_.file("bin"));
        std::filesystem::create_directories(dir_.file("tmp"));
        const std::string tool = dir_.file("bin/velprompt");
        test::write_file(tool, "#!/bin/bash\nfor word; do [ \"$last\" = -outfile ] && out=$word word=FILE; "
                               "printf '<%s>' \"$word\"; last=$word; done\n" +
                                   script + "\n");
        chmod(tool.c_str(), 0700);
        const auto result = test::run_child([&] {
            setenv("VELLUMHOME", dir_.path().c_str(), 1);
            setenv("VELM_FORCE_GUI", "1", 1);
            setenv("TMPDIR", dir_.file("tmp").c_str(), 1);
            setvbuf(stdout, nullptr, _IONBF, 0);
            ks_system_init();
            ask();
            return 0;
        });
        EXPECT_TRUE(std::filesystem::is_empty(dir_.file("tmp")));
        return result;
    }
    test::TempDir dir_;
};

TEST_F(ImsgPromptTool, GetsTheQuestionsAndGivesTheAnswers)
{
    char a[] = "-a\nb", c[] = "c";
    char *const items[] = {a, c};
    char *text = nullptr;
    int *numbers = nullptr;
    const auto choose = [](int kind) { printf("%u", imsg_prompt_yes_no(kind, "-q", yes | no, no)); };
    const std::string put = "stat -c %a $out >&2; printf '%s' ";
    const std::string yes_no = "<yes_no><-prompt><-q><-type><error><-default><no><-mask><yes,no>";
    const std::tuple<std::string, std::function<void()>, std::string> cases[] = {
        {"exit 0", [&] { choose(9); }, yes_no + "4"},
        {"exit 1", [&] { choose(6); }, yes_no + "8"},
        {"kill -9 $$", [&] { choose(7); }, yes_no + "1"},
        {"(sleep 0.1; kill -CONT $$) & kill -STOP $$; exit 1", [&] { choose(7); }, yes_no + "8"},
        {"exit 1", [] { printf("%u", imsg_prompt_proceed(IMSG_WARNING, "q", 0, 3)); },
         "<proceed><-prompt><q><-type><warning><-default><abort,proceed><-mask><>1"},
        {put + "'a\nb' >$out", [&] { print_answer(imsg_prompt_text("q", "", 1, &text), text); },
         "<text><-prompt><q><-outfile><FILE><-multi_line><-default><>2 a\nb|"},
        {put + "'' >$out; exit 3", [&] { print_answer(imsg_prompt_text("q", nullptr, 0, &text), text); },
         "<text><-prompt><q><-outfile><FILE>1 |"},
        {"rm $out", [&] { print_answer(imsg_prompt_password("q", &text), text); },
         "<password><-prompt><q><-outfile><FILE>1 |"},
        {put + "f >$out", [&] { print_answer(imsg_prompt_file("q", "d", "*", "/", &text), text); },
         "<file><-prompt><q><-outfile><FILE><-pattern><*><-directory></><-default><d>2 f|"},
        {put + "2 >$out", [&] { print_numbers(imsg_prompt_list("h", items, 2, 0, &numbers), numbers); },
         "<list><-prompt><h><-items><-a b\nc><-outfile><FILE><-prefer_gui>2 2|"},
        {put + "3 >$out", [&] { print_numbers(imsg_prompt_list("h", items, 2, 1, &numbers), numbers); },
         "<list><-prompt><h><-items><-a b\nc><-choices><-outfile><FILE><-prefer_gui>1|"},
        {put + "7,9 >$out", [&] { print_numbers(imsg_prompt_txt_list("h", "/f", &numbers), numbers); },
         "<list><-prompt><h><-dfile></f><-choices><-outfile><FILE><-prefer_gui>2 7 9|"}};
    for (const auto &[script, ask, out] : cases) {
        const auto result = run_with_tool(script, ask);
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(result.err, script.starts_with(put) ? "600\n" : "");
    }
}

// A raise ends the tool, and its file is gone.
TEST_F(ImsgPromptTool, EndsWithARaise)
{
    const auto result =
        run_with_tool("echo; trap 'echo ended; exit' TERM; kill -TERM $PPID; while :; do sleep 0.01; done", [] {
            char *text = nullptr;
            pfm_cleanup_rec record{};
            record.status = sigsetjmp(record.jump, 1);
            if (pfm_cleanup_start(&record, 0) != 0) {
                puts("raised");
                return;
            }
            (void)imsg_prompt_password("q", &text);
        });
    EXPECT_EQ(result.out, "<password><-prompt><q><-outfile><FILE>\nended\nraised\n");
    EXPECT_EQ(result.exit_status, 0);
}

} // namespace
