// The walk through directories.
#include "text/wild_expand.h"

#include "kernel/stg_quiet.h"

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

// The end of the components from `start` to `end` without the one that a ".." behind them takes back. "..." stays.
char *take_back(char *start, char *end)
{
    while (end > start) {
        char *last = end - 1;
        while (last > start && last[-1] != '\0')
            --last;
        if (is_item(last, item_levels))
            break;
        end = last;
        if (std::strcmp(last, ".") != 0)
            break;
    }
    return end;
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

Listing failed_listing()
{
    return errno == ENOMEM ? Listing::no_memory : Listing::unreadable;
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
    return begin_word() && list.append(word) ? 0 : WILD_LIMIT;
}

int Expander::add_name(std::string_view name)
{
    const bool is_added =
        has_bare_names ? list.append(name) && list.append('\0') : begin_word() && append_transformed(list, name);
    return is_added ? 0 : WILD_LIMIT;
}

int Expander::add_literal(const char *compiled)
{
    return make_literal(compiled) ? add_name(literal_.view()) : WILD_LIMIT;
}

int Expander::run(const char *directory, bool is_confining, char *compiled)
{
    is_ended_by_slash_ = ends_in_slash(compiled);
    if (!split_components(compiled, is_confining))
        return WILD_LIMIT;
    path_.size = 0;
    if (!path_.append(std::strcmp(directory, ".") == 0 ? "" : directory))
        return WILD_LIMIT;
    visited_.release();
    number_ = 0;
    const std::size_t size_before = list.size;
    int result = visit(compiled);
    while (result == 0 && visits_.count > 0)
        result = go_on();
    if (result != 0)
        return result;
    return list.size == size_before ? WILD_NO_MATCH : 0;
}

void Expander::release()
{
    const ErrnoSaver saver;
    list.release();
    path_.release();
    literal_.release();
    visits_.release();
    entries_.release();
    names_.release();
    visited_.release();
    stg_free_int(buffer_, 1);
    if (fd_ >= 0)
        (void)close(fd_); // it was only read
    *this = Expander{};
}

// Turns a compiled word into its components, in place; a limit that one exceeds is false.
bool Expander::split_components(char *compiled, bool is_confined)
{
    const char *from = compiled;
    char *to = compiled;
    std::size_t levels = 0;
    for (bool is_ended = false; !is_ended;) {
        while (*from == '/')
            ++from;
        if (*from == '\0')
            break;
        const char *end = end_of_component(from);
        is_ended = *end == '\0';
        const auto size = static_cast<std::size_t>(end - from);
        std::memmove(to, from, size);
        to[size] = '\0';
        levels += is_item(to, item_levels) ? 1 : 0;
        if (size >= component_bytes_max && has_wild(to))
            return false;
        to = is_confined && std::strcmp(to, "..") == 0 ? take_back(compiled, to) : to + size + 1;
        from = end + 1;
    }
    *to = '\0';
    may_return_ = levels > 1;
    return true;
}

// Comes to the directory at the path with components left. What there is to do in it is left to go_on().
int Expander::visit(const char *components)
{
    bool is_first = true;
    if (may_return_ && !visited_.enter(number_, reinterpret_cast<std::uintptr_t>(components), is_first))
        return WILD_LIMIT;
    if (!is_first)
        return 0;
    for (; *components != '\0' && !has_wild(components); components = next_component(components)) {
        if (!append_literal(components))
            return WILD_LIMIT;
    }
    if (*components == '\0')
        return add_path_if_there();
    const Stage stage = is_item(components, item_levels) ? Stage::itself : Stage::listing;
    return visits_.push({components, path_.size, number_, stage, {}, 0}) ? 0 : WILD_LIMIT;
}

// Takes one step of the innermost visit.
int Expander::go_on()
{
    Visit &current = visits_.last();
    path_.cut(current.path_size);
    number_ = current.number;
    switch (current.stage) {
    case Stage::itself:
        current.stage = Stage::listing;
        return visit(next_component(current.components));
    case Stage::listing:
        current.stage = Stage::entries;
        return list_entries(current);
    case Stage::entries:
        break;
    }
    if (current.entries_done < current.level.entry_count)
        return go_on_below(current, entries_.data[current.level.first_entry + current.entries_done++]);
    leave(current.level);
    --visits_.count;
    return 0;
}

// Below the start, a directory that fails is passed by; but memory that is missing is missing everywhere, and
// subdirectories are not left out in silence.
int Expander::list_entries(Visit &visit)
{
    const bool is_levels = is_item(visit.components, item_levels);
    switch (list_directory(is_levels ? nullptr : visit.components, visit.level)) {
    case Listing::done:
        return 0;
    case Listing::unreadable:
        return visits_.count == 1 ? WILD_NO_DIRECTORY : 0;
    case Listing::too_many:
        return visits_.count == 1 || is_levels ? WILD_LIMIT : 0;
    case Listing::no_memory:
        break;
    }
    return WILD_LIMIT;
}

// Comes to a name that matched; `current` and `entry` may move meanwhile.
int Expander::go_on_below(const Visit &current, const Entry &entry)
{
    const char *rest = next_component(current.components);
    const char *name = names_.data + entry.offset;
    const EntryKind kind = entry.kind;
    if (!append_component(name))
        return WILD_LIMIT;
    if (is_item(current.components, item_levels)) {
        // A link is entered but not descended through.
        const char *left = kind == EntryKind::link ? rest : current.components;
        return number_path(name) ? visit(left) : WILD_LIMIT;
    }
    const bool is_last = *rest == '\0';
    if (is_last && !is_ended_by_slash_)
        return add_path();
    const bool is_known = kind == EntryKind::directory || kind == EntryKind::other;
    if (is_known ? kind == EntryKind::other : !is_directory())
        return 0;
    if (is_last)
        return add_path();
    return number_path(name) ? visit(rest) : WILD_LIMIT;
}

int Expander::add_path_if_there()
{
    const bool is_there = is_ended_by_slash_ ? is_directory() : fileutl_exists(path_text()) != 0;
    return is_there ? add_path() : 0;
}

int Expander::add_path()
{
    if (!is_ended_by_slash_)
        return add_name(path_text());
    const std::size_t path_size = path_.size;
    if (path_size == 0 && !path_.append('.'))
        return WILD_LIMIT;
    const int result = append_component("") ? add_name(path_.view()) : WILD_LIMIT;
    path_.cut(path_size);
    return result;
}

// Keeps the names of the directory at the path that match a component, sorted; or, without one, its
// subdirectories. What is kept is given up with leave(), nothing if it fails.
Listing Expander::list_directory(const char *component, Level &level)
{
    level = {entries_.count, 0, names_.size};
    fd_ = open_directory(path_text());
    if (fd_ < 0)
        return failed_listing();
    const Listing listing = read_directory(component, level);
    (void)close(fd_); // it was only read
    fd_ = -1;
    if (listing != Listing::done) {
        leave(level);
        level.entry_count = 0;
        return listing;
    }
    const char *names = names_.data;
    std::sort(entries_.data + level.first_entry, entries_.data + entries_.count,
              [names](const Entry &a, const Entry &b) {
                  return a.key != b.key ? a.key < b.key : std::strcmp(names + a.offset, names + b.offset) < 0;
              });
    return listing;
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
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0 ? Listing::done : failed_listing();
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
    const std::size_t offset = names_.size;
    return names_.append({name, std::strlen(name) + 1}) && entries_.push({sort_key(name), offset, kind});
}

void Expander::leave(const Level &level)
{
    entries_.count = level.first_entry;
    if (names_.size > level.names_size)
        names_.cut(level.names_size);
}

bool Expander::begin_word()
{
    return list.size == 0 || list.append(' ');
}

bool Expander::append_component(std::string_view component)
{
    const bool is_joined = path_.size == 0 || path_.view().ends_with('/');
    return (is_joined || path_.append('/')) && path_.append(component);
}

// Follows the path to a name in the directory that has the number.
bool Expander::number_path(std::string_view name)
{
    return !may_return_ || visited_.number_below(number_, name, number_);
}

bool Expander::make_literal(const char *compiled)
{
    literal_.size = 0;
    if (!literal_.reserve(0))
        return false;
    for (const char *at = compiled; *at != '\0'; ++at) {
        if (*at == item_mark)
            ++at;
        if (!literal_.append(*at))
            return false;
    }
    return true;
}

bool Expander::append_literal(const char *component)
{
    return make_literal(component) && append_component(literal_.view()) && number_path(literal_.view());
}

bool Expander::is_directory() const
{
    struct stat st;
    return fileutl_stat(path_text(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace ks::wild
