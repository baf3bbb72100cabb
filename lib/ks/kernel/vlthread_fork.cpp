// Fork handlers and fork.
//
// A child has one thread. Whatever another thread of the parent had locked would stay locked in
// the child for ever, so the forking thread holds every process-wide lock and every storage area
// across the fork. Locks that may be held while another of them is waited for cannot be taken
// one after the other by waiting: all of that group are taken at once or not at all.
#include "kernel/kernel.h"

#include "kernel/stg_impl.h"

#include <cstdlib>

#include <sched.h>

namespace {

struct ForkHandler {
    vlthread_fork_fn fn;
    llist_link link;
};

// Guards the lists and forks. A plain mutex: nobody enters it twice.
constinit pthread_mutex_t vlthread_fork_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit llist_link vlthread_fork_prepare_list{}; // guarded by vlthread_fork_mutex
constinit llist_link vlthread_fork_parent_list{};  // guarded by vlthread_fork_mutex
constinit llist_link vlthread_fork_child_list{};   // guarded by vlthread_fork_mutex

bool keeps_ownership(int kind)
{
    return kind >= VLTHREAD_FORK_EXEC && kind <= VLTHREAD_FORK_CONTINUE_3;
}

// False on exhaustion. No handler, no node.
bool make_node(vlthread_fork_fn fn, ForkHandler *&out_node)
{
    out_node = nullptr;
    if (fn == nullptr)
        return true;
    // malloc: the thread layer lies below the storage module.
    out_node = static_cast<ForkHandler *>(malloc(sizeof(ForkHandler)));
    if (out_node == nullptr)
        return false;
    *out_node = {fn, {}};
    return true;
}

void append(llist_link *list, ForkHandler *node)
{
    if (node != nullptr)
        llist_d_insert(list, node, &node->link, LLIST_AT_TAIL);
}

const ForkHandler *handler_at(const llist_link *link)
{
    return static_cast<const ForkHandler *>(link->owner);
}

void run_newest_first(const llist_link *list, int kind)
{
    if (list->next == nullptr)
        return;
    for (const llist_link *link = list->prev; link != list; link = link->prev)
        handler_at(link)->fn(kind);
}

void run_in_order(const llist_link *list, int kind)
{
    if (list->next == nullptr)
        return;
    for (const llist_link *link = list->next; link != list; link = link->next)
        handler_at(link)->fn(kind);
}

void dump_list(const char *title, const llist_link *list)
{
    vlthread_trace("%s", title);
    if (list->next == nullptr)
        return;
    for (const llist_link *link = list->next; link != list; link = link->next)
        vlthread_trace("  ->{handler: 0x%x}\n",
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(handler_at(link)->fn)));
}

// Takes the modules' locks and all areas, or none of them. The message lock is waited for, since
// printing threads may keep it busy for ever; its holders may need any of the others.
bool try_hold_modules()
{
    (void)vlthread_mutex_lock(&ks::ks_product_crit);
    std::size_t held = 0;
    for (vlthread_mutex_t *lock : ks::module_locks()) {
        if (vlthread_mutex_trylock(lock) != 0)
            break;
        ++held;
    }
    if (held == ks::module_locks().size() && ks::stg_try_hold_all_areas())
        return true;
    while (held > 0)
        (void)vlthread_mutex_unlock(ks::module_locks()[--held]); // taken above
    (void)vlthread_mutex_unlock(&ks::ks_product_crit);
    return false;
}

extern "C" void hold_modules(int)
{
    ks::stg_close_fork_gate();
    while (!try_hold_modules())
        (void)sched_yield();
}

extern "C" void release_modules(int)
{
    ks::stg_release_all_areas();
    for (std::size_t i = ks::module_locks().size(); i > 0; --i)
        (void)vlthread_mutex_unlock(ks::module_locks()[i - 1]); // held since the prepare handler
    (void)vlthread_mutex_unlock(&ks::ks_product_crit);
    ks::stg_open_fork_gate();
}

extern "C" void release_modules_in_child(int kind)
{
    ks::stg_forget_foreign_residents();
    release_modules(kind);
}

void run_in_child(int kind)
{
    if (keeps_ownership(kind))
        ks::adopt_fork_ownership();
    ks::drop_foreign_critical_section();
    ks::forget_other_threads();
    run_in_order(&vlthread_fork_child_list, kind);
    if (kind == VLTHREAD_FORK_PLAIN || kind == VLTHREAD_FORK_EXEC)
        pfm_proc_asignals(SIG_UNBLOCK);
}

} // namespace

namespace ks {

void register_library_fork_handlers()
{
    vlthread_require(vlthread_atfork(hold_modules, release_modules, release_modules_in_child) == 0,
                     "vlthread_atfork(hold_modules, release_modules, release_modules_in_child) == 0");
}

} // namespace ks

extern "C" {

int vlthread_atfork(vlthread_fork_fn prepare, vlthread_fork_fn parent, vlthread_fork_fn child)
{
    ForkHandler *nodes[3] = {};
    if (!make_node(prepare, nodes[0]) || !make_node(parent, nodes[1]) || !make_node(child, nodes[2])) {
        for (ForkHandler *node : nodes)
            free(node);
        return ENOMEM;
    }
    (void)pthread_mutex_lock(&vlthread_fork_mutex); // cannot fail for a plain mutex
    append(&vlthread_fork_prepare_list, nodes[0]);
    append(&vlthread_fork_parent_list, nodes[1]);
    append(&vlthread_fork_child_list, nodes[2]);
    (void)pthread_mutex_unlock(&vlthread_fork_mutex);
    return 0;
}

pid_t vlthread_fork(int kind)
{
    pfm_init();
    // Taken first, and so in the same order as by a start of the fault manager, which registers
    // its fork handlers under it.
    (void)vlthread_mutex_lock(&ks::pfm_crit);
    (void)pthread_mutex_lock(&vlthread_fork_mutex); // cannot fail for a plain mutex
    run_newest_first(&vlthread_fork_prepare_list, kind);
    if (keeps_ownership(kind))
        ks::begin_fork_ownership();
    pfm_collect_all_locks();
    (void)vlthread_mutex_lock(&ks::vlthread_lock);

    const pid_t child = fork();
    const int fork_errno = errno;
    if (child < 0 && ks::is_tracing())
        vlthread_trace("vlthread_fork() fails to create child process\n");
    if (child == 0)
        run_in_child(kind);
    else // also after a failure: what the prepare handlers took must be given back
        run_in_order(&vlthread_fork_parent_list, kind);

    (void)vlthread_mutex_unlock(&ks::vlthread_lock);
    pfm_release_all_locks();
    (void)pthread_mutex_unlock(&vlthread_fork_mutex);
    (void)vlthread_mutex_unlock(&ks::pfm_crit);
    errno = fork_errno;
    return child;
}

void vlthread_dump_fork_handlers(void)
{
    if (!ks::is_tracing())
        return;
    (void)pthread_mutex_lock(&vlthread_fork_mutex); // cannot fail for a plain mutex
    dump_list("Prepare handler:\n", &vlthread_fork_prepare_list);
    dump_list("Parent handler:\n", &vlthread_fork_parent_list);
    dump_list("Child handler:\n", &vlthread_fork_child_list);
    (void)pthread_mutex_unlock(&vlthread_fork_mutex);
}
}
