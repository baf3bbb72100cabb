// Printing: heads, streams, length, threads, procedures in the place of streams, raises.
#include "harness/child.h"
#include "harness/match.h"

#include <korvaks/imsg.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char *const texts[] = {"plain\n", "%s\n", "%s=%d\n", "%.*s|%5.1f|%ld\n"};
const uint16_t numbers[] = {1, 2, 3, 4};
const msg_table table = {"imsg_test", "test/imsg", 77, MSG_TABLE_COUNT(texts), texts, numbers};

using Environment = std::map<std::string, std::string>;

test::ChildResult run_with(const Environment &environment, const std::function<int()> &body)
{
    return test::run_child([&] {
        for (const auto &[name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        return body();
    });
}

TEST(ImsgPrint, HeadAndStreamFollowTheKind)
{
    struct Case {
        int kind;
        bool to_stdout;
        const char *plain, *with_subsystem, *with_ok;
    };
    const Case cases[] = {
        {0, true, "", "", "prog/test/imsg: Ok: "},
        {1, true, "", "", ""},
        {2, true, "", "", "prog/test/imsg: "},
        {3, true, "", "", ""},
        {4, false, "prog: Warning: ", "prog/test/imsg: Warning: ", "prog/test/imsg: Warning: "},
        {5, false, "", "", ""},
        {6, false, "prog: Error: ", "prog/test/imsg: Error: ", "prog/test/imsg: Error: "},
        {7, false, "", "", ""},
        {9, false, "", "", ""},
        {10, false, "", "", ""},
    };
    const std::pair<Environment, const char * Case::*> settings[] = {
        {{}, &Case::plain},
        {{{"PRINT_SUBSYS", "1"}}, &Case::with_subsystem},
        {{{"PRINT_SUBSYS_OK", "1"}}, &Case::with_ok},
    };
    for (const auto &[environment, head] : settings) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.kind);
            const auto result = run_with(environment, [&] {
                imsg_set_app_name("/usr/bin/prog");
                return imsg_print(c.kind, &table, 1, "text");
            });
            EXPECT_EQ(result.exit_status, 0);
            EXPECT_EQ(c.to_stdout ? result.out : result.err, std::string(c.*head) + "text\n");
            EXPECT_EQ(c.to_stdout ? result.err : result.out, "");
        }
    }
}

TEST(ImsgPrint, TraceHeadShowsTheTimeOfDay)
{
    const auto result = test::run_child([] {
        imsg_print(8, &table, 0);
        imsg_output_subsys(1);
        imsg_print(8, &table, 0);
        return 0;
    });
    const std::string time = ">>> [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    EXPECT_TRUE(test::matches(result.err, time + "\\(noname\\): plain\n" + time + "\\(noname/test/imsg\\): plain\n"))
        << result.err;
}

TEST(ImsgPrint, SubsystemAndPrefixSwitchesReturnWhatWas)
{
    const auto result = test::run_child([] {
        for (const int was : {imsg_output_subsys(7), imsg_output_subsys(1), imsg_suppress_prefix(1),
                              imsg_print(IMSG_ERROR, &table, 0), imsg_suppress_prefix(0), imsg_output_subsys(0)})
            printf("%d", was);
        return imsg_print(IMSG_ERROR, &table, 0);
    });
    EXPECT_EQ(result.out, "010011");
    EXPECT_EQ(result.err, "plain\nnoname: Error: plain\n");
}

TEST(ImsgPrint, SharedFormTakesASubsystemOrARawFormat)
{
    const auto result = run_with({{"PRINT_SUBSYS", "yes"}}, [] {
        imsg_print_shared(6, "other", &table, 0);
        imsg_print_shared(6, nullptr, &table, 0);
        imsg_print_shared(6, "", &table, 0);
        imsg_print_shared(6, "other", "raw %d\n", IMSG_RAW, 5);
        return 0;
    });
    EXPECT_EQ(result.err, "noname/other: Error: plain\nnoname/test/imsg: Error: plain\nnoname: Error: plain\n"
                          "noname: Error: raw 5\n");
}

TEST(ImsgPrint, WrongTablesNumbersAndKindsAreReported)
{
    const auto result = run_with({{"TRACE_SUBSYS", "ks/imsg"}, {"TRACE_VERBOSITY", "1"}}, [] {
        const int results[] = {imsg_print(0, nullptr, 3), imsg_print(0, &table, 4, 1), imsg_print(0, nullptr, IMSG_RAW),
                               imsg_print(-1, &table, 0), imsg_print(11, &table, 0)};
        for (const int each : results)
            printf("%d ", each);
        return 0;
    });
    EXPECT_EQ(result.out, "-1 -1 -1 0 0 ");
    const std::string explained = "There was some kind of error in imsg_print_sharedv_util\\. \\(sz: 16384\\)\\.\n";
    const std::string unknown = "in file lib/ks/imsg at line [0-9]+\nSystem message: plain\n";
    const std::string expected(
        "noname: Error: IMSG Internal error \\(print_sharedv\\) - tbl 0, num 3\\.\n"
        "noname: Error: IMSG Internal error \\(vsprintf\\) - tbl [0-9]+, num 4\\.\n" +
        explained + "noname: Error: IMSG Internal error \\(vsprintf/NOMSG\\) - NULL Message\\.\n" + explained +
        "noname: Error: Unknown message type -1 " + unknown + "noname: Error: Unknown message type 11 " + unknown);
    EXPECT_TRUE(test::matches(result.err, expected)) << result.err;
}

TEST(ImsgPrint, LongMessagesAndHeadsArePrintedWhole)
{
    // Around the first buffer's 16384 bytes, with the head "noname: Error: " of 15.
    for (const size_t length : {16366U, 16367U, 16368U, 16369U, 16384U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'x');
        const auto result = test::run_child([&] {
            imsg_print(6, &table, 1, text.c_str());
            return imsg_print(6, &table, 0);
        });
        EXPECT_EQ(result.err, "noname: Error: " + text + "\nnoname: Error: plain\n");
    }
    const std::string name(20000, 'n');
    const auto result = test::run_child([&] {
        imsg_set_app_name(name.c_str());
        return imsg_print(6, &table, 1, "text");
    });
    EXPECT_EQ(result.err, name + ": Error: text\n");
}

TEST(ImsgPrint, OneMessageIsOneWrite)
{
    const auto result = test::run_child([] {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0)
            return 1;
        dup2(ends[1], 2);
        imsg_print(IMSG_ERROR, &table, 2, "name", 1);
        imsg_print(IMSG_ERROR_MORE, &table, 1, "a" IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END "c");
        for (int packets = 0; packets < 2; ++packets) {
            char packet[256];
            const ssize_t got = read(ends[0], packet, sizeof packet);
            printf("[%.*s]", static_cast<int>(got), packet);
        }
        return 0;
    });
    EXPECT_EQ(result.out, "[noname: Error: name=1\n][abc\n]");
}

std::atomic<int> interruptions{0};

// A thread that takes signals, as those do that are older than the library, writes to a pipe that is full: what a
// signal interrupts goes on, and what the program has printed itself stays in its place.
TEST(ImsgPrint, NothingIsLostToASignal)
{
    const std::string text(300000, 'x');
    const auto result = test::run_child([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++interruptions; };
        sigaction(SIGRTMIN, &action, nullptr);
        int ends[2];
        if (pipe(ends) != 0)
            return 1;
        dup2(ends[1], 1);
        close(ends[1]);
        std::atomic<bool> is_started{false};
        std::thread writer([&] {
            while (!is_started)
                sched_yield();
            printf("before ");
            imsg_print(IMSG_OK, &table, 1, text.c_str());
            close(1);
        });
        imsg_print(IMSG_OK, &table, 0);
        is_started = true;
        for (int waiting = 0; waiting < 60000;)
            ioctl(ends[0], FIONREAD, &waiting);
        for (int sent = 1; sent <= 200; ++sent) {
            pthread_kill(writer.native_handle(), SIGRTMIN);
            while (interruptions < sent)
                sched_yield();
        }
        std::string got;
        char bytes[4096];
        for (ssize_t size; (size = read(ends[0], bytes, sizeof bytes)) > 0;)
            got.append(bytes, static_cast<size_t>(size));
        writer.join();
        return got == "plain\nbefore " + text + "\n" ? 0 : 2;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(ImsgPrint, MessagesOfThreadsDoNotMix)
{
    constexpr int thread_count = 4;
    constexpr int per_thread = 300;
    const auto result = test::run_child([] {
        std::vector<std::thread> threads;
        for (char letter = 'a'; letter < 'a' + thread_count; ++letter)
            threads.emplace_back([letter] {
                for (int n = 0; n < per_thread; ++n)
                    imsg_print(IMSG_ERROR, &table, 1, std::string(700, letter).c_str());
            });
        for (std::thread &thread : threads)
            thread.join();
        return 0;
    });
    std::map<std::string, int> lines;
    std::istringstream err(result.err);
    for (std::string line; std::getline(err, line);)
        ++lines[line];
    ASSERT_EQ(lines.size(), static_cast<size_t>(thread_count));
    for (const auto &[line, count] : lines)
        EXPECT_EQ(count, per_thread) << line;
}

TEST(ImsgPrint, KeepsErrnoAndLetsTheFormatSeeIt)
{
    const auto result = test::run_child([] {
        errno = ENOENT;
        imsg_print_shared(0, nullptr, "%m\n", IMSG_RAW);
        const bool is_kept = errno == ENOENT;
        close(1); // nowhere to write
        errno = EDOM;
        const bool is_refused = imsg_print(0, &table, 0) == -1;
        return is_kept && is_refused && errno == EDOM ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, std::string(strerror(ENOENT)) + "\n");
}

// --- Procedures ---

struct Taken {
    std::string text;
    int calls = 0;
};

void take(void *info, const char *text)
{
    auto *taken = static_cast<Taken *>(info);
    taken->text += text;
    ++taken->calls;
}

TEST(ImsgRedirect, EachKindHasASlotAndOutputFallsBackToOk)
{
    const auto result = test::run_child([] {
        Taken taken;
        imsg_redirect_procs procs{};
        procs.proc[IMSG_OK] = procs.proc[IMSG_OK_MORE] = procs.proc[IMSG_WARNING] = take;
        procs.proc[IMSG_ERROR] = IMSG_PROC_SUPPRESS;
        procs.proc[IMSG_TRACE] = imsg_default_output;
        imsg_set_redirect_procs(&procs, &taken);
        for (int kind = IMSG_OK; kind <= IMSG_ERROR_MORE; ++kind)
            imsg_print_shared(kind, nullptr, "%d\n", IMSG_RAW, kind);
        imsg_redirect_procs read{};
        void *info = nullptr;
        imsg_get_redirect_procs(&read, &info);
        const bool is_read = std::memcmp(&read, &procs, sizeof read) == 0 && info == &taken && imsg_in_gui() == 1;
        procs.proc[IMSG_OUTPUT] = IMSG_PROC_SUPPRESS;
        imsg_set_redirect_procs(&procs, &taken);
        imsg_print(IMSG_OUTPUT, &table, 0); // its own slot now
        imsg_set_redirect_procs(nullptr, nullptr);
        imsg_print(IMSG_ERROR, &table, 0);
        printf("%s", taken.text.c_str());
        return is_read && imsg_in_gui() == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "0\n1\n2\n3\nnoname: Warning: 4\n");
    EXPECT_EQ(result.err, "5\n7\nnoname: Error: plain\n");
}

TEST(ImsgRedirect, TwoChannelFormAndWindow)
{
    const auto result = test::run_child([] {
        Taken out;
        Taken err;
        imsg_redirect_output(take, &out, take, &err);
        for (int kind = 0; kind <= IMSG_SYSTEM; ++kind)
            imsg_print_shared(kind, nullptr, ".", IMSG_RAW);
        imsg_print(12, &table, 0); // reported, then an error itself
        imsg_output_proc out_proc = nullptr;
        void *err_info = nullptr;
        imsg_get_redirect_info(&out_proc, nullptr, nullptr, &err_info);
        printf("%d %d %d; ", out.calls, err.calls, out_proc == take && err_info == &err ? 1 : 0);
        const imsg_window window{take, &out};
        imsg_use_window(&window);
        imsg_print(IMSG_ERROR, &table, 0);
        imsg_use_window(nullptr);
        imsg_print(IMSG_ERROR, &table, 0);
        printf("%d", out.calls);
        return 0;
    });
    EXPECT_EQ(result.out, "4 9 1; 5");
    EXPECT_EQ(result.err, "noname: Error: plain\n");
}

TEST(ImsgRedirect, DuplicatesToTheStreamWhenAsked)
{
    const std::pair<const char *, const char *> cases[] = {{"1", "plain\nplain\n"}, {"0", ""}, {"x", ""}};
    for (const auto &[value, expected] : cases) {
        SCOPED_TRACE(value);
        const auto result = run_with({{"IMSG_DUP_OUTPUT", value}}, [] {
            Taken taken;
            imsg_redirect_output(take, &taken, IMSG_PROC_SUPPRESS, nullptr);
            imsg_print(0, &table, 0);
            imsg_print(1, &table, 0);
            return taken.calls;
        });
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_EQ(result.out, expected);
    }
}

void print_and_take(void *info, const char *text)
{
    auto *taken = static_cast<Taken *>(info);
    if (taken->calls++ == 0)
        imsg_print(4, &table, 1, "from the procedure"); // must not disturb `text`
    taken->text += text;
}

TEST(ImsgRedirect, AProcedureMayPrint)
{
    const auto result = test::run_child([] {
        Taken taken;
        imsg_redirect_procs procs{};
        procs.proc[0] = print_and_take;
        imsg_set_redirect_procs(&procs, &taken);
        const std::string text(5000, 'z');
        imsg_print(0, &table, 1, text.c_str());
        imsg_print(0, &table, 1, "short");
        return taken.text == text + "\nshort\n" ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "noname: Warning: from the procedure\n");
}

// --- Names and the clock ---

TEST(ImsgAppName, IsWhatFollowsTheLastSlash)
{
    const auto result = test::run_child([] {
        printf("%s", imsg_get_app_name());
        for (const char *argv0 : {"/usr/bin/veltool", "veltool", "dir/", static_cast<const char *>(nullptr)}) {
            imsg_set_app_name(argv0);
            printf(",%s", imsg_get_app_name());
        }
        const char *own = imsg_get_app_name();
        std::thread([] { imsg_set_app_name("second"); }).join();
        printf(",%s", own); // a copy of the thread's own
        return 0;
    });
    EXPECT_EQ(result.out, "noname,veltool,veltool,,noname,noname");
}

TEST(ImsgClock, CallsTheProcedureWithItsArgument)
{
    const auto result = test::run_child([] {
        int calls = 0;
        imsg_clock();
        imsg_set_clock_callback([](void *arg) { ++*static_cast<int *>(arg); }, &calls);
        imsg_clock();
        imsg_set_clock_callback(nullptr, nullptr);
        imsg_clock();
        return calls;
    });
    EXPECT_EQ(result.exit_status, 1);
}

} // namespace
