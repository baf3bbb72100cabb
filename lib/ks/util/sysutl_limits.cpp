// What the process was started with: umask and descriptor limit, each read once.
#include <korvaks/sysutl.h>

#include "base/ks_base.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <string_view>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr int not_read = -1;
constexpr int umask_safe = 077;

// Both settle on the first value that a thread has read.
constinit std::atomic<int> umask_at_start{not_read};
constinit std::atomic<int> max_fds{not_read};

int settle(std::atomic<int> &answer, int value)
{
    int settled = not_read;
    return answer.compare_exchange_strong(settled, value) ? value : settled;
}

// The number behind "Umask:" in the text of /proc/self/status.
int parse_umask(std::string_view status)
{
    constexpr std::string_view label = "\nUmask:\t";
    const std::size_t found = status.find(label);
    if (found == std::string_view::npos)
        return not_read;
    status.remove_prefix(found + label.size());
    int value = not_read;
    const auto parsed = std::from_chars(status.begin(), status.end(), value, 8);
    return parsed.ec == std::errc{} && value >= 0 && value <= 0777 ? value : not_read;
}

int umask_from_proc()
{
    const ks::UniqueFd status(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    if (!status)
        return not_read;
    char text[512]; // the line is the second one
    const ssize_t got = read(status.get(), text, sizeof text);
    return got > 0 ? parse_umask({text, static_cast<std::size_t>(got)}) : not_read;
}

// The system call only tells the umask by replacing it. While it is replaced, files that other
// threads make are open to nobody else.
int umask_from_call()
{
    const mode_t value = umask(umask_safe);
    (void)umask(value);
    return static_cast<int>(value);
}

int read_umask()
{
    const ks::ErrnoSaver saver;
    const int value = umask_from_proc();
    return value != not_read ? value : umask_from_call();
}

int read_max_fds()
{
    const ks::ErrnoSaver saver;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return KS_FD_MAX;
    return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, KS_FD_MAX)); // "unlimited" is the largest number
}

} // namespace

extern "C" {

void sysutl_umask_init(void)
{
    (void)sysutl_get_umask();
}

mode_t sysutl_get_umask(void)
{
    int value = umask_at_start.load(std::memory_order_relaxed);
    if (value == not_read)
        value = settle(umask_at_start, read_umask());
    return static_cast<mode_t>(value);
}

int sysutl_get_max_fds(void)
{
    const int value = max_fds.load(std::memory_order_relaxed);
    return value != not_read ? value : settle(max_fds, read_max_fds());
}
}
