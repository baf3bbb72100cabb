// The names of entries: how they stand in a depot's directory, and which of them words on a command line mean.
#pragma once

#include "depot.h"

#include <korvaks/stg.h>

#include <climits>
#include <cstddef>
#include <span>

namespace depot {

// The file that holds an entry.
struct EntryFile {
    explicit EntryFile(const char *entry);
    char name[NAME_MAX + 1];
};

struct Names {
    const char **items = nullptr;
    std::size_t count = 0;
};

enum class Found {
    all,
    some,     // what is missing has been reported
    no_words, // the words are wrong, which has been reported
};

class Store;

// The entries that words mean, each once and in order, in memory of the area. A word that is an entry's name
// means that entry, any other is a pattern; no words mean all. The depot's names are read once at most; files
// that do not belong in it get a warning then.
Found find_names(Store &store, stg_area *area, std::span<const char *const> words, Names &out_names);

// All entries, and the files that do not belong in the directory, in memory of the area.
bool read_names(const Depot &depot, stg_area *area, Names &out_names, Names &out_others);

// Puts names in order, each once.
void sort(Names &names);

// The entries alone, in order.
bool list_names(const Depot &depot, stg_area *area, Names &out_names);

// Adds a name; false when memory is exhausted.
bool add_name(stg_area *area, const char *name, Names &names);

// Removes what writers that were killed have left in a depot; true when it holds an entry.
bool remove_left_behind(const Depot &depot);

} // namespace depot
