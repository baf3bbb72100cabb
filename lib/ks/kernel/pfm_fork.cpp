// What the fault manager does around a fork.
#include "kernel/pfm_impl.h"

namespace ks::fault {

namespace {

// The forking thread owned the innermost cleanup record. Written and read across one fork, and forks
// follow each other.
constinit bool pfm_cleanup_thread = false;

bool continues_as_full_process(int kind)
{
    return kind != VLTHREAD_FORK_PLAIN && kind != VLTHREAD_FORK_EXEC;
}

void adopt_cleanup_records()
{
    pfm_cleanup_rec *root = ks::fault_block_of_caller()->cl_rec_root;
    here.require(root != nullptr, "cl_rec_root != NULL", 2271);
    for (pfm_cleanup_rec *rec = root; rec != nullptr; rec = rec->next)
        rec->thr_id = vlthread_self();
}

extern "C" void pfm_thread_fork_prepare(int kind)
{
    if (kind == VLTHREAD_FORK_PLAIN)
        return;
    const pfm_cleanup_rec *root = ks::fault_block_of_caller()->cl_rec_root;
    pfm_cleanup_thread = root != nullptr && vlthread_equal(root->thr_id, vlthread_self());
}

extern "C" void pfm_thread_fork_child(int kind)
{
    forget_signal_handler_thread(); // it does not exist here
    keep_only_own_inhibits();
    if (!continues_as_full_process(kind)) {
        pfm_type.store(PFM_PROCESS_FORK_CHILD, std::memory_order_relaxed);
        // Made anew on first use: a child that only execs needs none.
        drop_inherited_notify_channel();
        return;
    }
    renew_notify_channel();
    if (type() != PFM_PROCESS_FORK_CHILD)
        start_signal_handler_thread();
    if (pfm_cleanup_thread)
        adopt_cleanup_records();
}

constexpr std::array fork_locks{&ks::pfm_crit, &ks::pfm_exit_crit, &ks::pfm_inh_susp_crit, &ks::pfm_libc_handler_crit};

} // namespace

void register_fork_handlers()
{
    here.require(vlthread_atfork(pfm_thread_fork_prepare, nullptr, pfm_thread_fork_child) == 0,
                 "vlthread_atfork(pfm_thread_fork_prepare, NULL, pfm_thread_fork_child) == 0");
}

} // namespace ks::fault

extern "C" {

void pfm_collect_all_locks(void)
{
    for (vlthread_mutex_t *lock : ks::fault::fork_locks)
        (void)vlthread_mutex_lock(lock);
}

void pfm_release_all_locks(void)
{
    for (std::size_t i = ks::fault::fork_locks.size(); i > 0; --i)
        (void)vlthread_mutex_unlock(ks::fault::fork_locks[i - 1]); // taken by pfm_collect_all_locks()
}
}
