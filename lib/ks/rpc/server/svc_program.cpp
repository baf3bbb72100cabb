// The programs that are served.
#include "rpc/server/svc_impl.h"

#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cstdlib>

namespace {

struct Program {
    Program *next;
    uint32_t program;
    uint32_t version;
    ks_svc_dispatch dispatch;
};

constinit Program *ks_svc_head = nullptr; // newest first; guarded by ks_svc_lock

// The link to a pair's record, or the last one, which is NULL.
Program **find(uint32_t program, uint32_t version)
{
    Program **link = &ks_svc_head;
    while (*link != nullptr && ((*link)->program != program || (*link)->version != version))
        link = &(*link)->next;
    return link;
}

// A fork does not wait for the lock: at each moment the list is whole.
void publish(Program *&link, Program *to)
{
    __atomic_store_n(&link, to, __ATOMIC_RELEASE);
}

void warn_of_lock_kept(rpcprog_t prog, rpcvers_t vers)
{
    static constinit std::atomic<bool> was_said{false};
    if (!was_said.exchange(true))
        (void)ks_warnx("ks_svc_unregister: program %lu version %lu is not registered: no call is served any more",
                       static_cast<unsigned long>(prog), static_cast<unsigned long>(vers));
}

} // namespace

namespace ks::svc {

Found find_program(rpcprog_t program, rpcvers_t version)
{
    const ks::ReadGuard lock(ks::ks_svc_lock);
    Found found{nullptr, false, ~rpcvers_t{0}, 0};
    for (const Program *at = ks_svc_head; at != nullptr; at = at->next) {
        if (at->program != program)
            continue;
        if (at->version == version) {
            found.dispatch = at->dispatch;
            return found;
        }
        found.is_program_known = true;
        found.low = std::min<rpcvers_t>(found.low, at->version);
        found.high = std::max<rpcvers_t>(found.high, at->version);
    }
    return found;
}

} // namespace ks::svc

extern "C" {

bool_t ks_svc_register(SVCXPRT *, rpcprog_t prog, rpcvers_t vers, ks_svc_dispatch dispatch, int protocol)
{
    ks::svc::here.require(dispatch != nullptr, "dispatch != NULL");
    if (protocol != 0)
        return FALSE; // telling a binder is another layer's
    const auto program = static_cast<uint32_t>(prog);
    const auto version = static_cast<uint32_t>(vers);
    const ks::WriteGuard lock(ks::ks_svc_lock);
    if (const Program *known = *find(program, version))
        return known->dispatch == dispatch ? TRUE : FALSE;
    auto *added = static_cast<Program *>(std::malloc(sizeof(Program)));
    if (added == nullptr)
        return FALSE;
    *added = {ks_svc_head, program, version, dispatch};
    publish(ks_svc_head, added);
    return TRUE;
}

void ks_svc_unregister(rpcprog_t prog, rpcvers_t vers)
{
    vlthread_rwlock_t &rwlock = ks::ks_svc_lock.rwlock;
    (void)vlthread_rwlock_wrlock(&rwlock);
    Program **link = find(static_cast<uint32_t>(prog), static_cast<uint32_t>(vers));
    Program *removed = *link;
    if (removed == nullptr) {
        // Kept exactly: the lock stays taken, and callers unregister only what they have registered.
        warn_of_lock_kept(prog, vers);
        return;
    }
    publish(*link, removed->next);
    (void)vlthread_rwlock_unlock(&rwlock);
    std::free(removed);
}
}
