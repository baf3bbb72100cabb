// Opens the files that the library appends to at a name which somebody else may have prepared: the
// capture log, the command history, the daemon log.
#pragma once

#include <sys/types.h>

namespace ks {

// open(2) for a file that nobody else can have pointed elsewhere, decided on the descriptor and not on
// the name: a regular file, with this name only, owned by the caller or by root. The flags of the caller
// say how it is read and written (O_CREAT, O_APPEND and so on, never O_TRUNC: the open would empty a
// file that is then refused); O_NOFOLLOW, O_NONBLOCK, O_NOCTTY and O_CLOEXEC are added.
//
// A descriptor above 2, whatever was closed when the program started. -1 with errno: ELOOP for a symbolic
// link, EMLINK for a file with several names, EINVAL for what is no regular file, EPERM for another
// user's, else open()'s own (ENXIO for a pipe that nobody reads). Nothing is printed, and interruptions
// are gone over.
[[nodiscard]] int open_own_file(const char *path, int flags, mode_t mode);

// The same with a judgement of the caller's: `refusal_of` gets the descriptor and gives 0, or the errno with which
// the file is refused.
[[nodiscard]] int open_judged(const char *path, int flags, mode_t mode, int (*refusal_of)(int fd));

} // namespace ks
