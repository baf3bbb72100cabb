// The end of a daemon: what its pipes hold goes to the log, at exit and when a signal ends the process.
#include "events/imsg_logs.h"

#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>

#include <csignal>
#include <cstdlib>

#include <unistd.h>

namespace ks::imsg {

namespace {

// Signals that end a process whose action is the default. SIGKILL cannot be caught.
constexpr std::array fatal_signals{SIGHUP,  SIGINT,  SIGQUIT, SIGILL,    SIGTRAP, SIGABRT, SIGBUS,
                                   SIGFPE,  SIGUSR1, SIGSEGV, SIGUSR2,   SIGPIPE, SIGALRM, SIGTERM,
                                   SIGXCPU, SIGXFSZ, SIGPROF, SIGVTALRM, SIGIO,   SIGPWR,  SIGSYS};

constexpr std::size_t copy_max = 2 << 20; // of a pipe: whoever goes on writing must not keep the process alive

constinit std::atomic<int> log_descriptor{-1};

// All that is done from here on is read() and write(): the signal may have come in the middle of anything.
void copy_bytes(const char *bytes, std::size_t size)
{
    if (size > 0 && logs.daemon_file.is_cut.exchange(false))
        copy_bytes("\n", 1);
    (void)write_all(log_descriptor.load(std::memory_order_relaxed), bytes, size); // there is nobody to tell
}

void copy_pipe(const CapturedPipe &pipe)
{
    const int fd = pipe.read_end.load(std::memory_order_acquire);
    if (fd < 0)
        return;
    // A drain that was interrupted has written some of it.
    if (!is_draining.load(std::memory_order_acquire))
        copy_bytes(pipe.room, pipe.length.load(std::memory_order_acquire));
    char bytes[1024]; // an alternate stack may be small
    for (std::size_t copied = 0; copied < copy_max;) {
        const ssize_t size = read(fd, bytes, sizeof bytes);
        if (size > 0) {
            copy_bytes(bytes, static_cast<std::size_t>(size));
            copied += static_cast<std::size_t>(size);
        } else if (size == 0 || errno != EINTR) {
            return;
        }
    }
}

// Such a one comes again when the handler returns, from where it came: a core shows it there.
bool comes_again(int sig, const siginfo_t *info)
{
    return info->si_code > 0 && (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL);
}

// The action is the default again by now, and takes place when the handler returns.
extern "C" void imsg_fatal_signal_handler(int sig, siginfo_t *info, void *)
{
    const ErrnoSaver saver;
    if (is_own_daemon.load(std::memory_order_relaxed)) {
        for (const CapturedPipe &pipe : captured_pipes)
            copy_pipe(pipe);
    }
    if (!comes_again(sig, info))
        (void)raise(sig);
}

// With SA_SIGINFO, which the fault manager takes for the default: so it is, to whoever asks.
void catch_if_default(int sig)
{
    struct sigaction action = {};
    if (sigaction(sig, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0 || action.sa_handler != SIG_DFL)
        return;
    action.sa_sigaction = imsg_fatal_signal_handler;
    action.sa_flags = SA_SIGINFO | static_cast<int>(SA_RESETHAND) | SA_ONSTACK | SA_RESTART;
    sigemptyset(&action.sa_mask);
    (void)sigaction(sig, &action, nullptr); // a valid signal and action
}

extern "C" void imsg_drain_at_exit(void)
{
    const IoLockGuard lock(ks_product_crit);
    end_capture();
}

// pfm_exit() of the other kinds of processes may return to the program.
extern "C" void imsg_drain_on_exit(int, void *)
{
    const IoLockGuard lock(ks_product_crit);
    if (pfm_proc() == PFM_PROCESS_ORDINARY)
        end_capture();
    else
        drain(Extent::everything);
}

} // namespace

void catch_fatal_signals()
{
    log_descriptor.store(fileno(logs.out), std::memory_order_release);
    for (const int sig : fatal_signals)
        catch_if_default(sig);
    for (int sig = SIGRTMIN; sig <= SIGRTMAX; ++sig)
        catch_if_default(sig);
}

void register_endings()
{
    static constinit std::atomic<bool> is_registered{false};
    if (is_registered.exchange(true))
        return;
    pfm_on_exit(imsg_drain_on_exit, nullptr);
    (void)std::atexit(imsg_drain_at_exit); // where there is no memory for it pfm_exit() still drains
}

} // namespace ks::imsg
