// A depot: a directory with one file per entry.
//
// Entry NAME is the file NAME.vde. It is written aside and renamed, so at every moment, whoever is
// killed and however many programs work on the depot, an entry is there whole, as it was or as it
// will be. What fails has been reported when a function returns false. All of them are raise points.
#pragma once

#include "depot_content.h"

#include <korvaks/stg.h>

namespace depot {

// Longest name of an entry.
inline constexpr int name_bytes_max = 251;

struct Depot {
    const char *path = nullptr;
    int directory = -1;
    bool is_new = false;   // made by this command
    bool is_ready = false; // for new entries
    Transfer transfer;     // of the one file that is on its way
};

// Without `make` the directory has to be there.
bool open_depot(const char *path, bool make, Depot &out_depot);

// Also ends a transfer that a raise has left; a directory that was made in vain goes again.
void close_depot(Depot &depot);

// What an entry gets besides its content.
struct Label {
    const char *name;    // of the entry; NULL: the file's
    const char *owner;   // at most owner_bytes_max
    const char *comment; // at most comment_bytes_max
    bool may_replace;    // else an entry that exists is an error
};

// "-" as a path, and as a target.
inline constexpr char standard_stream[] = "-";

const char *base_name(const char *path);

bool put_file(Depot &depot, const char *path, const Label &label);

// `target` NULL: the entry's name, in the working directory. Without `replace` an existing file is
// an error.
bool get_file(Depot &depot, const char *name, const char *target, bool replace);

bool verify_entry(Depot &depot, const char *name);
bool remove_entry(const Depot &depot, const char *name);

// Whether an entry, or something in its place, is there. Reports nothing.
bool has_entry(const Depot &depot, const char *name);

// Reports a name that no entry can have.
bool check_name(const char *name, const char *given);

// What an entry's header says, its texts in memory of the area.
bool read_entry(Depot &depot, stg_area *area, const char *name, Entry &out_entry);

} // namespace depot
