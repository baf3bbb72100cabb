#include "depot.h"

#include "depot_report.h"

#include <korvaks/compress.h>
#include <korvaks/date.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_sort.h>
#include <korvaks/pfm.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace depot {

namespace {

constexpr char suffix[] = ".vde";
constexpr std::size_t suffix_bytes = sizeof suffix - 1;
static_assert(name_bytes_max + suffix_bytes == NAME_MAX);

bool fail(Msg number, const char *name)
{
    report(IMSG_ERROR, number, shown(name));
    return false;
}

bool fail(Msg number, const char *name, int failure)
{
    report(IMSG_ERROR, number, shown(name), imsg_strerror(failure));
    return false;
}

bool fail(Fault fault, const char *name)
{
    constexpr Msg messages[] = {msg_count,    msg_not_an_entry, msg_unknown_version, msg_bad_header,
                                msg_bad_size, msg_bad_block,    msg_bad_content};
    return fail(messages[static_cast<std::size_t>(fault)], name);
}

// What the transfer of one file holds. Plain numbers and pointers: a raise runs no destructor.
struct Transfer {
    int source = -1;
    int target_directory = -1;
    Bytes content;
    Bytes block;
    Aside aside;
    unsigned char header[header_bytes_max];
};

void release(Transfer &transfer)
{
    discard_aside(transfer.aside);
    close_descriptor(transfer.source);
    close_descriptor(transfer.target_directory);
    release(transfer.content);
    release(transfer.block);
}

// Runs `work` under a cleanup record: when it ends, and also when Ctrl-C ends it, everything the
// transfer holds is given back and no half file is left.
//
// The transfer belongs to the caller: a variable of this function that `work` changes would be
// indeterminate after the jump.
template <typename Work> bool run_protected(Transfer &transfer, const Work &work)
{
    pfm_cleanup_rec record = {};
    record.status = sigsetjmp(record.jump, 1);
    if (const int32_t status = pfm_cleanup_start(&record, 0); status != 0) {
        release(transfer);
        pfm_raise(status); // on to the end of the program
        return false;
    }
    const bool is_done = work();
    pfm_cleanup_rls(&record);
    release(transfer);
    return is_done;
}

const char *base_name(const char *path)
{
    const char *const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool is_dots(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool check_name(const char *name, const char *given)
{
    const std::size_t length = std::strlen(name);
    if (length > 0 && length <= name_bytes_max && std::strchr(name, '/') == nullptr && !is_dots(name))
        return true;
    report(IMSG_ERROR, msg_bad_name, shown(given), name_bytes_max);
    return false;
}

// The file that holds an entry.
struct EntryFile {
    explicit EntryFile(const char *entry) { (void)std::snprintf(name, sizeof name, "%s%s", entry, suffix); }
    char name[NAME_MAX + 1];
};

// The entry's name in the name of its file, which is cut for it; false for a file of another kind.
bool strip_suffix(char *name)
{
    const std::size_t length = std::strlen(name);
    if (length <= suffix_bytes || std::strcmp(name + length - suffix_bytes, suffix) != 0)
        return false;
    name[length - suffix_bytes] = '\0';
    return true;
}

// Storing.

bool open_source(Transfer &transfer, const char *path, struct stat &out_status)
{
    transfer.source = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (transfer.source < 0 || fstat(transfer.source, &out_status) != 0)
        return fail(msg_cannot_read, path, errno);
    if (!S_ISREG(out_status.st_mode) && !S_ISFIFO(out_status.st_mode))
        return fail(msg_not_plain, path);
    return true;
}

bool pack_source(Transfer &transfer, const char *path, std::uint64_t expected)
{
    const int failure = read_all(transfer.source, expected, content_bytes_max, transfer.content);
    if (failure == EFBIG)
        return fail(msg_too_big, path);
    if (failure != 0)
        return fail(msg_cannot_read, path, failure);
    transfer.block.data = compress_compress(transfer.content.size, transfer.content.data, &transfer.block.size);
    return transfer.block.data != nullptr || fail(msg_cannot_read, path, ENOMEM);
}

bool has_entry(const Depot &depot, const char *name)
{
    struct stat status;
    return fstatat(depot.directory, EntryFile(name).name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

timespec now()
{
    timeval time;
    date_get_timeval(&time);
    return {time.tv_sec, time.tv_usec * 1000};
}

int write_entry(Transfer &transfer, const Label &label, const timespec &changed, const char *file_name)
{
    Entry entry;
    describe(transfer.content, transfer.block, entry);
    entry.changed = changed;
    entry.stored = now();
    entry.owner = label.owner;
    entry.comment = label.comment;
    const std::size_t header_bytes = write_header(entry, transfer.header);
    if (const int failure = write_all(transfer.aside.fd, transfer.header, header_bytes); failure != 0)
        return failure;
    if (const int failure = write_all(transfer.aside.fd, transfer.block.data, transfer.block.size); failure != 0)
        return failure;
    return commit_aside(transfer.aside, file_name, label.may_replace);
}

bool put(Transfer &transfer, const Depot &depot, const char *path, const Label &label)
{
    const char *const name = base_name(path);
    struct stat status;
    if (!check_name(name, path) || !open_source(transfer, path, status))
        return false;
    // Only to save work: what decides is how the entry gets its name.
    if (!label.may_replace && has_entry(depot, name))
        return fail(msg_entry_exists, name);
    // The entry may be read by those who may read the file.
    if (const int failure = open_aside(depot.directory, status.st_mode & 0666, transfer.aside); failure != 0)
        return fail(msg_cannot_write, name, failure);
    if (!pack_source(transfer, path, static_cast<std::uint64_t>(status.st_size)))
        return false;
    const int failure = write_entry(transfer, label, status.st_mtim, EntryFile(name).name);
    if (failure == EEXIST)
        return fail(msg_entry_exists, name);
    if (failure != 0)
        return fail(msg_cannot_write, name, failure);
    report(IMSG_OK, msg_stored, shown(name), static_cast<unsigned long long>(transfer.content.size),
           static_cast<unsigned long long>(transfer.block.size));
    return true;
}

// Fetching.

bool open_entry_file(const Depot &depot, const char *name, int &out_fd, struct stat &out_status)
{
    if (!check_name(name, name))
        return false;
    out_fd = openat(depot.directory, EntryFile(name).name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (out_fd < 0 && errno == ENOENT)
        return fail(msg_no_entry, name);
    if (out_fd < 0 && errno == ELOOP)
        return fail(Fault::foreign, name);
    if (out_fd < 0 || fstat(out_fd, &out_status) != 0)
        return fail(msg_cannot_read, name, errno);
    return S_ISREG(out_status.st_mode) || fail(Fault::foreign, name);
}

// Opens an entry's file, reads its header, and stops in front of its block. The entry's owner and
// comment are parts of the transfer.
bool open_entry(Transfer &transfer, const Depot &depot, const char *name, Entry &out_entry, mode_t &out_mode)
{
    struct stat status;
    if (!open_entry_file(depot, name, transfer.source, status))
        return false;
    const ssize_t count = read(transfer.source, transfer.header, sizeof transfer.header);
    if (count < 0)
        return fail(msg_cannot_read, name, errno);
    std::size_t header_bytes = 0;
    const Fault fault = read_header(transfer.header, static_cast<std::size_t>(count),
                                    static_cast<std::uint64_t>(status.st_size), out_entry, header_bytes);
    if (fault != Fault::none)
        return fail(fault, name);
    if (lseek(transfer.source, static_cast<off_t>(header_bytes), SEEK_SET) < 0)
        return fail(msg_cannot_read, name, errno);
    out_mode = status.st_mode & 0666;
    return true;
}

// Reads and checks all of an entry.
bool load_entry(Transfer &transfer, const Depot &depot, const char *name, Entry &out_entry, mode_t &out_mode)
{
    if (!open_entry(transfer, depot, name, out_entry, out_mode))
        return false;
    const std::uint64_t length = out_entry.block_length;
    const int failure = read_all(transfer.source, length, length, transfer.block);
    if (failure != 0 && failure != EFBIG)
        return fail(msg_cannot_read, name, failure);
    const Fault fault = unpack(out_entry, transfer.block, transfer.content);
    return fault == Fault::none || fail(fault, name);
}

bool open_target_directory(Transfer &transfer, const char *target)
{
    char directory[PATH_MAX] = ".";
    const std::size_t length = static_cast<std::size_t>(base_name(target) - target);
    if (length >= sizeof directory)
        return fail(msg_cannot_write, target, ENAMETOOLONG);
    if (length > 0) {
        std::memcpy(directory, target, length);
        directory[length] = '\0';
    }
    transfer.target_directory = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return transfer.target_directory >= 0 || fail(msg_cannot_write, target, errno);
}

// Only a plain file is ever replaced: a device, a link or a directory stays what it is.
bool check_target(const Transfer &transfer, const char *target, bool replace)
{
    const char *const name = base_name(target);
    if (*name == '\0' || is_dots(name))
        return fail(msg_not_plain, target);
    struct stat status;
    if (fstatat(transfer.target_directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT || fail(msg_cannot_write, target, errno);
    if (!S_ISREG(status.st_mode))
        return fail(msg_not_plain, target);
    return replace || fail(msg_exists, target);
}

int write_target(Transfer &transfer, const timespec &changed, const char *target, bool replace)
{
    if (const int failure = write_all(transfer.aside.fd, transfer.content.data, transfer.content.size); failure != 0)
        return failure;
    const timespec times[] = {{0, UTIME_NOW}, changed};
    if (futimens(transfer.aside.fd, times) != 0)
        return errno;
    return commit_aside(transfer.aside, base_name(target), replace);
}

bool get(Transfer &transfer, const Depot &depot, const char *name, const char *target, bool replace)
{
    Entry entry;
    mode_t mode = 0;
    if (!load_entry(transfer, depot, name, entry, mode))
        return false;
    if (!open_target_directory(transfer, target) || !check_target(transfer, target, replace))
        return false;
    int failure = open_aside(transfer.target_directory, mode, transfer.aside);
    if (failure == 0)
        failure = write_target(transfer, entry.changed, target, replace);
    if (failure == EEXIST)
        return fail(msg_exists, target);
    if (failure != 0)
        return fail(msg_cannot_write, target, failure);
    report(IMSG_OK, msg_fetched, shown(name), shown(target));
    return true;
}

// Makes a text the area's.
bool copy_text(stg_area *area, std::string_view &text)
{
    auto *const copy = static_cast<char *>(stg_alloc(area, text.size() + 1)); // 0 bytes would be no block
    if (copy == nullptr)
        return false;
    text = {copy, text.copy(copy, text.size())};
    return true;
}

// Names.

int compare_names(const void *a, const void *b, void *)
{
    return std::strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

// Adds a copy of a name. Room doubles whenever the count is a power of two.
bool add_name(stg_area *area, const char *name, Names &names)
{
    if ((names.count & (names.count - 1)) == 0) {
        const std::size_t room = names.count == 0 ? 1 : names.count * 2;
        auto **const items = static_cast<const char **>(stg_alloc(area, room * sizeof *names.items));
        if (items == nullptr)
            return false;
        if (names.count > 0)
            std::memcpy(items, names.items, names.count * sizeof *items);
        names.items = items;
    }
    const char *const copy = stg_area_strdup(area, name);
    if (copy == nullptr)
        return false;
    names.items[names.count++] = copy;
    return true;
}

// Sorts the directory's files into entries and others; 0 or an errno number. No raise point, so that
// the open directory needs no cleanup record.
int read_directory(const Depot &depot, stg_area *area, Names &entries, Names &others)
{
    const int fd = openat(depot.directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    DIR *const files = fdopendir(fd);
    if (files == nullptr) {
        (void)close(fd);
        return ENOMEM;
    }
    int failure = 0;
    errno = 0;
    while (dirent *file = readdir(files)) {
        if (is_dots(file->d_name) || is_aside(file->d_name))
            continue;
        Names &names = strip_suffix(file->d_name) ? entries : others;
        if (!add_name(area, file->d_name, names)) {
            failure = ENOMEM;
            break;
        }
        errno = 0;
    }
    if (failure == 0)
        failure = errno; // 0 at the directory's end
    (void)closedir(files);
    return failure;
}

// A depot that was just made is to survive a crash together with what is put into it.
int sync_parent(int directory)
{
    int parent = openat(directory, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parent < 0)
        return errno;
    const int failure = fsync(parent) == 0 ? 0 : errno;
    close_descriptor(parent);
    return failure;
}

} // namespace

bool open_depot(const char *path, bool make, Depot &out_depot)
{
    const bool is_new = make && mkdir(path, 0777) == 0;
    out_depot.path = path;
    out_depot.directory = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (out_depot.directory < 0)
        return fail(msg_no_depot, path, errno);
    const int failure = is_new ? sync_parent(out_depot.directory) : 0;
    return failure == 0 || fail(msg_no_depot, path, failure);
}

void close_depot(Depot &depot)
{
    close_descriptor(depot.directory);
}

bool put_file(const Depot &depot, const char *path, const Label &label)
{
    Transfer transfer;
    return run_protected(transfer, [&] { return put(transfer, depot, path, label); });
}

bool get_file(const Depot &depot, const char *name, const char *target, bool replace)
{
    Transfer transfer;
    return run_protected(transfer,
                         [&] { return get(transfer, depot, name, target == nullptr ? name : target, replace); });
}

bool verify_entry(const Depot &depot, const char *name)
{
    Transfer transfer;
    return run_protected(transfer, [&] {
        Entry entry;
        mode_t mode = 0;
        return load_entry(transfer, depot, name, entry, mode);
    });
}

bool read_entry(const Depot &depot, stg_area *area, const char *name, Entry &out_entry)
{
    Transfer transfer;
    return run_protected(transfer, [&] {
        mode_t mode = 0;
        return open_entry(transfer, depot, name, out_entry, mode) && copy_text(area, out_entry.owner) &&
               copy_text(area, out_entry.comment);
    });
}

bool remove_entry(const Depot &depot, const char *name)
{
    if (!check_name(name, name))
        return false;
    if (unlinkat(depot.directory, EntryFile(name).name, 0) != 0)
        return errno == ENOENT ? fail(msg_no_entry, name) : fail(msg_cannot_remove, name, errno);
    if (fsync(depot.directory) != 0)
        return fail(msg_cannot_remove, name, errno);
    report(IMSG_OK, msg_removed, shown(name));
    return true;
}

bool read_names(const Depot &depot, stg_area *area, Names &out_names)
{
    Names others;
    if (const int failure = read_directory(depot, area, out_names, others); failure != 0)
        return fail(msg_no_depot, depot.path, failure);
    ks_qsort(out_names.items, out_names.count, sizeof *out_names.items, compare_names, nullptr);
    ks_qsort(others.items, others.count, sizeof *others.items, compare_names, nullptr);
    for (std::size_t i = 0; i < others.count; ++i)
        report(IMSG_WARNING, msg_foreign, shown(others.items[i]));
    return true;
}

} // namespace depot
