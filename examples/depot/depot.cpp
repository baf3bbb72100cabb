#include "depot.h"

#include "depot_names.h"
#include "depot_report.h"

#include <korvaks/date.h>
#include <korvaks/imsg.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace depot {

namespace {

bool is_stream(const char *path)
{
    return std::strcmp(path, standard_stream) == 0;
}

bool is_good_name(const char *name)
{
    const std::size_t length = std::strlen(name);
    return length > 0 && length <= name_bytes_max && std::strchr(name, '/') == nullptr && !is_dots(name);
}

// A file that failed to get its name, or got it and may lose it with the next crash.
bool fail_to_commit(const Aside &aside, const char *name, int failure)
{
    return fail(aside.is_in_place ? msg_not_synced : msg_cannot_write, name, failure);
}

// Storing.

timespec now()
{
    timeval time;
    date_get_timeval(&time);
    return {time.tv_sec, time.tv_usec * 1000};
}

// Before the first entry: the depot's directory is read once to tidy it up. Where it holds no entry yet, it may
// be unsafe on disk, whoever made it.
bool make_ready(Depot &depot)
{
    if (depot.is_ready)
        return true;
    const int failure = remove_left_behind(depot) ? 0 : sync_parent(depot.directory);
    depot.is_ready = failure == 0;
    return depot.is_ready || fail(msg_no_depot, depot.path, failure);
}

bool open_source(Transfer &transfer, const char *path, struct stat &out_status)
{
    const bool is_stdin = is_stream(path);
    transfer.source = is_stdin ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                               : open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (transfer.source < 0 || fstat(transfer.source, &out_status) != 0)
        return fail(msg_cannot_read, path, errno);
    if (S_ISREG(out_status.st_mode))
        return true;
    if (!is_stdin && !S_ISFIFO(out_status.st_mode))
        return fail(msg_not_plain, path);
    if (is_stdin) { // what a pipe or terminal has of this tells nothing about the content
        out_status.st_mode = 0666;
        out_status.st_mtim = now();
    }
    return true;
}

// Time and size tell of a change, whoever made it.
bool check_unchanged(const Transfer &transfer, const struct stat &before)
{
    struct stat after;
    if (fstat(transfer.source, &after) != 0)
        return fail(msg_cannot_read, transfer.source_name, errno);
    const bool is_same = after.st_size == before.st_size && after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
                         after.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
    return !S_ISREG(after.st_mode) || is_same || fail(msg_changed, transfer.source_name);
}

// The header is written twice: at first to keep its place.
bool write_entry(Transfer &transfer, Entry &entry, const struct stat &status)
{
    const std::size_t header_bytes = write_header(entry, transfer.header);
    int failure = write_aside(transfer.aside, transfer.header, header_bytes);
    if (failure == 0) {
        if (!pack(transfer, entry) || !check_unchanged(transfer, status))
            return false;
        (void)write_header(entry, transfer.header);
        failure = rewrite_aside(transfer.aside, transfer.header, header_bytes);
    }
    return failure == 0 || fail(msg_cannot_write, transfer.target_name, failure);
}

bool put(Depot &depot, const char *path, const Label &label)
{
    Transfer &transfer = depot.transfer;
    const char *const name = label.name != nullptr ? label.name : base_name(path);
    struct stat status;
    transfer.source_name = path;
    transfer.target_name = name;
    if (!check_name(name, label.name != nullptr ? name : path) || !open_source(transfer, path, status) ||
        !make_ready(depot))
        return false;
    // Only to save work: what decides is how the entry gets its name.
    if (!label.may_replace && has_entry(depot, name))
        return fail(msg_entry_exists, name);
    // The entry may be read by those who may read the file.
    if (const int failure = open_aside(depot.directory, status.st_mode & 0666, transfer.aside); failure != 0)
        return fail(msg_cannot_write, name, failure);
    Entry entry;
    entry.changed = status.st_mtim;
    entry.stored = now();
    entry.permissions = status.st_mode & 0777;
    entry.owner = label.owner;
    entry.comment = label.comment;
    if (!write_entry(transfer, entry, status))
        return false;
    const int failure = commit_aside(transfer.aside, EntryFile(name).name, label.may_replace);
    if (failure == EEXIST)
        return fail(msg_entry_exists, name);
    if (failure != 0)
        return fail_to_commit(transfer.aside, name, failure);
    report(IMSG_OK, msg_stored, shown(name), static_cast<unsigned long long>(entry.length),
           static_cast<unsigned long long>(entry.stored_length));
    return true;
}

// Fetching.

bool open_entry_file(Depot &depot, const char *name, struct stat &out_status)
{
    if (!check_name(name, name))
        return false;
    int &fd = depot.transfer.source;
    fd = openat(depot.directory, EntryFile(name).name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT)
        return fail(msg_no_entry, name);
    if (fd < 0 && errno == ELOOP)
        return fail(Fault::foreign, name);
    if (fd < 0 || fstat(fd, &out_status) != 0)
        return fail(msg_cannot_read, name, errno);
    return S_ISREG(out_status.st_mode) || fail(Fault::foreign, name);
}

// Opens an entry's file, reads its header, and stops behind it. The entry's owner and comment are parts of the
// transfer. `out_mode` are the permissions that a copy of the file gets: to read and write as the entry's file
// has them now, to execute as the file had.
bool open_entry(Depot &depot, const char *name, Entry &out_entry, mode_t &out_mode)
{
    Transfer &transfer = depot.transfer;
    struct stat status;
    transfer.source_name = name;
    if (!open_entry_file(depot, name, status))
        return false;
    std::size_t count = 0;
    if (const int failure = read_fully(transfer.source, transfer.header, sizeof transfer.header, count); failure != 0)
        return fail(msg_cannot_read, name, failure);
    std::size_t header_bytes = 0;
    const Fault fault =
        read_header(transfer.header, count, static_cast<std::uint64_t>(status.st_size), out_entry, header_bytes);
    if (fault != Fault::none)
        return fail(fault, name);
    if (lseek(transfer.source, static_cast<off_t>(header_bytes), SEEK_SET) < 0)
        return fail(msg_cannot_read, name, errno);
    out_mode = (status.st_mode & 0666) | (out_entry.permissions & 0111);
    return true;
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

int commit_target(Transfer &transfer, const timespec &changed, bool replace)
{
    const timespec times[] = {{0, UTIME_NOW}, changed};
    if (futimens(transfer.aside.fd, times) != 0)
        return errno;
    return commit_aside(transfer.aside, base_name(transfer.target_name), replace);
}

bool get_into_file(Transfer &transfer, const Entry &entry, mode_t mode, bool replace)
{
    const char *const target = transfer.target_name;
    if (!open_target_directory(transfer, target) || !check_target(transfer, target, replace))
        return false;
    if (const int failure = open_aside(transfer.target_directory, mode, transfer.aside); failure != 0)
        return fail(msg_cannot_write, target, failure);
    if (!unpack(transfer, entry, to_aside))
        return false;
    const int failure = commit_target(transfer, entry.changed, replace);
    if (failure == EEXIST)
        return fail(msg_exists, target);
    if (failure != 0)
        return fail_to_commit(transfer.aside, target, failure);
    report(IMSG_OK, msg_fetched, shown(transfer.source_name), shown(target));
    return true;
}

bool get(Depot &depot, const char *name, const char *target, bool replace)
{
    Entry entry;
    mode_t mode = 0;
    depot.transfer.target_name = target;
    if (!open_entry(depot, name, entry, mode))
        return false;
    if (is_stream(target))
        return unpack(depot.transfer, entry, to_output);
    return get_into_file(depot.transfer, entry, mode, replace);
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

// Ends what a function has begun with the depot's transfer.
bool ended(Depot &depot, bool is_done)
{
    end_transfer(depot.transfer);
    return is_done;
}

} // namespace

bool open_depot(const char *path, bool make, Depot &out_depot)
{
    constexpr int how = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    out_depot.path = path;
    out_depot.directory = open(path, how);
    if (out_depot.directory < 0 && errno == ENOENT && make) {
        out_depot.is_new = mkdir(path, 0777) == 0;
        if (!out_depot.is_new && errno != EEXIST)
            return fail(msg_no_new_depot, path, errno);
        out_depot.directory = open(path, how);
    }
    return out_depot.directory >= 0 || fail(msg_no_depot, path, errno);
}

void close_depot(Depot &depot)
{
    release(depot.transfer);
    if (depot.is_new)
        (void)rmdir(depot.path); // which fails where anything is in it
    close_descriptor(depot.directory);
}

const char *base_name(const char *path)
{
    const char *const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool check_name(const char *name, const char *given)
{
    if (!is_good_name(name))
        report(IMSG_ERROR, msg_bad_name, shown(given), name_bytes_max);
    return is_good_name(name);
}

bool has_entry(const Depot &depot, const char *name)
{
    struct stat status;
    return is_good_name(name) && fstatat(depot.directory, EntryFile(name).name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool put_file(Depot &depot, const char *path, const Label &label)
{
    return ended(depot, put(depot, path, label));
}

bool get_file(Depot &depot, const char *name, const char *target, bool replace)
{
    return ended(depot, get(depot, name, target == nullptr ? name : target, replace));
}

bool verify_entry(Depot &depot, const char *name)
{
    Entry entry;
    mode_t mode = 0;
    return ended(depot, open_entry(depot, name, entry, mode) && unpack(depot.transfer, entry, to_nowhere));
}

bool read_entry(Depot &depot, stg_area *area, const char *name, Entry &out_entry)
{
    mode_t mode = 0;
    return ended(depot, open_entry(depot, name, out_entry, mode) && copy_text(area, out_entry.owner) &&
                            copy_text(area, out_entry.comment));
}

bool remove_entry(const Depot &depot, const char *name)
{
    if (!check_name(name, name))
        return false;
    if (unlinkat(depot.directory, EntryFile(name).name, 0) != 0)
        return errno == ENOENT ? fail(msg_no_entry, name) : fail(msg_cannot_remove, name, errno);
    if (fsync(depot.directory) != 0)
        return fail(msg_removal_not_synced, name, errno);
    report(IMSG_OK, msg_removed, shown(name));
    return true;
}

} // namespace depot
