// Printing: heads, streams, length, threads, procedures in the place of streams, raises.
#include "harness/child.h"
#include "harness/match.h"

#include <korvaks/imsg.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <semaphore>
#include <sstream>
#include <thread>

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
    const struct {
        Environment environment;
        const char *out, *err;
    } cases[] = {
        {{}, "0\n1\n2\n3\n", "prog: Warning: 4\n5\nprog: Error: 6\n7\n9\n10\n"},
        {{{"PRINT_SUBSYS", "1"}},
         "0\n1\n2\n3\n",
         "prog/test/imsg: Warning: 4\n5\nprog/test/imsg: Error: 6\n7\n9\n10\n"},
        {{{"PRINT_SUBSYS_OK", "1"}},
         "prog/test/imsg: Ok: 0\n1\nprog/test/imsg: 2\n3\n",
         "prog/test/imsg: Warning: 4\n5\nprog/test/imsg: Error: 6\n7\n9\n10\n"},
    };
    for (const auto &c : cases) {
        const auto result = run_with(c.environment, [] {
            imsg_set_app_name("/usr/bin/prog");
            int failures = 0;
            for (const int kind : {0, 1, 2, 3, 4, 5, 6, 7, 9, 10})
                failures += imsg_print(kind, &table, 1, std::to_string(kind).c_str());
            return failures;
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.err, c.err);
    }
}

TEST(ImsgPrint, SwitchesOfHeadsReturnWhatWasAndTracesShowTheTime)
{
    const auto result = test::run_child([] {
        for (const int was :
             {imsg_output_subsys(7), imsg_output_subsys(1), imsg_print(IMSG_TRACE, &table, 0), imsg_suppress_prefix(1),
              imsg_print(IMSG_ERROR, &table, 0), imsg_suppress_prefix(0), imsg_output_subsys(0)})
            printf("%d", was);
        return imsg_print(IMSG_TRACE, &table, 0);
    });
    EXPECT_EQ(result.out, "0100011");
    const std::string time = ">>> [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    const std::string expected = time + "\\(noname/test/imsg\\): plain\nplain\n" + time + "\\(noname\\): plain\n";
    EXPECT_TRUE(test::matches(result.err, expected)) << result.err;
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
        for (const int each : {imsg_print(0, nullptr, 3), imsg_print(0, &table, 4, 1), imsg_print(0, nullptr, IMSG_RAW),
                               imsg_print(-1, &table, 0), imsg_print(11, &table, 0)})
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
    // Around the first buffer's 16384 bytes, with a head of 9 more than the name; and a head that is larger itself.
    const std::pair<size_t, size_t> cases[] = {{6, 16366}, {6, 16367}, {6, 16368}, {6, 16369}, {6, 100000}, {20000, 4}};
    for (const auto &[name_length, length] : cases) {
        const std::string name(name_length, 'n');
        const std::string text(length, 'x');
        const auto result = test::run_child([&] {
            imsg_set_app_name(name.c_str());
            imsg_print(IMSG_ERROR, &table, 1, text.c_str());
            return imsg_print(IMSG_ERROR, &table, 0);
        });
        EXPECT_EQ(result.err, name + ": Error: " + text + "\n" + name + ": Error: plain\n");
    }
}

TEST(ImsgPrint, OneMessageIsOneWrite)
{
    const auto result = test::run_child([] {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
        dup2(ends[1], 2);
        imsg_print(IMSG_ERROR, &table, 2, "name", 1);
        imsg_print(IMSG_ERROR_MORE, &table, 1, "a" IMSG_STYLE_BOLD "b" IMSG_STYLE_BOLD_END "c");
        for (int packets = 0; packets < 2; ++packets) {
            char packet[256];
            const ssize_t got = read(ends[0], packet, sizeof packet);
            printf("[%.*s]", static_cast<int>(got), packet);
        }
    });
    EXPECT_EQ(result.out, "[noname: Error: name=1\n][abc\n]");
}

#ifndef __SANITIZE_THREAD__ // which keeps a signal back until the write is over
std::atomic<int> interruptions{0};

// A thread that takes signals, as those do that are older than the library, writes to a pipe that is full: what a
// signal interrupts goes on, and what the program has printed itself stays in its place.
TEST(ImsgPrint, NothingIsLostToASignal)
{
    const std::string text(300000, 'x');
    test::in_child([&] {
        const struct sigaction action = {{[](int) { ++interruptions; }}, {}, 0, nullptr}; // without SA_RESTART
        sigaction(SIGRTMIN, &action, nullptr);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        dup2(ends[1], 1);
        close(ends[1]);
        std::binary_semaphore is_started{0};
        std::thread writer([&] {
            is_started.acquire();
            printf("before ");
            imsg_print(IMSG_OK, &table, 1, text.c_str());
            close(1);
        });
        imsg_print(IMSG_OK, &table, 0);
        is_started.release();
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
        EXPECT_EQ(got, "plain\nbefore " + text + "\n");
    });
}
#endif

TEST(ImsgPrint, MessagesOfThreadsDoNotMix)
{
    const auto result = test::run_child([] {
        std::vector<std::jthread> threads;
        for (const char letter : std::string("abcd"))
            threads.emplace_back([letter] {
                for (int n = 0; n < 300; ++n)
                    imsg_print(IMSG_ERROR, &table, 1, std::string(700, letter).c_str());
            });
    });
    int whole = 0;
    std::istringstream err(result.err);
    for (std::string line; std::getline(err, line);)
        whole += line == "noname: Error: " + std::string(700, line.back()) ? 1 : 0;
    EXPECT_EQ(whole, 4 * 300);
}

TEST(ImsgPrint, KeepsErrnoAndLetsTheFormatSeeIt)
{
    const auto result = test::run_child([] {
        errno = ENOENT;
        imsg_print_shared(0, nullptr, "%m\n", IMSG_RAW);
        EXPECT_EQ(errno, ENOENT);
        close(1); // nowhere to write
        errno = EDOM;
        EXPECT_EQ(imsg_print(0, &table, 0), -1);
        EXPECT_EQ(errno, EDOM);
    });
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
        EXPECT_TRUE(std::memcmp(&read, &procs, sizeof read) == 0 && info == &taken && imsg_in_gui() == 1);
        procs.proc[IMSG_OUTPUT] = IMSG_PROC_SUPPRESS;
        imsg_set_redirect_procs(&procs, &taken);
        imsg_print(IMSG_OUTPUT, &table, 0); // its own slot now
        imsg_set_redirect_procs(nullptr, nullptr);
        imsg_print(IMSG_ERROR, &table, 0);
        printf("%s", taken.text.c_str());
        EXPECT_EQ(imsg_in_gui(), 0);
    });
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
    });
    EXPECT_EQ(result.out, "4 9 1; 5");
    EXPECT_EQ(result.err, "noname: Error: plain\n");
}

TEST(ImsgRedirect, DuplicatesToTheStreamWhenAsked)
{
    for (const auto &[value, expected] : {std::pair{"1", "plain\nplain\n"}, {"0", ""}, {"x", ""}}) {
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

TEST(ImsgRedirect, AProcedureMayPrint)
{
    const auto print_and_take = [](void *info, const char *text) {
        if (static_cast<Taken *>(info)->calls == 0)
            imsg_print(IMSG_WARNING, &table, 1, "from the procedure"); // must not disturb `text`
        take(info, text);
    };
    const auto result = test::run_child([print_and_take] {
        Taken taken;
        imsg_redirect_procs procs{};
        procs.proc[IMSG_OK] = print_and_take;
        imsg_set_redirect_procs(&procs, &taken);
        imsg_print(IMSG_OK, &table, 1, std::string(5000, 'z').c_str());
        imsg_print(IMSG_OK, &table, 1, "short");
        printf("%s", taken.text.c_str());
    });
    EXPECT_EQ(result.out, std::string(5000, 'z') + "\nshort\n");
    EXPECT_EQ(result.err, "noname: Warning: from the procedure\n");
}

// --- Names ---

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
    });
    EXPECT_EQ(result.out, "noname,veltool,veltool,,noname,noname");
}

} // namespace
