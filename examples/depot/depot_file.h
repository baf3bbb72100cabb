// Descriptors: read and written in pieces between which Ctrl-C is heard, and files that are written aside so
// that nobody ever sees half of one.
//
// Results are 0 or an errno number. Reading and writing are raise points: their caller has a
// cleanup record that gives back what it holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/stat.h>

namespace depot {

// Reads until `size` bytes are there or the end is met, however small the pieces are in which they come.
int read_fully(int fd, void *data, std::size_t size, std::size_t &out_count);

// Writes to a pipe, terminal or file that need not be ready.
int write_to_stream(int fd, const void *data, std::size_t size);

// A number that nobody can guess. 0 or an errno number.
int make_random(std::uint64_t &out_number);

// Writes to a plain file.
int write_file(int fd, const void *data, std::size_t size);

// A file that is being written: it has a name of its own, beside the one it will have, until it is
// complete and safe on disk.
//
// While its writer lives it is locked. So one that is not locked was left behind by a writer that
// was killed, and in a depot the next writer removes it.
struct Aside {
    int directory = -1;
    int fd = -1; // -1: none
    char name[32] = "";
    std::uint64_t written = 0;
    bool is_in_place = false; // it has its final name, whatever else failed
};

int open_aside(int directory, mode_t mode, Aside &out_aside);

// Adds to the file's end.
int write_aside(Aside &aside, const void *data, std::size_t size);

// Overwrites its start.
int rewrite_aside(Aside &aside, const void *data, std::size_t size);

// Makes the file durable and gives it its name. Without `replace` a file of that name is left alone
// and the result is EEXIST.
int commit_aside(Aside &aside, const char *name, bool replace);

// Removes the file unless it was committed.
void discard_aside(Aside &aside);

// Whether a name is "." or "..".
bool is_dots(const char *name);

// Whether a name in a directory is that of a file written aside.
bool is_aside(const char *name);

// Removes a file written aside if its writer is gone.
void remove_if_left_behind(int directory, const char *name);

// Sees to it that a directory outlasts a crash together with what is put into it.
int sync_parent(int directory);

void close_descriptor(int &fd);

} // namespace depot
