// Children: who they are, and what becomes of their deaths.
//
// Children are reaped under rt_proc_crit, so that an id that is looked up or signalled under it is still that of the
// child it stands for. SIGCHLD arrives on the signal-handler thread; the death becomes an event for the loop.
#include <korvaks/rt_proc.h>

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "events/children.h"
#include "events/rt_impl.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "kernel/stg_quiet.h"

#include <korvaks/pfm.h>
#include <korvaks/procutl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <type_traits>
#include <utility>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static_assert(std::is_standard_layout_v<rt_proc_child> && std::is_trivially_copyable_v<rt_proc_child>);
static_assert(offsetof(rt_proc_child, link) == 0 && offsetof(rt_proc_child, pid) == 24);
static_assert(offsetof(rt_proc_child, status) == 28 && offsetof(rt_proc_child, callback) == 32);
static_assert(offsetof(rt_proc_child, arg) == 40 && offsetof(rt_proc_child, event) == 48);
static_assert(sizeof(rt_proc_child) == 104);

constinit std::atomic<uint64_t> ks::children_reaped{0};

namespace ks::proc {

namespace {

constexpr AssertPath here{"lib/ks/rt_proc"};

constexpr std::size_t deaths_kept = 64;
constexpr time_t death_kept_s = 10;
constexpr std::size_t chain_count = 4096; // ids of children follow each other: chains stay short

// A child's record with what only this file knows.
struct Child {
    rt_proc_child shown; // first, so that one is the other
    Child *next_in_chain;
    bool is_dead;
};
static_assert(offsetof(Child, shown) == 0);

// A death that nobody had announced.
struct Death {
    pid_t pid = 0; // 0: none
    int32_t status = 0;
    time_t at = 0; // CLOCK_MONOTONIC
};

// A thread that waits for a child.
struct Waiter {
    Waiter *next;
    pid_t pid;
    int32_t status;
    bool has_status;
};

struct State {
    std::atomic<bool> initialized{false};
    std::atomic<bool> is_exiting{false};
    // The rest is guarded by rt_proc_crit.
    bool is_inherited = false; // all of it is the parent's, see drop_inherited()
    llist_link active_list{};  // newest first
    llist_link zombie_list{};
    std::array<Child *, chain_count> chains{}; // of both, by id; newest first
    std::array<Death, deaths_kept> deaths{};
    std::size_t next_death = 0;
    Waiter *waiters = nullptr;
};
constinit State state{};

bool is_empty(const llist_link &list)
{
    return list.next == nullptr || list.next == &list;
}

Child *first_of(const llist_link &list)
{
    return is_empty(list) ? nullptr : static_cast<Child *>(list.next->owner);
}

Child *&chain_of(pid_t pid)
{
    return state.chains[static_cast<std::size_t>(pid) % chain_count];
}

// The newest announced child of an id: of a living and a dead one the living.
Child *find(pid_t pid)
{
    Child *child = chain_of(pid);
    while (child != nullptr && child->shown.pid != pid)
        child = child->next_in_chain;
    return child;
}

Child *find_living(pid_t pid)
{
    Child *child = find(pid);
    return child != nullptr && !child->is_dead ? child : nullptr;
}

// Off its list and its chain; the caller frees it.
void take_off(Child *child)
{
    Child **link = &chain_of(child->shown.pid);
    while (*link != child)
        link = &(*link)->next_in_chain;
    *link = child->next_in_chain;
    (void)llist_d_remove(&child->shown.link); // the owner is this child
}

void release(Child *child)
{
    stg_free_int(child, 1);
}

// In the child of a fork the children are its parent's: none of them is reported, announced or waited for here.
// Under rt_proc_crit, on first use: a child that only execs pays nothing.
void drop_inherited()
{
    if (!std::exchange(state.is_inherited, false))
        return;
    for (llist_link *list : {&state.active_list, &state.zombie_list}) {
        while (Child *child = first_of(*list)) {
            (void)rt_unsched(&child->shown.event); // pending only for the dead
            take_off(child);
            release(child);
        }
    }
    state.deaths = {};
    state.waiters = nullptr;
}

// Every piece of work on the children, with raises held off.
class ChildrenGuard {
  public:
    ChildrenGuard() : lock_(ks::rt_proc_crit) { drop_inherited(); }

  private:
    ks::LockGuard lock_;
};

// --- Deaths ---

extern "C" void rt_proc_callback(void *argument);

void report(Child *child, int32_t status)
{
    child->is_dead = true;
    child->shown.status = status;
    ks::rt::sched_in_place(rt_proc_callback, child, &child->shown.event);
}

void bury(Child *child, int32_t status)
{
    (void)llist_d_remove(&child->shown.link); // the owner is this child
    llist_d_insert(&state.zombie_list, child, &child->shown.link, LLIST_AT_TAIL);
    report(child, status);
}

time_t monotonic_s()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    return now.tv_sec;
}

// Hands a status to the threads that wait for it; false when none does.
bool hand_to_waiters(pid_t pid, int32_t status)
{
    bool was_waited_for = false;
    for (Waiter *waiter = state.waiters; waiter != nullptr; waiter = waiter->next) {
        if (waiter->pid != pid || waiter->has_status)
            continue;
        waiter->status = status;
        waiter->has_status = was_waited_for = true;
    }
    return was_waited_for;
}

void note_death(pid_t pid, int32_t status)
{
    children_reaped.fetch_add(1, std::memory_order_relaxed);
    if (Child *child = find_living(pid)) {
        (void)hand_to_waiters(pid, status);
        bury(child, status);
        return;
    }
    if (hand_to_waiters(pid, status))
        return;
    state.deaths[state.next_death] = {pid, status, monotonic_s()};
    state.next_death = (state.next_death + 1) % deaths_kept;
}

// Takes a death out of those kept. A child of that id that is there now is another one.
bool take_death(pid_t pid, int32_t &out_status)
{
    const auto found = std::find_if(state.deaths.begin(), state.deaths.end(),
                                    [pid](const Death &death) { return pid > 0 && death.pid == pid; });
    if (found == state.deaths.end())
        return false;
    const Death death = std::exchange(*found, Death{});
    siginfo_t info{};
    if (monotonic_s() - death.at > death_kept_s ||
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0)
        return false;
    out_status = death.status;
    return true;
}

extern "C" void rt_proc_signal_catcher(int)
{
    if (state.is_exiting.load(std::memory_order_acquire))
        return;
    const ks::LockGuard lock(ks::rt_proc_crit);
    if (state.is_inherited) // nothing was announced here, and whoever waits for a child reaps it
        return;
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
        note_death(pid, status);
}

extern "C" void rt_proc_callback(void *argument)
{
    here.require(vlthread_equal(vlthread_attached_tid(), vlthread_self()) != 0, "VLTHREAD_IS_MAIN_THREAD()");
    auto *child = static_cast<Child *>(argument);
    {
        const ks::LockGuard lock(ks::rt_proc_crit);
        if (state.is_inherited) // forked by an event before this one
            return;
        take_off(child);
    }
    // A copy, since a raise may leave the callback. Nothing before it is a raise point: no death is lost to one.
    rt_proc_child shown = child->shown;
    release(child);
    if (shown.callback != nullptr)
        shown.callback(shown.pid, shown.status, shown.arg, &shown);
}

// --- Start ---

extern "C" void rt_proc_exiting(int, void *)
{
    state.is_exiting.store(true, std::memory_order_release);
}

extern "C" void rt_proc_fork_child(int kind)
{
    state.is_inherited = true; // nobody else is here
    state.is_exiting.store(false, std::memory_order_relaxed);
    if (kind == VLTHREAD_FORK_PLAIN || kind == VLTHREAD_FORK_EXEC)
        return;
    const ChildrenGuard guard; // goes on for long: the memory is given back
}

bool is_own_handler(pfm_signal_t handler)
{
    return handler == SIG_DFL || handler == SIG_IGN || handler == rt_proc_signal_catcher;
}

// False when the program has a handler of its own, which then is in its place.
bool take_sigchld()
{
    const ks::LockGuard lock(ks::rt_proc_fork_crit); // above what pfm_signal() takes
    if (state.initialized.load(std::memory_order_relaxed))
        return true;
    const pfm_signal_t previous = pfm_signal(SIGCHLD, rt_proc_signal_catcher);
    if (!is_own_handler(previous)) {
        if (previous != SIG_ERR)
            (void)pfm_signal(SIGCHLD, previous); // was registered a moment ago
        return false;
    }
    here.require(vlthread_atfork(nullptr, nullptr, rt_proc_fork_child) == 0,
                 "vlthread_atfork(NULL, NULL, rt_proc_fork_child) == 0");
    pfm_on_exit(rt_proc_exiting, nullptr);
    state.initialized.store(true, std::memory_order_release);
    return true;
}

void ensure_initialized()
{
    here.require(state.initialized.load(std::memory_order_acquire) || rt_proc_initialize() == 0,
                 "initialized || rt_proc_initialize() == 0");
}

// --- Forks ---

void report_exhaustion(int line = __builtin_LINE())
{
    (void)imsg_print(ks::msg_error, &_rt_ks_msg_table, rt_msg_malloc_failed, here.path, line); // the result says it too
}

bool announce(pid_t pid, rt_proc_fn callback, void *arg)
{
    auto *child = static_cast<Child *>(ks::heap_try_malloc(sizeof(Child)));
    const ChildrenGuard guard;
    if (child == nullptr) {
        (void)procutl_terminate(pid); // or it has died already
        return false;
    }
    *child = {};
    child->shown.pid = pid;
    child->shown.callback = callback;
    child->shown.arg = arg;
    child->next_in_chain = std::exchange(chain_of(pid), child);
    llist_d_insert(&state.active_list, child, &child->shown.link, LLIST_AT_FRONT);
    int32_t status = 0;
    if (take_death(pid, status))
        bury(child, status);
    return true;
}

void require_unblocked_in_child(int kind)
{
    pfm_init_block_total();
    if (kind != VLTHREAD_FORK_PLAIN && kind != VLTHREAD_FORK_EXEC)
        return;
    sigset_t cmask;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &cmask); // cannot fail
    here.require(sigismember(&cmask, SIGCHLD) == 0, "!sigismember(&cmask, SIGCHLD)");
}

// The fork itself, with raises held off: no death is reaped before the child is announced.
pid_t fork_announced(rt_proc_fn callback, void *arg, int kind, bool &out_exhausted)
{
    const ks::LockGuard lock(ks::rt_proc_fork_crit);
    pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
    const pid_t pid = vlthread_fork(kind);
    if (pid == 0) {
        require_unblocked_in_child(kind);
        return 0;
    }
    const int fork_errno = errno;
    out_exhausted = pid > 0 && !announce(pid, callback, arg);
    pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
    errno = out_exhausted ? ENOMEM : fork_errno;
    return out_exhausted ? -1 : pid;
}

// --- Waiting ---

int open_pid(pid_t pid)
{
    return ks::above_stdio(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

// On the list of threads that wait, for as long as it lives.
class Waiting {
  public:
    explicit Waiting(pid_t pid) : waiter_{nullptr, pid, 0, false}
    {
        const ChildrenGuard guard;
        waiter_.next = std::exchange(state.waiters, &waiter_);
        waiter_.has_status = take_death(pid, waiter_.status);
    }
    ~Waiting()
    {
        const ks::LockGuard lock(ks::rt_proc_crit);
        Waiter **link = &state.waiters;
        while (*link != nullptr && *link != &waiter_) // a child of a fork has forgotten it
            link = &(*link)->next;
        if (*link != nullptr)
            *link = waiter_.next;
    }
    Waiting(const Waiting &) = delete;
    Waiting &operator=(const Waiting &) = delete;

    // 1: there is a status. 0: the child lives. -1 with ECHILD: it is gone, and so is its status.
    int look(int32_t &out_status)
    {
        const ChildrenGuard guard;
        int status = 0;
        const pid_t reaped = waiter_.has_status ? 0 : waitpid(waiter_.pid, &status, WNOHANG);
        if (reaped > 0)
            note_death(waiter_.pid, status);
        out_status = waiter_.status;
        return waiter_.has_status ? 1 : reaped;
    }

  private:
    Waiter waiter_;
};

} // namespace

} // namespace ks::proc

void ks::reap_children()
{
    if (ks::proc::state.initialized.load(std::memory_order_acquire))
        ks::proc::rt_proc_signal_catcher(SIGCHLD);
}

int ks::wait_for_child(pid_t pid, int32_t &out_status)
{
    constexpr int look_again_ms = 20; // without a descriptor that tells
    const UniqueFd ending(ks::proc::open_pid(pid));
    ks::proc::Waiting waiting(pid);
    int waited = 0;
    int wait_errno = 0;
    for (;;) {
        const int found = waiting.look(out_status);
        if (found != 0)
            return found > 0 ? 0 : -1;
        if (waited < 0) { // and it was not the child's death that interrupted it
            errno = wait_errno;
            return -1;
        }
        pollfd entry{ending.get(), POLLIN, 0};
        waited = pfm_poll_inhibited(&entry, 1, ending ? -1 : look_again_ms);
        wait_errno = errno;
    }
}

extern "C" {

int rt_proc_initialize(void)
{
    const ks::InhibitGuard inhibited;
    if (ks::proc::take_sigchld())
        return 0;
    (void)imsg_print(ks::msg_error, &_rt_ks_msg_table, rt_msg_sigchld_conflict); // the result says it too
    return -1;
}

pid_t rt_proc_fork(rt_proc_fn callback, void *arg, int kind)
{
    ks::proc::ensure_initialized();
    const ks::ShortInhibitGuard inhibited;
    bool is_exhausted = false;
    const pid_t pid = ks::proc::fork_announced(callback, arg, kind, is_exhausted);
    const ks::ErrnoSaver saver;
    if (is_exhausted)
        ks::proc::report_exhaustion();
    return pid;
}

int rt_proc_birth_announcement(pid_t pid, rt_proc_fn callback, void *arg)
{
    ks::proc::ensure_initialized();
    if (ks::proc::announce(pid, callback, arg))
        return 0;
    ks::proc::report_exhaustion();
    return 1;
}

int rt_proc_disown(pid_t pid)
{
    ks::proc::ensure_initialized();
    const ks::proc::ChildrenGuard guard;
    ks::proc::Child *child = ks::proc::find(pid);
    if (child == nullptr)
        return -1;
    child->shown.callback = nullptr;
    child->shown.arg = nullptr;
    return 0;
}

int rt_proc_killall(void)
{
    ks::proc::ensure_initialized();
    const ks::proc::ChildrenGuard guard;
    const llist_link &list = ks::proc::state.active_list;
    if (ks::proc::is_empty(list))
        return -1;
    for (const llist_link *link = list.next; link != &list; link = link->next)
        (void)procutl_terminate(static_cast<ks::proc::Child *>(link->owner)->shown.pid); // or it has died already
    return 0;
}

int rt_proc_any_procs(void)
{
    ks::proc::ensure_initialized();
    const ks::proc::ChildrenGuard guard;
    return ks::proc::is_empty(ks::proc::state.active_list) && ks::proc::is_empty(ks::proc::state.zombie_list) ? 0 : 1;
}

int rt_proc_alive(pid_t pid)
{
    ks::proc::ensure_initialized();
    const ks::proc::ChildrenGuard guard;
    return ks::proc::find_living(pid) != nullptr ? 1 : 0;
}
}
