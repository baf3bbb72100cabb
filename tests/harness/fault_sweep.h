// Runs an operation once for every call that could fail in it, and looks at what is left.
//
// A scenario is one operation with what comes before and behind it. After each disturbed run the
// process must be as before: its check finds the result as documented, no lock is held, no raise is
// held off, no block and no descriptor is lost, and the same operation then succeeds undisturbed.
// A run that ends the process is a fault unless the scenario names the end, word for word; and an
// end that is named must be met. Faults are reported to GoogleTest.
//
// Nothing here starts the library in the test's own process: all runs are made in children, each
// with a deadline. The points and runs of all sweeps are printed when the program ends.
#pragma once

#include "harness/fault_inject.h"

#include <cstdint>
#include <vector>

namespace test::fault {

// One run, as the check sees it.
struct Trial {
    Plan plan;
    bool fired = false; // something failed
    int32_t raised = 0; // status of the raise that left the operation

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

// The ends that a start of the library is documented to have. Any first use may contain one.
std::vector<End> ends_of_start(std::vector<End> others = {});

// The four steps are plain functions: a raise may leave `act` at any point, so that what it works
// on is static.
struct Scenario {
    const char *name;
    void (*setup)() = nullptr;
    void (*act)() = nullptr;                            // the only step that is disturbed
    const char *(*check)(const Trial &trial) = nullptr; // what is wrong, or NULL
    void (*cleanup)() = nullptr;
    std::vector<End> ends{};
    std::vector<Call> spared{}; // kinds of calls that are not made to fail
};

// Fails every call of `act`, in a process that has started the library and done this before.
void sweep(const Scenario &scenario);

// The same with a process for each run in which nothing has been done before, so that starts,
// caches and first uses are disturbed.
void sweep_first_use(const Scenario &scenario);

// Has every delivery check of `act` find a raise. A raise that does not leave `act` must still be
// pending behind it.
void sweep_raises(const Scenario &scenario);

// Reads and writes of `act` are short and interrupted at random; every seed must pass the check.
void sweep_noise(const Scenario &scenario, unsigned seeds);

// For checks: the status of the raise that is pending for the caller, 0 for none, which it takes.
int32_t take_raise();

// For checks: whether the run has written `text` to descriptor 2.
bool has_said(const char *text);

} // namespace test::fault
