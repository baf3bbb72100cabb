#include "depot_names.h"

#include "depot_report.h"
#include "depot_store.h"

#include <korvaks/imsg.h>
#include <korvaks/ks_sort.h>
#include <korvaks/wild.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace depot {

namespace {

constexpr char suffix[] = ".vde";
constexpr std::size_t suffix_bytes = sizeof suffix - 1;
static_assert(name_bytes_max + suffix_bytes == NAME_MAX);

// The entry's name in the name of its file, which is cut for it; false for a file of another kind.
bool strip_suffix(char *name)
{
    const std::size_t length = std::strlen(name);
    if (length <= suffix_bytes || std::strcmp(name + length - suffix_bytes, suffix) != 0)
        return false;
    name[length - suffix_bytes] = '\0';
    return true;
}

// Visits the names of a directory until a visit fails; 0 or an errno number. A visit is no raise point, so that
// the open directory needs no cleanup record.
template <typename Visit> int for_each_file(int directory, const Visit &visit)
{
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *const files = fd < 0 ? nullptr : fdopendir(fd);
    int failure = 0;
    if (files == nullptr) {
        failure = errno;
        if (fd >= 0)
            (void)close(fd);
        return failure;
    }
    while (failure == 0) {
        errno = 0;
        dirent *const file = readdir(files);
        if (file == nullptr) {
            failure = errno; // 0 at the directory's end
            break;
        }
        failure = visit(file->d_name);
    }
    (void)closedir(files);
    return failure;
}

int add_copy(stg_area *area, const char *name, Names &names)
{
    const char *const copy = stg_area_strdup(area, name);
    return copy != nullptr && add_name(area, copy, names) ? 0 : ENOMEM;
}

int compare_names(const void *a, const void *b, void *)
{
    return std::strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

// Those of entries; the rest gets a warning.
bool read_entries(Store &store, stg_area *area, Names &out_names)
{
    Names others;
    if (!store.read_names(area, out_names, others))
        return false;
    sort(others);
    for (std::size_t i = 0; i < others.count; ++i)
        report(IMSG_WARNING, msg_foreign, shown(others.items[i]));
    return true;
}

struct Pattern {
    const char *text;
    char *compiled; // NULL: the text is an entry's name
    int has_wildcards;
};

Found compile(Store &store, stg_area *area, const char *text, Pattern &out_pattern)
{
    constexpr std::size_t reserve = 8; // for the NUL and what the compiler keeps free
    const std::size_t size = 2 * std::strlen(text) + reserve;
    out_pattern = {text, nullptr, 0};
    bool is_entry = false;
    if (!store.look_up(text, is_entry))
        return Found::some;
    if (is_entry)
        return Found::all;
    out_pattern.compiled = static_cast<char *>(stg_alloc(area, size));
    if (out_pattern.compiled == nullptr)
        return Found::some;
    if (wild_compile_pattern(text, size, out_pattern.compiled, &out_pattern.has_wildcards) >= 0)
        return Found::all;
    report(IMSG_ERROR, msg_bad_pattern, shown(text));
    return Found::no_words;
}

void report_missing(const Pattern &pattern)
{
    if (pattern.has_wildcards != 0)
        (void)fail(msg_no_match, pattern.text);
    else if (check_name(pattern.text, pattern.text))
        (void)fail(msg_no_entry, pattern.text);
}

// Adds what a pattern matches.
Found add_matches(stg_area *area, const Pattern &pattern, const Names &from, Names &names)
{
    const std::size_t before = names.count;
    if (pattern.compiled == nullptr)
        return add_name(area, pattern.text, names) ? Found::all : Found::some;
    for (std::size_t i = 0; i < from.count; ++i)
        if (wild_match(pattern.compiled, from.items[i], 0) != 0 && !add_name(area, from.items[i], names))
            return Found::some;
    if (names.count > before)
        return Found::all;
    report_missing(pattern);
    return Found::some;
}

} // namespace

EntryFile::EntryFile(const char *entry)
{
    (void)std::snprintf(name, sizeof name, "%s%s", entry, suffix);
}

Found find_names(Store &store, stg_area *area, std::span<const char *const> words, Names &out_names)
{
    auto *const patterns = static_cast<Pattern *>(stg_alloc(area, (words.size() + 1) * sizeof(Pattern)));
    if (patterns == nullptr)
        return Found::some;
    bool must_read = words.empty();
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (const Found found = compile(store, area, words[i], patterns[i]); found != Found::all)
            return found;
        must_read = must_read || patterns[i].compiled != nullptr;
    }
    Names all;
    if (must_read && !read_entries(store, area, all))
        return Found::some;
    Found result = Found::all;
    if (words.empty())
        out_names = all;
    for (std::size_t i = 0; i < words.size(); ++i)
        if (add_matches(area, patterns[i], all, out_names) != Found::all)
            result = Found::some;
    sort(out_names);
    return result;
}

bool read_names(const Depot &depot, stg_area *area, Names &out_names, Names &out_others)
{
    const int failure = for_each_file(depot.directory, [&](char *name) {
        if (is_dots(name) || is_aside(name))
            return 0;
        Names &names = strip_suffix(name) ? out_names : out_others;
        return add_copy(area, name, names);
    });
    return failure == 0 || fail(msg_no_depot, depot.path, failure);
}

bool add_name(stg_area *area, const char *name, Names &names)
{
    // Room doubles whenever the count is a power of two.
    if ((names.count & (names.count - 1)) == 0) {
        const std::size_t room = names.count == 0 ? 1 : names.count * 2;
        auto **const items = static_cast<const char **>(stg_alloc(area, room * sizeof *names.items));
        if (items == nullptr)
            return false;
        std::copy_n(names.items, names.count, items);
        names.items = items;
    }
    names.items[names.count++] = name;
    return true;
}

void sort(Names &names)
{
    ks_qsort(names.items, names.count, sizeof *names.items, compare_names, nullptr);
    const auto is_same = [](const char *a, const char *b) { return std::strcmp(a, b) == 0; };
    const char **const end = std::unique(names.items, names.items + names.count, is_same);
    names.count = static_cast<std::size_t>(end - names.items);
}

bool list_names(const Depot &depot, stg_area *area, Names &out_names)
{
    Names others;
    if (!read_names(depot, area, out_names, others))
        return false;
    sort(out_names);
    return true;
}

bool remove_left_behind(const Depot &depot)
{
    bool has_entries = false;
    // What cannot be read is not tidied up, and taken for new.
    (void)for_each_file(depot.directory, [&](char *name) {
        if (is_aside(name))
            remove_if_left_behind(depot.directory, name);
        has_entries = has_entries || strip_suffix(name);
        return 0;
    });
    return has_entries;
}

} // namespace depot
