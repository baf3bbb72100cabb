// Fork handlers and fork. What holds the library still meanwhile is vlthread_gate.cpp.
#include "kernel/kernel.h"
#include "kernel/vlthread_gate.h"

#include <korvaks/pfm.h>

#include <csignal>
#include <cstdlib>

namespace {

struct ForkHandler {
    vlthread_fork_fn fn;
    llist_link link;
};

// Makes forks follow each other. A plain mutex: nobody enters it twice.
constinit pthread_mutex_t vlthread_fork_mutex = PTHREAD_MUTEX_INITIALIZER;
// Guards the lists. Nothing is taken under it, so that handlers can be registered under any lock, also
// while a fork waits for a handler. Nothing is ever taken off a list.
constinit pthread_mutex_t fork_lists_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit llist_link vlthread_fork_prepare_list{}; // guarded by fork_lists_mutex
constinit llist_link vlthread_fork_parent_list{};  // guarded by fork_lists_mutex
constinit llist_link vlthread_fork_child_list{};   // guarded by fork_lists_mutex
constinit bool is_fork_child = false;              // set once, while there is one thread

bool keeps_ownership(int kind)
{
    return kind >= VLTHREAD_FORK_EXEC && kind <= VLTHREAD_FORK_CONTINUE_3;
}

bool is_short_lived(int kind)
{
    return kind == VLTHREAD_FORK_PLAIN || kind == VLTHREAD_FORK_EXEC;
}

// False on exhaustion. No handler, no node.
bool make_node(vlthread_fork_fn fn, ForkHandler *&out_node)
{
    out_node = nullptr;
    if (fn == nullptr)
        return true;
    // malloc: the thread layer lies below the storage module.
    out_node = static_cast<ForkHandler *>(std::malloc(sizeof(ForkHandler)));
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

// The handlers run without the lock of the list: one step along it at a time.
void run_along(const llist_link *list, llist_link *llist_link::*step, int kind)
{
    for (const llist_link *link = list;;) {
        (void)pthread_mutex_lock(&fork_lists_mutex); // cannot fail for a plain mutex
        link = link->*step;
        (void)pthread_mutex_unlock(&fork_lists_mutex);
        if (link == nullptr || link == list)
            return;
        handler_at(link)->fn(kind);
    }
}

void run_newest_first(const llist_link *list, int kind)
{
    run_along(list, &llist_link::prev, kind);
}

void run_in_order(const llist_link *list, int kind)
{
    run_along(list, &llist_link::next, kind);
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

// Until a child knows what it is, a signal would be sent to a thread that it does not have.
sigset_t block_signals()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before); // cannot fail for a valid `how`
    return before;
}

void restore_signals(const sigset_t &before)
{
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr); // cannot fail for a valid `how`
}

// The signals of a child are its own once its handlers have run.
void restore_signals_in_child(const sigset_t &before, int kind)
{
    restore_signals(before);
    if (is_short_lived(kind))
        pfm_proc_asignals(SIG_UNBLOCK);
    else if (pfm_proc() == PFM_PROCESS_ORDINARY)
        pfm_proc_asignals(SIG_BLOCK);
}

void settle_in_child(int kind)
{
    is_fork_child = true;
    if (keeps_ownership(kind))
        ks::adopt_fork_ownership();
    ks::settle_library_in_child();
    ks::begin_fork_generation();
}

} // namespace

extern "C" {

int vlthread_atfork(vlthread_fork_fn prepare, vlthread_fork_fn parent, vlthread_fork_fn child)
{
    ForkHandler *nodes[3] = {};
    if (!make_node(prepare, nodes[0]) || !make_node(parent, nodes[1]) || !make_node(child, nodes[2])) {
        for (ForkHandler *node : nodes)
            std::free(node);
        return ENOMEM;
    }
    (void)pthread_mutex_lock(&fork_lists_mutex); // cannot fail for a plain mutex
    append(&vlthread_fork_prepare_list, nodes[0]);
    append(&vlthread_fork_parent_list, nodes[1]);
    append(&vlthread_fork_child_list, nodes[2]);
    (void)pthread_mutex_unlock(&fork_lists_mutex);
    return 0;
}

// The handlers of the program run with no lock of the library held but the one that makes forks
// follow each other: they may lock what other threads hold while they call the library.
pid_t vlthread_fork(int kind)
{
    pfm_init();
    const ks::CancelHold hold;
    (void)pthread_mutex_lock(&vlthread_fork_mutex); // cannot fail for a plain mutex
    run_newest_first(&vlthread_fork_prepare_list, kind);
    if (keeps_ownership(kind))
        ks::begin_fork_ownership();
    ks::hold_library();
    const sigset_t before = block_signals();

    (void)pthread_mutex_lock(&fork_lists_mutex); // cannot fail for a plain mutex
    const pid_t child = fork();
    const int fork_errno = errno;
    (void)pthread_mutex_unlock(&fork_lists_mutex);
    if (child < 0 && ks::is_tracing())
        vlthread_trace("vlthread_fork() fails to create child process\n");
    if (child == 0)
        settle_in_child(kind);
    ks::release_library();
    if (child == 0) {
        run_in_order(&vlthread_fork_child_list, kind);
        restore_signals_in_child(before, kind);
    } else { // also after a failure: what the prepare handlers took must be given back
        restore_signals(before);
        run_in_order(&vlthread_fork_parent_list, kind);
    }

    (void)pthread_mutex_unlock(&vlthread_fork_mutex);
    errno = fork_errno;
    return child;
}

void vlthread_fork_begin_clean(void)
{
    ks::vlthread_require(is_fork_child, "is_fork_child");
    ks::fault_block_of_caller()->cl_rec_root = nullptr;
    ks::forget_on_exit_handlers();
}

void vlthread_dump_fork_handlers(void)
{
    if (!ks::is_tracing())
        return;
    (void)pthread_mutex_lock(&fork_lists_mutex); // cannot fail for a plain mutex
    dump_list("Prepare handler:\n", &vlthread_fork_prepare_list);
    dump_list("Parent handler:\n", &vlthread_fork_parent_list);
    dump_list("Child handler:\n", &vlthread_fork_child_list);
    (void)pthread_mutex_unlock(&fork_lists_mutex);
}
}
