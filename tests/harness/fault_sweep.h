// Runs an operation once for every call that could fail in it, and looks at what is left.
//
// After each disturbed run the process must be as before: the operation is done as documented or
// refused with everything as it was, no lock is held, no raise is held off, no block and no
// descriptor is lost, and the same operation then succeeds undisturbed. A run that ends the process
// is a fault unless the operation names the end, word for word; and an end that is named must be
// met. Faults are reported to GoogleTest.
//
// Nothing here starts the library in the test's own process: all runs are made in children, each
// with a deadline.
#pragma once

#include "harness/fault_inject.h"

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace test::fault {

// One run, as the checks see it.
struct Trial {
    Plan plan;
    bool fired = false;   // something failed
    bool is_done = false; // what the operation answered
    int error = 0;        // errno behind it, 0 before
    int32_t raised = 0;   // status of the raise that left the operation

    bool failed(Call call) const { return fired && plan.call == call; }
};

// An end of the process that the failure of a call is documented to bring.
struct End {
    Call call;
    // The end of a line written to descriptor 2, where '#' stands for any number, decimal or hexadecimal; "" for an
    // abort without a word of an assertion or a panic.
    const char *text;
    bool is_rare = false; // need not be met: whether it is depends on what else the operation does first
};

enum class Mode {
    warm,      // every call fails, in a process that has started the library and done this before
    first_use, // the same with a process for each run in which nothing has been done before; the ends that a start of
               // the library is documented to have are no faults
    raises,    // every delivery check finds a raise; one that does not leave the operation is still pending behind it
    noise,     // reads and writes are short and interrupted at random
};

struct Scenario {
    const char *name;
    std::function<void()> setup{};
    std::function<bool()> act{};
    std::function<void()> cleanup{};
    std::function<const char *(const Trial &)> check{};
    std::function<bool(const Trial &)> gives{};
    std::function<bool(const Trial &)> keeps{};
    const char *says = "";
    bool sets_errno = false;
    bool notices = false;
    std::vector<End> ends{};
    std::vector<Call> spared{};
};

void run_sweep(const Scenario &scenario, Mode mode, unsigned seeds);

// An operation that is done or refused: what belongs to it, one after another, and then its sweeps.
// A raise may leave `act` at any point, so that it owns nothing.
class Operation {
  public:
    explicit Operation(const char *name) : scenario_{name} {}

    Operation &setup(std::function<void()> step) { return set(scenario_.setup, std::move(step)); }
    Operation &cleanup(std::function<void()> step) { return set(scenario_.cleanup, std::move(step)); }

    // The only step that is disturbed. It answers whether it was done, or nothing when it always is.
    template <std::invocable Act> Operation &act(Act step)
    {
        if constexpr (std::is_void_v<std::invoke_result_t<Act>>)
            return set(scenario_.act, std::function<bool()>([step] { return step(), true; }));
        else
            return set(scenario_.act, std::function<bool()>(step));
    }

    // What must hold when it is done, and when it is refused; with or without the trial.
    template <typename Question> Operation &gives(Question asked) { return set(scenario_.gives, of_trial(asked)); }
    template <typename Question> Operation &keeps(Question asked) { return set(scenario_.keeps, of_trial(asked)); }

    // What is wrong with any run, or NULL; looked at first, and the only one after a raise.
    Operation &check(std::function<const char *(const Trial &)> wrong)
    {
        return set(scenario_.check, std::move(wrong));
    }

    // A refusal has the errno of the failing call; one for want of memory says so on descriptor 2.
    Operation &sets_errno() { return set(scenario_.sets_errno, true); }
    Operation &says(const char *text) { return set(scenario_.says, text); }

    // It is not done when a call fails.
    Operation &notices() { return set(scenario_.notices, true); }

    Operation &ends(std::vector<End> named) { return set(scenario_.ends, std::move(named)); }
    Operation &spares(std::vector<Call> kinds) { return set(scenario_.spared, std::move(kinds)); }

    Operation &sweep() { return run(Mode::warm); }
    Operation &sweep_first_use() { return run(Mode::first_use); }
    Operation &sweep_raises() { return run(Mode::raises); }
    Operation &sweep_noise(unsigned seeds) { return run(Mode::noise, seeds); }

  private:
    template <typename Part> Operation &set(Part &part, Part value)
    {
        part = std::move(value);
        return *this;
    }

    template <typename Question> static std::function<bool(const Trial &)> of_trial(Question asked)
    {
        if constexpr (std::invocable<Question>)
            return [asked](const Trial &) { return asked(); };
        else
            return asked;
    }

    Operation &run(Mode mode, unsigned seeds = 0)
    {
        run_sweep(scenario_, mode, seeds);
        return *this;
    }

    Scenario scenario_;
};

// For checks: the status of the raise that is pending for the caller, 0 for none, which it takes.
int32_t take_raise();

// For checks: whether the run has written `text` to descriptor 2.
bool has_said(const char *text);

} // namespace test::fault
