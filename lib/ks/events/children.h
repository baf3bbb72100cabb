// What the event modules share about children besides rt_proc.h and ks_proc.h.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/types.h>

namespace ks {

// Deaths collected so far.
extern std::atomic<uint64_t> children_reaped;

// Collects the deaths that there are. Nothing before rt_proc has started.
void reap_children();

// Waits until a child of the library's own has died, such as a tool that it runs, and gives its status as waitpid(2)
// does: whoever reaps it first, the catcher of deaths, this thread or the program, the wait ends. 0; -1 with errno:
//   EINTR   a raise, a stop or a signal arrived; the child may be waited for again
//   ECHILD  the child has died and its status is lost: the program reaped it
// Called inhibited, at any count: the caller passes a raise on when it has put away what it holds.
[[nodiscard]] int wait_for_child(pid_t pid, int32_t &out_status);

// Gives the process an opening of its own of the pipe on `fd`, if it is one whose writers are not to wait, which then
// does make them wait: the description that others share stays as it is. False, with errno, and `fd` is as before.
// Async-signal-safe.
bool make_pipe_blocking(int fd);

// Called before each start of a child, with no lock held; it may raise. Set by whoever keeps the daemon log, which is
// then reopened where that is due; NULL: nobody.
extern std::atomic<void (*)()> before_child_start;

} // namespace ks
