// What becomes of a server in a child that goes on as a process of its own.
#include "rpc/server/svc_impl.h"

namespace ks::svc {

namespace {

// A thread that is not in the child may have left one of these in the middle of a change. The child closes its copy of
// the socket and touches nothing else.
void drop_served(Transport &transport)
{
    __ks_xprt_unregister_unlocked(handle_of(transport));
    close_socket(transport);
}

void settle_table(const InheritedPool &pool)
{
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    for_each_transport_locked([&pool](Transport &transport) {
        const bool is_served = __atomic_load_n(&transport.holds, __ATOMIC_RELAXED) > 1;
        if (!is_served)
            ks_fd_add(&ks_svc_fdset, fd_of(transport));
        else if (pool.had_workers && &transport != pool.own)
            drop_served(transport);
    });
}

extern "C" void svc_fork_child(int kind)
{
    if (kind != VLTHREAD_FORK_CONTINUE && kind != VLTHREAD_FORK_CONTINUE_3)
        return;
    const InheritedPool pool = drop_inherited_pool();
    drop_inherited_pipe();
    drop_inherited_backlogs();
    settle_table(pool);
}

} // namespace

bool watch_forks()
{
    static constinit bool is_watching = false; // guarded by ks_svc_fd_lock
    is_watching = is_watching || vlthread_atfork(nullptr, nullptr, svc_fork_child) == 0;
    return is_watching;
}

} // namespace ks::svc
