// A depot: a directory with one file per entry.
//
// Entry NAME is the file NAME.vde. It is written aside and renamed, so at every moment, whoever is
// killed and however many programs work on the depot, an entry is there whole, as it was or as it
// will be. What fails has been reported when a function returns false. All of them are raise points.
#pragma once

#include "depot_content.h"

#include <korvaks/stg.h>

#include <sys/stat.h>

namespace depot {

// Longest name of an entry.
inline constexpr int name_bytes_max = 251;

// One thread at a time works with it.
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

// The name that a file's entry gets; false for one that no entry can have, which has been reported.
bool name_entry(const char *path, const Label &label, const char *&out_name);

// What an entry tells of its file.
Entry describe(const struct stat &status, const Label &label);

bool put_file(Depot &depot, const char *path, const Label &label);
void report_stored(const char *name, const Entry &entry);

// Storing in steps, for content that comes in pieces. What an entry tells of its file is set before the first. Between
// them the content is added behind what the depot's transfer has written aside (depot_content.h). Closing the depot
// instead of the last leaves nothing.
bool begin_entry(Depot &depot, const char *name, bool may_replace, Entry &entry);
bool finish_entry(Depot &depot, const char *name, bool may_replace, const Entry &entry);

// `target` NULL: the entry's name, in the working directory. Without `replace` an existing file is
// an error.
bool get_file(Depot &depot, const char *name, const char *target, bool replace);

// Fetching in steps. Opens an entry's file, reads its header, and stops behind it, as unpack() needs it. The entry's
// owner and comment are parts of the transfer. `out_mode` are the permissions that a copy of the file gets: to read and
// write as the entry's file has them now, to execute as the file had.
bool open_entry(Depot &depot, const char *name, Entry &out_entry, mode_t &out_mode);

bool verify_entry(Depot &depot, const char *name);
bool remove_entry(const Depot &depot, const char *name);

// Whether an entry, or something in its place, is there. Reports nothing.
bool has_entry(const Depot &depot, const char *name);

// Reports a name that no entry can have.
bool check_name(const char *name, const char *given);
bool is_good_name(const char *name);

// What an entry's header says, its texts in memory of the area.
bool read_entry(Depot &depot, stg_area *area, const char *name, Entry &out_entry);

// Makes a text the area's.
bool copy_text(stg_area *area, std::string_view &text);

} // namespace depot
