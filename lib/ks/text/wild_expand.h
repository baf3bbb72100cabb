// The walk that finds the paths that a word with wildcards matches.
#pragma once

#include "text/wild_impl.h"
#include "text/wild_visited.h"

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
// Directories are named by whole paths and each is closed before the next is opened, and what is left to do in
// those above is kept in memory, so the depth of a tree costs neither descriptors nor stack. Components come as
// strings one behind the other, ended by an empty one.
class Expander {
  public:
    // Words with one blank between, each as transform_string() makes it; or names as they are, each with its NUL.
    Text list;
    bool has_bare_names = false;

    // Adds a word as it stands.
    [[nodiscard]] int add_plain(std::string_view word);

    [[nodiscard]] int add_name(std::string_view name);

    // Adds the name that a compiled word without wildcards stands for.
    [[nodiscard]] int add_literal(const char *compiled);

    // Adds what a compiled word with wildcards matches, from a directory on, which is not left by ".." when it
    // is confining. The word is cut up in place, and takes one byte more than it had.
    [[nodiscard]] int run(const char *directory, bool is_confining, char *compiled);

    void release();

  private:
    // What of the shared stores belongs to one directory.
    struct Level {
        std::size_t first_entry;
        std::size_t entry_count;
        std::size_t names_size;
    };

    enum class Stage : std::uint8_t {
        itself, // "..." that stands for no level
        listing,
        entries,
    };

    // A visit to a directory that goes on.
    struct Visit {
        const char *components; // the first one has wildcards
        std::size_t path_size;
        std::uint32_t number;
        Stage stage;
        Level level;
        std::size_t entries_done;
    };

    bool split_components(char *compiled, bool is_confined);
    [[nodiscard]] int visit(const char *components);
    [[nodiscard]] int go_on();
    [[nodiscard]] int go_on_below(const Visit &visit, const Entry &entry);
    [[nodiscard]] int list_entries(Visit &visit);
    [[nodiscard]] int add_path_if_there();
    [[nodiscard]] int add_path();

    Listing list_directory(const char *component, Level &level);
    Listing read_directory(const char *component, Level &level);
    Listing take_entry(const char *name, EntryKind kind, const char *component, Level &level);
    EntryKind kind_for_levels(const char *name, EntryKind kind) const;
    bool keep_entry(const char *name, EntryKind kind);
    void leave(const Level &level);

    [[nodiscard]] bool begin_word();
    bool append_component(std::string_view component);
    bool make_literal(const char *compiled);
    bool append_literal(const char *component);
    bool number_path(std::string_view name);
    const char *path_text() const { return path_.size == 0 ? "." : path_.data; }
    bool is_directory() const;

    Text path_;           // where the walk is; empty for "."
    Text literal_;        // a component as a name
    Store<Visit> visits_; // one inside the other
    Store<Entry> entries_;
    Text names_; // of entries, each with its NUL
    Visited visited_;
    std::uint32_t number_ = 0;       // of the path, as a visited one
    bool may_return_ = false;        // to a directory: the word has several "..."
    bool is_ended_by_slash_ = false; // the word
    char *buffer_ = nullptr;         // takes what the system says about a directory
    int fd_ = -1;                    // the directory that is being read
};

} // namespace ks::wild
