#include "depot_file.h"

#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

namespace depot {

namespace {

constexpr std::size_t piece_bytes = 1 << 20; // between two checks for Ctrl-C
constexpr char aside_prefix[] = ".veldepot-";

// Waits until a descriptor is ready. This is where Ctrl-C reaches a command that waits for a pipe: the
// select ends, and pfm_enable() delivers the raise to the innermost cleanup record.
void wait_until_ready(int fd, bool to_write)
{
    if (pfm_inhibit_count() != 0)
        return; // nobody would be heard: the read or write itself waits
    ks_fd_set set;
    ks_fd_zero(&set);
    ks_fd_add(&set, fd);
    ks_fd_set none;
    ks_fd_zero(&none);
    pfm_inhibit();
    // A failure shows in the read or write.
    (void)pfm_select_inhibited(fd + 1, to_write ? &none : &set, to_write ? &set : nullptr, nullptr, nullptr);
    pfm_enable();
}

// What was ready may be so no more when it is asked; what never is would keep the command for ever.
bool is_worth_a_retry(int failure, int &tries)
{
    constexpr int tries_max = 1000;
    return failure == EINTR || (failure == EAGAIN && ++tries < tries_max);
}

// Keeps little unwritten: nothing interrupts the fsync() at the end, so that has to be short. The disk works
// on the last few MiB while the next ones are made. A failure that is met here is not told by fsync() again.
int write_back(const Aside &aside, std::size_t added)
{
    constexpr std::uint64_t behind = 8 << 20;
    constexpr unsigned wait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (aside.written <= behind)
        return 0;
    const auto start = static_cast<off_t>(aside.written - added);
    const auto done = static_cast<off_t>(aside.written - behind);
    const bool is_done = sync_file_range(aside.fd, start, static_cast<off_t>(added), SYNC_FILE_RANGE_WRITE) == 0 &&
                         sync_file_range(aside.fd, 0, done, wait) == 0;
    return is_done || errno == ENOSYS ? 0 : errno;
}

// Closes a file that has no name any more. Giving back the room of a large one takes the system seconds, in
// which nobody hears Ctrl-C: so a child of no other use is the last to have it open.
void close_nameless(Aside &aside)
{
    constexpr std::uint64_t large = 64 << 20;
    const auto fd = static_cast<unsigned>(aside.fd);
    if (aside.written > large && _Fork() == 0) {
        (void)close_range(0, fd - 1, 0); // the streams and pipes that others wait for
        (void)close_range(fd + 1, ~0U, 0);
        _exit(0);
    }
    close_descriptor(aside.fd);
}

// A lock that is held shows that the file's writer lives. EWOULDBLOCK: someone else holds it. Where a
// file system has no locks nothing is ever taken for left behind.
bool is_locked_elsewhere(int fd)
{
    return flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

int create_aside(int directory, mode_t mode, Aside &out_aside)
{
    std::uint64_t number = 0;
    if (const int failure = make_random(number); failure != 0)
        return failure;
    out_aside = {.directory = directory};
    (void)strutl_snprintf(out_aside.name, sizeof out_aside.name, "%s%016llx", aside_prefix,
                          static_cast<unsigned long long>(number));
    out_aside.fd = openat(directory, out_aside.name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    return out_aside.fd < 0 ? errno : 0;
}

// Between making the file and locking it another writer may have taken it for left behind. Then its name is
// gone, which also shows where links are not counted.
int check_kept(const Aside &aside)
{
    struct stat status;
    if (is_locked_elsewhere(aside.fd))
        return ENOENT;
    return fstatat(aside.directory, aside.name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

} // namespace

void close_descriptor(int &fd)
{
    if (fd >= 0)
        (void)close(fd);
    fd = -1;
}

int read_fully(int fd, void *data, std::size_t size, std::size_t &out_count)
{
    out_count = 0;
    int tries = 0;
    while (out_count < size) {
        wait_until_ready(fd, false);
        const ssize_t count = read(fd, static_cast<char *>(data) + out_count, std::min(size - out_count, piece_bytes));
        if (count == 0)
            return 0;
        if (count < 0 && !is_worth_a_retry(errno, tries))
            return errno;
        out_count += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return 0;
}

int write_file(int fd, const void *data, std::size_t size)
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

int make_random(std::uint64_t &out_number)
{
    return getrandom(&out_number, sizeof out_number, 0) == sizeof out_number ? 0 : EIO;
}

// A pipe that can be written to has room for PIPE_BUF bytes; more could block where no raise is heard.
int write_to_stream(int fd, const void *data, std::size_t size)
{
    auto *from = static_cast<const unsigned char *>(data);
    int tries = 0;
    while (size > 0) {
        wait_until_ready(fd, true);
        const ssize_t count = write(fd, from, std::min<std::size_t>(size, PIPE_BUF));
        if (count < 0 && !is_worth_a_retry(errno, tries))
            return errno;
        if (count > 0) {
            from += count;
            size -= static_cast<std::size_t>(count);
        }
    }
    return 0;
}

bool is_dots(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool is_aside(const char *name)
{
    constexpr std::size_t prefix = sizeof aside_prefix - 1;
    constexpr std::size_t digits = 16;
    return std::strncmp(name, aside_prefix, prefix) == 0 && std::strlen(name) == prefix + digits &&
           std::strspn(name + prefix, "0123456789abcdef") == digits;
}

// A name is never used twice, so it is still the same file when it is removed.
void remove_if_left_behind(int directory, const char *name)
{
    const int fd = openat(directory, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        (void)unlinkat(directory, name, 0);
    (void)close(fd);
}

int open_aside(int directory, mode_t mode, Aside &out_aside)
{
    constexpr int tries = 100; // each needs another writer's sweep in just that moment
    int failure = 0;
    for (int i = 0; i < tries; ++i) {
        failure = create_aside(directory, mode, out_aside);
        if (failure == 0)
            failure = check_kept(out_aside);
        if (failure == 0)
            return 0;
        const bool is_made = out_aside.fd >= 0;
        discard_aside(out_aside);
        if (failure != EEXIST && !(is_made && failure == ENOENT))
            return failure;
    }
    return failure;
}

int write_aside(Aside &aside, const void *data, std::size_t size)
{
    if (const int failure = write_file(aside.fd, data, size); failure != 0)
        return failure;
    aside.written += size;
    return write_back(aside, size);
}

int rewrite_aside(Aside &aside, const void *data, std::size_t size)
{
    return lseek(aside.fd, 0, SEEK_SET) == 0 ? write_file(aside.fd, data, size) : errno;
}

int commit_aside(Aside &aside, const char *name, bool replace)
{
    if (fsync(aside.fd) != 0)
        return errno;
    if (renameat2(aside.directory, aside.name, aside.directory, name, replace ? 0 : RENAME_NOREPLACE) != 0)
        return errno;
    aside.is_in_place = true;
    close_descriptor(aside.fd);
    return fsync(aside.directory) == 0 ? 0 : errno;
}

void discard_aside(Aside &aside)
{
    if (aside.fd < 0)
        return;
    (void)unlinkat(aside.directory, aside.name, 0);
    close_nameless(aside);
}

int sync_parent(int directory)
{
    int parent = openat(directory, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parent < 0)
        return errno;
    const int failure = fsync(parent) == 0 ? 0 : errno;
    close_descriptor(parent);
    return failure;
}

} // namespace depot
