#include "depot_target.h"

#include "depot_report.h"

#include <korvaks/date.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace depot {

namespace {

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

// A device, a link or a directory stays what it is.
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

} // namespace

bool is_stream(const char *path)
{
    return std::strcmp(path, standard_stream) == 0;
}

const char *base_name(const char *path)
{
    const char *const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

timespec now()
{
    timeval time;
    date_get_timeval(&time);
    return {time.tv_sec, time.tv_usec * 1000};
}

bool open_source(Transfer &transfer, const char *path, struct stat &out_status)
{
    const bool is_stdin = is_stream(path);
    transfer.source_name = path;
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

bool check_unchanged(const Transfer &transfer, const struct stat &before)
{
    struct stat after;
    if (fstat(transfer.source, &after) != 0)
        return fail(msg_cannot_read, transfer.source_name, errno);
    const bool is_same = after.st_size == before.st_size && after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
                         after.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
    return !S_ISREG(after.st_mode) || is_same || fail(msg_changed, transfer.source_name);
}

bool open_target(Transfer &transfer, const char *target, bool replace)
{
    transfer.target_name = target;
    return open_target_directory(transfer, target) && check_target(transfer, target, replace);
}

bool begin_target(Transfer &transfer, mode_t mode)
{
    const int failure = open_aside(transfer.target_directory, mode, transfer.aside);
    return failure == 0 || fail(msg_cannot_write, transfer.target_name, failure);
}

bool finish_target(Transfer &transfer, const timespec &changed, bool replace)
{
    const char *const target = transfer.target_name;
    const int failure = commit_target(transfer, changed, replace);
    if (failure == EEXIST)
        return fail(msg_exists, target);
    if (failure != 0)
        return fail_to_commit(transfer.aside, target, failure);
    report(IMSG_OK, msg_fetched, shown(transfer.source_name), shown(target));
    return true;
}

bool fail_to_commit(const Aside &aside, const char *name, int failure)
{
    return fail(aside.is_in_place ? msg_not_synced : msg_cannot_write, name, failure);
}

} // namespace depot
