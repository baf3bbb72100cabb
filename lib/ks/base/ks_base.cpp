// Time and descriptor helpers shared by all modules, and the verbosity that all of them look at.
#include "base/ks_base.h"

#include "base/msg_port.h"

#include <climits>
#include <ctime>

#include <fcntl.h>

namespace ks {

constinit std::atomic<long> desired_verbosity{SHRT_MAX};

static_assert(std::is_standard_layout_v<msg_table> && std::is_trivially_copyable_v<msg_table>);
static_assert(offsetof(msg_table, catalog_name) == 0 && offsetof(msg_table, subsystem) == 8);
static_assert(offsetof(msg_table, set) == 16 && offsetof(msg_table, count) == 18);
static_assert(offsetof(msg_table, default_texts) == 24 && offsetof(msg_table, catalog_numbers) == 32);
static_assert(sizeof(msg_table) == 40);

namespace {

constexpr long usec_per_sec = 1000000;

} // namespace

int above_stdio(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const UniqueFd low(fd);
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

timeval wall_clock()
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock and a valid address
    return {now.tv_sec, now.tv_nsec / 1000};
}

timeval time_sum(const timeval &a, const timeval &b)
{
    timeval sum{a.tv_sec + b.tv_sec, a.tv_usec + b.tv_usec};
    if (sum.tv_usec >= usec_per_sec) {
        ++sum.tv_sec;
        sum.tv_usec -= usec_per_sec;
    }
    return sum;
}

timeval time_difference(const timeval &later, const timeval &earlier)
{
    timeval difference{later.tv_sec - earlier.tv_sec, later.tv_usec - earlier.tv_usec};
    if (difference.tv_usec < 0) {
        --difference.tv_sec;
        difference.tv_usec += usec_per_sec;
    }
    return difference;
}

bool write_all(int fd, const void *data, std::size_t size)
{
    const char *from = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t written = write(fd, from, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        from += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace ks
