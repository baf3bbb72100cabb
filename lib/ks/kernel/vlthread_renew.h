// Locks that a fork does not wait for, made usable again in its child.
//
// A child has one thread, and what other threads of the parent held would stay held for ever. So such a lock says under
// which generation of forks it was last made, and one of an earlier generation is renewed by its first user.
#pragma once

#include "kernel/kernel.h"

namespace ks {

// Forks of this process's line so far.
extern constinit std::atomic<uint32_t> fork_generation;
// One renewal at a time. Taken in the child of a fork only, with nothing under it.
extern constinit pthread_mutex_t renewal_mutex;

inline bool is_of_this_process(const uint32_t &generation)
{
    return __atomic_load_n(&generation, __ATOMIC_ACQUIRE) == fork_generation.load(std::memory_order_relaxed);
}

inline void note_generation(uint32_t &generation)
{
    __atomic_store_n(&generation, fork_generation.load(std::memory_order_relaxed), __ATOMIC_RELEASE);
}

// For a lock that is_of_this_process() has denied: several threads may have asked.
template <typename Renew> void renew_once(uint32_t &generation, Renew renew)
{
    (void)pthread_mutex_lock(&renewal_mutex); // cannot fail for a plain mutex
    if (!is_of_this_process(generation)) {
        renew();
        note_generation(generation);
    }
    (void)pthread_mutex_unlock(&renewal_mutex); // just taken
}

// The mutex of an object that is held for long, over waits for the network: no fork collects it. In a child it is free,
// unless the thread that forked holds it.
struct RenewedMutex {
    vlthread_mutex_t mutex;
    uint32_t generation;
};

// 0, or the error of pthread_mutex_init().
[[nodiscard]] int make(RenewedMutex &renewed, LockLevel level);

// Whoever holds it is not cancelled meanwhile, and no raise is delivered to him.
class RenewedGuard {
  public:
    explicit RenewedGuard(RenewedMutex &renewed) : mutex_(renewed.mutex)
    {
        if (!is_of_this_process(renewed.generation)) [[unlikely]]
            renew(renewed);
        (void)vlthread_mutex_lock(&mutex_);
    }
    ~RenewedGuard() { (void)vlthread_mutex_unlock(&mutex_); }
    RenewedGuard(const RenewedGuard &) = delete;
    RenewedGuard &operator=(const RenewedGuard &) = delete;

  private:
    static void renew(RenewedMutex &renewed);

    CancelHold hold_;
    vlthread_mutex_t &mutex_;
};

} // namespace ks
