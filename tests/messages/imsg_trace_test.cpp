// Which trace messages are wanted.
#include "harness/child.h"

#include <korvaks/imsg.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

namespace {

struct Question {
    const char *subsystem;
    long level;
    int expected;
};

// The number of the first question that is answered otherwise, from 1; 0 for none.
int first_wrong(const std::vector<Question> &questions)
{
    for (size_t i = 0; i < questions.size(); ++i) {
        if (imsg_should_trace(questions[i].subsystem, questions[i].level) != questions[i].expected)
            return static_cast<int>(i) + 1;
    }
    return 0;
}

TEST(ImsgTrace, EnvironmentDecides)
{
    struct Case {
        const char *verbosity, *subsystems;
        std::vector<Question> questions;
    };
    const Case cases[] = {
        {"2",
         "ks/imsg:ks/date",
         {{"ks/date", 2, 1},
          {"ks/imsg", 1, 1},
          {"ks/dat", 2, 0},
          {"ks", 2, 0},
          {"date", 1, 0},
          {"ks/date", 3, 0},
          {"ks/imsg:ks/date", 1, 0},
          {nullptr, 1, 0}}},
        {"2", nullptr, {{"ks/date", 2, 0}, {"ks/date", 0, 0}}},
        {"2", "", {{"ks/date", 2, 0}}},
        {nullptr, "*", {{"ks/date", 1, 0}, {"ks/date", 0, 1}}},
        {"5x", "*", {{"ks/date", 1, 0}}},
        {"5", "*", {{"any", 5, 1}, {nullptr, 5, 1}, {"any", 6, 0}}},
        {"1", "*:a", {{"b", 1, 0}, {"a", 1, 1}}},
        {"-1", "*", {{"a", 0, 0}, {"a", -1, 1}}},
        {"40000", "a", {{"a", 40000, 0}, {"a", 1, 1}, {"a", 40000, 1}}}, // above what stands for unread
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.verbosity == nullptr ? "" : c.verbosity) + " " +
                     (c.subsystems == nullptr ? "" : c.subsystems));
        const auto result = test::run_child([&] {
            if (c.verbosity != nullptr)
                setenv("TRACE_VERBOSITY", c.verbosity, 1);
            if (c.subsystems != nullptr)
                setenv("TRACE_SUBSYS", c.subsystems, 1);
            return first_wrong(c.questions);
        });
        EXPECT_EQ(result.exit_status, 0);
    }
}

TEST(ImsgTrace, CallsOverrideTheEnvironment)
{
    const auto result = test::run_child([] {
        setenv("TRACE_VERBOSITY", "3", 1);
        setenv("TRACE_SUBSYS", "env", 1);
        if (imsg_get_desired_verbosity() != IMSG_VERBOSITY_UNREAD || imsg_get_verbosity_ev() != 3 ||
            imsg_get_desired_verbosity() != IMSG_VERBOSITY_UNREAD)
            return 1;
        imsg_set_trace_subsys("set"); // stays when the verbosity is read
        if (first_wrong({{"env", 1, 0}, {"set", 3, 1}, {"set", 4, 0}}) != 0 || imsg_get_desired_verbosity() != 3)
            return 2;
        imsg_set_trace_verbosity(1);
        if (first_wrong({{"set", 1, 1}, {"set", 2, 0}}) != 0)
            return 3;
        imsg_set_trace_subsys(nullptr);
        if (first_wrong({{"set", 1, 0}, {"env", 1, 0}}) != 0)
            return 4;
        imsg_set_trace_verbosity(IMSG_VERBOSITY_UNREAD); // read anew, the list as well
        if (first_wrong({{"env", 3, 1}, {"set", 1, 0}}) != 0)
            return 5;
        imsg_set_trace_subsys("");
        return first_wrong({{"env", 1, 0}});
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(ImsgTrace, DecisionKeepsErrno)
{
    const auto result = test::run_child([] {
        setenv("TRACE_VERBOSITY", "99999999999999999999", 1); // out of range
        errno = EDOM;
        return imsg_should_trace("a", 1) == 0 && errno == EDOM ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}

// Readers take no lock, so a list in use must stay whole while others are set; and those add up to nothing.
TEST(ImsgTrace, ListsMayChangeUnderReaders)
{
    const auto result = test::run_child([] {
        imsg_set_trace_verbosity(1);
        imsg_set_trace_subsys("common:left");
        std::atomic<bool> is_done{false};
        std::atomic<int> wrong{0};
        std::vector<std::thread> readers;
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
        for (std::thread &reader : readers)
            reader.join();
        return wrong.load() != 0 ? 1 : kept < 65536 ? 0 : 2;
    });
    EXPECT_EQ(result.exit_status, 0);
}

// The first question of many threads at once.
TEST(ImsgTrace, ConcurrentFirstQuestionsAgree)
{
    const auto result = test::run_child([] {
        setenv("TRACE_VERBOSITY", "2", 1);
        setenv("TRACE_SUBSYS", "a:b", 1);
        std::atomic<int> yes{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] { yes += imsg_should_trace("b", 2); });
        for (std::thread &thread : threads)
            thread.join();
        return yes.load();
    });
    EXPECT_EQ(result.exit_status, 8);
}

} // namespace
