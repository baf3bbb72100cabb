// The daemon log: its records, the pipes that catch output, opening anew, and every end of the process.
#include "harness/child.h"
#include "harness/forked.h"
#include "harness/match.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_log.h>
#include <korvaks/ks_proc.h>
#include <korvaks/pfm.h>
#include <korvaks/rt.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

time_t clock_shift = 0; // of the clock that the library sees

int print(int kind, const char *text)
{
    return imsg_print_shared(kind, nullptr, text, IMSG_RAW);
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

// The log with "@" in the place of each time stamp.
std::string records_of(const std::string &path)
{
    const std::string text = test::read_file(path);
    std::string records;
    for (std::string line : lines_of(text)) {
        const auto blank = line.find(' ');
        if (blank != line.npos && blank >= 27 && line.substr(0, 2) == "20" && line[10] == 'T' && line[19] == '.')
            line.replace(0, blank + 1, "@");
        records += line + "\n";
    }
    return records + text.substr(text.rfind('\n') + 1);
}

class ImsgDaemon : public testing::Test {
  protected:
    // Runs `body` in a daemon, which ends by exit(); its records.
    template <typename Body> std::string log_of(Body body, int status = 0)
    {
        const auto result = test::run_child([&] {
            clock_shift = 0;
            if (imsg_init_daemon(path.c_str()) != 0)
                return 99;
            body();
            std::exit(0);
        });
        EXPECT_EQ(result.exited ? result.exit_status : result.signal, status) << result.err;
        EXPECT_EQ(result.out + result.err, "");
        return records_of(path);
    }

    const test::TempDir dir;
    const std::string path = dir.file("log");
};

imsg_log_counters counters()
{
    imsg_log_counters now{};
    imsg_get_log_counters(&now);
    return now;
}

} // namespace

extern "C" int clock_gettime(clockid_t id, timespec *out) noexcept
{
    const long result = syscall(SYS_clock_gettime, id, out);
    if (id == CLOCK_REALTIME)
        out->tv_sec += clock_shift;
    return static_cast<int>(result);
}

namespace {

TEST_F(ImsgDaemon, KeepsOneLineForEachRecord)
{
    test::write_file(path, "cut before");
    umask(077);
    const std::string log = log_of([] {
        print(IMSG_OK, "a\nb|c\n");
        std::printf("a\nb|c\n\nno end");
        EXPECT_EQ(write(2, "d|e\nf", 5), 5);
        print(IMSG_ERROR, "g\n");
        ks_proc_result started;
        ASSERT_EQ(ks_proc_create_process_str("yes child | head -n 100000; echo done >&2", nullptr, 0, 0, 0, &started),
                  1);
        const int in = imsg_daemon_pipe_fd(1);
        for (int status = 0; waitpid(started.pid, &status, WNOHANG) == 0; usleep(100))
            imsg_drain_pipes();
        EXPECT_NE(fcntl(in, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(counters().lost, 0U);
    });
    const std::string start = "cut before\n@noname: Ok: a|b||c\n@noname: Ok: a\n@noname: Ok: b||c\n@noname: Ok: \n"
                              "@noname: Error: d|e\n@noname: Error: g\n@noname: Ok: no endchild\n@noname: Ok: child\n";
    EXPECT_EQ(log.substr(0, start.size()), start);
    EXPECT_NE(log.find("\n@noname: Error: fdone\n"), log.npos) << log.substr(log.size() - 200);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 7 + 100000 + 1);
    struct stat st {};
    EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0666);
}

TEST_F(ImsgDaemon, DrainsAtEveryEnd)
{
    const auto late = [] {
        std::printf("late");
        std::fflush(stdout);
    };
    const auto leave = [](int, void *) { std::printf("; on exit\n"); };
    const std::string stamped = "@noname: Ok: late\n";
    EXPECT_EQ(log_of([] { std::printf("late"); }), stamped);
    EXPECT_EQ(log_of([=] { late(), pfm_on_exit(leave, nullptr), pfm_exit(7); }, 7),
              stamped + "@noname: Ok: late; on exit\n");
    EXPECT_TRUE(log_of([=] { late(), abort(); }, SIGABRT).ends_with("\nlate"));
    EXPECT_TRUE(log_of([=] { late(), raise(SIGILL); }, SIGILL).ends_with("\nlate\nlate"));
    EXPECT_TRUE(
        log_of([=] { late(), imsg_drain_pipes_fully(), _exit(3); }, 3).ends_with("\nlate\nlate\n@noname: Ok: late\n"));
    // What a child of a fork does is nothing to its parent's pipes.
    const std::string forked = log_of([=] {
        late();
        const pid_t child = fork();
        if (child == 0) {
            clock_shift = 4000;
            print(IMSG_OK, "child\n"), imsg_drain_pipes(), _exit(4);
        }
        EXPECT_EQ(test::exit_status_of(child), 4);
    });
    EXPECT_TRUE(forked.ends_with("\n@noname: Ok: child\n@noname: Ok: late\n")) << forked;
}

TEST_F(ImsgDaemon, OpensTheLogAnewAndWritesOnWhereItCannot)
{
    const std::string moved = dir.file("moved");
    const std::string failed = "@noname: Error: Unable to (re)open daemon log file \"" + path + "\"\n";
    const std::string log = log_of([&] {
        const int descriptors = test::open_descriptor_count();
        print(IMSG_OK, "1\n");
        ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0);
        std::printf("2\n");
        clock_shift = 3599;
        print(IMSG_OK, "3\n");
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        for (clock_shift = 3601; clock_shift < 3630; clock_shift += 10)
            print(IMSG_OK, "4\n");
        ASSERT_EQ(rmdir(path.c_str()) + symlink("moved", path.c_str()), 0);
        EXPECT_EQ(imsg_open_daemon(path.c_str()), -1);
        EXPECT_EQ(errno, ELOOP);
        ASSERT_EQ(unlink(path.c_str()), 0);
        clock_shift = 3662;
        std::printf("6\n");
        imsg_starting_process();
        print(IMSG_OK, "7\n");
        clock_shift = -100; // set back
        ASSERT_EQ(rename(path.c_str(), dir.file("second").c_str()), 0);
        print(IMSG_OK, "8\n");
        EXPECT_EQ(test::open_descriptor_count(), descriptors);
    });
    EXPECT_EQ(log, "@noname: Ok: 8\n");
    EXPECT_EQ(records_of(dir.file("second")), "@noname: Ok: 7\n");
    EXPECT_EQ(records_of(moved),
              "@noname: Ok: 1\n@noname: Ok: 2\n@noname: Ok: 3\n" + failed + "@noname: Error: " + path +
                  ": Is a directory\n@noname: Ok: 4\n@noname: Ok: 4\n@noname: Ok: 4\nUnable to open log file \"" +
                  path + "\": pathname must not be a symbolic link.\n@noname: Ok: 6\n");
}

TEST_F(ImsgDaemon, AFloodIsBoundedAndWhatIsLostIsSaid)
{
    const std::string longest(IMSG_LOG_LINE_MAX, 'x');
    const std::string log = log_of([&] {
        imsg_set_pipes_blocking(); // so that a line as long as the smallest pipe gets in
        std::thread writer([&] {
            const std::string text = longest + "\n" + longest + "y\n\n";
            EXPECT_EQ(write(1, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        });
        while (counters().written < 4)
            imsg_drain_pipes();
        writer.join();
        ASSERT_EQ(fcntl(2, F_SETFL, O_WRONLY | O_NONBLOCK), 0);
        const std::string much(4 << 20, 'z');
        EXPECT_LT(write(2, much.data(), much.size()), 2 << 20);
        std::fputs("lost\n", stderr);
        print(IMSG_OK, "on\n");
        print(IMSG_OK, "on\n");
        EXPECT_EQ(counters().lost, 1U);
    });
    const std::string ok = "@noname: Ok: ";
    EXPECT_EQ(log.rfind(ok + longest + "\n" + ok + longest + "\n" + ok + "y\n" + ok + "\n@noname", 0), 0U);
    const auto lost = log.find("Error: Text written to standard error was lost\n");
    EXPECT_TRUE(lost != log.npos && log.find("was lost", lost + 60) == log.npos);
}

TEST_F(ImsgDaemon, ALogThatTakesNothingStopsNobody)
{
    const std::string log = log_of([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        print(IMSG_OK, "first\n");
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        const rlimit full{static_cast<rlim_t>(st.st_size) + 30, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
        EXPECT_EQ(print(IMSG_OK, "cut\n"), -1);
        EXPECT_EQ(print(IMSG_ERROR, "lost\n"), -1);
        std::printf("kept\n");
        std::fflush(stdout);
        rt_sched([](void *) { rt_shutdown(); }, nullptr, 2);
        rt_counters before{};
        rt_counters after{};
        rt_get_counters(&before);
        rt_run();
        rt_get_counters(&after);
        EXPECT_LE(after.handlers_run - before.handlers_run, 6U);   // not once in every pass
        ASSERT_EQ(imsg_open_daemon(dir.file("other").c_str()), 0); // where it is said as well
        const rlimit free{RLIM_INFINITY, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &free), 0);
        rt_sched([](void *) { rt_shutdown(); }, nullptr, 2);
        rt_run();
        EXPECT_TRUE(counters().written == 2 && counters().lost == 2);
    });
    EXPECT_TRUE(log.ends_with(" no")) << log;
    EXPECT_EQ(records_of(dir.file("other")),
              "@noname: Error: 2 records could not be written: File too large\n@noname: Ok: kept\n");
}

TEST_F(ImsgDaemon, SuspendedItPrintsIntoItsPipes)
{
    const std::string log = log_of([&] {
        print(IMSG_OK, "1\n");
        EXPECT_EQ(imsg_suspend_daemon_logging() + imsg_suspend_daemon_logging(), 0);
        print(IMSG_OK, "2\n");
        print(IMSG_ERROR, "3\n");
        clock_shift = 4000;
        ASSERT_EQ(rename(path.c_str(), dir.file("moved").c_str()), 0);
        print(IMSG_OUTPUT, "4\n");
        EXPECT_EQ(imsg_open_daemon(path.c_str()), 0);
        EXPECT_EQ(imsg_resume_daemon_logging(), 0);
        std::printf("5\n");
    });
    EXPECT_EQ(log, "@noname: Ok: 5\n");
    EXPECT_EQ(records_of(dir.file("moved")), "@noname: Ok: 1\n2\nnoname: Error: noname: Error: 3\n4\n");
}

TEST_F(ImsgDaemon, CapturedLinesGoIntoAnOpenLogFile)
{
    EXPECT_EQ(log_of([&] {
                  imsg_start_log(dir.file("file").c_str(), nullptr, 0);
                  std::printf("a|b\n");
                  print(IMSG_OUTPUT, "c\nd\n");
                  imsg_end_log();
                  print(IMSG_OUTPUT, "e\n");
              }),
              "@noname: e\n");
    EXPECT_EQ(records_of(dir.file("file")), "a|b\n@noname: c\nd\n");
}

TEST_F(ImsgDaemon, AStampThatCannotBeMadeTouchesNoMessage)
{
    const std::string log = log_of([] {
        clock_shift = -time(nullptr) - 1000;
        print(IMSG_WARNING, "still here\n");
    });
    EXPECT_TRUE(log.ends_with(" - NULL Message.\nnoname: Warning: still here\n")) << log;
}

TEST_F(ImsgDaemon, WithoutPipesTheLogIsTheOutput)
{
    const auto result = test::run_child([&] {
        ASSERT_EQ(imsg_init_abe(path.c_str()), 0);
        EXPECT_TRUE(stdout == stderr && fileno(stdout) > 2 && (fcntl(fileno(stdout), F_GETFD) & FD_CLOEXEC) != 0);
        print(IMSG_ERROR, "a\nb\n");
        std::printf("plain\n");
        ASSERT_EQ(rename(path.c_str(), dir.file("moved").c_str()), 0);
        clock_shift = 4000;
        std::fprintf(stderr, "last\n");
        print(IMSG_OK, "new\n");
        EXPECT_EQ(imsg_am_daemon() + imsg_daemon_pipe_fd(1), 0);
        EXPECT_EQ(write(1, "own\n", 4), 4);
    });
    EXPECT_EQ(result.out, "own\n");
    EXPECT_EQ(records_of(dir.file("moved")), "@noname: Error: a|b\nplain\nlast\n");
    EXPECT_EQ(records_of(path),
              "@noname: Ok: new\n@noname: Error: Log file for imsg daemon not open, cannot return fd of pipe.\n");
}

TEST_F(ImsgDaemon, RefusesWhatNeedsADaemonOrAFile)
{
    const auto result = test::run_child([&] {
        EXPECT_EQ(imsg_suspend_daemon_logging() + imsg_resume_daemon_logging() + imsg_drain_pipes_fully() +
                      imsg_set_pipes_blocking() + imsg_daemon_pipe_fd(2) + imsg_init_daemon(dir.path().c_str()),
                  -6);
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        const int descriptors = test::open_descriptor_count();
        EXPECT_EQ(imsg_init_daemon(path.c_str()), -1);
        EXPECT_EQ(imsg_init_abe(path.c_str()), -1);
        EXPECT_EQ(test::open_descriptor_count(), descriptors);
        EXPECT_EQ(imsg_am_daemon(), 0);
        print(IMSG_OK, "no head\n");
        std::fflush(stdout);
        EXPECT_EQ(imsg_open_daemon(dir.file("plain").c_str()), 0); // as freopen()
        std::printf("own\n");
    });
    EXPECT_EQ(result.out, "no head\n");
    EXPECT_EQ(test::read_file(dir.file("plain")), "own\n");
    EXPECT_EQ(result.err, "Can't suspend daemon logging, process not a daemon: Invalid argument\n"
                          "Can't resume daemon logging, process not a daemon: Invalid argument\n"
                          "noname: Error: Process not an imsg daemon, cannot drain pipes to daemon log file.\n"
                          "noname: Error: Process not an imsg daemon, cannot set pipes blocking.\n"
                          "noname: Error: Process not an imsg daemon, cannot return fd of log file pipe.\n" +
                              dir.path() + ": Is a directory\n" + path + ": Invalid argument\n" + path +
                              ": Invalid argument\n");
}

TEST_F(ImsgDaemon, StartsWithEverythingClosed)
{
    const auto result = test::run_child([&] {
        for (const int fd : {0, 1, 2})
            close(fd);
        (void)imsg_init_daemon(path.c_str());
        print(IMSG_OK, "a\n");
        std::printf("b\n");
        std::exit(fcntl(0, F_GETFD) == 0 && imsg_daemon_pipe_fd(2) > 2 ? 0 : 2);
    });
    EXPECT_TRUE(result.exited && result.exit_status == 0);
    EXPECT_EQ(records_of(path), "@noname: Ok: a\n@noname: Ok: b\n");
}

// Every record is in one of the two files, whole, however often the log is opened anew and suspended.
TEST_F(ImsgDaemon, PrintsReopensSuspendsAndDrainsAtOnce)
{
    constexpr int each = 2000;
    std::string log = log_of([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([] {
                for (int n = 0; n < each; ++n)
                    (void)imsg_print_shared(n % 2 == 0 ? IMSG_ERROR : IMSG_OK, nullptr, "message %d\n", IMSG_RAW, n);
            });
        threads.emplace_back([] {
            for (int n = 0; n < each; ++n)
                std::printf("captured %d\n", n), n % 64 == 0 ? imsg_drain_pipes() : void();
        });
        threads.emplace_back([&] {
            for (int n = 0; n < 100; ++n) {
                (void)rename(path.c_str(), dir.file("old").c_str());
                EXPECT_EQ(imsg_open_daemon(path.c_str()), 0);
                test::write_file(dir.file("all"), test::read_file(dir.file("all")) + test::read_file(dir.file("old")));
                EXPECT_EQ(imsg_suspend_daemon_logging() + imsg_resume_daemon_logging(), 0);
            }
        });
        for (std::thread &thread : threads)
            thread.join();
    });
    log = records_of(dir.file("all")) + log;
    const auto lines = lines_of(log);
    for (const std::string &line : lines) { // with what a suspension leaves out, and the head that it adds
        EXPECT_TRUE(test::matches(line, "[@noameOkErr: ]*(captured|message) [0-9]+")) << line;
    }
    EXPECT_EQ(lines.size(), 4U * each);
}

TEST_F(ImsgDaemon, WritersThatAreKilledLeaveWholeRecords)
{
    std::vector<std::unique_ptr<test::Child>> writers;
    for (int i = 0; i < 4; ++i)
        writers.push_back(std::make_unique<test::Child>([&] {
            if (imsg_init_daemon(path.c_str()) != 0)
                return 1;
            for (int n = 0;; ++n)
                imsg_print_shared(IMSG_ERROR, nullptr, "record %d %0300d end\n", IMSG_RAW, n, n);
        }));
    struct stat st {};
    for (int waited = 0; waited < 20000 && st.st_size < 4'000'000; ++waited, usleep(1000))
        (void)stat(path.c_str(), &st);
    for (const auto &writer : writers) {
        kill(writer->pid(), SIGKILL);
        EXPECT_EQ(writer->finish().signal, SIGKILL);
    }
    const std::string log = records_of(path);
    const auto lines = lines_of(log);
    const auto whole_count = std::count_if(lines.begin(), lines.end(), [](const std::string &line) {
        return test::matches(line, "@noname: Error: record [0-9 ]+ end");
    });
    EXPECT_GE(whole_count + 4, std::ssize(lines));            // the last one of each may be cut, with another behind it
    EXPECT_EQ(std::count(lines.begin(), lines.end(), ""), 0); // nobody who began took another's for cut
}

} // namespace
