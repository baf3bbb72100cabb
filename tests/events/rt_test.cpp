#include "harness/child.h"
#include "harness/fake_clock.h"
#include "harness/misuse.h"

#include <korvaks/pfm.h>
#include <korvaks/rt.h>
#include <korvaks/rt_notify.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::set_clock;

std::string seen; // what ran, a letter each

void note(void *letter)
{
    seen += static_cast<const char *>(letter);
}

void stop(void *)
{
    rt_shutdown();
}

void run_for(long microseconds)
{
    const timeval timeout{microseconds / 1000000, microseconds % 1000000};
    rt_sched_rel(stop, nullptr, &timeout);
    rt_run();
}

void *text(const char *letters)
{
    return const_cast<char *>(letters);
}

// The read end of a pipe that has a byte in it.
int ready_fd()
{
    int ends[2];
    return pipe(ends) == 0 && write(ends[1], "x", 1) == 1 ? ends[0] : -1;
}

TEST(RtEvents, FireByDueTimeAndThenInTheOrderOfTheirScheduling)
{
    test::in_child([] {
        const timeval past{1000, 5};
        const timeval earlier{999, 999999};
        const timeval soon{0, 1500};
        rt_event memory;
        rt_sched(note, text("e"), 0);
        rt_sched_abs(note, text("b"), &past);
        rt_sched_abs(note, text("c"), &past);
        rt_sched_abs(note, text("a"), &earlier);
        EXPECT_EQ(rt_sched_int(note, text("f"), 0, &memory, sizeof memory), &memory);
        rt_sched_rel_mt(note, text("g"), &soon);
        rt_sched_abs(note, text("d"), &past);
        rt_sched(note, text("x"), 200000000); // waited for in pieces
        rt_sched(note, text("x"), INT64_MAX);
        run_for(20000);
        EXPECT_EQ(seen, "abcdefg");
        rt_counters counters;
        rt_get_counters(&counters);
        EXPECT_TRUE(memory.magic == RT_MAGIC_DONE && counters.events_fired == 8);
    });
}

TEST(RtEvents, StatusesOfCancelling)
{
    test::in_child([] {
        rt_event unknown{};
        EXPECT_TRUE(rt_unsched_mt(nullptr, 1) == RT_NOT_SCHEDULED && rt_unsched_mt(&unknown, 1) == RT_NOT_SCHEDULED);
        EXPECT_TRUE(rt_resched(nullptr, 1) == nullptr && rt_resched_mt(nullptr, 1) == nullptr);
        rt_event *plain = rt_sched(note, text("x"), 1000);
        EXPECT_EQ(rt_event_in_timeout(plain), 0);
        rt_event *moved = rt_resched(plain, 0);
        rt_event *fired = rt_sched_mt(note, text("y"), 0);
        rt_event *pending = rt_sched_mt(note, text("z"), 1000);
        run_for(20000);
        EXPECT_TRUE(rt_event_in_timeout(moved) == 1 && rt_resched(moved, 0) == nullptr && rt_unsched(fired) == 0);
        EXPECT_TRUE(rt_unsched_mt(fired, 0) == RT_NOT_SCHEDULED && rt_unsched_mt(fired, 1) == RT_ALREADY_FIRED);
        EXPECT_EQ(rt_resched_mt(pending, 0), nullptr);
        EXPECT_NE(rt_resched_mt(fired, 0), nullptr);
        rt_free_event(fired);
        rt_free_event(fired); // is the runtime's already
        EXPECT_NE(rt_sched(note, text("-"), 1000), rt_sched(note, text("-"), 1000));
        run_for(20000);
        EXPECT_EQ(seen, "xyy");
    });
}

TEST(RtLoop, NoticesWhatOtherThreadsAndTheClockDo)
{
    test::in_child([] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const auto run_while = [](const std::function<void()> &other) {
            std::thread thread([&other] {
                usleep(20000);
                other();
            });
            const auto started = time(nullptr);
            rt_run();
            thread.join();
            EXPECT_LT(time(nullptr) - started, 5);
        };
        pfm_init();
        rt_event *far = rt_sched(note, text("x"), 1000);
        run_while(rt_shutdown);
        run_while([] { rt_sched(stop, nullptr, 0); });
        rt_unsched(far);
        std::atomic<int> round{0};
        std::thread ender([&] { // at each moment before a wait
            for (int i = 1; i <= 5000; ++i) {
                while (round != i)
                    sched_yield();
                rt_shutdown();
            }
        });
        while (round < 5000) {
            ++round;
            rt_run();
        }
        ender.join();
        run_while([&] {
            EXPECT_EQ(rt_handle_fd(
                          4, [](int fd, void *) { rt_unhandle_fd(RT_FD_WRITE, fd), rt_shutdown(); }, ends[1], nullptr),
                      1);
        });
        EXPECT_EQ(rt_unhandle_fd(4, ends[1]), 0);
        rt_sched(stop, nullptr, 3600);
        run_while([] { set_clock(31536000); });
        rt_sched(note, text("y"), 1); // set back a day it is a day away
        rt_sched(stop, nullptr, 1);
        run_while([] {
            set_clock(-86400);
            usleep(1100000);
            seen += 'b';
            set_clock(86400);
        });
        EXPECT_EQ(seen, "by");
    });
}

// Handlers that act on the others while the pass goes on.
int fds[6];
ks_fd_set shared_set;

void serve(int fd, void *)
{
    seen += static_cast<char>('0' + (std::find(fds, fds + 6, fd) - fds));
    if (fd == fds[3]) { // served first but for the newest
        EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, fds[2]), 1);
        EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, fds[0]), 1);
        EXPECT_EQ(rt_handle_fd(RT_FD_READ, serve, fds[0], nullptr), 1); // another file, perhaps
        EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, fd), 1);
    }
}

void serve_set(ks_fd_set *ready, void *arg)
{
    note(arg);
    EXPECT_TRUE(ks_fd_has(ready, fds[5]) && !ks_fd_has(ready, fds[4]) && !ks_fd_has(ready, fds[1]));
}

TEST(RtDescriptors, NewestFirstAndOnlyWhatIsStillThere)
{
    test::in_child([] {
        for (int &fd : fds)
            fd = ready_fd();
        for (int i = 0; i <= 4; ++i)
            ASSERT_EQ(rt_handle_fd(i % 2 == 0 ? RT_FD_READ : 3, serve, fds[i], nullptr), 1);
        rt_sched(note, text("x"), -1); // no event fires in a poll
        rt_poll();
        EXPECT_EQ(seen, "431");
        seen.clear();
        rt_poll();
        EXPECT_EQ(seen, "041");

        seen.clear();
        ks_fd_add(&shared_set, fds[5]);
        ks_fd_add(&shared_set, fds[1]); // served by its own handler
        shared_set.words[256] = ~uint64_t{0};
        EXPECT_EQ(rt_handle_fd_set(RT_FD_READ, serve_set, &shared_set, text("s")), 1);
        EXPECT_EQ(rt_handle_fd_set(RT_FD_WRITE, serve_set, &shared_set, text("w")), 1); // read ends: never ready
        rt_poll();
        EXPECT_EQ(seen, "041s");
        EXPECT_TRUE(rt_unhandle_fd_set(RT_FD_READ, &shared_set) == 1 &&
                    rt_unhandle_fd_set(RT_FD_READ, &shared_set) == 0);

        // A poll in a handler ends the pass it was called from.
        seen.clear();
        EXPECT_EQ(rt_unhandle_fd(RT_FD_READ, fds[4]), 1);
        const auto nest = [](int fd, void *) { seen += 'n', rt_unhandle_fd(RT_FD_READ, fd), rt_poll(); };
        EXPECT_EQ(rt_handle_fd(RT_FD_READ, nest, fds[4], nullptr), 1);
        rt_poll();
        EXPECT_EQ(seen, "n01");
    });
}

TEST(RtDescriptors, BetweenTwoDueEventsTheyAreLookedAtOnce)
{
    test::in_child([] {
        rt_sched(note, text("a"), -3);
        rt_sched(note, text("b"), -2);
        rt_sched(stop, nullptr, -1);
        rt_handle_fd(
            RT_FD_READ, [](int, void *) { seen += '.'; }, ready_fd(), nullptr);
        rt_run();
        EXPECT_EQ(seen, "a.b.");
    });
}

// Of many only those worth a look are looked at; what other files do to their numbers changes nothing.
TEST(RtDescriptors, OfManyWhatIsReadyIsServedWhateverBecomesOfTheNumbers)
{
    test::in_child([] {
        const auto look = [](int passes = 1) {
            for (seen.clear(); passes > 0; --passes)
                rt_poll();
            return seen;
        };
        const auto letter = [](int fd, void *arg) { note(arg), (void)fd; };
        for (int i = 0; i < 400; ++i)
            ASSERT_EQ(rt_handle_fd(RT_FD_READ, letter, eventfd(0, EFD_CLOEXEC), text("x")), 1);
        const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC); // which no set of the kernel takes
        int hung_up[2];
        ASSERT_TRUE(pipe(hung_up) == 0 && close(hung_up[1]) == 0);
        for (int i = 0; i < 3; ++i)
            fds[i] = eventfd(0, EFD_CLOEXEC);
        rt_handle_fd(RT_FD_READ, letter, fds[0], text("a"));
        rt_handle_fd(RT_FD_READ, letter, fds[1], text("b"));
        rt_handle_fd(RT_FD_WRITE, letter, hung_up[0], text("x"));
        EXPECT_EQ(look(100), "");
        EXPECT_TRUE(eventfd_write(fds[0], 1) == 0 && eventfd_write(fds[1], 1) == 0 && look() == "ba");
        rt_handle_fd(RT_FD_READ, letter, file, text("f"));
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(look(), "fba");
        // A child that knows nothing of the library takes nothing from its parent.
        if (const pid_t child = fork(); child == 0)
            _exit(rt_unhandle_fd(RT_FD_READ, fds[0]) == 1 && look() == "fb" ? 0 : 1);
        int status = -1;
        EXPECT_TRUE(wait(&status) > 0 && status == 0 && look() == "fba");
        // A number gets another file while a copy keeps the old one alive: that one calls nobody any more.
        rt_unhandle_fd(RT_FD_READ, file);
        const int copy = dup(fds[0]);
        EXPECT_EQ(dup3(fds[2], fds[0], O_CLOEXEC), fds[0]);
        EXPECT_EQ(look(100), std::string(100, 'b'));
        EXPECT_TRUE(close(copy) == 0 && eventfd_write(fds[2], 1) == 0);
        for (int ms = 0; look() != "ba" && ms < 3000; ++ms)
            usleep(1000);
        EXPECT_EQ(seen, "ba");
    });
}

TEST(RtDescriptors, Limits)
{
    const auto result = test::run_child([] {
        const auto ignore = [](int, void *) {};
        setenv("TRACE_SUBSYS", "rt", 1);
        setenv("TRACE_VERBOSITY", "2", 1);
        rt_poll();
        EXPECT_EQ(rt_handle_fd(RT_FD_READ, ignore, 16385, nullptr), 0);
        EXPECT_EQ(rt_fd_validate_max_fd(16384), 1);
        EXPECT_TRUE(rt_handle_fd(5, ignore, -1, nullptr) == 1 && rt_unhandle_fd(5, -1) == 1);
        for (int fd = 16384; fd > 1; --fd)
            ASSERT_EQ(rt_handle_fd(RT_FD_EXCEPT, ignore, fd, nullptr), 1);
        EXPECT_EQ(rt_handle_fd(RT_FD_EXCEPT, ignore, 1, nullptr), 0);
        for (int round = 0; round < 3; ++round) // more handlers than there are places in the order
            for (int fd = 2; fd <= 16384; ++fd)
                ASSERT_TRUE(rt_unhandle_fd(RT_FD_EXCEPT, fd) == 1 &&
                            rt_handle_fd(RT_FD_EXCEPT, ignore, fd, nullptr) == 1);
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(result.err.find("File descriptor (16385) too large for rt\n"), std::string::npos);
    EXPECT_NE(result.err.find("rt_wait: to read none, to write none, with exceptions none; for at most 0.000000 s\n"),
              std::string::npos)
        << result.err;
}

TEST(RtNotify, OneDatagramToTheSocketThatIsNamed)
{
    test::in_child([] {
        EXPECT_EQ(rt_notify_ready("unheard"), 0);
        for (const std::string name : {"@korvaks-", "/tmp/korvaks-"}) {
            const std::string own = name + std::to_string(getpid());
            sockaddr_un address{AF_UNIX, {}};
            own.substr(name[0] == '@').copy(address.sun_path + (name[0] == '@'), own.size());
            const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
            setenv("NOTIFY_SOCKET", own.c_str(), 1);
            EXPECT_EQ(rt_notify_ready(nullptr), -1) << "nobody listens";
            const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + own.size());
            ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), size), 0);
            const auto heard = [manager] {
                char lines[2000];
                return std::string(lines, static_cast<std::size_t>(read(manager, lines, sizeof lines)));
            };
            EXPECT_TRUE(rt_notify_ready(nullptr) == 1 && heard() == "READY=1\n");
            EXPECT_TRUE(rt_notify_stopping("bye\nREADY=1") == 1 && heard() == "STOPPING=1\nSTATUS=bye");
            EXPECT_TRUE(rt_notify_status(std::string(1001, 's').c_str()) == 1 && heard().size() == 1007);
            unlink(own.c_str());
        }
        setenv("NOTIFY_SOCKET", std::string(108, '/').c_str(), 1);
        EXPECT_TRUE(rt_notify_status("s") == -1 && errno == ERANGE);
        setenv("NOTIFY_SOCKET", "@", 1);
        EXPECT_TRUE(rt_notify_status("s") == -1 && errno == EINVAL);
    });
}

TEST(Rt, MisuseEndsTheProcess)
{
    const auto ignore = [](int, void *) {};
    const auto ignore_set = [](ks_fd_set *, void *) {};
    test::expect_misuse({
        {[] {
             const timeval negative{-1, 0};
             rt_sched_rel(note, nullptr, &negative);
         },
         "(timeout->tv_sec >= 0 && timeout->tv_sec < abs_time.tv_sec)"},
        {[] { rt_sched_int(note, nullptr, 0, seen.data(), 55); }, "(max_event_size >= sizeof(struct rt_event))"},
        {[] {
             rt_event *twice = rt_sched(note, nullptr, 9);
             rt_sched_int(note, nullptr, 9, twice, sizeof *twice);
         },
         "(event->magic != RT_MAGIC)"},
        {[] { rt_free_event(rt_sched_mt(note, nullptr, 9)); }, "(event->magic != RT_MAGIC)"},
        {[=] { rt_handle_fd(6, ignore, 0, nullptr); }, "***ABORT***  'lib/ks/rt'"},
        {[=] { rt_handle_fd_set(3, ignore_set, nullptr, nullptr); }, "***ABORT***  'lib/ks/rt'"},
        {[=] { rt_handle_fd(0, ignore, -1, nullptr); }, "(fd >= 0)"},
        {[=] { rt_handle_fd(0, ignore, 1, nullptr), rt_handle_fd(3, ignore, 1, nullptr); }, "(elem->fd != fd)"},
        {[=] {
             rt_handle_fd_set(2, ignore_set, &shared_set, nullptr);
             rt_handle_fd_set(2, ignore_set, &shared_set, nullptr);
         },
         "(elem->fd_set_fds != fd_set_fds)"},
        {[] { pfm_init(), std::thread(rt_run).join(); }, "(VLTHREAD_IS_MAIN_THREAD())"},
        {[=] { rt_handle_fd(0, ignore, 9, nullptr), rt_poll(); }, "(errno == EINTR)"},
        {[=] { // closed behind the loop's back, of many
             int fd = -1;
             for (int i = 0; i < 400; ++i)
                 rt_handle_fd(0, ignore, fd = eventfd(0, 0), nullptr);
             for (int i = 0; i < 100; ++i)
                 rt_poll();
             run_for(1000); // the loop's own descriptors are there
             close(fd);
             run_for(1500000);
         },
         "(errno == EINTR)"},
    });
}

} // namespace
