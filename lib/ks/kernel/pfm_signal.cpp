// Signals: handler tables, catching, and calls owed to handlers from before the library.
//
// A handler registered here normally runs on the signal-handler thread, which takes signals only
// while it waits and holds no lock (pfm_thread.cpp). docs/signals.md lists what a handler reaches.
#include "kernel/pfm_impl.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include <fcntl.h>

namespace ks::fault {

namespace {

// Owed calls: which kind is outstanding.
enum Deferral : int {
    deferral_none = 0,
    deferral_next_opportunity = 1,
    deferral_until_exit = 2,
};

constinit sigset_t all_async_signals{};
// The handler each signal had before the library started, and the one it dispatches to.
constinit std::array<std::atomic<pfm_signal_t>, signal_count> pre_handler_sigvec{};
constinit std::array<std::atomic<pfm_signal_t>, signal_count> handler_sigvec{};
// Changes of the table so far, counted when one begins and when it ends.
constinit std::atomic<uint32_t> registrations{0};
// Times that a signal was passed to its earlier handler, which stands in the library's place meanwhile.
constinit std::atomic<uint32_t> passes_begun{0};
constinit std::atomic<uint32_t> passes_ended{0};
// Signals whose earlier handlers are owed a call, as a set of bits, and the kind of deferral.
constinit std::atomic<uint64_t> libc_deferred_signals{0};
constinit std::atomic<int> libc_deferred_sigtype{deferral_none};

pfm_signal_t pre_handler(int sig)
{
    return pre_handler_sigvec[static_cast<std::size_t>(sig - 1)].load(std::memory_order_acquire);
}

bool is_real_handler(pfm_signal_t handler)
{
    return handler != SIG_DFL && handler != SIG_IGN;
}

bool is_safemode_signal(int sig)
{
    return sig == SIGUSR1 || sig == SIGUSR2 || sig == SIGPIPE || sig == SIGALRM || sig == SIGTTOU;
}

// Blocks or unblocks one signal in the caller and puts the mask back as it was.
class SignalMask {
  public:
    SignalMask(int how, int sig)
    {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, sig);
        (void)pthread_sigmask(how, &one, &before_); // cannot fail for a valid `how`
    }
    ~SignalMask()
    {
        const ks::ErrnoSaver saver;
        (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); // cannot fail for a valid `how`
    }
    SignalMask(const SignalMask &) = delete;
    SignalMask &operator=(const SignalMask &) = delete;

  private:
    sigset_t before_;
};

pfm_signal_t registered_handler(int sig)
{
    return handler_sigvec[static_cast<std::size_t>(sig - 1)].load();
}

bool install(int sig, pfm_signal_t handler)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_mask = all_async_signals;
    return sigaction(sig, &action, nullptr) == 0;
}

// Whoever handles the signal in the system's eyes now gets it at once.
void raise_unblocked(int sig)
{
    const SignalMask unblocked(SIG_UNBLOCK, sig);
    (void)raise(sig); // delivered before it returns
}

extern "C" void pfm_signal_handler(int sig);

// A change of the table, under pfm_crit.
class Registration {
  public:
    Registration() { registrations.fetch_add(1); }
    ~Registration() { registrations.fetch_add(1); }
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;
};

// Who handles the signal in the operating system's eyes.
pfm_signal_t system_handler_for(int sig, pfm_signal_t handler)
{
    return is_real_handler(handler) && handler != pre_handler(sig) ? pfm_signal_handler : handler;
}

// Installs what the table says; a registration that comes in between is seen here, or finds what was
// installed here and puts it right.
void install_registered(int sig)
{
    for (;;) {
        const pfm_signal_t handler = registered_handler(sig);
        (void)install(sig, system_handler_for(sig, handler)); // was installed before, so it is valid
        if (registered_handler(sig) == handler)
            return;
    }
}

pfm_signal_t current_handler(int sig)
{
    struct sigaction action = {};
    if (sigaction(sig, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0)
        return SIG_DFL;
    return action.sa_handler;
}

// The number in base 16 behind `label` in the text of /proc/self/status; all ones when it is not there.
uint64_t signals_behind(std::string_view label, std::string_view status)
{
    const std::size_t found = status.find(label);
    uint64_t signals = ~uint64_t{0};
    if (found != std::string_view::npos)
        (void)std::from_chars(status.data() + found + label.size(), status.data() + status.size(), signals, 16);
    return signals;
}

// Signals that may be ignored or caught, number n as bit n - 1. The process is asked once for all of
// them: a start that asks for each makes 64 system calls.
uint64_t signals_set()
{
    char text[4096];
    const ks::UniqueFd file(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    const ssize_t got = file ? read(file.get(), text, sizeof text) : -1;
    const std::string_view status{text, static_cast<std::size_t>(std::max(got, ssize_t{0}))};
    return signals_behind("\nSigIgn:\t", status) | signals_behind("\nSigCgt:\t", status);
}

// The handler in front of which the library stands gets the signal at once.
void pass_to_pre_library_handler(int sig)
{
    passes_begun.fetch_add(1);
    (void)install(sig, pre_handler(sig)); // was installed before, so it is valid
    raise_unblocked(sig);
    install_registered(sig);
    passes_ended.fetch_add(1);
}

// Notes that the signal's earlier handler is owed a call.
void defer_pre_library_handler(int sig)
{
    if (type() == PFM_PROCESS_SAFE)
        return;
    const uint64_t bit = uint64_t{1} << (sig - 1);
    if ((libc_deferred_signals.load(std::memory_order_relaxed) & bit) != 0)
        return;
    if (sig == SIGINT || sig == SIGQUIT || sig == SIGTERM) {
        libc_deferred_signals.fetch_or(bit);
        libc_deferred_sigtype.store(deferral_until_exit);
    } else if (libc_deferred_sigtype.load() != deferral_until_exit && is_real_handler(pre_handler(sig))) {
        libc_deferred_signals.fetch_or(bit);
        libc_deferred_sigtype.store(deferral_next_opportunity);
    }
}

void dispatch(int sig)
{
    if (sig == SIGTSTP) {
        if (may_stop_now(sig))
            handle(sig);
        return;
    }
    handle(sig);
    if (pfm_call_libc.load(std::memory_order_relaxed))
        call_owed_handlers();
}

// Whether another thread is the one to handle the signal; then it was sent there.
bool forward_to_handler_thread(int sig)
{
    const vlthread_t handler_thread = pfm_signal_handler_tid.load(std::memory_order_acquire);
    if (type() == PFM_PROCESS_FORK_CHILD || handler_thread == pthread_self() ||
        pfm_exiting.load(std::memory_order_acquire))
        return false;
    here.require(!vlthread_equal(handler_thread, VLTHREAD_INVALID_TID),
                 "!vlthread_equal(pfm_signal_handler_tid, VLTHREAD_INVALID_TID)", 566);
    (void)vlthread_kill(handler_thread, sig); // the thread lives as long as its id is set
    return true;
}

void pfm_signal_handler_int(int sig)
{
    if (vlthread_attached_tid() == VLTHREAD_INVALID_TID) {
        pass_to_pre_library_handler(sig);
        return;
    }
    if (forward_to_handler_thread(sig))
        return;
    defer_pre_library_handler(sig);
    dispatch(sig);
    write_notify_channel(PFM_RAISE_INTERRUPT);
}

extern "C" void *handle_on_own_thread(void *argument)
{
    (void)vlthread_pending_raise(nullptr); // puts the thread on the state list
    pfm_signal_handler_int(static_cast<int>(reinterpret_cast<intptr_t>(argument)));
    return nullptr; // pthread_exit() would need memory to unwind the thread
}

// Only the new thread takes locks of the library: the interrupted one may hold any of them.
void start_thread_for(int sig)
{
    pthread_attr_t attr;
    pthread_t thread;
    const bool started =
        pthread_attr_init(&attr) == 0 && pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) == 0 &&
        pthread_create(&thread, &attr, handle_on_own_thread, reinterpret_cast<void *>(intptr_t{sig})) == 0;
    if (!started)
        std::abort();
    (void)pthread_attr_destroy(&attr); // always succeeds for an initialised attribute
}

// A signal that comes here has a handler of the program's. One that was taken out while this delivery
// was on its way has not: then the system does not come here any more either.
void require_handler(int sig)
{
    const uint32_t before = registrations.load();
    const pfm_signal_t handler = registered_handler(sig);
    if (is_real_handler(handler) || current_handler(sig) != pfm_signal_handler) [[likely]]
        return;
    const bool is_changing = before % 2 != 0 || registrations.load() != before;
    if (is_changing)
        return;
    here.require(handler != SIG_DFL, "handler_sigvec[sig-1] != (pfm_signal_t)SIG_DFL", 651);
    here.require(handler != SIG_IGN, "handler_sigvec[sig-1] != (pfm_signal_t)SIG_IGN", 652);
}

// Installed for every signal that the library dispatches. The system blocks the signal meanwhile.
extern "C" void pfm_signal_handler(int sig)
{
    const ks::ErrnoSaver saver;
    here.require(type() != PFM_PROCESS_SAFE || is_safemode_signal(sig),
                 "!pfm_in_safe_mode() || pfm_is_safemode_signal(sig)", 650);
    require_handler(sig);
    if (type() == PFM_PROCESS_FORK_CHILD)
        start_thread_for(sig);
    else
        pfm_signal_handler_int(sig);
}

// An interrupt, hang-up or termination request.
extern "C" void pfm_quit_signal_catcher(int)
{
    pfm_notify_vl_thread(PFM_RAISE_INTERRUPT);
}

// Stops the process, and catches the next stop again when it continues.
extern "C" void pfm_suspend_signal_catcher(int sig)
{
    pass_to_pre_library_handler(sig);
}

void catch_unless_ignored(int sig)
{
    if (current_handler(sig) != SIG_IGN)
        (void)pfm_signal(sig, pfm_quit_signal_catcher); // valid signal and handler
}

// Children must leave a status to wait for, whatever the program inherited.
void restore_child_default()
{
    struct sigaction action = {};
    if (sigaction(SIGCHLD, nullptr, &action) != 0)
        return;
    action.sa_handler = SIG_DFL;
    action.sa_flags = 0;
    (void)sigaction(SIGCHLD, &action, nullptr); // valid signal and action
}

} // namespace

const sigset_t &async_signals()
{
    return all_async_signals;
}

void build_signal_sets()
{
    sigfillset(&all_async_signals);
    for (const int sig : {SIGILL, SIGFPE, SIGSEGV})
        sigdelset(&all_async_signals, sig);
}

void record_current_handlers()
{
    const ks::ErrnoSaver saver;
    const uint64_t set = signals_set();
    for (int sig = 1; sig <= signal_count; ++sig) {
        const auto i = static_cast<std::size_t>(sig - 1);
        const pfm_signal_t handler = (set >> i & 1) != 0 ? current_handler(sig) : SIG_DFL;
        if (handler == pfm_signal_handler) // of an earlier start: what it stands for is known
            continue;
        pre_handler_sigvec[i].store(handler, std::memory_order_release);
        handler_sigvec[i].store(handler, std::memory_order_release);
    }
    libc_deferred_signals.store(0);
    libc_deferred_sigtype.store(deferral_none);
}

void install_catchers()
{
    for (const int sig : {SIGINT, SIGHUP, SIGTERM})
        catch_unless_ignored(sig);
    restore_child_default();
    (void)pfm_signal(SIGTSTP, pfm_suspend_signal_catcher); // valid signal and handler
}

void restore_pre_library_handlers()
{
    for (int sig = 1; sig <= signal_count; ++sig)
        (void)install(sig, pre_handler(sig)); // fails only for signals that cannot be caught
}

bool has_registered_handler(int sig)
{
    const pfm_signal_t handler = registered_handler(sig);
    return is_real_handler(handler) && handler != pre_handler(sig);
}

void handle(int sig)
{
    const pfm_signal_t handler = registered_handler(sig);
    if (is_real_handler(handler))
        handler(sig);
    else
        raise_unblocked(sig); // put back while it was on its way: the system knows what to do
}

void call_owed_handlers()
{
    if (type() == PFM_PROCESS_SAFE)
        return;
    if (!pfm_exiting.load(std::memory_order_acquire) && libc_deferred_sigtype.load() != deferral_next_opportunity)
        return;
    libc_deferred_sigtype.store(deferral_none);
    for (int sig = 1; sig <= signal_count; ++sig) {
        const uint64_t bit = uint64_t{1} << (sig - 1);
        bool owed = false;
        {
            const ks::LockGuard lock(ks::pfm_libc_handler_crit); // let go for the call
            owed = (libc_deferred_signals.fetch_and(~bit) & bit) != 0;
        }
        if (owed)
            pass_to_pre_library_handler(sig);
    }
}

} // namespace ks::fault

extern "C" {

pfm_signal_t pfm_signal(int sig, pfm_signal_t handler)
{
    ks::fault::ensure_started();
    ks::fault::here.require(ks::fault::type() != PFM_PROCESS_SAFE || ks::fault::is_safemode_signal(sig),
                            "!pfm_in_safe_mode() || pfm_is_safemode_signal(sig)", 953);
    if (sig < 1 || sig > ks::fault::signal_count) {
        errno = EINVAL;
        return SIG_ERR;
    }
    const ks::LockGuard lock(ks::pfm_crit);
    const ks::fault::SignalMask blocked(SIG_BLOCK, sig);
    const ks::fault::Registration registration;
    const uint32_t begun = ks::fault::passes_begun.load();
    const bool is_passing = ks::fault::passes_ended.load() != begun;
    const pfm_signal_t previous = ks::fault::registered_handler(sig);
    auto &entry = ks::fault::handler_sigvec[static_cast<std::size_t>(sig - 1)];
    // While the library's handler is installed the table must hold a real one.
    if (ks::fault::is_real_handler(handler))
        entry.store(handler);
    if (!ks::fault::install(sig, ks::fault::system_handler_for(sig, handler))) {
        entry.store(previous);
        return SIG_ERR;
    }
    entry.store(handler);
    // A delivery that was passing the signal to its earlier handler may have put the library's back.
    if (is_passing || ks::fault::passes_begun.load() != begun)
        ks::fault::install_registered(sig);
    if (ks::fault::type() == PFM_PROCESS_SAFE)
        ks::fault::renew_wait_mask();
    return previous;
}

void pfm_proc_asignals(int how)
{
    ks::fault::here.require(how == SIG_BLOCK || how == SIG_UNBLOCK, "how == SIG_BLOCK || how == SIG_UNBLOCK", 524);
    if (!ks::fault::pfm_inited.load(std::memory_order_acquire))
        ks::fault::build_signal_sets();
    (void)pthread_sigmask(how, &ks::fault::all_async_signals, nullptr); // cannot fail for a valid `how`
}
}
