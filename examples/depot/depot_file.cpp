#include "depot_file.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

namespace depot {

namespace {

constexpr std::size_t piece_bytes = 1 << 20; // between two checks for Ctrl-C
constexpr char aside_prefix[] = ".veldepot-";

// Waits until there is something to read. This is where Ctrl-C reaches a command that waits for a
// pipe: the select ends, and pfm_enable() delivers the raise to the innermost cleanup record.
void wait_readable(int fd)
{
    ks_fd_set readable;
    ks_fd_zero(&readable);
    ks_fd_add(&readable, fd);
    pfm_inhibit();
    (void)pfm_select_inhibited(fd + 1, &readable, nullptr, nullptr, nullptr); // a failure shows in the read
    pfm_enable();
}

// Makes room for at least one more byte.
bool make_room(Bytes &bytes, std::size_t &capacity)
{
    if (bytes.size < capacity)
        return true;
    const std::size_t larger = std::max<std::size_t>(capacity * 2, 65536);
    auto *const data = static_cast<unsigned char *>(stg_realloc(bytes.data, larger));
    if (data == nullptr)
        return false;
    bytes.data = data;
    capacity = larger;
    return true;
}

// A lock that is held shows that the file's writer lives. EWOULDBLOCK: someone else holds it. Where a
// file system has no locks nothing is ever taken for left behind.
bool is_locked_elsewhere(int fd)
{
    return flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// Removes a file if its writer is gone. A name is never used twice, so it is still the same file.
void remove_if_left_behind(int directory, const char *name)
{
    const int fd = openat(directory, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        (void)unlinkat(directory, name, 0);
    (void)close(fd);
}

void remove_left_behind(int directory)
{
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *const entries = fd < 0 ? nullptr : fdopendir(fd);
    if (entries == nullptr) {
        if (fd >= 0)
            (void)close(fd);
        return; // no harm: it is only tidying up
    }
    while (const dirent *entry = readdir(entries))
        if (is_aside(entry->d_name))
            remove_if_left_behind(directory, entry->d_name);
    (void)closedir(entries);
}

int create_aside(int directory, mode_t mode, Aside &out_aside)
{
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number)
        return EIO;
    (void)strutl_snprintf(out_aside.name, sizeof out_aside.name, "%s%016llx", aside_prefix,
                          static_cast<unsigned long long>(number));
    out_aside.fd = openat(directory, out_aside.name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    out_aside.directory = directory;
    return out_aside.fd < 0 ? errno : 0;
}

// Between making the file and locking it another writer may have taken it for left behind.
bool was_taken(const Aside &aside)
{
    struct stat status;
    return is_locked_elsewhere(aside.fd) || fstat(aside.fd, &status) != 0 || status.st_nlink == 0;
}

} // namespace

void close_descriptor(int &fd)
{
    if (fd >= 0)
        (void)close(fd);
    fd = -1;
}

void release(Bytes &bytes)
{
    stg_free(bytes.data);
    bytes = {};
}

int read_all(int fd, std::uint64_t expected, std::uint64_t most, Bytes &out_bytes)
{
    if (expected > most)
        return EFBIG;
    std::size_t capacity = static_cast<std::size_t>(expected) + 1; // one more, to meet the end
    out_bytes.data = static_cast<unsigned char *>(stg_malloc(capacity));
    if (out_bytes.data == nullptr)
        return ENOMEM;
    for (;;) {
        wait_readable(fd);
        if (!make_room(out_bytes, capacity))
            return ENOMEM;
        const std::size_t room = std::min(capacity - out_bytes.size, piece_bytes);
        const ssize_t count = read(fd, out_bytes.data + out_bytes.size, room);
        if (count == 0)
            return 0;
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return errno;
        out_bytes.size += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (out_bytes.size > most)
            return EFBIG;
    }
}

int write_all(int fd, const void *data, std::size_t size)
{
    auto *from = static_cast<const unsigned char *>(data);
    while (size > 0) {
        pfm_test_raise(nullptr);
        const ssize_t count = write(fd, from, std::min(size, piece_bytes));
        if (count < 0 && errno != EINTR)
            return errno;
        if (count > 0) {
            from += count;
            size -= static_cast<std::size_t>(count);
        }
    }
    return 0;
}

bool is_aside(const char *name)
{
    constexpr std::size_t prefix = sizeof aside_prefix - 1;
    constexpr std::size_t digits = 16;
    return std::strncmp(name, aside_prefix, prefix) == 0 && std::strlen(name) == prefix + digits &&
           std::strspn(name + prefix, "0123456789abcdef") == digits;
}

int open_aside(int directory, mode_t mode, Aside &out_aside)
{
    remove_left_behind(directory);
    for (;;) {
        const int failure = create_aside(directory, mode, out_aside);
        if (failure != 0 && failure != EEXIST)
            return failure;
        if (failure == 0 && !was_taken(out_aside))
            return 0;
        discard_aside(out_aside);
    }
}

int commit_aside(Aside &aside, const char *name, bool replace)
{
    if (fsync(aside.fd) != 0)
        return errno;
    if (renameat2(aside.directory, aside.name, aside.directory, name, replace ? 0 : RENAME_NOREPLACE) != 0)
        return errno;
    close_descriptor(aside.fd);
    return fsync(aside.directory) == 0 ? 0 : errno;
}

void discard_aside(Aside &aside)
{
    if (aside.fd >= 0)
        (void)unlinkat(aside.directory, aside.name, 0);
    close_descriptor(aside.fd);
}

} // namespace depot
