// The turn to talk with the user, which a prompt has from its question to its answer.
//
// It is no lock: its owner waits for a person. Whoever holds a lock or is inhibited is never kept waiting for it,
// because others may wait for them: a fork, an allocation, an exit, a stop.
#include "messages/imsg_impl.h"

#include "kernel/kernel.h"

#include <korvaks/pfm.h>

#include <utility>

#include <poll.h>
#include <sys/eventfd.h>

namespace ks::imsg {

constinit std::atomic<vlthread_t> turn_owner{};

namespace {

// How often a waiting thread looks whether a raise is pending that nothing wakes it for.
constexpr int look_again_ms = 100;

struct Turn {
    pid_t pid = 0; // the process of the owner: a child of a fork does not have its parent's turn
    int bell = -1; // readable while nobody has the turn; -1 where there was no descriptor left
};
constinit Turn turn{}; // guarded by ks_product_crit
constinit std::atomic<bool> is_ending{false};

void ring_bell()
{
    const uint64_t one = 1;
    if (turn.bell >= 0)
        (void)!write(turn.bell, &one, sizeof one); // cannot fail: the count is 0 or 1
}

void silence_bell()
{
    uint64_t count = 0;
    if (turn.bell >= 0)
        (void)!read(turn.bell, &count, sizeof count); // nothing to read is as good
}

// The bell of a parent rings in the parent.
void prepare_bell()
{
    const pid_t self = getpid();
    if (turn.pid != self && turn.bell >= 0)
        (void)close(std::exchange(turn.bell, -1)); // given up either way
    turn.pid = self;
    if (turn.bell < 0)
        turn.bell = above_stdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    silence_bell();
}

bool try_to_take()
{
    const IoLockGuard lock(ks_product_crit);
    if (is_turn_of_another())
        return false;
    prepare_bell();
    turn_owner.store(self(), std::memory_order_relaxed);
    return true;
}

int current_bell()
{
    const IoLockGuard lock(ks_product_crit);
    return turn.bell;
}

} // namespace

bool is_turn_of_another_locked()
{
    const vlthread_t owner = turn_owner.load(std::memory_order_relaxed);
    if (owner == vlthread_t{} || owner == self())
        return false;
    if (turn.pid == getpid())
        return true;
    turn_owner.store(vlthread_t{}, std::memory_order_relaxed); // of a thread that this child does not have
    return false;
}

bool may_wait_for_turn()
{
    if (is_ending.load(std::memory_order_relaxed) || fault_block_of_caller()->pfm_inh_count != 0)
        return false;
    pfm_fault_block *inhibited = begin_short_inhibit();
    if (inhibited == nullptr)
        return false; // the signal-handler thread, which ends the wait of everybody else
    end_short_inhibit(inhibited);
    return true;
}

void wait_for_turn()
{
    pollfd bell{current_bell(), POLLIN, 0};
    (void)pfm_poll_inhibited(&bell, 1, look_again_ms); // however it ends, the caller looks again
    pfm_test_raise(nullptr);
}

void take_turn()
{
    while (!try_to_take())
        wait_for_turn();
}

void give_turn()
{
    const IoLockGuard lock(ks_product_crit);
    turn_owner.store(vlthread_t{}, std::memory_order_relaxed);
    ring_bell();
}

void drop_turns()
{
    is_ending.store(true, std::memory_order_relaxed);
}

} // namespace ks::imsg
