#include "daemon/watch.h"

#include "daemon/daemon_msg.h"
#include "depot_names.h"
#include "depot_report.h"

#include <korvaks/ks_proc.h>
#include <korvaks/rt_proc.h>

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace depot {

namespace {

constexpr unsigned batch_max = 100;         // entries for one child
constexpr std::uint64_t area_bytes = 65536; // for the names of a usual depot
constexpr long patience = 10;               // seconds until a child that was told to end is killed

// An entry as it was when it was handed to a child.
struct Known {
    timespec changed;
    off_t bytes;
    ino_t inode;
};
constexpr Known unlike_any{{}, -1, 0};

bool is_as_known(const Known &known, const struct stat &status)
{
    return known.inode == status.st_ino && known.bytes == status.st_size &&
           known.changed.tv_sec == status.st_mtim.tv_sec && known.changed.tv_nsec == status.st_mtim.tv_nsec;
}

Known *find(const hash_ht *table, const char *name)
{
    void *data = nullptr;
    (void)hash_str_lookup(table, name, nullptr, &data);
    return static_cast<Known *>(data);
}

// An entry of which nothing can be noted for want of memory is verified the next time, too.
void note(hash_ht *table, const char *name, const Known &known)
{
    void *data = nullptr;
    (void)hash_str_enter(table, name, nullptr, &data);
    if (data != nullptr)
        *static_cast<Known *>(data) = known;
}

// What a child verifies: words of its command line.
struct Batch {
    unsigned count = 0;
    bool is_full = false;
    const char *names[batch_max];
};

// Sees whether an entry has to be verified, and notes in the new table what is known of it now.
void look_at_entry(const Watch &watch, const char *name, Batch &batch, hash_ht *now_known)
{
    struct stat status;
    if (fstatat(watch.depot.directory, EntryFile(name).name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return; // gone in this moment
    const Known *const known = find(watch.known, name);
    const bool is_due = known == nullptr || !is_as_known(*known, status);
    const bool is_taken = is_due && batch.count < batch_max;
    if (is_taken) {
        batch.names[batch.count++] = name;
        note(now_known, name, {status.st_mtim, status.st_size, status.st_ino});
    } else if (known != nullptr) {
        note(now_known, name, *known);
    }
    batch.is_full = batch.is_full || is_due != is_taken;
}

// A table is made anew each time: one with copied keys never gives them back.
void replace_known(Watch &watch, hash_ht *now_known)
{
    for (const auto &[name, known] : korvaks::str_cells<Known>(watch.known))
        if (find(now_known, name) == nullptr)
            say(IMSG_OK, msg_daemon_gone, shown(name));
    hash_delete_ht(&watch.known);
    watch.known = now_known;
}

void look(void *watch);

void look_later(Watch &watch, long seconds)
{
    if (watch.at_rest == nullptr)
        watch.timer = rt_sched(look, &watch, seconds);
}

void end_if_stopping(const Watch &watch)
{
    if (watch.verifying == 0 && watch.at_rest != nullptr)
        watch.at_rest();
}

void report_end(const Watch &watch, int32_t status)
{
    if (WIFSIGNALED(status))
        say(IMSG_ERROR, msg_daemon_died, strsignal(WTERMSIG(status)));
    else if (WEXITSTATUS(status) == 0)
        say(IMSG_OK, msg_daemon_verified, watch.count);
    else
        say(IMSG_ERROR, msg_daemon_unsound, watch.count);
}

extern "C" void note_end(pid_t, int32_t status, void *argument, rt_proc_child *)
{
    Watch &watch = *static_cast<Watch *>(argument);
    watch.verifying = 0;
    report_end(watch, status);
    look_later(watch, watch.is_more ? 0 : watch.interval);
    end_if_stopping(watch);
}

// Starts a child; false when there is none, which has been reported.
bool verify(Watch &watch, const Batch &batch)
{
    const char *words[batch_max + 6] = {watch.verifier, "verify", "-depot", watch.depot.path, "--"};
    std::memcpy(words + 5, batch.names, batch.count * sizeof *words);
    ks_proc_result child = {};
    if (ks_proc_create_process(const_cast<char *const *>(words), nullptr, 0, 0, 0, &child) == 0)
        return false;
    watch.verifying = child.pid;
    watch.count = batch.count;
    watch.is_more = batch.is_full;
    if (rt_proc_birth_announcement(child.pid, note_end, &watch) == 0)
        return true;
    watch.verifying = 0; // it has been told to end
    return false;
}

// Whether a child runs now.
bool look_around(Watch &watch, stg_area *area)
{
    Names names;
    if (!list_names(watch.depot, area, names))
        return false;
    hash_ht *const now_known = hash_str_create(names.count, sizeof(Known), 1);
    if (now_known == nullptr)
        return false;
    Batch batch;
    for (std::size_t i = 0; i < names.count; ++i)
        look_at_entry(watch, names.items[i], batch, now_known);
    replace_known(watch, now_known);
    if (batch.count == 0 || verify(watch, batch))
        return batch.count > 0;
    for (unsigned i = 0; i < batch.count; ++i)
        note(watch.known, batch.names[i], unlike_any);
    return false;
}

void look(void *argument)
{
    Watch &watch = *static_cast<Watch *>(argument);
    watch.timer = nullptr;
    bool is_verifying = false;
    if (!korvaks::with_area(area_bytes, [&](stg_area *area) { is_verifying = look_around(watch, area); }))
        say(IMSG_ERROR, msg_daemon_no_memory, watch.interval);
    if (!is_verifying)
        look_later(watch, watch.interval);
}

void kill_child(void *argument)
{
    if (const Watch &watch = *static_cast<Watch *>(argument); watch.verifying != 0)
        (void)kill(watch.verifying, SIGKILL); // not reaped yet: its death is reported by note_end()
}

} // namespace

bool start_watch(Watch &watch)
{
    watch.known = hash_str_create(0, sizeof(Known), 1);
    if (watch.known == nullptr)
        return false;
    look(&watch);
    return true;
}

void stop_watch(Watch &watch, void (*at_rest)())
{
    watch.at_rest = at_rest;
    if (watch.timer != nullptr)
        (void)rt_unsched(watch.timer);
    watch.timer = nullptr;
    if (watch.verifying != 0) {
        (void)rt_proc_killall();
        (void)rt_sched(kill_child, &watch, patience);
    }
    end_if_stopping(watch);
}

} // namespace depot
