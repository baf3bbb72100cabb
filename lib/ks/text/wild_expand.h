// The walk that finds the paths that a word with wildcards matches.
#pragma once

#include "text/wild_impl.h"

#include <cstdint>

namespace ks::wild {

enum class EntryKind : std::uint8_t {
    other, // nothing below it
    directory,
    link,    // a symbolic link
    unknown, // the file system does not say
};

// A name of a directory, kept while the walk is in it or below.
struct Entry {
    std::uint64_t key;  // its first bytes, as a number of the same order
    std::size_t offset; // of the name in the names
    EntryKind kind;
};

// What happened to a directory.
enum class Listing {
    done,
    unreadable,
    too_many, // names
    no_memory,
};

// The walk of one word after the other, and the list that comes of it. The walk passes delivery checks of
// raises, so it has no destructor: its owner releases it.
//
// Directories are named by whole paths and each is closed before the next is opened, so the depth of
// a tree costs no descriptors. Components come as strings one behind the other, ended by an
// empty one.
class Expander {
  public:
    Text list;

    // Adds a word as it stands.
    [[nodiscard]] int add_plain(std::string_view word);

    // Adds what a compiled word with wildcards matches, from a directory on. It is cut up in place, and
    // takes one byte more than it had.
    [[nodiscard]] int run(const char *directory, char *compiled);

    void release();

  private:
    // What of the shared stores belongs to one directory.
    struct Level {
        std::size_t first_entry;
        std::size_t entry_count;
        std::size_t names_size;
    };

    int expand(const char *components, unsigned depth);
    int expand_names(const char *components, unsigned depth);
    int expand_levels(const char *components, unsigned depth);
    int enter_matched(const Entry &entry, const char *rest, unsigned depth);
    int add_path_if_there();
    int add_path();
    int result_of(Listing listing, unsigned depth) const;

    Listing list_directory(const char *component, Level &out_level);
    Listing read_directory(const char *component, Level &level);
    Listing take_entry(const char *name, EntryKind kind, const char *component, Level &level);
    EntryKind kind_for_levels(const char *name, EntryKind kind) const;
    bool keep_entry(const char *name, EntryKind kind);
    bool grow_entries();
    void leave(const Level &level);

    bool append_component(std::string_view component);
    bool append_literal(const char *component);
    const char *path_text() const { return path_.size == 0 ? "." : path_.data; }
    bool is_directory() const;

    Text path_;  // where the walk is; empty for "."
    Text names_; // of entries, each with its NUL
    Entry *entries_ = nullptr;
    std::size_t entry_count_ = 0;
    std::size_t entry_capacity_ = 0;
    char *buffer_ = nullptr;         // takes what the system says about a directory
    int fd_ = -1;                    // the directory that is being read
    bool is_ended_by_slash_ = false; // the word
};

} // namespace ks::wild
