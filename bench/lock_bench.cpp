// What do the library's locks add to the platform's when no other thread wants them? And what does
// holding raises off cost, which every counted lock does on the way?
#include <korvaks/pfm.h>
#include <korvaks/vlthread.h>

#include <benchmark/benchmark.h>

#include <pthread.h>

namespace {

struct KorvaksMutex {
    vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
    void lock() { vlthread_mutex_lock(&mutex); }
    void unlock() { vlthread_mutex_unlock(&mutex); }
};

struct RecursivePthreadMutex {
    pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
};

struct KorvaksRwlock {
    vlthread_rwlock_t rwlock;
    KorvaksRwlock() { vlthread_rwlock_init(&rwlock, VLTHREAD_RAISE_COUNTED); }
    ~KorvaksRwlock() { vlthread_rwlock_destroy(&rwlock); }
    KorvaksRwlock(const KorvaksRwlock &) = delete;
    void read() { vlthread_rwlock_rdlock(&rwlock); }
    void write() { vlthread_rwlock_wrlock(&rwlock); }
    void unlock() { vlthread_rwlock_unlock(&rwlock); }
};

struct PthreadRwlock {
    pthread_rwlock_t rwlock = PTHREAD_RWLOCK_INITIALIZER;
    void read() { pthread_rwlock_rdlock(&rwlock); }
    void write() { pthread_rwlock_wrlock(&rwlock); }
    void unlock() { pthread_rwlock_unlock(&rwlock); }
};

template <typename Mutex> void lock_unlock(benchmark::State &state)
{
    Mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(lock_unlock<KorvaksMutex>)->Name("lock/mutex/korvaks");
BENCHMARK(lock_unlock<RecursivePthreadMutex>)->Name("lock/mutex/pthread_recursive");

void critical_section(benchmark::State &state)
{
    for (auto _ : state) {
        vlthread_enter_critical_section();
        vlthread_leave_critical_section();
    }
}
BENCHMARK(critical_section)->Name("lock/critical_section/korvaks");
BENCHMARK(lock_unlock<RecursivePthreadMutex>)->Name("lock/critical_section/pthread_recursive");

template <typename Mutex> void enter_again(benchmark::State &state)
{
    Mutex mutex;
    mutex.lock();
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
    mutex.unlock();
}
BENCHMARK(enter_again<KorvaksMutex>)->Name("lock/mutex_reentry/korvaks");
BENCHMARK(enter_again<RecursivePthreadMutex>)->Name("lock/mutex_reentry/pthread_recursive");

template <typename Rwlock> void read_unlock(benchmark::State &state)
{
    Rwlock rwlock;
    for (auto _ : state) {
        rwlock.read();
        rwlock.unlock();
    }
}
BENCHMARK(read_unlock<KorvaksRwlock>)->Name("lock/read/korvaks");
BENCHMARK(read_unlock<PthreadRwlock>)->Name("lock/read/pthread_rwlock");

template <typename Rwlock> void write_unlock(benchmark::State &state)
{
    Rwlock rwlock;
    for (auto _ : state) {
        rwlock.write();
        rwlock.unlock();
    }
}
BENCHMARK(write_unlock<KorvaksRwlock>)->Name("lock/write/korvaks");
BENCHMARK(write_unlock<PthreadRwlock>)->Name("lock/write/pthread_rwlock");

void inhibit_enable(benchmark::State &state)
{
    for (auto _ : state) {
        pfm_inhibit();
        pfm_enable();
    }
}
BENCHMARK(inhibit_enable)->Name("lock/inhibit_enable/korvaks");

} // namespace
