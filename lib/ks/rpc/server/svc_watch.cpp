// The set in the kernel with which ks_svc_run() waits.
//
// What is watched follows the exported set, bit by bit, whoever has changed that. A descriptor that workers serve is
// watched for one event at a time: when it is reported its bit is taken away, and selecting it again costs one system
// call, by whichever thread does it.
#include "rpc/server/svc_impl.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>

#include <pthread.h>
#include <sys/epoll.h>

namespace ks::svc {

namespace {

constexpr int reports_max = 512;
constexpr uint32_t read_events = EPOLLIN | EPOLLRDNORM | EPOLLRDBAND; // what select() takes for readable
constexpr uint64_t once_bit = uint64_t{1} << 32;                      // of what the kernel gives back
constexpr uint64_t channel = ~uint64_t{0};

// Changed under ks_svc_fd_lock; the main thread alone takes words of `armed` away.
constinit std::atomic<int> watch_fd{-1};
constinit std::array<uint64_t, set_words> armed{}; // atomic: what the kernel would report
constinit std::array<uint64_t, set_words> known{}; // what it has a record of

uint64_t bit_of(int fd)
{
    return uint64_t{1} << static_cast<unsigned>(fd) % 64;
}

std::size_t word_of(int fd)
{
    return static_cast<std::size_t>(fd) / 64;
}

void set_armed(int fd)
{
    (void)__atomic_fetch_or(&armed[word_of(fd)], bit_of(fd), __ATOMIC_RELAXED);
}

void clear_armed(int fd)
{
    (void)__atomic_fetch_and(&armed[word_of(fd)], ~bit_of(fd), __ATOMIC_RELAXED);
}

bool is_served_by_workers(int fd)
{
    const Transport *transport = __ks_svc_xports != nullptr ? __ks_svc_xports[fd].transport : nullptr;
    return transport != nullptr && transport->kind->serving == Serving::by_worker &&
           is_multi_threaded.load(std::memory_order_relaxed);
}

// A number that another file has taken is none that the kernel knows, and the other way round.
bool tell_kernel(int fd, epoll_event event)
{
    const bool is_known = (known[word_of(fd)] & bit_of(fd)) != 0;
    const int epoll = watch_fd.load(std::memory_order_relaxed);
    if (epoll_ctl(epoll, is_known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) != 0 &&
        ((errno != ENOENT && errno != EEXIST) ||
         epoll_ctl(epoll, is_known ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0))
        return false;
    known[word_of(fd)] |= bit_of(fd);
    return true;
}

bool arm(int fd)
{
    const bool is_once = is_served_by_workers(fd);
    epoll_event event{};
    event.events = read_events | (is_once ? uint32_t{EPOLLONESHOT} : 0);
    event.data.u64 = static_cast<uint64_t>(fd) | (is_once ? once_bit : 0);
    set_armed(fd); // first: the main thread may have taken it away again before this one goes on
    if (tell_kernel(fd, event))
        return true;
    clear_armed(fd);
    return false;
}

void disarm(int fd)
{
    clear_armed(fd);
    known[word_of(fd)] &= ~bit_of(fd);
    const ks::ErrnoSaver saver;
    (void)epoll_ctl(watch_fd.load(std::memory_order_relaxed), EPOLL_CTL_DEL, fd, nullptr); // may be closed
}

// A child shares the set itself with its parent, and must leave it alone.
extern "C" void drop_inherited_watch()
{
    const int fd = watch_fd.exchange(-1);
    if (fd >= 0)
        (void)::close(fd); // given up either way
    armed = {};
    known = {};
}

bool watch_plain_forks()
{
    static constinit std::atomic<bool> is_watching{false};
    if (is_watching.exchange(true))
        return true;
    if (pthread_atfork(nullptr, nullptr, drop_inherited_watch) == 0)
        return true;
    is_watching = false;
    return false;
}

bool is_attached()
{
    return vlthread_equal(vlthread_attached_tid(), vlthread_self()) != 0;
}

} // namespace

bool Watch::open()
{
    if (!watch_plain_forks())
        return false;
    ks::UniqueFd fd(ks::above_stdio(epoll_create1(EPOLL_CLOEXEC)));
    if (!fd)
        return false;
    if (is_attached()) { // whom a raise wakes
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = channel;
        if (epoll_ctl(fd.get(), EPOLL_CTL_ADD, pfm_get_notify_channel(), &event) != 0)
            return false;
    }
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    armed = {};
    known = {};
    watch_fd = fd.release();
    return true;
}

bool Watch::is_open() const
{
    return watch_fd.load(std::memory_order_relaxed) >= 0;
}

void Watch::close()
{
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    const int fd = watch_fd.exchange(-1);
    if (fd >= 0)
        (void)::close(fd); // given up either way
}

bool Watch::follow_set()
{
    const ks::ReadGuard lock(ks::ks_svc_fd_lock);
    for (std::size_t i = 0; i < set_words; ++i) {
        const uint64_t wanted = __atomic_load_n(&ks_svc_fdset.words[i], __ATOMIC_RELAXED);
        for (uint64_t rest = wanted ^ __atomic_load_n(&armed[i], __ATOMIC_RELAXED); rest != 0; rest &= rest - 1) {
            const int fd = static_cast<int>(i * 64) + std::countr_zero(rest);
            if ((wanted & bit_of(fd)) == 0)
                disarm(fd);
            else if (!arm(fd))
                return false;
        }
    }
    return true;
}

int Watch::wait(int timeout_ms, ks_fd_set &out_ready)
{
    std::array<epoll_event, reports_max> reports;
    const int found = epoll_wait(watch_fd.load(std::memory_order_relaxed), reports.data(), reports_max, timeout_ms);
    if (found <= 0)
        return found;
    ks_fd_zero(&out_ready);
    int ready = 0;
    for (int i = 0; i < found; ++i) {
        const uint64_t what = reports[static_cast<std::size_t>(i)].data.u64;
        if (what == channel) {
            pfm_flush_notify_channel();
            continue;
        }
        const int fd = static_cast<int>(what & ~once_bit);
        if ((what & once_bit) != 0)
            clear_armed(fd);
        ks_fd_add(&out_ready, fd);
        ++ready;
    }
    if (ready > 0)
        return ready;
    errno = EINTR;
    return -1;
}

bool watch_now(const Transport &transport)
{
    if (watch_fd.load(std::memory_order_relaxed) < 0)
        return false;
    (void)arm(fd_of(transport)); // one that cannot be watched shows in the main thread's own look
    return true;
}

void forget_watched(int fd)
{
    if (watch_fd.load(std::memory_order_relaxed) >= 0 && (known[word_of(fd)] & bit_of(fd)) != 0)
        disarm(fd);
}

} // namespace ks::svc
