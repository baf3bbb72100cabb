// The watch over a depot: looks at its directory from time to time and has what is new there, or has changed,
// verified by a child process, one at a time.
#pragma once

#include "depot.h"

#include <korvaks/hash.h>
#include <korvaks/rt.h>

#include <sys/types.h>

namespace depot {

struct Watch {
    Depot depot;                    // open
    const char *verifier = nullptr; // the program veldepot
    long interval = 0;              // seconds

    hash_ht *known = nullptr; // entry names, each with what was verified
    rt_event *timer = nullptr;
    pid_t verifying = 0; // 0: nothing runs
    unsigned count = 0;  // of the entries that it verifies
    bool is_more = false;
    void (*at_rest)() = nullptr; // stopping: called when nothing runs any more
};

// Looks at the depot at once and then every `interval`, while rt_run() runs; false when memory is exhausted.
bool start_watch(Watch &watch);

// No more looking. A child that runs is told to end; `at_rest` is called once there is none.
void stop_watch(Watch &watch, void (*at_rest)());

} // namespace depot
