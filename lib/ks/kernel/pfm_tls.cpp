// The per-thread fault block: made on first use, ended with its thread, and known to forks.
#include "kernel/pfm_impl.h"

#include <cstdio>
#include <cstdlib>

namespace ks {

constinit thread_local pfm_fault_block *current_fault_block = nullptr;
constinit llist_link all_fault_blocks{}; // guarded by blocks_mutex

} // namespace ks

namespace {

constinit pthread_once_t key_once = PTHREAD_ONCE_INIT;
constinit pthread_key_t key{};

// Nothing is taken under it, so a thread's first use of the library may happen anywhere.
constinit pthread_mutex_t blocks_mutex = PTHREAD_MUTEX_INITIALIZER;

[[noreturn]] void abort_unset(const void *block)
{
    char text[128];
    const int formatted = std::snprintf(text, sizeof text, " (pfm): [P%u][T%lu]Unable to set PFM TLS %lx\n",
                                        static_cast<unsigned>(getpid()), static_cast<unsigned long>(pthread_self()),
                                        reinterpret_cast<unsigned long>(block));
    (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(formatted)); // the process ends either way
    std::abort();
}

void end_block(pfm_fault_block *block)
{
    ks::hold_fault_blocks();
    (void)llist_d_remove(&block->all_link); // the owner is the block
    ks::release_fault_blocks();
    std::free(block);
}

// Runs at the thread's end, after which a destructor of another key may make a new block; that
// one is freed in the next round of destructors. A thread that ended by pthread_exit() or was
// cancelled leaves the process here.
extern "C" void pfm_tls_free(void *value)
{
    auto *block = static_cast<pfm_fault_block *>(value);
    ks::current_fault_block = block;
    ks::leave_process(block);
    ks::current_fault_block = nullptr;
    end_block(block);
}

extern "C" void make_key(void)
{
    if (pthread_key_create(&key, pfm_tls_free) != 0)
        abort_unset(nullptr);
}

} // namespace

namespace ks {

void hold_fault_blocks()
{
    (void)pthread_mutex_lock(&blocks_mutex); // cannot fail for a plain mutex
}

void release_fault_blocks()
{
    (void)pthread_mutex_unlock(&blocks_mutex); // held since hold_fault_blocks()
}

void drop_other_fault_blocks(void (*visit)(const pfm_fault_block *block))
{
    for (llist_link *link = all_fault_blocks.next; link != &all_fault_blocks;) {
        auto *const block = static_cast<pfm_fault_block *>(link->owner);
        link = link->next;
        if (block == current_fault_block)
            continue;
        visit(block);
        (void)llist_d_remove(&block->all_link); // the owner is the block
        std::free(block);
    }
}

void leave_process(pfm_fault_block *block)
{
    abandon_critical_section();
    fault::give_back_inhibits(block);
    if (block->state != nullptr)
        remove_thread_from_process(self());
}

} // namespace ks

extern "C" {

void pfm_tls_init(void)
{
    (void)pthread_once(&key_once, make_key); // a failure ends the process inside
}

struct pfm_fault_block *pfm_tls_get(void)
{
    if (ks::current_fault_block != nullptr)
        return ks::current_fault_block;
    pfm_tls_init();
    // malloc: this block lies below the storage module.
    auto *block = static_cast<pfm_fault_block *>(std::calloc(1, sizeof(pfm_fault_block)));
    if (block == nullptr || pthread_setspecific(key, block) != 0)
        abort_unset(block);
    ks::current_fault_block = block; // before it is listed: a signal that arrives meanwhile finds it
    ks::hold_fault_blocks();
    llist_d_insert(&ks::all_fault_blocks, block, &block->all_link, LLIST_AT_TAIL);
    ks::release_fault_blocks();
    return block;
}
}
