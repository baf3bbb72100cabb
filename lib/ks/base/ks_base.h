// The few tools that every module uses: assertions with a fixed module path, saved errno, owned
// descriptors, wall-clock time and checked alignment. Nothing here locks, prints or raises.
#pragma once

#include "base/up_calls.h"

#include <korvaks/base.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include <sys/time.h>
#include <unistd.h>

namespace ks {

// A module's assertions. Each module names its path once, in its private header:
//
//     inline constexpr ks::AssertPath here{"lib/ks/stg"};
//     here.require(area != nullptr, "area != STG_AREA_NULL");
//
// Text, path and line are interface: where a line is fixed it is given, else it is the caller's.
struct AssertPath {
    const char *path;

    void require(bool holds, const char *text, int line = __builtin_LINE()) const
    {
        if (!holds) [[unlikely]]
            pfm_assert_fail(text, path, line);
    }

    [[noreturn]] void panic(int line = __builtin_LINE()) const { pfm_panic(path, line); }
};

// substr() without its exception, which is all that the library would need the C++ runtime for. What lies
// behind the end is empty.
constexpr std::string_view part_of(std::string_view text, std::size_t from, std::size_t count = std::string_view::npos)
{
    from = std::min(from, text.size());
    return {text.data() + from, std::min(count, text.size() - from)};
}

// Keeps errno over calls that may change it.
class ErrnoSaver {
  public:
    ErrnoSaver() = default;
    ~ErrnoSaver() { errno = saved_; }
    ErrnoSaver(const ErrnoSaver &) = delete;
    ErrnoSaver &operator=(const ErrnoSaver &) = delete;

    int saved() const { return saved_; }

  private:
    int saved_ = errno;
};

// Owns a descriptor. It has a destructor, so no raise point may be crossed while one is alive
// unless raises are held off.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const ErrnoSaver saver;
            (void)close(fd_); // nothing can be done about a failing close of a descriptor given up
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// A descriptor of the library's own, moved above the standard ones: in a program that was started with
// those closed, they are for what it opens itself. The old number is closed. -1 with errno, also for -1.
[[nodiscard]] int above_stdio(int fd);

// `bytes` rounded up to a multiple of 8; false on overflow.
[[nodiscard]] inline bool round_up_8(std::size_t bytes, std::size_t &out_rounded)
{
    if (__builtin_add_overflow(bytes, std::size_t{7}, &out_rounded))
        return false;
    out_rounded &= ~std::size_t{7};
    return true;
}

// Wall-clock time in seconds and microseconds.
timeval wall_clock();

// Sums of times, kept normalised (microseconds 0 to 999999).
timeval time_sum(const timeval &a, const timeval &b);
timeval time_difference(const timeval &later, const timeval &earlier);

// Writes all of a buffer, going on after interruptions and short writes; false with errno.
[[nodiscard]] bool write_all(int fd, const void *data, std::size_t size);

} // namespace ks
