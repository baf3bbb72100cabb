// The way up to the message layer for everything below it.
//
// Those layers report through imsg_print() and imsg_should_trace() of up_calls.h and include nothing else of
// the message modules; this header adds what they need to say and to ask.
#pragma once

#include "base/up_calls.h"

#include <atomic>

namespace ks {

// Message kinds, as imsg.h names them for callers: an even kind opens a message, the odd one above it continues
// it without a head.
enum MsgKind : int {
    msg_ok = 0,
    msg_ok_more = 1,
    msg_output = 2,
    msg_output_more = 3,
    msg_warning = 4,
    msg_warning_more = 5,
    msg_error = 6,
    msg_error_more = 7,
    msg_trace = 8,
    msg_trace_more = 9,
    msg_system = 10,
};

// The desired verbosity, which the message modules set: above every level until they have read the
// environment. It is defined down here, so that whoever may have to trace looks at it in one load.
extern std::atomic<long> desired_verbosity;

// Whether anything at this level could be traced at all; mostly the answer is no.
inline bool may_be_traced(long level)
{
    return desired_verbosity.load(std::memory_order_relaxed) >= level;
}

// Whether a trace message is wanted. The verbosity is asked first, because that is cheap.
inline bool is_traced(const char *subsystem, long level)
{
    return may_be_traced(level) && imsg_should_trace(subsystem, level) != 0;
}

} // namespace ks
