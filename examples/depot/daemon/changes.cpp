// Threads that serve calls run this, which may not use what belongs to report().
#include "daemon/changes.h"

#include <cstring>
#include <iterator>

namespace depot {

namespace {

// Of an entry by its name: changes of others wait for each other rarely.
constinit vlthread_mutex_t change_crits[] = {
    VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER,
    VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER, VLTHREAD_MUTEX_INITIALIZER};

vlthread_mutex_t &crit_of(const char *name)
{
    return change_crits[fileutl_crc_buffer(name, std::strlen(name), nullptr) % std::size(change_crits)];
}

} // namespace

ChangeTurn::ChangeTurn(const char *name) : lock_(crit_of(name)) {}

bool check_owner(const Depot &depot, const Caller &caller, const char *name)
{
    if (caller.is_privileged || !has_entry(depot, name))
        return true;
    Depot view; // the depot itself may have a transfer on its way
    view.path = depot.path;
    view.directory = depot.directory;
    UserName user;
    Entry entry;
    mode_t mode = 0;
    const bool is_known = name_user(caller, user) && open_entry(view, name, entry, mode);
    const bool may_change = is_known && (entry.owner.empty() || entry.owner == user);
    end_transfer(view.transfer);
    return may_change || (is_known && fail(msg_not_owner, name));
}

void log_change(const Caller &caller, const char *name, const Failure &failure, DaemonMsg done, DaemonMsg refused)
{
    if (failure.number == msg_put_unknown)
        return;
    char entry[shown_bytes(sizeof failure.name)];
    CallerText who;
    show_in(entry, name);
    describe(caller, who);
    if (failure.number == msg_none) {
        (void)imsg_print(IMSG_OK, daemon_messages, done, entry, who);
        return;
    }
    char reason[sizeof entry + 512];
    (void)imsg_snprintf(reason, sizeof reason, &_depot_ks_msg_table, static_cast<int>(failure.number), entry,
                        imsg_strerror(failure.error));
    (void)imsg_print(IMSG_WARNING, daemon_messages, refused, entry, who, reason);
}

} // namespace depot
