// Stands in for the message modules in kernel tests: the kernel is linked with this instead of
// imsg, which proves that it needs nothing else of them.
#pragma once

#include <string>
#include <vector>

namespace test {

struct RecordedMessage {
    int kind;
    std::string subsystem;
    unsigned number;
    std::string text; // formatted default text
};

// Messages printed so far by this process, oldest first; all but plain output also go to descriptor 2.
std::vector<RecordedMessage> recorded_messages();
void clear_recorded_messages();

// The desired verbosity from now on; everything up to it is traced, and -1 traces nothing.
void set_recorder_verbosity(long verbosity);

} // namespace test
