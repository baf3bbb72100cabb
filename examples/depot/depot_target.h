// The two ends of a transfer outside of a depot: the file that is stored, and the file that is fetched into. All
// functions report what fails, and are raise points, as those of depot_content.h.
#pragma once

#include "depot_content.h"

#include <sys/stat.h>

namespace depot {

// "-" as a path, and as a target.
inline constexpr char standard_stream[] = "-";

bool is_stream(const char *path);

const char *base_name(const char *path);

timespec now();

// Opens the file that is stored, standard input too, as the transfer's source.
bool open_source(Transfer &transfer, const char *path, struct stat &out_status);

// Time and size tell of a change since then, whoever made it.
bool check_unchanged(const Transfer &transfer, const struct stat &before);

// Sees whether a file may be fetched to there: only a plain one is ever replaced, and only with `replace`.
bool open_target(Transfer &transfer, const char *target, bool replace);

// Begins the file, written aside, ...
bool begin_target(Transfer &transfer, mode_t mode);

// ... and gives it its time and name, and reports that.
bool finish_target(Transfer &transfer, const timespec &changed, bool replace);

// A file that failed to get its name, or got it and may lose it with the next crash.
bool fail_to_commit(const Aside &aside, const char *name, int failure);

} // namespace depot
