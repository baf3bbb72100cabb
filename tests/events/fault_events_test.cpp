// The event runtime, its children and the programs they run under failing calls, and their delivery checks.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include "events/children.h"
#include "kernel/ks_guard.h"
#include "messages/imsg_impl.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_log.h>
#include <korvaks/imsg_prompt.h>
#include <korvaks/ks_proc.h>
#include <korvaks/pfm.h>
#include <korvaks/rt_proc.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::End;
using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *bad_wait = "PFM_ASSERT:(errno == EINTR) failed: 'lib/ks/rt':#\n";
constexpr const char *no_room = "Malloc failed at \"lib/ks/rt";

int ready_fd = -1;
int calls = 0;
ks_fd_set members{};
rt_event stopper;

void count(int, void *)
{
    ++calls;
}

void count_set(ks_fd_set *, void *)
{
    ++calls;
}

void count_and_stop(void *)
{
    ++calls;
    rt_shutdown();
}

TEST(FaultRt, TheOrderWithoutMemory)
{
    // Without memory for the index they stand in their order all the same.
    std::array<rt_event, 100> events;
    Operation("rt_sched_int of 100")
        .act([&] {
            for (long i = 0; rt_event & each : events)
                (void)rt_sched_int(count_and_stop, nullptr, i++ * 37 % 100, &each, sizeof each);
        })
        .gives([&] {
            return std::none_of(events.begin(), events.end(), [](const rt_event &each) {
                return (each.next != nullptr && each.next->tv_sec < each.tv_sec) || rt_event_in_timeout(&each) != 0;
            });
        })
        .cleanup([&] { std::for_each(events.begin(), events.end(), [](rt_event &each) { (void)rt_unsched(&each); }); })
        .sweep_first_use();
}

TEST(FaultRt, HandlersAndTheLoop)
{
    const auto setup = [] {
        int ends[2];
        if (ready_fd < 0 && pipe(ends) == 0 && write(ends[1], "x", 1) == 1)
            ready_fd = ends[0];
        calls = 0;
    };
    rt_event *event = nullptr;
    Operation("rt_sched, rt_handle_fd, rt_handle_fd_set")
        .setup(setup)
        .act([&] {
            return (event = rt_sched(count_and_stop, nullptr, 9)) != nullptr &&
                   rt_handle_fd(RT_FD_READ, count, ready_fd, nullptr) == 1 &&
                   rt_handle_fd_set(RT_FD_WRITE, count_set, &members, nullptr) == 1;
        })
        .cleanup([&] {
            (void)rt_unsched(event);
            (void)rt_unhandle_fd(RT_FD_READ, ready_fd);
            (void)rt_unhandle_fd_set(RT_FD_WRITE, &members);
        })
        .keeps([] { return has_said(no_room); })
        .sweep()
        .sweep_first_use();
    Operation("rt_poll, rt_run")
        .setup([=] {
            setup();
            (void)rt_handle_fd(RT_FD_READ, count, ready_fd, nullptr);
            (void)rt_sched_int(count_and_stop, nullptr, 0, &stopper, sizeof stopper);
        })
        .act([] {
            rt_poll();
            rt_run();
        })
        .cleanup(
            [] { (void)rt_unhandle_fd(RT_FD_READ, ready_fd), (void)rt_unsched(&stopper), rt_shutdown(), rt_run(); })
        .gives([](const Trial &trial) { return calls >= 2 || trial.failed(Call::select); })
        .ends({{Call::select, bad_wait}, {Call::allocation, "***ABORT***  'lib/ks/rt':#\n", true}})
        .sweep()
        .sweep_raises()
        .sweep_noise(20);
}

int32_t status_seen = -1;
pid_t pid = -1;

void end_of_child(pid_t, int32_t status, void *, rt_proc_child *)
{
    status_seen = status;
    rt_shutdown();
}

void reset()
{
    constexpr timeval moment{0, 1};
    pfm_inhibit();
    rt_wait(&moment); // makes what is made on first use
    (void)rt_sched_int(count_and_stop, nullptr, 0, &stopper, sizeof stopper);
    (void)rt_unsched(&stopper);
    status_seen = -1;
    pid = -1;
}

// Nobody else reaps: the status would be lost.
void bury_all()
{
    siginfo_t info;
    while (rt_proc_any_procs() != 0 || waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
        ks::reap_children();
        (void)rt_sched_int(count_and_stop, nullptr, 0, &stopper, sizeof stopper);
        rt_run();
        (void)rt_unsched(&stopper);
    }
}

TEST(FaultRtProc, ForkAndReport)
{
    Operation("rt_proc_fork to the report of the death")
        .setup(reset)
        .act([] {
            pid = rt_proc_fork(end_of_child, nullptr, VLTHREAD_FORK_PLAIN);
            if (pid == 0)
                _exit(3);
            if (pid > 0)
                rt_run();
            return pid > 0;
        })
        .cleanup(bury_all)
        .gives([] { return WEXITSTATUS(status_seen) == 3; })
        .keeps([](const Trial &trial) { return status_seen == -1 && (trial.error == trial.plan.answer); })
        .ends({{Call::select, bad_wait, true}})
        .spares({Call::poll}) // with all of them failing no thread takes signals
        .sweep();
    // A raise in the child of a fork is the child's: so it is forked before.
    Operation("rt_proc_birth_announcement to the report of the death")
        .setup([] {
            reset();
            if ((pid = fork()) == 0)
                _exit(4);
        })
        .act([] { (void)rt_proc_birth_announcement(pid, end_of_child, nullptr), rt_run(); })
        .cleanup(bury_all)
        .gives([] { return WEXITSTATUS(status_seen) == 4; })
        .sweep_raises();
    Operation("wait_for_child")
        .setup([] {
            if ((pid = fork()) == 0)
                _exit(5);
        })
        .act([] {
            const ks::InhibitGuard inhibited;
            int waited = -1;
            while ((waited = ks::wait_for_child(pid, status_seen)) != 0 && errno == EINTR)
                ;
            return waited == 0;
        })
        .gives([] { return WEXITSTATUS(status_seen) == 5; })
        .keeps([](const Trial &trial) { return trial.failed(Call::poll); })
        .sweep();
}

TEST(FaultRtProc, ARaiseInACallbackLeavesTheLoopAndNothingElse)
{
    test::in_child([] {
        if (rt_proc_fork([](pid_t, int32_t, void *, rt_proc_child *) { pfm_raise(6); }, nullptr, VLTHREAD_FORK_PLAIN) ==
            0)
            _exit(0);
        EXPECT_EQ(ks::protect([] { rt_run(); }), 6);
        EXPECT_EQ(rt_proc_any_procs(), 0);
        // A wait of the library's own ends, although the program has reaped the child.
        if ((pid = fork()) == 0)
            _exit(7);
        (void)waitpid(pid, nullptr, 0); // or the catcher was first, and has kept it
        EXPECT_TRUE(ks::wait_for_child(pid, status_seen) == 0 ? WEXITSTATUS(status_seen) == 7 : errno == ECHILD);
    });
}

TEST(FaultKsProc, Start)
{
    ks_proc_result result;
    char *const argv[] = {const_cast<char *>("/bin/true"), nullptr};
    Operation("ks_proc_create_process")
        .setup([&] {
            result = {-1, -1, -1, -1};
        })
        .act([&] { return ks_proc_create_process(argv, nullptr, 7, 0, 0, &result) == 1; })
        .cleanup([&] {
            for (const int fd : {result.in_fd, result.out_fd, result.err_fd})
                (void)close(fd);
            while (waitpid(-1, nullptr, 0) > 0)
                ;
        })
        .gives([&] { return result.pid > 0 && result.in_fd > 2 && result.out_fd > 2 && result.err_fd > 2; })
        .keeps([&] { return result.pid == -1 && result.in_fd == -1 && has_said("Unable to create"); })
        .sweep()
        .sweep_raises();
}

int print(int kind, const char *text)
{
    return imsg_print_shared(kind, nullptr, text, IMSG_RAW);
}

TEST(FaultImsgLog, StartWriteAndEnd)
{
    const test::TempDir dir;
    const std::string path = dir.file("log");
    Operation("imsg_start_log, imsg_print, imsg_end_log")
        .setup(pfm_init)
        .act([&] {
            const bool has_file = imsg_start_log_file(path.c_str()) != stderr;
            const bool is_printed = print(6, "message\n") == 0;
            imsg_end_log();
            return has_file && is_printed;
        })
        .cleanup([&] { imsg_end_log(), (void)unlink(path.c_str()); })
        .gives([&] { return test::read_file(path).ends_with("\nnoname: Error: message\n"); })
        .keeps([&](const Trial &trial) {
            return has_said("noname: Error: message\n") || trial.failed(Call::write) || trial.failed(Call::allocation);
        })
        .sweep()
        .sweep_first_use()
        .sweep_raises()
        .sweep_noise(20);
}

// The printed and the captured line reach the log, or a report, or what could not be set up is undone.
TEST(FaultImsgDaemon, BecomePrintDrainAndReopen)
{
    const test::TempDir dir;
    const std::string path = dir.file("log");
    struct stat before[2];
    Operation("imsg_init_daemon")
        .setup([&] {
            (void)unlink(path.c_str());
            (void)fstat(1, &before[0]), (void)fstat(2, &before[1]);
        })
        .act([&] { return imsg_init_daemon(path.c_str()) == 0; })
        .gives([&] {
            return imsg_am_daemon() == 1 && print(6, "message\n") == 0 && std::puts("line") >= 0 &&
                   (imsg_drain_pipes(), test::read_file(path).ends_with(" noname: Ok: line\n"));
        })
        .keeps([&] {
            struct stat now[2];
            return imsg_am_daemon() == 0 && fstat(1, &now[0]) == 0 && fstat(2, &now[1]) == 0 &&
                   now[0].st_ino == before[0].st_ino && now[1].st_ino == before[1].st_ino && print(0, "no head\n") == 0;
        })
        .ends(
            {{Call::allocation, "(new = (struct on_exit_entry *)malloc(sizeof(struct on_exit_entry))) != NULL", true}})
        .spares({Call::key}) // ends the library's start on a thread of its own, and by now the word goes into the log
        .sweep_first_use();
    Operation("imsg_print, imsg_drain_pipes, imsg_open_daemon in a daemon")
        .setup([&] { (void)!imsg_init_daemon(path.c_str()); })
        .act([&] {
            std::puts("line");
            const bool is_printed = print(6, "message\n") == 0;
            imsg_drain_pipes();
            return is_printed && imsg_open_daemon(path.c_str()) == 0;
        })
        .sweep()
        .sweep_raises()
        .sweep_noise(20);
}

// --- Prompts ---

char *answer = nullptr;
int *selection = nullptr;
FILE *typed = nullptr;

// Standard input, and `typed` as a stream whose reads can fail.
void type(const char *text)
{
    const int file = memfd_create("typed", MFD_CLOEXEC);
    (void)!write(file, text, std::strlen(text));
    (void)lseek(file, 0, SEEK_SET);
    (void)dup2(file, STDIN_FILENO);
    (void)close(file);
    __fpurge(stdin);
    clearerr(stdin);
    typed = test::fault::stream_over(dup(STDIN_FILENO), "r");
}

void forget_answers()
{
    stg_free_int(std::exchange(answer, nullptr), 1);
    stg_free_int(std::exchange(selection, nullptr), 1);
    if (typed != nullptr)
        (void)fclose(std::exchange(typed, nullptr));
}

bool has_no_answer()
{
    return answer == nullptr && selection == nullptr;
}

TEST(FaultPrompt, OnStreams)
{
    char item[] = "item";
    char *const items[] = {item, item};
    Operation("imsg_get_input")
        .setup([] { type("first line\nsecond\n.\n"); })
        .act([] { return imsg_get_input(typed, "default", 1, &answer) == IMSG_PROMPT_ANSWERED; })
        .gives([](const Trial &trial) {
            return trial.failed(Call::read) || std::strcmp(answer, "first line\nsecond") == 0;
        })
        .keeps(has_no_answer)
        .cleanup(forget_answers)
        .sweep()
        .sweep_noise(20);
    Operation("imsg_prompt_text, imsg_prompt_list")
        .setup([] { type("text\nx\n2,1\n"); })
        .act([&] {
            return imsg_prompt_text("?", "d", 0, &answer) == IMSG_PROMPT_ANSWERED &&
                   imsg_prompt_list("?", items, 2, 1, &selection) == IMSG_PROMPT_ANSWERED;
        })
        .gives([] { return std::strcmp(answer, "text") == 0 && selection[0] == 2 && selection[1] == 1; })
        .keeps([] { return selection == nullptr; })
        .cleanup(forget_answers)
        .sweep()
        .sweep_first_use()
        .sweep_raises();
}

// The tool is a program that answers at once.
TEST(FaultPrompt, ThroughTheTool)
{
    const test::TempDir dir;
    (void)mkdir(dir.file("bin").c_str(), 0700);
    test::write_file(dir.file("bin/velprompt"), "#!/bin/sh\necho 1 >$5\n");
    (void)chmod(dir.file("bin/velprompt").c_str(), 0700);
    setenv("VELLUMHOME", dir.path().c_str(), 1);
    setenv("TMPDIR", dir.path().c_str(), 1);
    // No file is left, whatever happens.
    const auto check = [&](const Trial &) -> const char * {
        const auto count = std::distance(std::filesystem::directory_iterator(dir.path()), {});
        return count == 1 ? nullptr : "a file is left behind";
    };
    Operation("imsg_velprompt_text")
        .act([] { return imsg_velprompt_text("?", nullptr, 0, &answer) == IMSG_PROMPT_ANSWERED; })
        .gives([](const Trial &trial) { return trial.failed(Call::read) || std::strcmp(answer, "1\n") == 0; })
        .keeps(has_no_answer)
        .check(check)
        .cleanup(forget_answers)
        .sweep()
        .sweep_raises();
}

TEST(FaultPrompt, ADaemonAsksNothing)
{
    const auto result = test::run_child([] {
        imsg_initialize();
        ks::imsg::state.is_daemon = true;
        setenv("VELM_FORCE_GUI", "1", 1);
        char item[] = "item";
        char *const items[] = {item};
        EXPECT_EQ(imsg_prompt_yes_no(0, "?", IMSG_CHOICE_YES, IMSG_CHOICE_YES), IMSG_CHOICE_ABORT);
        EXPECT_EQ(imsg_velprompt_proceed(0, "?", 0, 0), IMSG_CHOICE_ABORT);
        EXPECT_EQ(imsg_prompt_text("?", "d", 0, &answer), IMSG_PROMPT_CANCELLED);
        EXPECT_EQ(imsg_velprompt_password("?", &answer), IMSG_PROMPT_CANCELLED);
        EXPECT_EQ(imsg_prompt_file("?", "d", nullptr, nullptr, &answer), IMSG_PROMPT_CANCELLED);
        EXPECT_EQ(imsg_prompt_list("?", items, 1, 0, &selection), IMSG_PROMPT_CANCELLED);
        EXPECT_EQ(imsg_prompt_txt_list("?", "/etc/passwd", &selection), IMSG_PROMPT_CANCELLED);
    });
    EXPECT_EQ(result.out + result.err, "");
}

} // namespace
