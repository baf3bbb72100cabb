// The notify pipe, by which a raise or signal interrupts a waiting attached thread.
#include "kernel/pfm_impl.h"

#include "base/msg_port.h"
#include "kernel/pfm_msg.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
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
    store_ends(fds[0], fds[1]);
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
    ks::RaiseHold hold;
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

int select_with_channel(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds, timeval *timeout)
{
    ks_fd_set own;
    if (readfds == nullptr) {
        ks_fd_zero(&own);
        readfds = &own;
    }
    const int channel = pfm_get_notify_channel();
    ks_fd_add(readfds, channel);
    const int ready = call_select(std::max(nfds, channel + 1), readfds, writefds, exceptfds, timeout);
    if (ready > 0 && ks_fd_has(readfds, channel))
        return interrupted();
    return ready;
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

namespace fault = ks::fault;

extern "C" {

int pfm_get_notify_channel(void)
{
    if (fault::read_end() != PFM_INVALID_CHANNEL && fault::write_end() != PFM_INVALID_CHANNEL) [[likely]]
        return fault::read_end();
    ks::LockGuard lock(ks::pfm_crit);
    if (fault::read_end() != PFM_INVALID_CHANNEL && fault::write_end() != PFM_INVALID_CHANNEL)
        return fault::read_end();
    fault::here.require(fault::read_end() == PFM_INVALID_CHANNEL && fault::write_end() == PFM_INVALID_CHANNEL,
                        "fds[0] == PFM_INVALID_CHANNEL && fds[1] == PFM_INVALID_CHANNEL", 1889);
    fault::here.require(fault::setup_pipe() == 0, "pfm_setup_pipe(pfm_notify_pipe, FALSE, FALSE) == 0", 1859);
    return fault::read_end();
}

void pfm_flush_notify_channel(void)
{
    if (fault::is_attached() && fault::read_end() != PFM_INVALID_CHANNEL)
        fault::drain(fault::read_end());
}

void pfm_close_notify_channel(void)
{
    ks::LockGuard lock(ks::pfm_crit);
    if (fault::read_end() == PFM_INVALID_CHANNEL && fault::write_end() == PFM_INVALID_CHANNEL)
        return;
    fault::here.require(fault::read_end() != PFM_INVALID_CHANNEL && fault::write_end() != PFM_INVALID_CHANNEL,
                        "fds[0] != PFM_INVALID_CHANNEL && fds[1] != PFM_INVALID_CHANNEL", 1915);
    pfm_flush_notify_channel();
    (void)close(fault::read_end());  // given up either way
    (void)close(fault::write_end()); // given up either way
    fault::store_ends(PFM_INVALID_CHANNEL, PFM_INVALID_CHANNEL);
}

void pfm_notify_vl_thread(int32_t status)
{
    if (!fault::pfm_inited.load(std::memory_order_acquire))
        return;
    vlthread_notify_raise(status);
    fault::write_notify_channel(status);
}

int pfm_select_inhibited(int nfds, ks_fd_set *readfds, ks_fd_set *writefds, ks_fd_set *exceptfds,
                         struct timeval *timeout)
{
    fault::ensure_started();
    pfm_fault_block *block = ks::fault_block_of_caller();
    fault::here.require(block->pfm_inh_count == 1, "pfm_inh_count == 1", 1314);
    if (!fault::is_attached())
        return fault::call_select(nfds, readfds, writefds, exceptfds, timeout);
    if (fault::delivers_at_records())
        fault::check_delivery(block);
    if (fault::is_stop_held())
        return fault::interrupted();
    return fault::select_with_channel(nfds, readfds, writefds, exceptfds, timeout);
}
}
