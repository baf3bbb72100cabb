// The kernel's set of descriptors that are worth a look.
#include "events/rt_epoll.h"

#include "base/ks_base.h"
#include "events/rt_impl.h"

#include <algorithm>
#include <bit>
#include <ctime>
#include <span>
#include <utility>

#include <sys/epoll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace ks::rt {

namespace {

constexpr int count_min = 128;         // below it select() is no slower
constexpr int sparse_factor = 8;       // one ready of so many is few
constexpr int passes_before = 32;      // so many looks cost what a registration does
constexpr int64_t full_every_ms = 900; // within a second, with some of it for the handlers

// What select() takes for readable and for writable.
constexpr uint32_t read_events = EPOLLIN | EPOLLRDNORM | EPOLLRDBAND;
constexpr uint32_t write_events = EPOLLOUT | EPOLLWRNORM | EPOLLWRBAND;

int64_t now_ms()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now); // cannot fail for this clock and a valid address
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace

// A page that the kernel empties in every child.
bool EpollWatch::make_mark()
{
    if (mark_ != nullptr)
        return true;
    constexpr std::size_t size = 4096;
    void *page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return false;
    if (madvise(page, size, MADV_WIPEONFORK) != 0) {
        (void)munmap(page, size); // cannot fail for a mapping of its own
        return false;
    }
    mark_ = static_cast<char *>(page);
    return true;
}

bool EpollWatch::open()
{
    const ErrnoSaver saver;
    abandon();
    if (!make_mark())
        return false;
    fd_ = fit_for_sets(epoll_create1(EPOLL_CLOEXEC));
    *mark_ = 1;
    return fd_ >= 0;
}

// Where the number is not known to be this process's set any more it is not closed either.
void EpollWatch::abandon()
{
    fd_ = -1;
    is_complete_ = false;
    ks_fd_zero(&watched_);
    ks_fd_zero(&refused_);
}

void EpollWatch::drop()
{
    const UniqueFd own(fd_);
    abandon();
}

void EpollWatch::drop_inherited()
{
    drop();
    make_full_due();
}

bool EpollWatch::begin(const ks_fd_set &reads, const ks_fd_set &writes, int count, Proposals &out, int &out_count)
{
    if (count < count_min)
        return false;
    const bool is_sparse = int64_t{last_found_} * sparse_factor <= count;
    if (is_sparse && ++passes_ >= passes_before)
        take_up(reads, writes);
    const int64_t now = now_ms();
    if (is_sparse && now - last_full_ms_ < full_every_ms && is_own() && propose(out, out_count))
        return true;
    last_full_ms_ = now;
    if (!is_complete_)
        ks_fd_zero(&refused_);
    return false;
}

void EpollWatch::take_up(const ks_fd_set &reads, const ks_fd_set &writes)
{
    passes_ = 0;
    if (is_complete_ || (!is_own() && !open()))
        return;
    const ErrnoSaver saver;
    is_complete_ = true; // but for what is refused, now or before
    for (std::size_t i = 0; i < KS_FD_SET_WORDS; ++i) {
        const uint64_t fresh = (reads.words[i] | writes.words[i]) & ~watched_.words[i] & ~refused_.words[i];
        is_complete_ = is_complete_ && refused_.words[i] == 0;
        for (uint64_t rest = fresh; rest != 0; rest &= rest - 1) {
            const int fd = static_cast<int>(i * 64) + std::countr_zero(rest);
            epoll_event event{};
            event.events =
                (ks_fd_has(&reads, fd) != 0 ? read_events : 0) | (ks_fd_has(&writes, fd) != 0 ? write_events : 0);
            event.data.fd = fd;
            // Files that it does not take stay with select(), as does what there is no room for.
            const bool is_taken = epoll_ctl(fd_, EPOLL_CTL_ADD, fd, &event) == 0;
            ks_fd_add(is_taken ? &watched_ : &refused_, fd);
            is_complete_ = is_complete_ && is_taken;
        }
    }
}

timeval EpollWatch::time_left() const
{
    const int64_t left_ms = std::clamp<int64_t>(last_full_ms_ + full_every_ms - now_ms(), 0, full_every_ms);
    return {0, left_ms * 1000};
}

// False where there are too many, and where the set is of no use any more.
bool EpollWatch::propose(Proposals &out, int &out_count)
{
    const ErrnoSaver saver;
    std::array<epoll_event, proposals_max> events;
    out_count = epoll_wait(fd_, events.data(), static_cast<int>(events.size()), 0);
    if (out_count < 0) {
        abandon();
        return false;
    }
    const std::span found(events.data(), static_cast<std::size_t>(out_count));
    if (!std::all_of(found.begin(), found.end(),
                     [this](const epoll_event &event) { return ks_fd_has(&watched_, event.data.fd) != 0; })) {
        drop(); // it holds a file that no number leads to
        return false;
    }
    std::transform(found.begin(), found.end(), out.begin(), [](const epoll_event &event) { return event.data.fd; });
    return found.size() < proposals_max;
}

void EpollWatch::reject(int fd)
{
    if (ks_fd_has(&watched_, fd) == 0)
        return;
    const ErrnoSaver saver;
    ks_fd_remove(&watched_, fd);
    ks_fd_add(&refused_, fd);
    is_complete_ = false;
    if (epoll_ctl(fd_, EPOLL_CTL_DEL, fd, nullptr) != 0) // another file has the number: the old one cannot be named
        drop();
}

void EpollWatch::forget(int fd, bool has_handler)
{
    is_complete_ = is_complete_ && !has_handler;
    ks_fd_remove(&refused_, fd);
    if (ks_fd_has(&watched_, fd) == 0)
        return;
    if (!is_own()) {
        abandon();
        return;
    }
    const ErrnoSaver saver;
    ks_fd_remove(&watched_, fd);
    (void)epoll_ctl(fd_, EPOLL_CTL_DEL, fd, nullptr); // fails where the file is closed; its registration is, too
}

} // namespace ks::rt
