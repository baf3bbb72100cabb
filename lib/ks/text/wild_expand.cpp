// The walk through directories.
#include "text/wild_expand.h"

#include "kernel/ks_heap.h"

#include <korvaks/fileutl.h>
#include <korvaks/pfm.h>

#include <algorithm>

#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace ks::wild {

namespace {

constexpr std::size_t names_max = 4095;           // kept of one directory
constexpr std::size_t component_bytes_max = 2044; // compiled, with the NUL
constexpr std::size_t levels_max = 1024;          // "..." in a word: each is a call on the stack
constexpr std::size_t buffer_bytes = 32768;

const char *next_component(const char *component)
{
    return component + std::strlen(component) + 1;
}

bool has_wild(const char *component)
{
    for (const char *at = component; (at = std::strchr(at, item_mark)) != nullptr; at += 2) {
        if (at[1] != item_mark_itself)
            return true;
    }
    return false;
}

const char *end_of_component(const char *at)
{
    while (*at != '\0' && *at != '/') {
        if (is_item(at, item_set))
            at = std::strchr(at + 2, item_mark) + 1;
        else
            at += *at == item_mark ? 2 : 1;
    }
    return at;
}

// Turns a compiled word into its components, in place; a limit that one exceeds is false.
bool split_components(char *compiled)
{
    const char *from = compiled;
    char *to = compiled;
    std::size_t levels = 0;
    for (;;) {
        while (*from == '/')
            ++from;
        if (*from == '\0')
            break;
        const char *end = end_of_component(from);
        const bool is_ended = *end == '\0';
        const auto size = static_cast<std::size_t>(end - from);
        std::memmove(to, from, size);
        to[size] = '\0';
        levels += is_item(to, item_levels) ? 1 : 0;
        if (levels > levels_max || (size >= component_bytes_max && has_wild(to)))
            return false;
        to += size + 1;
        if (is_ended)
            break;
        from = end + 1;
    }
    *to = '\0';
    return true;
}

// The byte behind the text's last character is not read: a word does not end inside a set.
bool ends_in_slash(const char *compiled)
{
    const char *at = compiled;
    while (*at != '\0') {
        at = end_of_component(at);
        if (*at == '/' && *++at == '\0')
            return true;
    }
    return false;
}

EntryKind kind_of(mode_t mode)
{
    if (S_ISDIR(mode))
        return EntryKind::directory;
    return S_ISLNK(mode) ? EntryKind::link : EntryKind::other;
}

EntryKind kind_of(unsigned char type)
{
    switch (type) {
    case DT_DIR:
        return EntryKind::directory;
    case DT_LNK:
        return EntryKind::link;
    case DT_UNKNOWN:
        return EntryKind::unknown;
    default:
        return EntryKind::other;
    }
}

// The walk itself passes them by.
bool is_dot_entry(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Numbers in the order that strcmp() gives to the strings; equal ones need a longer look.
std::uint64_t sort_key(const char *name)
{
    char first[8] = {};
    std::memcpy(first, name, strnlen(name, sizeof first));
    std::uint64_t key = 0;
    std::memcpy(&key, first, sizeof key);
    return be64toh(key);
}

int open_directory(const char *path)
{
    int fd = -1;
    do {
        fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

} // namespace

int Expander::add_plain(std::string_view word)
{
    if (list.size > 0 && !list.append(' '))
        return WILD_LIMIT;
    return list.append(word) ? 0 : WILD_LIMIT;
}

int Expander::run(const char *directory, char *compiled)
{
    is_ended_by_slash_ = ends_in_slash(compiled);
    if (!split_components(compiled))
        return WILD_LIMIT;
    path_.size = 0;
    if (!path_.append(std::strcmp(directory, ".") == 0 ? "" : directory))
        return WILD_LIMIT;
    const std::size_t size_before = list.size;
    const int result = expand(compiled, 0);
    if (result != 0)
        return result;
    return list.size == size_before ? WILD_NO_MATCH : 0;
}

void Expander::release()
{
    const ErrnoSaver saver;
    list.release();
    path_.release();
    names_.release();
    stg_free_int(entries_, 1);
    stg_free_int(buffer_, 1);
    if (fd_ >= 0)
        (void)close(fd_); // it was only read
    *this = Expander{};
}

// The path is as before afterwards.
int Expander::expand(const char *components, unsigned depth)
{
    const std::size_t path_size = path_.size;
    for (; *components != '\0' && !has_wild(components); components = next_component(components)) {
        if (!append_literal(components))
            return WILD_LIMIT;
    }
    int result = 0;
    if (*components == '\0')
        result = add_path_if_there();
    else if (is_item(components, item_levels))
        result = expand_levels(components, depth);
    else
        result = expand_names(components, depth);
    path_.cut(path_size);
    return result;
}

int Expander::expand_names(const char *components, unsigned depth)
{
    Level level{};
    const Listing listing = list_directory(components, level);
    if (listing != Listing::done)
        return result_of(listing, depth);
    const char *rest = next_component(components);
    const std::size_t path_size = path_.size;
    int result = 0;
    for (std::size_t i = 0; result == 0 && i < level.entry_count; ++i) {
        const Entry entry = entries_[level.first_entry + i];
        result = append_component(names_.data + entry.offset) ? enter_matched(entry, rest, depth) : WILD_LIMIT;
        path_.cut(path_size);
    }
    leave(level);
    return result;
}

// The path is that of the name that matched.
int Expander::enter_matched(const Entry &entry, const char *rest, unsigned depth)
{
    const bool is_last = *rest == '\0';
    if (is_last && !is_ended_by_slash_)
        return add_path();
    const bool is_known = entry.kind == EntryKind::directory || entry.kind == EntryKind::other;
    if (is_known ? entry.kind == EntryKind::other : !is_directory())
        return 0;
    return is_last ? add_path() : expand(rest, depth + 1);
}

int Expander::expand_levels(const char *components, unsigned depth)
{
    const char *rest = next_component(components);
    int result = *rest != '\0' ? expand(rest, depth + 1) : add_path_if_there();
    if (result != 0)
        return result;
    Level level{};
    const Listing listing = list_directory(nullptr, level);
    if (listing != Listing::done)
        return result_of(listing, depth);
    const std::size_t path_size = path_.size;
    for (std::size_t i = 0; result == 0 && i < level.entry_count; ++i) {
        const Entry entry = entries_[level.first_entry + i];
        if (!append_component(names_.data + entry.offset))
            result = WILD_LIMIT;
        else // a link is entered but not descended through
            result = expand(entry.kind == EntryKind::link ? rest : components, depth + 1);
        path_.cut(path_size);
    }
    leave(level);
    return result;
}

int Expander::add_path_if_there()
{
    const bool is_there = is_ended_by_slash_ ? is_directory() : fileutl_exists(path_text()) != 0;
    return is_there ? add_path() : 0;
}

int Expander::add_path()
{
    if (list.size > 0 && !list.append(' '))
        return WILD_LIMIT;
    if (!is_ended_by_slash_)
        return append_transformed(list, path_text()) ? 0 : WILD_LIMIT;
    const std::size_t path_size = path_.size;
    if (path_size == 0 && !path_.append('.'))
        return WILD_LIMIT;
    const bool is_added = append_component("") && append_transformed(list, path_.view());
    path_.cut(path_size);
    return is_added ? 0 : WILD_LIMIT;
}

// Below the start a directory that fails is passed by; memory that is missing is missing everywhere.
int Expander::result_of(Listing listing, unsigned depth) const
{
    if (listing == Listing::no_memory)
        return WILD_LIMIT;
    if (depth > 0)
        return 0;
    return listing == Listing::too_many ? WILD_LIMIT : WILD_NO_DIRECTORY;
}

// Keeps the names of the directory at the path that match a component, sorted; or, without one, its
// subdirectories. What is kept is given up with leave(), nothing if it fails.
Listing Expander::list_directory(const char *component, Level &out_level)
{
    Level level{entry_count_, 0, names_.size};
    fd_ = open_directory(path_text());
    if (fd_ < 0)
        return errno == ENOMEM ? Listing::no_memory : Listing::unreadable;
    const Listing listing = read_directory(component, level);
    (void)close(fd_); // it was only read
    fd_ = -1;
    if (listing != Listing::done) {
        leave(level);
        return listing;
    }
    const char *names = names_.data;
    std::sort(entries_ + level.first_entry, entries_ + entry_count_, [names](const Entry &a, const Entry &b) {
        return a.key != b.key ? a.key < b.key : std::strcmp(names + a.offset, names + b.offset) < 0;
    });
    out_level = level;
    return Listing::done;
}

Listing Expander::read_directory(const char *component, Level &level)
{
    if (buffer_ == nullptr)
        buffer_ = static_cast<char *>(heap_try_malloc(buffer_bytes));
    if (buffer_ == nullptr)
        return Listing::no_memory;
    for (;;) {
        pfm_test_raise(nullptr); // large trees take long
        const ssize_t got = getdents64(fd_, buffer_, buffer_bytes);
        if (got <= 0)
            return got == 0 ? Listing::done : Listing::unreadable;
        for (ssize_t at = 0; at < got;) {
            const auto *found = reinterpret_cast<const dirent64 *>(buffer_ + at);
            at += found->d_reclen;
            const Listing listing = take_entry(found->d_name, kind_of(found->d_type), component, level);
            if (listing != Listing::done)
                return listing;
        }
    }
}

Listing Expander::take_entry(const char *name, EntryKind kind, const char *component, Level &level)
{
    const bool is_hidden = *name == '.' && (component == nullptr || *component != '.');
    if (is_hidden || is_dot_entry(name))
        return Listing::done;
    if (component == nullptr) {
        kind = kind_for_levels(name, kind);
        if (kind == EntryKind::other)
            return Listing::done;
    } else if (!match_name(component, name)) {
        return Listing::done;
    }
    if (level.entry_count == names_max)
        return Listing::too_many;
    if (!keep_entry(name, kind))
        return Listing::no_memory;
    ++level.entry_count;
    return Listing::done;
}

// Tells directories, links to directories and others apart.
EntryKind Expander::kind_for_levels(const char *name, EntryKind kind) const
{
    struct stat st;
    if (kind == EntryKind::unknown)
        kind = fstatat(fd_, name, &st, AT_SYMLINK_NOFOLLOW) == 0 ? kind_of(st.st_mode) : EntryKind::other;
    if (kind == EntryKind::link && (fstatat(fd_, name, &st, 0) != 0 || !S_ISDIR(st.st_mode)))
        kind = EntryKind::other;
    return kind;
}

bool Expander::keep_entry(const char *name, EntryKind kind)
{
    if (entry_count_ == entry_capacity_ && !grow_entries())
        return false;
    const std::size_t offset = names_.size;
    if (!names_.append({name, std::strlen(name) + 1}))
        return false;
    entries_[entry_count_++] = {sort_key(name), offset, kind};
    return true;
}

bool Expander::grow_entries()
{
    constexpr std::size_t first_capacity = 64;
    const std::size_t capacity = std::max(first_capacity, entry_capacity_ * 2);
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(capacity, sizeof(Entry), &bytes))
        return false;
    auto *grown = static_cast<Entry *>(heap_try_malloc(bytes));
    if (grown == nullptr)
        return false;
    if (entry_count_ > 0)
        std::memcpy(grown, entries_, entry_count_ * sizeof(Entry));
    stg_free_int(entries_, 1);
    entries_ = grown;
    entry_capacity_ = capacity;
    return true;
}

void Expander::leave(const Level &level)
{
    entry_count_ = level.first_entry;
    if (names_.size > level.names_size)
        names_.cut(level.names_size);
}

bool Expander::append_component(std::string_view component)
{
    const bool is_joined = path_.size == 0 || path_.view().ends_with('/');
    return (is_joined || path_.append('/')) && path_.append(component);
}

bool Expander::append_literal(const char *component)
{
    if (!append_component(""))
        return false;
    for (const char *at = component; *at != '\0'; ++at) {
        if (*at == item_mark)
            ++at;
        if (!path_.append(*at))
            return false;
    }
    return true;
}

bool Expander::is_directory() const
{
    struct stat st;
    return fileutl_stat(path_text(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace ks::wild
