// A depot: a directory with one file per entry.
//
// Entry NAME is the file NAME.vde. It is written aside and renamed, so at every moment, whoever is
// killed and however many programs work on the depot, an entry is there whole, as it was or as it
// will be. What fails has been reported when a function returns false. All of them are raise points.
#pragma once

#include "depot_entry.h"

#include <korvaks/stg.h>

#include <cstddef>

namespace depot {

// Longest name of an entry.
inline constexpr int name_bytes_max = 251;

struct Depot {
    const char *path = nullptr;
    int directory = -1;
};

bool open_depot(const char *path, bool make, Depot &out_depot);
void close_depot(Depot &depot);

// What an entry gets besides its content.
struct Label {
    const char *owner;   // at most owner_bytes_max
    const char *comment; // at most comment_bytes_max
    bool may_replace;    // else an entry that exists is an error
};

bool put_file(const Depot &depot, const char *path, const Label &label);

// `target` NULL: the entry's name, in the working directory. Without `replace` an existing file is
// an error.
bool get_file(const Depot &depot, const char *name, const char *target, bool replace);

bool verify_entry(const Depot &depot, const char *name);
bool remove_entry(const Depot &depot, const char *name);

// What an entry's header says, its texts in memory of the area.
bool read_entry(const Depot &depot, stg_area *area, const char *name, Entry &out_entry);

struct Names {
    const char **items = nullptr;
    std::size_t count = 0;
};

// The entries' names in order, in memory of the area. Files that do not belong in a depot get a warning.
bool read_names(const Depot &depot, stg_area *area, Names &out_names);

} // namespace depot
