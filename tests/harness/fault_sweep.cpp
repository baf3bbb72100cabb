#include "harness/fault_sweep.h"

#include "harness/match.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test::fault {

namespace {

constexpr int exit_fault = 86; // a run was not as it should be; the report says what
constexpr int silent_ms_max = 20000;
constexpr int poll_ms = 1000;
constexpr int faults_max = 10;
constexpr int fds_watched = 256;

// Plans that differ only in the place of the failure.
struct Family {
    Call call;
    int answer;
    bool goes_on;
};

// The next run to make.
struct Cursor {
    std::size_t family = 0;
    long nth = 1;
};

// What is left of a round: a scenario from setup to cleanup.
struct Leftover {
    long blocks = 0;
    int fds = 0;
};

// Written by children, read by the parent.
struct Record {
    Cursor cursor;
    bool fired = false;   // the run made last
    bool is_clean = true; // the run under way is undisturbed
    std::atomic<long> runs{0};
    Seen seen;         // of the undisturbed run
    Leftover leftover; // of it, for a first use
    char report[2048]{};
};

struct Sweep {
    const Scenario *scenario;
    Mode mode;
    unsigned seeds;
    Record *record;
    int said_fd; // takes what children write to descriptor 2
    std::vector<End> ends{};
    std::vector<Family> families{};
};

// --- In a child ---

constinit int said_to = -1;
constinit char said[1 << 16]{};

const char *read_said(int fd)
{
    const ssize_t got = pread(fd, said, sizeof said - 1, 0);
    said[got > 0 ? got : 0] = '\0';
    return said;
}

int open_fds()
{
    int count = 0;
    for (int fd = 0; fd < fds_watched; ++fd)
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    return count;
}

// Whether the lock is or soon becomes free. The signal-handler thread takes locks while it starts, so
// that one held for an instant is no fault; one that nobody gives back stays held.
bool becomes_free(const vlthread_mutex_t &mutex)
{
    const auto owner = [&mutex] { return __atomic_load_n(&mutex.owner, __ATOMIC_RELAXED); };
    for (int i = 0; i < 1000 && owner() != VLTHREAD_INVALID_TID && owner() != vlthread_self(); ++i)
        usleep(1000);
    return owner() == VLTHREAD_INVALID_TID;
}

// What the calling thread or the process holds that it should not, or NULL.
const char *held()
{
    for (const vlthread_mutex_t *lock : ks::process_locks()) {
        if (!becomes_free(*lock))
            return "a process-wide lock is held";
    }
    const pfm_fault_block *block = pfm_tls_get();
    if (block->pfm_inh_count != 0 || block->pfm_inh_susp != 0 || block->susp_share != 0)
        return "raises are held off";
    if (block->cl_rec_root != nullptr)
        return "a cleanup record is left";
    if (block->held_ordered.next != nullptr && block->held_ordered.next != &block->held_ordered)
        return "an ordered lock is held";
    return nullptr;
}

void call(const std::function<void()> &step)
{
    if (step)
        step();
}

// Runs `act` by the plan. Only where raises are looked at it runs under a record, so that a first
// use is one.
Trial disturb(const Sweep &sweep, const Plan &plan, Seen &out_seen)
{
    Trial trial{.plan = plan};
    const auto act = [&] {
        begin(plan);
        errno = 0;
        trial.is_done = sweep.scenario->act();
        trial.error = errno;
    };
    if (sweep.mode == Mode::raises)
        trial.raised = ks::protect(act);
    else
        act();
    out_seen = end();
    if (trial.raised != 0)
        pfm_enable();
    trial.fired = out_seen.fired;
    return trial;
}

// What is wrong with a run, or NULL: the operation is done as it should be, or refused for a cause
// with everything as it was.
const char *judge(const Sweep &sweep, const Trial &trial)
{
    const Scenario &scenario = *sweep.scenario;
    if (const char *wrong = scenario.check ? scenario.check(trial) : nullptr; wrong != nullptr)
        return wrong;
    if (trial.raised != 0)
        return nullptr;
    if (sweep.mode == Mode::raises && trial.fired && take_raise() != trial.plan.answer)
        return "the raise was lost";
    if (trial.is_done && trial.fired && scenario.notices && sweep.mode != Mode::raises)
        return "a failing call goes unseen";
    if (trial.is_done)
        return !scenario.gives || scenario.gives(trial) ? nullptr : "done, and not as it should be";
    if (!trial.fired)
        return "refused without a cause";
    if (scenario.keeps && !scenario.keeps(trial))
        return "refused, and not as before";
    if (scenario.sets_errno && trial.error != (trial.plan.noise != 0 ? EINTR : trial.plan.answer))
        return "errno is not the failing call's";
    return !trial.failed(Call::allocation) || has_said(scenario.says) ? nullptr : "the exhaustion is not reported";
}

[[noreturn]] [[gnu::format(printf, 2, 3)]] void report(const Sweep &sweep, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    (void)vsnprintf(sweep.record->report, sizeof sweep.record->report, format, args);
    va_end(args);
    _exit(exit_fault);
}

void require_nothing_lost(const Sweep &sweep, const char *what, const Leftover &leftover, const Leftover &allowed)
{
    if (leftover.blocks > allowed.blocks)
        report(sweep, "%s: %ld blocks lost", what, leftover.blocks - allowed.blocks);
    if (leftover.fds != allowed.fds)
        report(sweep, "%s: %d descriptors lost", what, leftover.fds - allowed.fds);
}

Leftover leftover_now()
{
    return {blocks_outstanding(), open_fds()};
}

Leftover leftover_since(const Leftover &before)
{
    return {blocks_outstanding() - before.blocks, open_fds() - before.fds};
}

// One round, which must be as it should. What is made at a first use may be left behind.
Seen round(const Sweep &sweep, const char *what, const Plan &plan, bool may_keep = false)
{
    Seen seen;
    sweep.record->is_clean = plan.nth == 0 && plan.noise == 0;
    (void)!ftruncate(said_to, 0);
    const Leftover before = leftover_now();
    call(sweep.scenario->setup);
    const Trial trial = disturb(sweep, plan, seen);
    const char *wrong = judge(sweep, trial);
    if (wrong == nullptr)
        wrong = held();
    call(sweep.scenario->cleanup);
    if (wrong != nullptr)
        report(sweep, "%s: %s; it said:\n%s", what, wrong, read_said(said_to));
    if (!may_keep)
        require_nothing_lost(sweep, what, leftover_since(before), {});
    return seen;
}

// What a run writes to descriptor 2. Appended to, so that the lines of two threads stay whole.
int make_said_file()
{
    const int fd = memfd_create("said", MFD_CLOEXEC);
    return fd >= 0 && fcntl(fd, F_SETFL, O_APPEND) == 0 ? fd : -1;
}

void redirect(const Sweep &sweep)
{
    const rlimit no_core{0, 0};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    setpgid(0, 0);
    signal(SIGPIPE, SIG_IGN);
    said_to = sweep.said_fd;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (dup2(nowhere, STDOUT_FILENO) < 0 || dup2(said_to, STDERR_FILENO) < 0)
        _exit(exit_fault);
    close(nowhere);
}

// The signal-handler thread answers these only when it has started.
void await_handler_thread()
{
    pfm_signal_handler_chg_block_sig(SIG_BLOCK, SIGCHLD);
    pfm_signal_handler_chg_block_sig(SIG_UNBLOCK, SIGCHLD);
}

// Does everything that the library does once.
void start_library()
{
    pfm_init();
    imsg_initialize();
    (void)imsg_print(0, &_ks_ks_msg_table, 15);
    (void)ks_tls_get();
    await_handler_thread();
}

// Starts the library and lets the scenario make its caches.
void warm_up(const Sweep &sweep)
{
    start_library();
    for (int i = 0; i < 2; ++i)
        (void)round(sweep, "undisturbed", {}, true);
}

Plan plan_at(const Sweep &sweep, const Cursor &cursor)
{
    if (sweep.mode == Mode::noise)
        return {.call = Call::read, .noise = static_cast<unsigned>(cursor.nth)};
    const Family &family = sweep.families[cursor.family];
    return {family.call, cursor.nth, family.goes_on, family.answer, 0};
}

// A first use, the same once more, and then all that is made once and kept: what is kept in the end
// does not depend on what failed at the beginning.
Leftover use_first(const Sweep &sweep, const Plan &plan, Seen &out_seen)
{
    const Leftover before = leftover_now();
    out_seen = round(sweep, "disturbed", plan, true);
    sweep.record->fired = out_seen.fired;
    if (pfm_proc() != PFM_PROCESS_INVALID)
        await_handler_thread(); // what fails in it belongs to this round
    (void)round(sweep, "undisturbed behind it", {}, true);
    start_library();
    return leftover_since(before);
}

// What the undisturbed run before all others must leave, and the calls it makes.
void run_clean(const Sweep &sweep)
{
    Record &record = *sweep.record;
    if (sweep.mode == Mode::first_use) {
        record.leftover = use_first(sweep, {}, record.seen);
    } else {
        warm_up(sweep);
        record.seen = round(sweep, "undisturbed", {});
    }
}

void run_disturbed(const Sweep &sweep, const Plan &plan)
{
    Record &record = *sweep.record;
    Seen seen;
    if (sweep.mode == Mode::first_use) {
        require_nothing_lost(sweep, "in the end", use_first(sweep, plan, seen), record.leftover);
    } else {
        record.fired = round(sweep, "disturbed", plan).fired;
        if (record.fired)
            (void)round(sweep, "undisturbed behind it", {});
    }
}

// False when the sweep is over.
bool advance(const Sweep &sweep, Cursor &cursor, bool fired)
{
    if (sweep.mode == Mode::noise)
        return ++cursor.nth <= static_cast<long>(sweep.seeds);
    if (fired) {
        ++cursor.nth;
        return true;
    }
    ++cursor.family;
    cursor.nth = 1;
    return cursor.family < sweep.families.size();
}

void run_from_cursor(const Sweep &sweep)
{
    Record &record = *sweep.record;
    const bool is_first_use = sweep.mode == Mode::first_use; // one run in a process
    if (!is_first_use)
        warm_up(sweep);
    bool goes_on = true;
    while (goes_on) {
        run_disturbed(sweep, plan_at(sweep, record.cursor));
        ++record.runs;
        goes_on = !is_first_use && advance(sweep, record.cursor, record.fired);
    }
}

// --- In the test's process ---

struct Outcome {
    bool hangs;
    int wait_status;

    bool is_exit(int status) const { return !hangs && WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == status; }
    bool is_signal(int sig) const { return !hangs && WIFSIGNALED(wait_status) && WTERMSIG(wait_status) == sig; }
};

// Waits until the child ends, or makes no progress for too long.
Outcome wait_for(pid_t pid, const Record &record)
{
    const int pid_fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pollfd ending{pid_fd, POLLIN, 0};
    long runs = record.runs;
    int silent_ms = 0;
    int wait_status = 0;
    while (poll(&ending, 1, poll_ms) <= 0 && silent_ms < silent_ms_max) {
        silent_ms = record.runs == runs ? silent_ms + poll_ms : 0;
        runs = record.runs;
    }
    const bool hangs = silent_ms >= silent_ms_max;
    kill(-pid, SIGKILL); // also what it has forked
    if (hangs)
        kill(pid, SIGKILL);
    waitpid(pid, &wait_status, 0);
    close(pid_fd);
    return {hangs, wait_status};
}

Outcome run_child(const Sweep &sweep, void (*body)(const Sweep &))
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        redirect(sweep);
        body(sweep);
        _exit(0);
    }
    return wait_for(pid, *sweep.record);
}

std::string describe(const Plan &plan)
{
    if (plan.noise != 0)
        return "noise of seed " + std::to_string(plan.noise);
    if (plan.nth == 0)
        return "undisturbed";
    std::string text = std::string(name_of(plan.call)) + " " + std::to_string(plan.nth);
    text += plan.goes_on ? " and all behind it: " : ": ";
    if (plan.answer == answer_short)
        return text + "a part";
    if (plan.answer == answer_end)
        return text + "the end";
    return text + (plan.call == Call::raise ? "a raise" : strerrorname_np(plan.answer));
}

// Whether some line of `text` ends as `pattern` says. It need not be the last: until the process is
// gone its other threads may write behind it.
bool has_line_end(const std::string &text, std::string_view pattern)
{
    std::string expression = ".*";
    for (const char c : pattern) {
        const bool is_plain = std::isalnum(static_cast<unsigned char>(c)) != 0 || c == ' ' || c == '\n';
        expression += c == '#' ? "[[:xdigit:]]+" : is_plain ? std::string(1, c) : std::string("[") + c + "]";
    }
    return test::matches(text, expression + ".*");
}

bool is_end(const End &end, Call call, const std::string &text)
{
    if (end.call != call)
        return false;
    if (*end.text != '\0')
        return has_line_end(text, end.text);
    return text.find("ASSERT") == text.npos && text.find("ABORT") == text.npos && text.find("assertion") == text.npos;
}

// Judges how the child ended in the middle of a run; adds the named end it met.
bool is_documented(const Sweep &sweep, const Outcome &outcome, std::set<const End *> &met)
{
    if (!outcome.is_signal(SIGABRT) || sweep.record->is_clean || !end().fired)
        return false;
    const std::string text = read_said(sweep.said_fd);
    // An abort without a word is what none of the others explains.
    const Call call = plan_at(sweep, sweep.record->cursor).call;
    const End *found = nullptr;
    for (const End &end : sweep.ends) {
        if (is_end(end, call, text) && (found == nullptr || (*found->text == '\0' && *end.text != '\0')))
            found = &end;
    }
    if (found != nullptr)
        met.insert(found);
    return found != nullptr;
}

std::string fate_text(const Sweep &sweep, const Outcome &outcome)
{
    if (outcome.is_exit(exit_fault))
        return sweep.record->report;
    const std::string said_so_far = std::string("; it said:\n") + read_said(sweep.said_fd);
    if (outcome.hangs)
        return "it hangs" + said_so_far;
    if (WIFSIGNALED(outcome.wait_status))
        return "ended by signal " + std::to_string(WTERMSIG(outcome.wait_status)) + said_so_far;
    return "ended with status " + std::to_string(WEXITSTATUS(outcome.wait_status)) + said_so_far;
}

void make_families(Sweep &sweep)
{
    if (sweep.mode == Mode::noise)
        return sweep.families.push_back({});
    for (std::size_t i = 0; i < call_kinds; ++i) {
        const Call kind = static_cast<Call>(i);
        const auto &spared = sweep.scenario->spared;
        if ((kind == Call::raise) != (sweep.mode == Mode::raises) || sweep.record->seen.calls[i] == 0 ||
            std::find(spared.begin(), spared.end(), kind) != spared.end())
            continue;
        for (const int answer : answers_of(kind)) {
            sweep.families.push_back({kind, answer, false});
            // One run per delivery check: a record cannot be left while each check raises anew.
            if (kind != Call::raise)
                sweep.families.push_back({kind, answer, true});
        }
    }
    EXPECT_TRUE(!sweep.families.empty() || !can_fail_allocations()) << sweep.scenario->name << ": nothing to disturb";
}

void report_unmet_ends(const Sweep &sweep, const std::set<const End *> &met)
{
    for (const End &end : sweep.ends) {
        const bool can_fail = end.call != Call::allocation || can_fail_allocations();
        if (met.count(&end) == 0 && !end.is_rare && can_fail)
            ADD_FAILURE() << sweep.scenario->name << ": no failure of " << name_of(end.call) << " ends it with \""
                          << end.text << '"';
    }
}

void run_all(Sweep &sweep)
{
    Record &record = *sweep.record;
    std::set<const End *> met;
    int faults = 0;
    for (bool goes_on = true; goes_on && faults < faults_max;) {
        const Outcome outcome = run_child(sweep, run_from_cursor);
        if (!outcome.is_exit(0)) {
            if (!is_documented(sweep, outcome, met)) {
                ++faults;
                ADD_FAILURE() << sweep.scenario->name << ", " << describe(plan_at(sweep, record.cursor)) << ": "
                              << fate_text(sweep, outcome);
            }
            record.fired = true;
            ++record.runs;
        } else if (sweep.mode != Mode::first_use) {
            break;
        }
        goes_on = advance(sweep, record.cursor, record.fired);
    }
    if (faults == 0 && (sweep.mode == Mode::warm || sweep.mode == Mode::first_use))
        report_unmet_ends(sweep, met);
}

// The ends that a start of the library is documented to have. Any first use may contain one.
const End ends_of_start[] = {
    // The thread's fault block and library block.
    {Call::allocation, " (pfm): [P#][T#]Unable to set PFM TLS #\n", true},
    {Call::key, " (pfm): [P#][T#]Unable to set PFM TLS #\n", true},
    {Call::allocation, "area != STG_AREA_NULL at 'vlthread':1670\n", true},
    {Call::allocation, "***ABORT***  'include/tls_impl':140\n", true},
    {Call::key, "***ABORT***  'include/tls_impl':140\n", true},
    // The entry on the state list, the signal-handler thread and what it waits on.
    {Call::allocation, "", true},
    {Call::thread, "", true},
    {Call::eventfd, "", true},
    // What the fault manager cannot be without.
    {Call::pipe, "(pfm_setup_pipe(pfm_notify_pipe, FALSE, FALSE) == 0) failed: 'lib/ks/pfm':1859\n", true},
    {Call::at_exit, "(atexit(pfm_atexit_handler) == 0) failed: 'lib/ks/pfm':#\n", true},
    {Call::allocation,
     "(vlthread_atfork(pfm_thread_fork_prepare, NULL, pfm_thread_fork_child) == 0) failed: 'lib/ks/pfm':#\n", true},
};

} // namespace

void run_sweep(const Scenario &scenario, Mode mode, unsigned seeds)
{
    void *page = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    Sweep sweep{&scenario, mode, seeds, new (page) Record, make_said_file(), scenario.ends};
    ASSERT_GE(sweep.said_fd, 0);
    if (mode == Mode::first_use)
        sweep.ends.insert(sweep.ends.end(), std::begin(ends_of_start), std::end(ends_of_start));
    if (const Outcome outcome = run_child(sweep, run_clean); !outcome.is_exit(0))
        ADD_FAILURE() << scenario.name << ", undisturbed: " << fate_text(sweep, outcome);
    else
        make_families(sweep);
    if (!sweep.families.empty())
        run_all(sweep);
    close(sweep.said_fd);
    munmap(page, sizeof(Record));
}

int32_t take_raise()
{
    const int32_t status = vlthread_pending_raise(nullptr);
    vlthread_reset_raise(nullptr);
    pfm_flush_notify_channel();
    return status;
}

bool has_said(const char *text)
{
    return std::strstr(read_said(said_to), text) != nullptr;
}

} // namespace test::fault
