// Files as a whole: read to their end, and written aside so that nobody ever sees half of one.
//
// Results are 0 or an errno number. Reading and writing are raise points: their caller has a
// cleanup record that gives back what it holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/stat.h>

namespace depot {

// Bytes in memory of stg_malloc().
struct Bytes {
    unsigned char *data = nullptr;
    std::size_t size = 0;
};

void release(Bytes &bytes);

// Reads a file or pipe, opened with O_NONBLOCK, to its end. Ctrl-C ends the wait for a pipe.
// `expected` is how much will probably come; EFBIG when that, or what comes, is more than `most`.
int read_all(int fd, std::uint64_t expected, std::uint64_t most, Bytes &out_bytes);

int write_all(int fd, const void *data, std::size_t size);

// A file that is being written: it has a name of its own, beside the one it will have, until it is
// complete and safe on disk.
//
// While its writer lives it is locked. So one that is not locked was left behind by a writer that
// was killed, and the next writer in the same directory removes it.
struct Aside {
    int directory = -1;
    int fd = -1; // -1: none
    char name[32] = "";
};

int open_aside(int directory, mode_t mode, Aside &out_aside);

// Makes the file durable and gives it its name. Without `replace` a file of that name is left alone
// and the result is EEXIST.
int commit_aside(Aside &aside, const char *name, bool replace);

// Removes the file unless it was committed.
void discard_aside(Aside &aside);

// Whether a name in a directory is that of a file written aside.
bool is_aside(const char *name);

void close_descriptor(int &fd);

} // namespace depot
