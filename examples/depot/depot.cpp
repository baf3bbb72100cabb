#include "depot.h"

#include "depot_names.h"
#include "depot_report.h"
#include "depot_target.h"

#include <korvaks/imsg.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace depot {

namespace {

// Storing.

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

bool put(Depot &depot, const char *path, const Label &label)
{
    Transfer &transfer = depot.transfer;
    struct stat status;
    const char *name = nullptr;
    if (!name_entry(path, label, name) || !open_source(transfer, path, status))
        return false;
    Entry entry = describe(status, label);
    if (!begin_entry(depot, name, label.may_replace, entry) || !pack(transfer, entry) ||
        !check_unchanged(transfer, status) || !finish_entry(depot, name, label.may_replace, entry))
        return false;
    report_stored(name, entry);
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

bool get(Depot &depot, const char *name, const char *target, bool replace)
{
    Transfer &transfer = depot.transfer;
    Entry entry;
    mode_t mode = 0;
    transfer.target_name = target;
    if (!open_entry(depot, name, entry, mode))
        return false;
    if (is_stream(target))
        return unpack(transfer, entry, to_output);
    return open_target(transfer, target, replace) && begin_target(transfer, mode) &&
           unpack(transfer, entry, to_aside) && finish_target(transfer, entry.changed, replace);
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

bool is_good_name(const char *name)
{
    const std::size_t length = std::strlen(name);
    return length > 0 && length <= name_bytes_max && std::strchr(name, '/') == nullptr && !is_dots(name);
}

bool check_name(const char *name, const char *given)
{
    static_assert(name_bytes_max == 251, "the message says so");
    return is_good_name(name) || fail(msg_bad_name, given);
}

bool name_entry(const char *path, const Label &label, const char *&out_name)
{
    out_name = label.name != nullptr ? label.name : base_name(path);
    return check_name(out_name, label.name != nullptr ? out_name : path);
}

bool has_entry(const Depot &depot, const char *name)
{
    struct stat status;
    return is_good_name(name) && fstatat(depot.directory, EntryFile(name).name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

Entry describe(const struct stat &status, const Label &label)
{
    Entry entry;
    entry.changed = status.st_mtim;
    entry.permissions = status.st_mode & 0777;
    entry.owner = label.owner;
    entry.comment = label.comment;
    return entry;
}

bool put_file(Depot &depot, const char *path, const Label &label)
{
    return ended(depot, put(depot, path, label));
}

void report_stored(const char *name, const Entry &entry)
{
    report(IMSG_OK, msg_stored, shown(name), static_cast<unsigned long long>(entry.length),
           static_cast<unsigned long long>(entry.stored_length));
}

// The header is written twice: at first to keep its place.
bool begin_entry(Depot &depot, const char *name, bool may_replace, Entry &entry)
{
    Transfer &transfer = depot.transfer;
    transfer.target_name = name;
    if (!make_ready(depot))
        return false;
    // Only to save work: what decides is how the entry gets its name.
    if (!may_replace && has_entry(depot, name))
        return fail(msg_entry_exists, name);
    entry.stored = now();
    // The entry may be read by those who may read the file.
    int failure = open_aside(depot.directory, entry.permissions & 0666, transfer.aside);
    if (failure == 0)
        failure = write_aside(transfer.aside, transfer.header, write_header(entry, transfer.header));
    return failure == 0 || fail(msg_cannot_write, name, failure);
}

bool finish_entry(Depot &depot, const char *name, bool may_replace, const Entry &entry)
{
    Transfer &transfer = depot.transfer;
    int failure = rewrite_aside(transfer.aside, transfer.header, write_header(entry, transfer.header));
    if (failure != 0)
        return fail(msg_cannot_write, name, failure);
    failure = commit_aside(transfer.aside, EntryFile(name).name, may_replace);
    if (failure == EEXIST)
        return fail(msg_entry_exists, name);
    return failure == 0 || fail_to_commit(transfer.aside, name, failure);
}

bool get_file(Depot &depot, const char *name, const char *target, bool replace)
{
    return ended(depot, get(depot, name, target == nullptr ? name : target, replace));
}

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

bool verify_entry(Depot &depot, const char *name)
{
    Entry entry;
    mode_t mode = 0;
    return ended(depot, open_entry(depot, name, entry, mode) && unpack(depot.transfer, entry, to_nowhere));
}

bool copy_text(stg_area *area, std::string_view &text)
{
    auto *const copy = static_cast<char *>(stg_alloc(area, text.size() + 1)); // 0 bytes would be no block
    if (copy == nullptr)
        return false;
    text = {copy, text.copy(copy, text.size())};
    return true;
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
    return fsync(depot.directory) == 0 || fail(msg_removal_not_synced, name, errno);
}

} // namespace depot
