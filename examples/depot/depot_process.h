// The start of a program that must not lose its way over what it was started with, and its clock.
#pragma once

#include <cstdint>

namespace depot {

// A closed standard stream would give its number to the next file that is opened, and what is meant for the one
// would get into the other. Each is opened so that reading or writing it still fails.
void fill_standard_streams();

// Has a function called for SIGINT, SIGHUP and SIGTERM, on the library's signal-handler thread. What was ignored at the
// start, as by nohup, stays ignored.
void handle_stop_signals(void (*handler)(int signal));

// Milliseconds of a clock that nobody sets.
std::int64_t now_ms();

} // namespace depot
