#include "harness/fault_inject.h"

#include "kernel/kernel.h"

#include <korvaks/vlthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstdarg>
#include <cstring>
#include <new>

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <nl_types.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HAS_OWN_ALLOCATOR
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HAS_OWN_ALLOCATOR
#endif

namespace test::fault {

namespace {

constexpr int raise_status = 4;

struct Kind {
    const char *name;
    std::array<int, 17> answers; // up to the first 0
};

constexpr std::array<Kind, call_kinds> kinds{{
    {"allocation", {ENOMEM}},
    {"open",
     {EACCES, EINTR, EINVAL, EIO, EISDIR, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOMEM, ENOSPC, ENOTDIR,
      EOVERFLOW, EPERM, EROFS, ENXIO}},
    {"read", {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, answer_short, answer_end}},
    {"write", {EAGAIN, EBADF, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE, answer_short}},
    {"close", {EINTR, EIO, ENOSPC, EDQUOT}},
    {"pipe", {EMFILE, ENFILE, EINVAL}},
    {"fork", {EAGAIN, ENOMEM, ENOSYS}},
    {"fcntl", {EACCES, EAGAIN, EBADF, EINTR, EINVAL, EMFILE}},
    {"stat", {EACCES, EINTR, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
    {"select", {EBADF, EINTR, EINVAL, ENOMEM}},
    {"poll", {EINTR, EINVAL, ENOMEM}},
    {"eventfd", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
    {"sigaction", {EINVAL}},
    {"thread", {EAGAIN, EINVAL, EPERM}},
    {"mutex", {EAGAIN, ENOMEM, EPERM}},
    {"key", {EAGAIN, ENOMEM}},
    {"atexit", {ENOMEM}},
    {"catalogue", {EACCES, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOMEM, ENOTDIR}},
    {"getrlimit", {EFAULT, EINVAL}},
    {"uname", {EFAULT}},
    {"getpwuid_r", {EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, EPERM, ERANGE}},
    {"waitid", {ECHILD, EINTR, EINVAL}},
    {"kill", {EINVAL, EPERM, ESRCH}},
    {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
    {"connect", {EACCES, EADDRNOTAVAIL, EAGAIN, EBADF, ECONNREFUSED, EINTR, ENETUNREACH, EPERM, ETIMEDOUT}},
    {"transfer",
     {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EINTR, EMSGSIZE, ENETUNREACH, ENOBUFS, ENOMEM, EPIPE, answer_short,
      answer_end}},
    {"sockopt", {EBADF, ENOBUFS, ENOMEM, ENOPROTOOPT, ENOTTY}},
    {"getpeername", {EBADF, ENOBUFS, ENOTCONN, ENOTSOCK}},
    {"fsync", {EDQUOT, EINTR, EIO, ENOSPC}},
    {"raise", {raise_status}},
}};

// Shared with children, so that what fails there is seen here. Whether a process is disturbed is
// its own.
struct State {
    std::atomic<bool> fired{false};
    Plan plan;
    pid_t process = 0; // that called begin()
    pthread_t thread{};
    std::atomic<unsigned> random{0};
    std::atomic<int> interruptions{0}; // in a row, of the noise
    std::array<std::atomic<long>, call_kinds> calls{};
};

constinit State before_main{};
constinit State *state = &before_main;
constinit std::atomic<bool> is_armed{false};
constinit std::atomic<long> blocks{0};
constinit std::array<std::atomic<bool>, 1024> is_eventfd{};

[[gnu::constructor]] void share_state()
{
    void *page = mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        std::abort();
    state = new (page) State;
}

// 0: the call is made. Else the answer in its place.
int answer_for(Call call)
{
    if (!is_armed.load(std::memory_order_acquire)) [[likely]]
        return 0;
    const long n = ++state->calls[static_cast<std::size_t>(call)];
    const Plan &plan = state->plan;
    if (plan.nth == 0 || plan.call != call || n < plan.nth || (n > plan.nth && !plan.goes_on))
        return 0;
    if (plan.answer == EINTR && n >= plan.nth + interruptions_max)
        return 0;
    state->fired = true;
    return plan.answer;
}

unsigned next_random()
{
    unsigned value = state->random.load();
    value = value * 1664525u + 1013904223u;
    state->random = value;
    return value >> 16;
}

// What the noise makes of a transfer: 0, an interruption or a part.
int noise_for(std::size_t size)
{
    if (!is_armed || state->plan.noise == 0)
        return 0;
    const unsigned choice = next_random() % 3;
    if (choice == 0 && state->interruptions < 3) {
        ++state->interruptions;
        state->fired = true;
        return EINTR;
    }
    state->interruptions = 0;
    if (choice != 1 || size < 2)
        return 0;
    state->fired = true;
    return answer_short;
}

int answer_for_transfer(Call call, int fd, std::size_t size)
{
    if (fd >= 0 && static_cast<std::size_t>(fd) < is_eventfd.size() && is_eventfd[static_cast<std::size_t>(fd)])
        return 0;
    const int answer = answer_for(call);
    return answer != 0 ? answer : noise_for(size);
}

std::size_t part_of(std::size_t size)
{
    return state->plan.noise != 0 ? 1 + next_random() % (size - 1) : size / 2;
}

int fail(int error)
{
    errno = error;
    return -1;
}

int error_number(int error)
{
    return error;
}

// A delivery check that knows its thread's state does not ask for it; a forgotten state brings each
// check to the wrapper below.
void show_every_check()
{
    if (ks::current_fault_block != nullptr)
        ks::current_fault_block->state = nullptr;
}

} // namespace

const char *name_of(Call call)
{
    return kinds[static_cast<std::size_t>(call)].name;
}

std::span<const int> answers_of(Call call)
{
    const auto &answers = kinds[static_cast<std::size_t>(call)].answers;
    return {answers.begin(), std::find(answers.begin(), answers.end(), 0)};
}

void begin(const Plan &plan)
{
    show_every_check();
    state->plan = plan;
    state->fired = false;
    state->process = getpid();
    state->thread = pthread_self();
    state->random = plan.noise;
    state->interruptions = 0;
    for (auto &count : state->calls)
        count = 0;
    is_armed.store(true, std::memory_order_release);
}

Seen end()
{
    is_armed = false;
    Seen seen;
    seen.fired = state->fired;
    std::copy(state->calls.begin(), state->calls.end(), seen.calls.begin());
    return seen;
}

bool can_fail_allocations()
{
#ifdef HAS_OWN_ALLOCATOR
    return false;
#else
    return true;
#endif
}

long blocks_outstanding()
{
    return blocks;
}

// The call behind the one that stands in front.
#define NEXT(name)                                                                                                     \
    ([] {                                                                                                              \
        static constinit std::atomic<void *> found{nullptr};                                                           \
        void *next = found.load(std::memory_order_relaxed);                                                            \
        if (next == nullptr)                                                                                           \
            found = next = dlsym(RTLD_NEXT, #name);                                                                    \
        return reinterpret_cast<decltype(&front_##name)>(next);                                                        \
    }())

// Declares a function under the name of the one it stands in front of. A name of its own in the
// source keeps clear of the inline forms and attributes that the system's headers give the real one.
#define FRONT(result, name, ...)                                                                                       \
    extern "C" result front_##name(__VA_ARGS__) __asm__(#name);                                                        \
    extern "C" result front_##name(__VA_ARGS__)

#define FAIL_WITH_ERRNO(call)                                                                                          \
    if (const int answer = answer_for(Call::call); answer != 0)                                                        \
    return fail(answer)

// One that fails with an error number, and otherwise only passes its arguments on. Which error a
// name goes with: -1 and errno, or the number itself.
#define PASS(fails, call, result, name, parameters, arguments)                                                         \
    extern "C" result front_##name parameters __asm__(#name);                                                          \
    extern "C" result front_##name parameters                                                                          \
    {                                                                                                                  \
        const int answer = answer_for(Call::call);                                                                     \
        return answer != 0 ? fails(answer) : NEXT(name) arguments;                                                     \
    }

// Memory ---------------------------------------------------------------------------------------

#ifndef HAS_OWN_ALLOCATOR

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace {

bool is_exhausted()
{
    if (answer_for(Call::allocation) == 0)
        return false;
    errno = ENOMEM;
    return true;
}

void *counted(void *block)
{
    if (block != nullptr)
        ++blocks;
    return block;
}

} // namespace

FRONT(void *, malloc, size_t size)
{
    return is_exhausted() ? nullptr : counted(__libc_malloc(size));
}

FRONT(void *, calloc, size_t count, size_t size)
{
    return is_exhausted() ? nullptr : counted(__libc_calloc(count, size));
}

FRONT(void *, realloc, void *old, size_t size)
{
    if (is_exhausted())
        return nullptr;
    void *block = __libc_realloc(old, size);
    if (old == nullptr)
        return counted(block);
    if (block == nullptr && size == 0)
        --blocks; // that was a free()
    return block;
}

FRONT(void, free, void *block)
{
    if (block != nullptr)
        --blocks;
    __libc_free(block);
}

#endif

// Descriptors ----------------------------------------------------------------------------------

namespace {

mode_t mode_behind(int flags, va_list args)
{
    const bool makes_file = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return makes_file ? va_arg(args, mode_t) : 0;
}

} // namespace

FRONT(int, open, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_behind(flags, args);
    va_end(args);
    FAIL_WITH_ERRNO(open);
    return NEXT(open)(path, flags, mode);
}

FRONT(int, openat, int directory, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_behind(flags, args);
    va_end(args);
    FAIL_WITH_ERRNO(open);
    return NEXT(openat)(directory, path, flags, mode);
}

namespace {

// A transfer that is refused, or short. `transfer` makes one of so many bytes.
template <typename Transfer> ssize_t disturbed_read(Call call, int fd, size_t size, Transfer transfer)
{
    const int answer = answer_for_transfer(call, fd, size);
    if (answer > 0)
        return fail(answer);
    if (answer == answer_end)
        return 0;
    return transfer(answer == answer_short && size > 1 ? 1 : size);
}

template <typename Transfer> ssize_t disturbed_write(Call call, int fd, size_t size, Transfer transfer)
{
    const int answer = answer_for_transfer(call, fd, size);
    if (answer > 0)
        return fail(answer);
    return transfer(answer == answer_short && size > 1 ? part_of(size) : size);
}

} // namespace

FRONT(ssize_t, read, int fd, void *buffer, size_t size)
{
    return disturbed_read(Call::read, fd, size, [=](size_t part) { return NEXT(read)(fd, buffer, part); });
}

FRONT(ssize_t, __read_chk, int fd, void *buffer, size_t size, size_t)
{
    return front_read(fd, buffer, size);
}

FRONT(ssize_t, write, int fd, const void *data, size_t size)
{
    return disturbed_write(Call::write, fd, size, [=](size_t part) { return NEXT(write)(fd, data, part); });
}

FRONT(int, close, int fd)
{
    if (fd >= 0 && static_cast<std::size_t>(fd) < is_eventfd.size())
        is_eventfd[static_cast<std::size_t>(fd)] = false;
    const int result = NEXT(close)(fd);
    FAIL_WITH_ERRNO(close); // the descriptor is gone all the same
    return result;
}

PASS(fail, pipe, int, pipe2, (int *fds, int flags), (fds, flags))
PASS(fail, pipe, int, pipe, (int *fds), (fds))

FRONT(int, fcntl, int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *); // as wide as any of them
    va_end(args);
    FAIL_WITH_ERRNO(fcntl);
    return NEXT(fcntl)(fd, command, argument);
}

PASS(fail, sync, int, fsync, (int fd), (fd))
PASS(fail, stat, int, stat, (const char *path, struct stat *out), (path, out))
PASS(fail, select, int, select, (int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, timeval *timeout),
     (nfds, readfds, writefds, exceptfds, timeout))
PASS(fail, poll, int, ppoll, (pollfd * fds, nfds_t count, const timespec *timeout, const sigset_t *mask),
     (fds, count, timeout, mask))

FRONT(int, eventfd, unsigned value, int flags)
{
    FAIL_WITH_ERRNO(eventfd);
    const int fd = NEXT(eventfd)(value, flags);
    if (fd >= 0 && static_cast<std::size_t>(fd) < is_eventfd.size())
        is_eventfd[static_cast<std::size_t>(fd)] = true;
    return fd;
}

// Sockets --------------------------------------------------------------------------------------

PASS(fail, poll, int, poll, (pollfd * fds, nfds_t count, int timeout_ms), (fds, count, timeout_ms))
PASS(fail, socket, int, socket, (int family, int type, int protocol), (family, type, protocol))
PASS(fail, peer, int, getpeername, (int fd, sockaddr *address, socklen_t *size), (fd, address, size))
PASS(fail, sockopt, int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (fd, level, option, value, size))
PASS(fail, sockopt, int, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
     (fd, level, option, value, size))

FRONT(int, ioctl, int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *); // as wide as any of them
    va_end(args);
    FAIL_WITH_ERRNO(sockopt);
    return NEXT(ioctl)(fd, request, argument);
}

FRONT(int, connect, int fd, const sockaddr *address, socklen_t size)
{
    const int answer = answer_for(Call::connect);
    if (answer == 0 || answer == EINTR) {
        const int result = NEXT(connect)(fd, address, size);
        if (answer == 0 || (result != 0 && errno != EINPROGRESS))
            return result;
    }
    return fail(answer);
}

FRONT(ssize_t, sendto, int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t to_size)
{
    return disturbed_write(Call::transfer, fd, size,
                           [=](size_t part) { return NEXT(sendto)(fd, data, part, flags, to, to_size); });
}

FRONT(ssize_t, send, int fd, const void *data, size_t size, int flags)
{
    return front_sendto(fd, data, size, flags, nullptr, 0);
}

// The end is there, or the rest of a datagram is lost.
FRONT(ssize_t, recvfrom, int fd, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *from_size)
{
    return disturbed_read(Call::transfer, fd, size,
                          [=](size_t part) { return NEXT(recvfrom)(fd, buffer, part, flags, from, from_size); });
}

FRONT(ssize_t, recv, int fd, void *buffer, size_t size, int flags)
{
    return front_recvfrom(fd, buffer, size, flags, nullptr, nullptr);
}

// Streams --------------------------------------------------------------------------------------

namespace {

int fd_of(void *cookie)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(cookie));
}

ssize_t read_stream(void *cookie, char *buffer, size_t size)
{
    return front_read(fd_of(cookie), buffer, size);
}

// Goes on after a part, as the C library does.
ssize_t write_stream(void *cookie, const char *data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t written = front_write(fd_of(cookie), data + done, size - done);
        if (written < 0)
            return 0;
        done += static_cast<size_t>(written);
    }
    return static_cast<ssize_t>(done);
}

int seek_stream(void *cookie, off64_t *offset, int whence)
{
    const off64_t at = lseek64(fd_of(cookie), *offset, whence);
    if (at < 0)
        return -1;
    *offset = at;
    return 0;
}

int close_stream(void *cookie)
{
    return front_close(fd_of(cookie));
}

int flags_of(const char *mode)
{
    const int access = std::strchr(mode, '+') != nullptr ? O_RDWR : (*mode == 'r' ? O_RDONLY : O_WRONLY);
    const int creation = *mode == 'w' ? O_CREAT | O_TRUNC : (*mode == 'a' ? O_CREAT | O_APPEND : 0);
    return access | creation | (std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0);
}

} // namespace

FILE *stream_over(int fd, const char *mode)
{
    return fopencookie(reinterpret_cast<void *>(intptr_t{fd}), mode,
                       {read_stream, write_stream, seek_stream, close_stream});
}

FRONT(FILE *, fopen, const char *path, const char *mode)
{
    if (!is_armed)
        return NEXT(fopen)(path, mode);
    const int fd = front_open(path, flags_of(mode), 0666);
    if (fd < 0)
        return nullptr;
    FILE *stream = stream_over(fd, mode);
    if (stream == nullptr) {
        const int error = errno;
        (void)NEXT(close)(fd);
        errno = error;
    }
    return stream;
}

// Processes, threads and signals ---------------------------------------------------------------

PASS(fail, fork, pid_t, fork, (void), ())
PASS(fail, sigaction, int, sigaction, (int sig, const struct sigaction *action, struct sigaction *out_old),
     (sig, action, out_old))
PASS(error_number, thread, int, pthread_create,
     (pthread_t * out_thread, const pthread_attr_t *attr, void *(*start)(void *), void *argument),
     (out_thread, attr, start, argument))
PASS(error_number, thread, int, pthread_attr_init, (pthread_attr_t * attr), (attr))
PASS(error_number, thread, int, pthread_attr_setstacksize, (pthread_attr_t * attr, size_t size), (attr, size))
PASS(error_number, mutex, int, pthread_mutexattr_init, (pthread_mutexattr_t * attr), (attr))
PASS(error_number, mutex, int, pthread_mutexattr_settype, (pthread_mutexattr_t * attr, int kind), (attr, kind))
PASS(error_number, mutex, int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attr),
     (mutex, attr))
PASS(error_number, key, int, pthread_key_create, (pthread_key_t * key, void (*destructor)(void *)), (key, destructor))
PASS(error_number, key, int, pthread_setspecific, (pthread_key_t key, const void *value), (key, value))

PASS(fail, at_exit, int, __cxa_atexit, (void (*fn)(void *), void *argument, void *object), (fn, argument, object))
PASS(fail, wait, int, waitid, (idtype_t type, id_t id, siginfo_t *info, int options), (type, id, info, options))
PASS(fail, kill, int, kill, (pid_t pid, int sig), (pid, sig))

// What the system knows ------------------------------------------------------------------------

FRONT(nl_catd, catopen, const char *name, int flag)
{
    if (const int answer = answer_for(Call::catalogue); answer != 0) {
        errno = answer;
        return reinterpret_cast<nl_catd>(-1);
    }
    return NEXT(catopen)(name, flag);
}

PASS(fail, limit, int, getrlimit, (int resource, rlimit *out), (resource, out))
PASS(fail, name, int, uname, (utsname * out), (out))

#define PASS_ENTRY(name, Key, Entry)                                                                                   \
    FRONT(int, name, Key key, Entry *entry, char *buffer, size_t size, Entry **out_found)                              \
    {                                                                                                                  \
        *out_found = nullptr;                                                                                          \
        const int answer = answer_for(Call::user);                                                                     \
        return answer != 0 ? answer : NEXT(name)(key, entry, buffer, size, out_found);                                 \
    }
PASS_ENTRY(getpwuid_r, uid_t, passwd)
PASS_ENTRY(getpwnam_r, const char *, passwd)
PASS_ENTRY(getgrgid_r, gid_t, group)
PASS_ENTRY(getgrnam_r, const char *, group)

// Raises ---------------------------------------------------------------------------------------

extern "C" {

int32_t __real_vlthread_pending_raise(pfm_fault_block *holder);
int32_t __wrap_vlthread_pending_raise(pfm_fault_block *holder);

int32_t __wrap_vlthread_pending_raise(pfm_fault_block *holder)
{
    if (!is_armed || state->process != getpid() || pthread_equal(state->thread, pthread_self()) == 0)
        return __real_vlthread_pending_raise(holder);
    if (const int status = answer_for(Call::raise); status != 0)
        vlthread_notify_raise(status);
    const int32_t pending = __real_vlthread_pending_raise(holder);
    if (pending == 0)
        show_every_check();
    return pending;
}
}

} // namespace test::fault
