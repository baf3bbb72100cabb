// The depot over the wire: begins and ends the daemon's part as a server of the depot's program (depot_program.h).
#pragma once

#include "daemon/listen.h"

namespace depot {

inline constexpr unsigned places_max = 8;
inline constexpr std::size_t place_bytes_max = 1100; // a name of a host may have 1024
inline constexpr long threads_max = 1000;

struct Serving {
    char places[places_max][place_bytes_max] = {}; // HOST:PORT
    unsigned place_count = 0;                      // 0: the depot is not served
    long threads = 4;                              // 0: the thread that runs the loop serves
    Listeners listeners;
};

// Serves while rt_run() runs. False when it cannot, which has been reported; then stop_serving() gives back what was
// made.
bool start_serving(Serving &serving, const char *depot_path);

// No more calls. Those that run are finished, and files that are being stored are given up.
void stop_serving(Serving &serving);

// The totals, for the log.
void report_calls(const Serving &serving);

} // namespace depot
