// The two guards that make a raise impossible, and the one way to catch a raise.
//
// A raise is a siglongjmp: no destructor runs on the way out. So across a raise point only
// trivially destructible objects may be alive, or one of these guards, or code that runs under
// protect().
#pragma once

#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <type_traits>

#include <pthread.h>

namespace ks {

// Holds a library mutex. While a counted mutex is held no raise is delivered, and releasing it
// delivers none. A noraise mutex is not counted: its guard must enclose no raise point.
class LockGuard {
  public:
    explicit LockGuard(vlthread_mutex_t &mutex) : mutex_(mutex) { (void)vlthread_mutex_lock(&mutex_); }
    ~LockGuard() { (void)vlthread_mutex_unlock(&mutex_); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

  private:
    vlthread_mutex_t &mutex_;
};

// Checks, in debug builds, that a lock without an order class of its own is taken in the order of all others, and that
// those taken under it are: a mutex of its level, which no other thread knows, is held beside it.
class OrderMark {
#ifdef NDEBUG
  public:
    explicit OrderMark(LockLevel) {}
#else
  public:
    explicit OrderMark(LockLevel level)
    {
        (void)vlthread_mutex_init_full(&mark_, 0, level, 0, lock_order()); // has no other kind of failure
        (void)vlthread_mutex_lock(&mark_);
    }
    ~OrderMark()
    {
        (void)vlthread_mutex_unlock(&mark_);
        (void)vlthread_mutex_destroy(&mark_);
    }
    OrderMark(const OrderMark &) = delete;
    OrderMark &operator=(const OrderMark &) = delete;

  private:
    vlthread_mutex_t mark_;
#endif
};

// Hold a process-wide read/write lock, as LockGuard does a counted mutex.
class ReadGuard {
  public:
    explicit ReadGuard(OrderedRwlock &lock)
        : mark_(lock.level), rwlock_(lock.rwlock), is_taken_(vlthread_rwlock_rdlock(&rwlock_) == 0)
    {
    }
    ~ReadGuard()
    {
        if (is_taken_)
            (void)vlthread_rwlock_unlock(&rwlock_);
    }
    ReadGuard(const ReadGuard &) = delete;
    ReadGuard &operator=(const ReadGuard &) = delete;

  private:
    [[no_unique_address]] OrderMark mark_;
    vlthread_rwlock_t &rwlock_;
    bool is_taken_; // not by a thread that writes under it already
};

class WriteGuard {
  public:
    explicit WriteGuard(OrderedRwlock &lock)
        : mark_(lock.level), rwlock_(lock.rwlock), is_taken_(vlthread_rwlock_wrlock(&rwlock_) == 0)
    {
    }
    ~WriteGuard()
    {
        if (is_taken_)
            (void)vlthread_rwlock_unlock(&rwlock_);
    }
    WriteGuard(const WriteGuard &) = delete;
    WriteGuard &operator=(const WriteGuard &) = delete;

  private:
    [[no_unique_address]] OrderMark mark_;
    vlthread_rwlock_t &rwlock_;
    bool is_taken_; // not by a thread that writes under it already
};

// Holds cancellation of the calling thread off: pthread_cancel() waits.
class CancelHold {
  public:
    CancelHold() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelHold() { (void)pthread_setcancelstate(before_, nullptr); }
    CancelHold(const CancelHold &) = delete;
    CancelHold &operator=(const CancelHold &) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// A LockGuard for a process-wide lock under which the thread reads, writes or waits: a thread that is
// cancelled there would leave the lock behind.
class IoLockGuard {
  public:
    explicit IoLockGuard(vlthread_mutex_t &mutex) : lock_(mutex) {}

  private:
    CancelHold hold_;
    LockGuard lock_;
};

// pfm_inhibit() and pfm_enable(). Both ends are raise points, so it is the first object of its
// function and owners come after it.
class InhibitGuard {
  public:
    InhibitGuard() { pfm_inhibit(); }
    ~InhibitGuard() { pfm_enable(); }
    InhibitGuard(const InhibitGuard &) = delete;
    InhibitGuard &operator=(const InhibitGuard &) = delete;
};

// The same for a stretch of a few instructions, which may well be stopped by SIGTSTP: raises are held
// off between the same two delivery checks, but the process-wide count of inhibits, two atomic
// operations, is left alone.
[[nodiscard]] pfm_fault_block *begin_short_inhibit();
void end_short_inhibit(pfm_fault_block *inhibited);

// Whether the caller is the thread that runs handlers of signals. Starts nothing.
bool is_signal_handler_thread();

class ShortInhibitGuard {
  public:
    ShortInhibitGuard() : inhibited_(begin_short_inhibit()) {}
    ~ShortInhibitGuard() { end_short_inhibit(inhibited_); }
    ShortInhibitGuard(const ShortInhibitGuard &) = delete;
    ShortInhibitGuard &operator=(const ShortInhibitGuard &) = delete;

  private:
    pfm_fault_block *inhibited_; // the caller's block, NULL for a thread that takes no raises anyway
};

// Runs `work(argument)` under a cleanup record: 0 when it returned, else the status of the raise
// that arrived, and then the caller runs inhibited and passes it on with pfm_raise(status).
// The record and its jump buffer live in this function's own frame, so locals that `work`
// changes through its argument are read back from memory.
[[nodiscard]] int32_t protect_call(void (*work)(void *argument), void *argument);

// The same for a lambda that captures its locals by reference.
template <typename Work> [[nodiscard]] int32_t protect(Work &&work)
{
    using Plain = std::remove_reference_t<Work>;
    return protect_call([](void *argument) { (*static_cast<Plain *>(argument))(); },
                        const_cast<void *>(static_cast<const void *>(&work)));
}

} // namespace ks
