// Which trace messages are wanted.
#include "harness/child.h"

#include <korvaks/imsg.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include <malloc.h>

namespace {

// Whether each question is answered with yes: 1 or 0, one behind the other.
std::string answers(const std::vector<std::pair<const char *, long>> &questions)
{
    std::string text;
    for (const auto &[subsystem, level] : questions)
        text += std::to_string(imsg_should_trace(subsystem, level));
    return text;
}

TEST(ImsgTrace, EnvironmentDecides)
{
    struct Case {
        const char *verbosity, *subsystems;
        std::vector<std::pair<const char *, long>> questions;
        const char *answers;
    };
    const Case cases[] = {
        {"2", "ks/imsg:ks/date", {{"ks/date", 2}, {"ks/imsg", 1}}, "11"},
        {"2", "ks/imsg:ks/date", {{"ks/dat", 2}, {"ks", 2}, {"date", 1}, {"ks/date", 3}, {nullptr, 1}}, "00000"},
        {"2", "ks/imsg:ks/date", {{"ks/imsg:ks/date", 1}, {"ks/imsg:", 1}, {"ks/dates", 1}}, "000"},
        {"2", nullptr, {{"ks/date", 2}, {"ks/date", 0}}, "00"},
        {nullptr, "*", {{"ks/date", 1}, {"ks/date", 0}}, "01"},
        {"99999999999999999999", "*", {{"out of range", 1}}, "0"},
        {"5", "*", {{"any", 5}, {nullptr, 5}, {"any", 6}}, "110"},
        {"-1", "*", {{"a", 0}, {"a", -1}}, "01"},
        {"40000", "a", {{"a", 40000}, {"a", 1}, {"a", 40000}}, "011"}, // above what stands for unread
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.questions.front().first);
        const auto result = test::run_child([&] {
            if (c.verbosity != nullptr)
                setenv("TRACE_VERBOSITY", c.verbosity, 1);
            if (c.subsystems != nullptr)
                setenv("TRACE_SUBSYS", c.subsystems, 1);
            errno = EDOM;
            const std::string text = answers(c.questions);
            printf("%s%s", text.c_str(), errno == EDOM ? "" : " and errno");
        });
        EXPECT_EQ(result.out, c.answers);
    }
}

TEST(ImsgTrace, CallsOverrideTheEnvironment)
{
    const auto result = test::run_child([] {
        setenv("TRACE_VERBOSITY", "3", 1);
        setenv("TRACE_SUBSYS", "env", 1);
        const auto show = [] {
            const std::string text = answers({{"env", 1}, {"set", 1}, {"set", 3}, {"set", 4}});
            printf("%s %ld,", text.c_str(), imsg_get_desired_verbosity());
        };
        printf("%ld %ld %ld,", imsg_get_desired_verbosity(), imsg_get_verbosity_ev(), imsg_get_desired_verbosity());
        imsg_set_trace_subsys("set"); // stays when the verbosity is read
        show();
        imsg_set_trace_verbosity(1);
        show();
        imsg_set_trace_subsys(nullptr);
        show();
        imsg_set_trace_verbosity(IMSG_VERBOSITY_UNREAD); // read anew, the list as well
        show();
        imsg_set_trace_subsys("");
        show();
    });
    EXPECT_EQ(result.out, "32767 3 32767,0110 3,0100 1,0000 1,1000 3,0000 3,");
}

// Readers take no lock, so a list in use must stay whole while others are set; and those add up to nothing.
TEST(ImsgTrace, ListsMayChangeUnderReaders)
{
    test::in_child([] {
        imsg_set_trace_verbosity(1);
        imsg_set_trace_subsys("common:left");
        std::atomic<bool> is_done{false};
        std::atomic<int> wrong{0};
        std::vector<std::jthread> readers;
        for (int i = 0; i < 3; ++i) {
            readers.emplace_back([&] {
                while (!is_done.load()) {
                    if (imsg_should_trace("common", 1) != 1 || imsg_should_trace("other", 1) != 0)
                        ++wrong;
                }
            });
        }
        const std::string padding(3000, 'p');
        const auto before = static_cast<ssize_t>(mallinfo2().uordblks);
        for (int i = 0; i < 20000; ++i) {
            const std::string number = std::to_string(100000 + i);
            imsg_set_trace_subsys((i % 2 == 0 ? padding + ":common:" + number : "left:common:" + number).c_str());
        }
        const ssize_t kept = static_cast<ssize_t>(mallinfo2().uordblks) - before;
        is_done.store(true);
        readers.clear();
        EXPECT_EQ(wrong, 0);
        EXPECT_LT(kept, 65536);
    });
}

} // namespace
