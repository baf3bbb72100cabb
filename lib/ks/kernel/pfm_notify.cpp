// The notify pipe, by which a raise or signal interrupts a waiting attached thread.
#include "kernel/pfm_impl.h"

#include "base/msg_port.h"
#include "kernel/pfm_msg.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>

namespace ks::fault {

namespace {

// Read end, write end.
constinit std::array<std::atomic<int>, 2> pfm_notify_pipe{PFM_INVALID_CHANNEL, PFM_INVALID_CHANNEL};

int read_end()
{
    return pfm_notify_pipe[0].load(std::memory_order_acquire);
}

int write_end()
{
    return pfm_notify_pipe[1].load(std::memory_order_acquire);
}

void store_ends(int read_fd, int write_fd)
{
    pfm_notify_pipe[0].store(read_fd, std::memory_order_release);
    pfm_notify_pipe[1].store(write_fd, std::memory_order_release);
}

// Both ends close-on-exec and non-blocking. 0, or -1 with errno.
int setup_pipe()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        return -1;
    UniqueFd read_fd(above_stdio(fds[0]));
    UniqueFd write_fd(above_stdio(fds[1]));
    if (!read_fd || !write_fd)
        return -1;
    store_ends(read_fd.release(), write_fd.release());
    return 0;
}

// Reads what is waiting: 4-byte values, until there is none or one is below 1.
void drain(int fd)
{
    int32_t value = 0;
    ssize_t got = 0;
    do {
        got = read(fd, &value, sizeof value);
    } while (got >= 1 && value >= 1);
}

void warn_of_failure(ssize_t written, int error)
{
    if (pfm_exiting.load(std::memory_order_acquire))
        return;
    const ks::RaiseHold hold;
    // A notice from the way out of a signal: that it cannot be printed changes nothing.
    if (written < 0)
        (void)imsg_print(ks::msg_warning, &_pfm_ks_msg_table, ks::pfm_msg_notify_failed, error, strerror(error));
    else
        (void)imsg_print(ks::msg_warning, &_pfm_ks_msg_table, ks::pfm_msg_notify_short, static_cast<int>(written),
                         static_cast<int>(sizeof(int32_t)));
}

int call_select(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds, timeval *timeout)
{
    // select() reads whole words up to nfds, which is how a ks_fd_set is laid out.
    return select(nfds, reinterpret_cast<fd_set *>(readfds), reinterpret_cast<fd_set *>(writefds),
                  reinterpret_cast<fd_set *>(exceptfds), timeout);
}

int interrupted()
{
    pfm_flush_notify_channel();
    errno = EINTR;
    return -1;
}

// What select() does, over poll(), for a channel whose number no set holds. -1 with errno: EINTR when the
// channel is readable, EBADF, ENOMEM, and poll()'s own.
class PolledSets {
  public:
    PolledSets(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds)
        : sets_{{{readfds, POLLIN, POLLIN | POLLHUP | POLLERR},
                 {writefds, POLLOUT, POLLOUT | POLLERR},
                 {exceptfds, POLLPRI, POLLPRI}}},
          nfds_(std::clamp(nfds, 0, KS_FD_MAX + 1))
    {
    }

    int wait(int channel, const timeval *timeout)
    {
        std::unique_ptr<pollfd[], decltype(&std::free)> fds(
            static_cast<pollfd *>(std::malloc((static_cast<std::size_t>(nfds_) + 1) * sizeof(pollfd))), std::free);
        if (fds == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        fds[0] = {channel, POLLIN, 0};
        const nfds_t count = add_members(fds.get() + 1) + 1;
        const timespec duration = timeout != nullptr ? timespec{timeout->tv_sec, timeout->tv_usec * 1000} : timespec{};
        const int ready = ppoll(fds.get(), count, timeout != nullptr ? &duration : nullptr, nullptr);
        if (ready < 0)
            return -1;
        if (fds[0].revents != 0)
            return interrupted();
        return take_results({fds.get() + 1, count - 1});
    }

  private:
    struct Set {
        ks_fd_set *members; // may be NULL
        short asked;
        short ready;
    };

    nfds_t add_members(pollfd *out) const
    {
        nfds_t count = 0;
        for (int fd = 0; fd < nfds_; ++fd) {
            short asked = 0;
            for (const Set &set : sets_)
                asked =
                    static_cast<short>(asked | (set.members != nullptr && ks_fd_has(set.members, fd) ? set.asked : 0));
            if (asked != 0)
                out[count++] = {fd, asked, 0};
        }
        return count;
    }

    int take_results(std::span<const pollfd> fds)
    {
        if (std::any_of(fds.begin(), fds.end(), [](const pollfd &fd) { return (fd.revents & POLLNVAL) != 0; })) {
            errno = EBADF;
            return -1;
        }
        int bits = 0;
        for (const Set &set : sets_) {
            for (const pollfd &fd : fds) {
                if (set.members == nullptr || (fd.events & set.asked) == 0)
                    continue;
                if ((fd.revents & set.ready) != 0)
                    ++bits;
                else
                    ks_fd_remove(set.members, fd.fd);
            }
        }
        return bits;
    }

    std::array<Set, 3> sets_;
    int nfds_;
};

int select_with_channel(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds, timeval *timeout)
{
    const int channel = pfm_get_notify_channel();
    if (channel > KS_FD_MAX)
        return PolledSets(nfds, readfds, writefds, exceptfds).wait(channel, timeout);
    ks_fd_set own;
    if (readfds == nullptr) {
        ks_fd_zero(&own);
        readfds = &own;
    }
    ks_fd_add(readfds, channel);
    const int ready = call_select(std::max(nfds, channel + 1), readfds, writefds, exceptfds, timeout);
    if (ready > 0 && ks_fd_has(readfds, channel))
        return interrupted();
    return ready;
}

// Entries of a caller that are copied without memory of the heap.
constexpr nfds_t fds_on_stack = 31;

// poll() over the caller's entries and, as the last of the copy, the notify channel.
int poll_with_channel(pollfd *copy, pollfd *fds, nfds_t count, int timeout_ms)
{
    std::copy_n(fds, count, copy);
    copy[count] = {pfm_get_notify_channel(), POLLIN, 0};
    const timespec timeout{timeout_ms / 1000, timeout_ms % 1000 * 1'000'000};
    const int ready = ppoll(copy, count + 1, timeout_ms >= 0 ? &timeout : nullptr, nullptr);
    if (ready > 0 && copy[count].revents != 0)
        return interrupted();
    if (ready >= 0)
        std::copy_n(copy, count, fds);
    return ready;
}

// What each wait of the attached thread looks at before it waits; true when it is not to wait at all.
bool is_interrupted_before_wait(pfm_fault_block *block)
{
    if (delivers_at_records())
        check_delivery(block);
    return is_stop_held();
}

} // namespace

void write_notify_channel(int32_t status)
{
    (void)pfm_get_notify_channel();
    const ssize_t written = write(write_end(), &status, sizeof status);
    if (written != static_cast<ssize_t>(sizeof status)) [[unlikely]]
        warn_of_failure(written, errno);
}

// In a child: what it inherited is the parent's, whose wake-ups it must neither cause nor eat.
void drop_inherited_notify_channel()
{
    for (const std::atomic<int> &end : pfm_notify_pipe) {
        if (end.load(std::memory_order_relaxed) != PFM_INVALID_CHANNEL)
            (void)close(end.load(std::memory_order_relaxed)); // the parent's copy stays open
    }
    store_ends(PFM_INVALID_CHANNEL, PFM_INVALID_CHANNEL);
}

void renew_notify_channel()
{
    drop_inherited_notify_channel();
    (void)pfm_get_notify_channel();
}

} // namespace ks::fault

extern "C" {

int pfm_get_notify_channel(void)
{
    if (ks::fault::read_end() != PFM_INVALID_CHANNEL && ks::fault::write_end() != PFM_INVALID_CHANNEL) [[likely]]
        return ks::fault::read_end();
    const ks::IoLockGuard lock(ks::pfm_crit);
    if (ks::fault::read_end() != PFM_INVALID_CHANNEL && ks::fault::write_end() != PFM_INVALID_CHANNEL)
        return ks::fault::read_end();
    ks::fault::here.require(ks::fault::read_end() == PFM_INVALID_CHANNEL &&
                                ks::fault::write_end() == PFM_INVALID_CHANNEL,
                            "fds[0] == PFM_INVALID_CHANNEL && fds[1] == PFM_INVALID_CHANNEL", 1889);
    ks::fault::here.require(ks::fault::setup_pipe() == 0, "pfm_setup_pipe(pfm_notify_pipe, FALSE, FALSE) == 0", 1859);
    return ks::fault::read_end();
}

void pfm_flush_notify_channel(void)
{
    if (ks::fault::is_attached() && ks::fault::read_end() != PFM_INVALID_CHANNEL)
        ks::fault::drain(ks::fault::read_end());
}

void pfm_close_notify_channel(void)
{
    const ks::IoLockGuard lock(ks::pfm_crit);
    if (ks::fault::read_end() == PFM_INVALID_CHANNEL && ks::fault::write_end() == PFM_INVALID_CHANNEL)
        return;
    ks::fault::here.require(ks::fault::read_end() != PFM_INVALID_CHANNEL &&
                                ks::fault::write_end() != PFM_INVALID_CHANNEL,
                            "fds[0] != PFM_INVALID_CHANNEL && fds[1] != PFM_INVALID_CHANNEL", 1915);
    pfm_flush_notify_channel();
    (void)close(ks::fault::read_end());  // given up either way
    (void)close(ks::fault::write_end()); // given up either way
    ks::fault::store_ends(PFM_INVALID_CHANNEL, PFM_INVALID_CHANNEL);
}

void pfm_notify_vl_thread(int32_t status)
{
    if (!ks::fault::pfm_inited.load(std::memory_order_acquire))
        return;
    ks::fault::here.require(status > 0, "status > 0");
    vlthread_notify_raise(status);
    ks::fault::write_notify_channel(status);
}

int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds,
                         struct timeval *timeout)
{
    ks::fault::ensure_started();
    pfm_fault_block *block = ks::fault_block_of_caller();
    ks::fault::here.require(block->pfm_inh_count == 1, "pfm_inh_count == 1", 1314);
    if (!ks::fault::is_attached())
        return ks::fault::call_select(nfds, readfds, writefds, exceptfds, timeout);
    if (ks::fault::is_interrupted_before_wait(block))
        return ks::fault::interrupted();
    return ks::fault::select_with_channel(nfds, readfds, writefds, exceptfds, timeout);
}

int pfm_poll_inhibited(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    ks::fault::ensure_started();
    if (!ks::fault::is_attached())
        return poll(fds, count, timeout_ms);
    if (ks::fault::is_interrupted_before_wait(ks::fault_block_of_caller()))
        return ks::fault::interrupted();
    if (count <= ks::fault::fds_on_stack) {
        std::array<pollfd, ks::fault::fds_on_stack + 1> copy;
        return ks::fault::poll_with_channel(copy.data(), fds, count, timeout_ms);
    }
    std::size_t bytes = 0;
    auto *copy =
        __builtin_mul_overflow(count + 1, sizeof(pollfd), &bytes) ? nullptr : static_cast<pollfd *>(std::malloc(bytes));
    if (copy == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    int ready = 0;
    pthread_cleanup_push(std::free, copy); // a cancelled wait does not return
    ready = ks::fault::poll_with_channel(copy, fds, count, timeout_ms);
    const ks::ErrnoSaver saver;
    pthread_cleanup_pop(1);
    return ready;
}
}
