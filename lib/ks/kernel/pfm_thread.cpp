// The signal-handler thread: it receives the asynchronous signals of an ordinary process, blocks
// and unblocks SIGCHLD on request, and ends when the process exits.
//
// Signals are unblocked in it only inside the wait, by ppoll(), so a handler never interrupts the
// thread while it holds a lock, and a wake-up posted by a handler that runs on the thread itself
// cannot be lost between the test and the wait. That is why it waits on a descriptor and not on a
// condition variable.
#include "kernel/pfm_impl.h"

#include <cstdio>
#include <cstdlib>

#include <poll.h>
#include <sys/eventfd.h>

namespace ks::fault {

namespace {

constexpr int no_request = 2; // neither SIG_BLOCK nor SIG_UNBLOCK

constinit std::atomic<int> wake_fd{PFM_INVALID_CHANNEL};
constinit vlthread_cond_t pfm_chg_sig_block_cond = VLTHREAD_COND_INITIALIZER; // with pfm_exit_crit

// The posted request, and the nesting of requests to block SIGCHLD; guarded by pfm_exit_crit.
constinit int pfm_sig_blk_req_mask = no_request;
constinit int pfm_sig_blk_req_sig = 0;
constinit int block_total = 0;
constinit bool thread_runs = false; // guarded by pfm_exit_crit
// In a child every signal is blocked while the thread is started; what it takes is its parent's choice.
constinit bool is_restarted_by_fork = false;

// What the thread blocks while it waits. Touched by the thread alone.
constinit sigset_t wait_mask{};
// What the thread that started it had blocked.
constinit sigset_t starters_mask{};

bool is_handler_thread()
{
    return pfm_signal_handler_tid.load(std::memory_order_relaxed) == pthread_self();
}

void wake_thread()
{
    const uint64_t one = 1;
    const int fd = wake_fd.load(std::memory_order_acquire);
    if (fd != PFM_INVALID_CHANNEL)
        (void)!write(fd, &one, sizeof one); // fails only when a wake-up is already pending
}

void apply_to_wait_mask(int how, int sig)
{
    if (how == SIG_BLOCK)
        sigaddset(&wait_mask, sig);
    else
        sigdelset(&wait_mask, sig);
}

// Under pfm_exit_crit, on the thread.
void apply_posted_request()
{
    if (pfm_sig_blk_req_mask == no_request)
        return;
    apply_to_wait_mask(pfm_sig_blk_req_mask, pfm_sig_blk_req_sig);
    pfm_sig_blk_req_mask = no_request;
    pfm_sig_blk_req_sig = 0;
    (void)pthread_cond_broadcast(&pfm_chg_sig_block_cond); // cannot fail
}

// Waits until somebody asks for something; signals are handled in here.
void wait_for_wake_up()
{
    pollfd wake = {wake_fd.load(std::memory_order_acquire), POLLIN, 0};
    while (ppoll(&wake, 1, nullptr, &wait_mask) < 0 && errno == EINTR) {
        // a signal was handled; only a wake-up brings work
    }
    uint64_t count = 0;
    (void)!read(wake.fd, &count, sizeof count); // readable, and nobody else reads it
}

// The thread is there to receive signals. In safe mode the process belongs to a host, which may have
// blocked some on purpose: those are left blocked unless the library was given a handler for them.
void make_wait_mask()
{
    wait_mask = starters_mask;
    for (int sig = 1; sig <= signal_count; ++sig) {
        const bool is_taken = type() != PFM_PROCESS_SAFE || has_registered_handler(sig);
        if (is_taken && sigismember(&async_signals(), sig) == 1)
            sigdelset(&wait_mask, sig);
    }
}

extern "C" void *run_signal_handler_thread(void *)
{
    pfm_signal_handler_tid.store(pthread_self(), std::memory_order_release);
    (void)pfm_tls_get(); // made here: a handler that takes a lock must not have to allocate it
    make_wait_mask();
    for (bool exiting = false; !exiting;) {
        wait_for_wake_up();
        if (type() == PFM_PROCESS_SAFE)
            make_wait_mask();
        const ks::LockGuard lock(ks::pfm_exit_crit);
        apply_posted_request();
        exiting = pfm_exiting.load(std::memory_order_relaxed);
        thread_runs = !exiting;
    }
    // Returned, since pthread_exit() would need memory to unwind the thread.
    return reinterpret_cast<void *>(intptr_t{pfm_exit_status.load(std::memory_order_relaxed)});
}

// A process that cannot have the thread says so itself: messages need what is missing.
[[noreturn]] void end_without(const char *what)
{
    char text[128];
    const int formatted = std::snprintf(text, sizeof text, "pfm: cannot start: no %s (error %d)\n", what, errno);
    (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(formatted)); // the process ends either way
    std::abort();
}

void close_wake_fd()
{
    const int fd = wake_fd.exchange(PFM_INVALID_CHANNEL);
    if (fd != PFM_INVALID_CHANNEL)
        (void)close(fd); // given up either way
}

// Whether the request changes what the thread blocks: the first block and the last unblock do.
bool is_effective(int how)
{
    if (how == SIG_BLOCK)
        return ++block_total == 1;
    --block_total;
    here.require(block_total >= 0, "block_total >= 0", 1529);
    return block_total == 0;
}

void change_in_caller(int how, int sig)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    (void)pthread_sigmask(how, &one, nullptr); // cannot fail for a valid `how`
}

} // namespace

void start_signal_handler_thread()
{
    wake_fd.store(ks::above_stdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), std::memory_order_release);
    if (wake_fd.load(std::memory_order_relaxed) < 0)
        end_without("descriptor for the signal-handler thread");
    // Started with everything blocked, whatever the creator's mask: see the top of the file.
    sigset_t before;
    (void)pthread_sigmask(SIG_BLOCK, &async_signals(), &before); // cannot fail for a valid `how`
    if (!is_restarted_by_fork)
        starters_mask = before;
    vlthread_t thread = VLTHREAD_INVALID_TID;
    {
        const ks::LockGuard lock(ks::pfm_exit_crit);
        thread_runs = true;
    }
    errno = vlthread_create(&thread, nullptr, run_signal_handler_thread, nullptr);
    if (errno != 0)
        end_without("signal-handler thread");
    pfm_signal_handler_tid.store(thread, std::memory_order_release);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr); // cannot fail for a valid `how`
}

void renew_wait_mask()
{
    wake_thread();
}

void forget_signal_handler_thread()
{
    is_restarted_by_fork = true;
    close_wake_fd();
    pfm_signal_handler_tid.store(VLTHREAD_INVALID_TID, std::memory_order_release);
    pfm_chg_sig_block_cond = VLTHREAD_COND_INITIALIZER;
    pfm_sig_blk_req_mask = no_request;
    thread_runs = false;
}

void join_signal_handler_thread()
{
    const vlthread_t thread = pfm_signal_handler_tid.load(std::memory_order_acquire);
    if (vlthread_equal(thread, VLTHREAD_INVALID_TID))
        return;
    (void)vlthread_join(thread, nullptr); // it was told to end and has not been joined before
    close_wake_fd();
    pfm_signal_handler_tid.store(VLTHREAD_INVALID_TID, std::memory_order_release);
}

void detach_signal_handler_thread()
{
    const vlthread_t thread = pfm_signal_handler_tid.exchange(VLTHREAD_INVALID_TID);
    if (!vlthread_equal(thread, VLTHREAD_INVALID_TID))
        (void)pthread_detach(thread); // joinable until here
}

void post_exit(int status)
{
    {
        const ks::LockGuard lock(ks::pfm_exit_crit);
        pfm_exit_status.store(status, std::memory_order_relaxed);
        pfm_exiting.store(true, std::memory_order_release);
    }
    wake_thread();
}

} // namespace ks::fault

extern "C" {

void pfm_signal_handler_chg_block_sig(int how, int sig)
{
    ks::fault::ensure_started();
    ks::fault::here.require(sig == SIGCHLD, "sig == SIGCHLD", 1502);
    ks::fault::here.require(how == SIG_BLOCK || how == SIG_UNBLOCK, "how == SIG_BLOCK || how == SIG_UNBLOCK", 1503);
    if (ks::fault::type() == PFM_PROCESS_SAFE)
        return;
    if (ks::fault::type() == PFM_PROCESS_FORK_CHILD) {
        ks::fault::change_in_caller(how, sig);
        return;
    }
    const ks::IoLockGuard lock(ks::pfm_exit_crit);
    // Kept exactly: a request that only nests stays posted, for the next one to replace.
    ks::fault::pfm_sig_blk_req_mask = how;
    ks::fault::pfm_sig_blk_req_sig = sig;
    if (!ks::fault::is_effective(how))
        return;
    if (ks::fault::is_handler_thread()) { // a handler: nobody else would apply it
        ks::fault::apply_posted_request();
        return;
    }
    ks::fault::wake_thread();
    while (ks::fault::thread_runs && ks::fault::pfm_sig_blk_req_mask != ks::fault::no_request)
        (void)vlthread_cond_wait(&ks::fault::pfm_chg_sig_block_cond, &ks::pfm_exit_crit); // always 0
}

void pfm_init_block_total(void)
{
    ks::fault::ensure_started();
    const ks::LockGuard lock(ks::pfm_exit_crit);
    ks::fault::block_total = 0;
    ks::fault::change_in_caller(SIG_UNBLOCK, SIGCHLD);
}
}
