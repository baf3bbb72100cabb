// Inhibits counted over all threads, and the stop signal they hold back.
//
// Count and held signal share one atomic word, so that neither pfm_inhibit() nor the handler of
// SIGTSTP needs a lock: bit 0 tells that a stop is held (last_inh_signal is SIGTSTP), the rest is
// the count (pfm_global_inh_susp). The count is signed: a raise out of a region that holds
// counted locks takes those off as well, and what the cleanup code releases makes up for it.
#include "kernel/pfm_impl.h"

#include <cstdio>

namespace ks::fault {

namespace {

constexpr int64_t held_bit = 1;
constexpr int64_t one_inhibit = 2;

constinit std::atomic<int64_t> suspend_word{0};
constinit vlthread_cond_t pfm_susp_cond = VLTHREAD_COND_INITIALIZER; // with pfm_inh_susp_crit

bool is_held(int64_t word)
{
    return (word & held_bit) != 0;
}

bool is_last_inhibit(int64_t word)
{
    return word == (one_inhibit | held_bit);
}

// Clears the held signal and lets the threads go that wait for it.
void release_waiters()
{
    const ks::LockGuard lock(ks::pfm_inh_susp_crit);
    (void)suspend_word.fetch_and(~held_bit);
    (void)pthread_cond_broadcast(&pfm_susp_cond); // cannot fail
}

// A thread that holds nothing back any more waits until those that do let the stop happen.
void wait_for_stop()
{
    const ks::IoLockGuard lock(ks::pfm_inh_susp_crit);
    while (is_held(suspend_word.load(std::memory_order_relaxed)))
        (void)vlthread_cond_wait(&pfm_susp_cond, &ks::pfm_inh_susp_crit); // always 0
}

} // namespace

void adjust_inhibits(pfm_fault_block *block, int32_t change)
{
    block->susp_share += change;
    (void)suspend_word.fetch_add(change * one_inhibit, std::memory_order_relaxed);
}

void add_inhibit(pfm_fault_block *block)
{
    adjust_inhibits(block, 1);
}

namespace {

// The handler of the stop may inhibit and enable like any other code: it must not wait for itself.
void perform_held_stop(pfm_fault_block *block)
{
    ++block->stopping;
    handle(SIGTSTP);
    --block->stopping;
    release_waiters();
}

// Takes one of the caller's inhibits off the process-wide count; the last performs a held stop. True
// when a stop is held by others.
bool drop_inhibit(pfm_fault_block *block)
{
    --block->susp_share;
    int64_t word = suspend_word.load(std::memory_order_relaxed);
    for (;;) {
        if (is_last_inhibit(word)) [[unlikely]] {
            perform_held_stop(block);
            word = suspend_word.load(std::memory_order_relaxed);
            continue;
        }
        if (suspend_word.compare_exchange_weak(word, word - one_inhibit, std::memory_order_acq_rel))
            return is_held(word);
    }
}

} // namespace

void remove_inhibit(pfm_fault_block *block)
{
    const bool is_stop_held_by_others = drop_inhibit(block);
    if (is_stop_held_by_others && block->pfm_inh_count == 0 && block->pfm_inh_susp == 0 && block->stopping == 0)
        [[unlikely]]
        wait_for_stop();
}

void give_back_inhibits(pfm_fault_block *block)
{
    while (block->susp_share > 0)
        (void)drop_inhibit(block); // an ending thread does not wait for the stop
    if (block->susp_share < 0)
        adjust_inhibits(block, -block->susp_share);
}

bool is_stop_held()
{
    return is_held(suspend_word.load(std::memory_order_acquire));
}

bool may_stop_now(int sig)
{
    int64_t word = suspend_word.load(std::memory_order_relaxed);
    for (;;) {
        if (word / one_inhibit == 0)
            return true;
        if (is_held(word)) {
            char text[64];
            const int formatted =
                std::snprintf(text, sizeof text, "pfm_signal_handler: got signal %d, inhibited\n", sig);
            (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(formatted)); // only a notice
            return false;
        }
        if (suspend_word.compare_exchange_weak(word, word | held_bit, std::memory_order_acq_rel))
            return false;
    }
}

// The other threads of the parent do not exist in a child, and neither do their inhibits.
void keep_only_own_inhibits()
{
    suspend_word.store(fault_block_of_caller()->susp_share * one_inhibit, std::memory_order_relaxed);
    pfm_susp_cond = VLTHREAD_COND_INITIALIZER;
}

} // namespace ks::fault
