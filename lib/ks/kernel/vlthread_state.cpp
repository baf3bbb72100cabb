// The state list: one entry per known thread, which carries the raise status pending for it.
#include "kernel/kernel.h"

#include <cstdlib>

namespace {

// All threads of the process the library knows.
constinit llist_link vlthread_state_list{}; // guarded by vlthread_lock
#define VLTHREAD_LIST_FIRST(head) ((head)->next)
#define VLTHREAD_LIST_LAST(head) ((head)->prev)

// Calls `visit(entry)` for each entry until it returns true; `visit` may unlink the entry.
// Returns the entry it stopped at.
template <typename Visit> vlthread_state *find_state(Visit visit)
{
    if (vlthread_state_list.next == nullptr)
        return nullptr;
    for (llist_link *link = vlthread_state_list.next; link != &vlthread_state_list;) {
        auto *entry = static_cast<vlthread_state *>(link->owner);
        link = link->next;
        if (visit(entry))
            return entry;
    }
    return nullptr;
}

vlthread_state *find_thread(vlthread_t tid)
{
    return find_state([tid](const vlthread_state *entry) { return entry->tid == tid; });
}

void forget(vlthread_state *entry)
{
    (void)llist_d_remove(&entry->link); // the owner is the entry
    std::free(entry);
}

// The entry of `tid`, and no raise pending in it: it is a thread's that ended without a word.
vlthread_state *renew_known(vlthread_t tid)
{
    vlthread_state *const known = find_thread(tid);
    if (known == nullptr)
        return nullptr;
    if (ks::is_tracing())
        vlthread_trace("thread %lu has already been in state list.\n", static_cast<unsigned long>(tid));
    __atomic_store_n(&known->raise_status, 0, __ATOMIC_RELAXED);
    return known;
}

} // namespace

namespace ks {

void require_no_threads()
{
    const llist_link *list = &vlthread_state_list;
    vlthread_require(VLTHREAD_LIST_FIRST(list) == nullptr && VLTHREAD_LIST_LAST(list) == nullptr,
                     "VLTHREAD_LIST_FIRST(&vlthread_state_list) == NULL && "
                     "VLTHREAD_LIST_LAST(&vlthread_state_list) == NULL");
}

vlthread_state *add_thread_to_process(vlthread_t tid)
{
    if (is_tracing())
        vlthread_trace("Adding thread %lu to process\n", static_cast<unsigned long>(tid));
    // malloc: the thread layer lies below the storage module. Obtained before the lock is taken.
    auto *fresh = static_cast<vlthread_state *>(std::malloc(sizeof(vlthread_state)));
    if (fresh == nullptr) {
        if (is_tracing())
            vlthread_trace("Fail to add thread %lu to process", static_cast<unsigned long>(tid));
        std::abort();
    }
    *fresh = {tid, 0, {}};
    const LockGuard lock(vlthread_lock);
    if (vlthread_state *const known = renew_known(tid); known != nullptr) {
        std::free(fresh);
        return known;
    }
    llist_d_insert(&vlthread_state_list, fresh, &fresh->link, LLIST_AT_TAIL);
    return fresh;
}

void adopt_own_state()
{
    const LockGuard lock(vlthread_lock); // a creator has it until the entry is there
    fault_block_of_caller()->state = find_thread(self());
}

void remove_thread_from_process(vlthread_t tid)
{
    if (tid == pthread_self() && current_fault_block != nullptr)
        current_fault_block->state = nullptr;
    const LockGuard lock(vlthread_lock);
    vlthread_state *entry = find_thread(tid);
    if (entry != nullptr)
        forget(entry);
    else if (is_tracing())
        vlthread_trace("thread %lu does not exist in state list.\n", static_cast<unsigned long>(tid));
}

void forget_other_threads()
{
    const LockGuard lock(vlthread_lock);
    (void)find_state([self = pthread_self()](vlthread_state *entry) { // visits all: never stops
        if (entry->tid != self)
            forget(entry);
        return false;
    });
}

} // namespace ks

extern "C" {

void vlthread_notify_raise(int32_t status)
{
    const ks::LockGuard lock(ks::vlthread_lock);
    (void)find_state([status](vlthread_state *entry) { // visits all: never stops
        __atomic_store_n(&entry->raise_status, status, __ATOMIC_RELEASE);
        return false;
    });
}

void vlthread_reset_raise(struct pfm_fault_block *holder)
{
    if (holder == nullptr)
        holder = ks::fault_block_of_caller();
    if (holder->state != nullptr)
        __atomic_store_n(&holder->state->raise_status, 0, __ATOMIC_RELAXED);
}

int32_t vlthread_pending_raise(struct pfm_fault_block *holder)
{
    if (holder == nullptr || holder->state == nullptr) [[unlikely]] {
        (void)vlthread_init();
        if (holder == nullptr)
            holder = ks::fault_block_of_caller();
        if (holder->state == nullptr)
            ks::adopt_own_state(); // a thread that is known already needs no memory to find itself
        if (holder->state == nullptr)
            holder->state = ks::add_thread_to_process(pthread_self());
    }
    return __atomic_load_n(&holder->state->raise_status, __ATOMIC_ACQUIRE);
}

void vlthread_dump_thread(void)
{
    if (!ks::is_tracing())
        return;
    vlthread_trace(">>>>Start to dump thread<<<<\n");
    const ks::LockGuard lock(ks::vlthread_lock);
    (void)find_state([](const vlthread_state *entry) { // visits all: never stops
        vlthread_trace("thread %u, raise status %d\n", static_cast<unsigned>(entry->tid),
                       __atomic_load_n(&entry->raise_status, __ATOMIC_RELAXED));
        return false;
    });
    vlthread_trace("<<<<End to dump thread>>>>\n");
}
}
