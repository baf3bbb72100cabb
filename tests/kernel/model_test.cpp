// Locks, critical section, attachment and inhibits against a plain model of their rules.
//
// A seeded random sequence of steps; each is done by one of several threads while the others wait
// for their turn, so the model knows what must come out. Only steps that cannot block are chosen.
// After each step its result and all visible state are compared. At a low rate a thread forks, and
// the child compares what it inherited; or a thread ends and another takes its place.
//
// KORVAKS_MODEL_STEPS sets the number of steps, KORVAKS_MODEL_SEED another sequence.
#include "harness/child.h"
#include "harness/forked.h"

#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <type_traits>

#include <semaphore.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
// The steps take locks in any order; none of them can block.
extern "C" KS_API const char *__tsan_default_options()
{
    return "detect_deadlocks=0";
}
#endif

namespace {

constexpr std::size_t thread_count = 4; // the first is the one that drives the others
constexpr std::size_t mutex_count = 6;
constexpr std::size_t rwlock_count = 3;
constexpr int depth_max = 5;
constexpr std::size_t nobody = SIZE_MAX;

// --- The model ---

struct MutexModel {
    bool counted;
    bool timed;
    std::size_t order_class; // 0: none
    int level;
    std::size_t owner = nobody;
    int depth = 0;
    uint32_t times_taken = 0;

    bool is_open_to(std::size_t thread) const { return owner == nobody || (owner == thread && depth < depth_max); }
};

struct RwlockModel {
    bool counted;
    std::size_t writer = nobody;
    std::array<int, thread_count> reads{};

    bool has_readers() const
    {
        return std::any_of(reads.begin(), reads.end(), [](int held) { return held > 0; });
    }
    bool is_held_by(std::size_t thread) const { return writer == thread || reads[thread] > 0; }
};

struct ThreadModel {
    int locks = 0; // counted locks held
    int inhibits = 0;
    int suspend_inhibits = 0;
    std::vector<std::size_t> ordered; // held mutexes of the order class, oldest first
};

struct Model {
    std::array<MutexModel, mutex_count> mutexes{{{true, false, 0, 0},
                                                 {false, false, 0, 0},
                                                 {true, true, 1, 2},
                                                 {true, false, 1, 1},
                                                 {false, true, 1, 2},
                                                 {true, false, 2, 3}}};
    std::array<RwlockModel, rwlock_count> rwlocks{{{true}, {false}, {true}}};
    std::array<ThreadModel, thread_count> threads{};
    MutexModel section{true, false, 0, 0};
    std::size_t attached = 0; // the thread that started the fault manager
    unsigned violations = 0;
};

// --- What is modelled ---

std::atomic<unsigned> violations{0};

extern "C" void count_violation(vlthread_mutex *locking, vlthread_mutex *held)
{
    const bool is_one = held->order_class == locking->order_class && held->level > locking->level;
    violations += is_one ? 1 : 1000;
}

struct World {
    std::array<vlthread_mutex_t, mutex_count> mutexes;
    std::array<vlthread_rwlock_t, rwlock_count> rwlocks;
    vlthread_cond_t condition = VLTHREAD_COND_INITIALIZER;
    std::array<vlthread_order_class, 2> order_classes{{{count_violation}, {count_violation}}};
};

// A thread that does one piece of work at a time while its driver waits. POSIX semaphores sleep at
// once, where the standard library's first give the processor away, which costs whole time slices on
// a busy machine.
class Worker {
  public:
    using Work = std::function<void()>;

    vlthread_t start()
    {
        (void)sem_init(&workers_turn_, 0, 0);
        (void)sem_init(&drivers_turn_, 0, 0);
        (void)vlthread_create(&id_, nullptr, run, this);
        return id_;
    }

    void do_work(const Work &work)
    {
        work_ = &work;
        (void)sem_post(&workers_turn_);
        await(drivers_turn_);
    }

    // The thread returns, or ends by vlthread_exit().
    void end(bool by_return)
    {
        const Work leave = [] { vlthread_exit(nullptr); };
        work_ = by_return ? nullptr : &leave;
        (void)sem_post(&workers_turn_);
        (void)vlthread_join(id_, nullptr);
    }

  private:
    static void await(sem_t &turn)
    {
        while (sem_wait(&turn) != 0) { // interrupted
        }
    }

    static void *run(void *argument)
    {
        auto *worker = static_cast<Worker *>(argument);
        for (;;) {
            await(worker->workers_turn_);
            if (worker->work_ == nullptr)
                return nullptr;
            (*worker->work_)();
            (void)sem_post(&worker->drivers_turn_);
        }
    }

    vlthread_t id_ = VLTHREAD_INVALID_TID;
    const Work *work_ = nullptr; // NULL: return
    sem_t workers_turn_{};
    sem_t drivers_turn_{};
};

class Scenario {
  public:
    Scenario(unsigned long seed, unsigned long steps) : random_(seed), seed_(seed), steps_(steps) {}

    // 0, or 1 with the difference on standard error.
    int execute()
    {
        set_up();
        while (step_ < steps_ && !has_failed_)
            let_a_thread_run();
        if (has_failed_)
            return 1;
        tear_down();
        std::printf("%lu steps, %lu forks, %lu threads ended, %u order violations\n", steps_, forks_, ended_,
                    model_.violations);
        return has_failed_ ? 1 : 0;
    }

  private:
    using Step = void (Scenario::*)(std::size_t thread);

    // --- Preparation ---

    void set_up()
    {
        pfm_init(); // attaches this thread
        ids_[0] = pthread_self();
        blocks_[0] = pfm_tls_get();
        for (std::size_t i = 0; i < mutex_count; ++i) {
            const MutexModel &mutex = model_.mutexes[i];
            vlthread_order_class *order =
                mutex.order_class == 0 ? nullptr : &world_.order_classes[mutex.order_class - 1];
            vlthread_mutex_init_full(&world_.mutexes[i], 0, static_cast<int16_t>(mutex.level),
                                     mutex.timed ? VLTHREAD_MUTEX_TIMED : 0, order);
            if (!mutex.counted)
                vlthread_mutex_set_noraise(&world_.mutexes[i]);
        }
        for (std::size_t i = 0; i < rwlock_count; ++i)
            vlthread_rwlock_init(&world_.rwlocks[i],
                                 model_.rwlocks[i].counted ? VLTHREAD_RAISE_COUNTED : VLTHREAD_RAISE_IGNORED);
        for (std::size_t thread = 1; thread < thread_count; ++thread)
            start_worker(thread);
    }

    void start_worker(std::size_t thread)
    {
        ids_[thread] = workers_[thread].start();
        on_thread(thread, [this, thread] { blocks_[thread] = pfm_tls_get(); });
    }

    // Everything is given back; a mutex that is not free any more, or a count, would be seen.
    void tear_down()
    {
        for (std::size_t thread = 0; thread < thread_count; ++thread) {
            give_locks_back(thread);
            force_attach(thread);
            release_section(thread);
        }
        compare_state();
        for (std::size_t i = 1; i < thread_count; ++i)
            workers_[i].end(true);
        for (vlthread_mutex_t &mutex : world_.mutexes)
            expect("destroy", vlthread_mutex_destroy(&mutex), 0);
        for (vlthread_rwlock_t &rwlock : world_.rwlocks)
            expect("rwlock destroy", vlthread_rwlock_destroy(&rwlock), 0);
    }

    void give_locks_back(std::size_t thread)
    {
        for (std::size_t i = 0; i < mutex_count; ++i) {
            while (model_.mutexes[i].owner == thread)
                unlock_mutex(thread, i);
        }
        for (std::size_t i = 0; i < rwlock_count; ++i) {
            while (model_.rwlocks[i].is_held_by(thread))
                unlock_rwlock(thread, i);
        }
        while (of(thread).inhibits > 0)
            enable(thread);
        while (of(thread).suspend_inhibits > 0)
            enable_suspend(thread);
    }

    // --- Doing steps ---

    // Whoever has the turn does what it can itself; the first thread hands turns out.
    template <typename Work> void on_thread(std::size_t thread, Work work)
    {
        if (thread == has_turn_) {
            work();
            return;
        }
        has_turn_ = thread;
        workers_[thread].do_work(work);
        has_turn_ = 0;
    }

    // A few steps at a time: to change threads costs far more than a step.
    void let_a_thread_run()
    {
        const std::size_t thread = below(thread_count);
        const std::size_t count = 1 + below(24);
        on_thread(thread, [this, thread, count] {
            for (std::size_t i = 0; i < count && step_ < steps_ && !has_failed_; ++i) {
                ++step_;
                do_any_step(thread);
                compare_state();
            }
        });
        if (below(300) == 0) {
            end_thread(thread);
            compare_state();
        }
    }

    // Does `call` on the thread and compares what it returns, 0 for nothing.
    template <typename Call, typename... Arguments> void check(const char *what, std::size_t thread, std::size_t object,
                                                               int expected, Call call, Arguments... arguments)
    {
        int result = 0;
        note_ = {what, thread, object};
        on_thread(thread, [&] {
            if constexpr (std::is_void_v<std::invoke_result_t<Call, Arguments...>>)
                call(arguments...);
            else
                result = static_cast<int>(call(arguments...));
        });
        expect(what, result, expected);
    }

    void do_any_step(std::size_t thread)
    {
        constexpr auto listed = [](auto... steps) { return std::array<Step, sizeof...(steps)>{steps...}; };
        constexpr auto steps =
            listed(&Scenario::step_lock, &Scenario::step_lock, &Scenario::step_trylock, &Scenario::step_trylock,
                   &Scenario::step_unlock, &Scenario::step_unlock, &Scenario::step_unlock, &Scenario::step_unlock,
                   &Scenario::step_timedwait, &Scenario::step_read, &Scenario::step_try_read, &Scenario::step_write,
                   &Scenario::step_try_write, &Scenario::step_rwlock_unlock, &Scenario::step_rwlock_unlock,
                   &Scenario::step_rwlock_unlock, &Scenario::enter_section, &Scenario::try_enter_section,
                   &Scenario::leave_section, &Scenario::leave_section, &Scenario::try_attach, &Scenario::inhibit,
                   &Scenario::enable, &Scenario::enable, &Scenario::inhibit_suspend, &Scenario::enable_suspend,
                   &Scenario::enable_suspend, &Scenario::step_counts);
        if (below(4000) == 0)
            fork_once(thread);
        else if (below(60) == 0) // rarely, so that depths build up
            below(2) == 0 ? release_section(thread) : force_attach(thread);
        else
            (this->*steps[below(steps.size())])(thread);
    }

    // --- Mutexes ---

    void take_mutex(std::size_t thread, std::size_t index, MutexModel &mutex)
    {
        ++mutex.depth;
        if (mutex.owner == thread)
            return;
        mutex.owner = thread;
        ++mutex.times_taken;
        of(thread).locks += mutex.counted ? 1 : 0;
        if (mutex.order_class != 0)
            of(thread).ordered.push_back(index);
    }

    void step_lock(std::size_t thread)
    {
        const std::size_t index = below(mutex_count);
        MutexModel &mutex = model_.mutexes[index];
        if (!mutex.is_open_to(thread))
            return;
        for (const std::size_t i : of(thread).ordered) {
            const MutexModel &held = model_.mutexes[i];
            const bool is_violation = held.order_class == mutex.order_class && held.level > mutex.level;
            model_.violations += mutex.owner != thread && is_violation ? 1 : 0;
        }
        take_mutex(thread, index, mutex);
        check("lock", thread, index, 0, vlthread_mutex_lock, &world_.mutexes[index]);
    }

    void step_trylock(std::size_t thread)
    {
        const std::size_t index = below(mutex_count);
        MutexModel &mutex = model_.mutexes[index];
        if (mutex.owner == thread && mutex.depth == depth_max)
            return;
        const bool is_open = mutex.is_open_to(thread);
        if (is_open)
            take_mutex(thread, index, mutex);
        check("trylock", thread, index, is_open ? 0 : EBUSY, vlthread_mutex_trylock, &world_.mutexes[index]);
    }

    void step_unlock(std::size_t thread) { unlock_mutex(thread, below(mutex_count)); }

    void unlock_mutex(std::size_t thread, std::size_t index)
    {
        MutexModel &mutex = model_.mutexes[index];
        const bool is_owner = mutex.owner == thread;
        if (is_owner && --mutex.depth == 0) {
            mutex.owner = nobody;
            of(thread).locks -= mutex.counted ? 1 : 0;
            std::erase(of(thread).ordered, index);
        }
        check("unlock", thread, index, is_owner ? 0 : 1, vlthread_mutex_unlock, &world_.mutexes[index]);
    }

    void step_timedwait(std::size_t thread)
    {
        const std::size_t index = below(mutex_count);
        MutexModel &mutex = model_.mutexes[index];
        if (mutex.owner != thread || mutex.depth != 1)
            return;
        ++mutex.times_taken;
        if (mutex.order_class != 0) { // taken anew
            std::erase(of(thread).ordered, index);
            of(thread).ordered.push_back(index);
        }
        static constexpr timespec past{1, 0};
        check("timedwait", thread, index, ETIMEDOUT, vlthread_cond_timedwait, &world_.condition, &world_.mutexes[index],
              &past);
    }

    // --- Read/write locks ---

    using Take = int (*)(vlthread_rwlock_t *);

    std::size_t any_rwlock() { return below(rwlock_count); }

    void read_with(const char *what, Take call, std::size_t thread, std::size_t index)
    {
        RwlockModel &rwlock = model_.rwlocks[index];
        const bool is_open = rwlock.writer == nobody;
        rwlock.reads[thread] += is_open ? 1 : 0;
        check_hold(what, call, thread, index, is_open);
    }

    void write_with(const char *what, Take call, std::size_t thread, std::size_t index)
    {
        RwlockModel &rwlock = model_.rwlocks[index];
        const bool is_open = rwlock.writer == nobody && !rwlock.has_readers();
        rwlock.writer = is_open ? thread : rwlock.writer;
        check_hold(what, call, thread, index, is_open);
    }

    void check_hold(const char *what, Take call, std::size_t thread, std::size_t index, bool is_open)
    {
        of(thread).locks += is_open && model_.rwlocks[index].counted ? 1 : 0;
        check(what, thread, index, is_open ? 0 : EBUSY, call, &world_.rwlocks[index]);
    }

    void step_try_read(std::size_t thread) { read_with("tryrd", vlthread_rwlock_rdlock_trylock, thread, any_rwlock()); }
    void step_try_write(std::size_t thread)
    {
        write_with("trywr", vlthread_rwlock_wrlock_trylock, thread, any_rwlock());
    }

    // The waiting forms, where they need not wait: a writer that asks again gets an error.
    void step_read(std::size_t thread)
    {
        const std::size_t index = any_rwlock();
        const std::size_t writer = model_.rwlocks[index].writer;
        if (writer == nobody || writer == thread)
            read_with("rdlock", vlthread_rwlock_rdlock, thread, index);
    }

    void step_write(std::size_t thread)
    {
        const std::size_t index = any_rwlock();
        const RwlockModel &rwlock = model_.rwlocks[index];
        if (rwlock.writer == thread || (rwlock.writer == nobody && !rwlock.has_readers()))
            write_with("wrlock", vlthread_rwlock_wrlock, thread, index);
    }

    void step_rwlock_unlock(std::size_t thread)
    {
        const std::size_t index = any_rwlock();
        if (model_.rwlocks[index].is_held_by(thread))
            unlock_rwlock(thread, index);
    }

    void unlock_rwlock(std::size_t thread, std::size_t index)
    {
        RwlockModel &rwlock = model_.rwlocks[index];
        if (rwlock.writer == thread)
            rwlock.writer = nobody;
        else
            --rwlock.reads[thread];
        of(thread).locks -= rwlock.counted ? 1 : 0;
        check("rwlock unlock", thread, index, 0, vlthread_rwlock_unlock, &world_.rwlocks[index]);
    }

    // --- Critical section and attachment ---

    void model_entry(std::size_t thread)
    {
        of(thread).locks += model_.section.owner == thread ? 0 : 1;
        model_.section.owner = thread;
        ++model_.section.depth;
        model_.attached = thread;
    }

    void enter_section(std::size_t thread)
    {
        if (!model_.section.is_open_to(thread))
            return;
        model_entry(thread);
        check("enter", thread, 0, 0, vlthread_enter_critical_section);
    }

    void try_enter_section(std::size_t thread)
    {
        const MutexModel &section = model_.section;
        if (section.owner == thread && section.depth == depth_max)
            return;
        const bool is_open = section.is_open_to(thread);
        if (is_open)
            model_entry(thread);
        check("try_enter", thread, 0, is_open ? 1 : 0, vlthread_try_enter_critical_section);
    }

    void model_leave(std::size_t thread)
    {
        if (--model_.section.depth > 0)
            return;
        model_.section.owner = nobody;
        model_.attached = nobody;
        --of(thread).locks;
    }

    bool may_leave(std::size_t thread) const { return model_.section.owner == thread && model_.attached == thread; }

    void leave_section(std::size_t thread)
    {
        if (!may_leave(thread))
            return;
        model_leave(thread);
        check("leave", thread, 0, 0, vlthread_leave_critical_section);
    }

    void release_section(std::size_t thread)
    {
        if (model_.section.owner == thread && !may_leave(thread))
            return;
        while (model_.section.owner == thread)
            model_leave(thread);
        check("release", thread, 0, 0, vlthread_release_critical_section);
    }

    void try_attach(std::size_t thread)
    {
        const bool is_open = model_.attached == nobody || model_.attached == thread;
        if (is_open)
            model_.attached = thread;
        check("try_attach", thread, 0, is_open ? 0 : 1, vlthread_try_attach_lib);
    }

    void force_attach(std::size_t thread)
    {
        model_.attached = thread;
        check("force_attach", thread, 0, 0, vlthread_force_attach_lib);
    }

    // --- Inhibits ---

    void inhibit(std::size_t thread) { change("inhibit", thread, &ThreadModel::inhibits, 1, pfm_inhibit); }
    void enable(std::size_t thread) { change("enable", thread, &ThreadModel::inhibits, -1, pfm_enable); }

    void inhibit_suspend(std::size_t thread)
    {
        change("inhibit_suspend", thread, &ThreadModel::suspend_inhibits, 1, pfm_inhibit_suspend);
    }

    void enable_suspend(std::size_t thread)
    {
        change("enable_suspend", thread, &ThreadModel::suspend_inhibits, -1, pfm_enable_suspend);
    }

    void change(const char *what, std::size_t thread, int ThreadModel::*count, int by, void (*call)())
    {
        if (of(thread).*count + by < 0)
            return;
        of(thread).*count += by;
        check(what, thread, 0, 0, call);
    }

    void step_counts(std::size_t thread)
    {
        check("counts", thread, 0, 100 * inhibit_count(thread) + of(thread).suspend_inhibits,
              [] { return 100 * pfm_inhibit_count() + pfm_inhibit_suspend_count(); });
    }

    // --- Threads that end ---

    // The end of an attached thread leaves the critical section, whatever its depth. What it has
    // besides would stay behind, as the attachment of a thread that is outside.
    void end_thread(std::size_t thread)
    {
        const bool is_inside = model_.section.owner == thread;
        if (thread == 0 || (model_.attached == thread && !is_inside))
            return;
        give_locks_back(thread);
        if (is_inside)
            force_attach(thread);
        if (has_failed_)
            return;
        note_ = {"end of thread", thread, 0};
        while (model_.section.owner == thread)
            model_leave(thread);
        workers_[thread].end(below(2) == 0);
        of(thread) = {};
        start_worker(thread);
        ++ended_;
    }

    // --- Forks ---

    void fork_once(std::size_t thread)
    {
        const int kind = static_cast<int>(below(4));
        check("fork", thread, static_cast<std::size_t>(kind), 0, [&] {
            const pid_t child = vlthread_fork(kind);
            if (child == 0)
                _exit((check_child(thread, kind), testing::Test::HasFailure() ? 1 : 0));
            return test::exit_status_of(child);
        });
        ++forks_;
    }

    // The forking thread keeps what it held, and is attached. Other threads are gone: their mutexes stay
    // taken, while the critical section, which the library itself needs, is free.
    void check_child(std::size_t thread, int kind)
    {
        for (std::size_t i = 0; i < mutex_count; ++i)
            check_inherited(thread, world_.mutexes[i], model_.mutexes[i]);
        EXPECT_EQ(vlthread_attached_tid(), pthread_self());
        const bool is_full = kind >= VLTHREAD_FORK_CONTINUE;
        EXPECT_EQ(pfm_proc(), is_full ? PFM_PROCESS_ORDINARY : PFM_PROCESS_FORK_CHILD);
        EXPECT_EQ(pfm_inhibit_count(), inhibit_count(thread));
        EXPECT_EQ(pfm_inhibit_suspend_count(), of(thread).suspend_inhibits);
        pfm_inhibit();
        EXPECT_EQ(pfm_inhibit_count(), inhibit_count(thread) + 1);
        pfm_enable();
        vlthread_enter_critical_section();
        const MutexModel &section = model_.section;
        EXPECT_EQ(ks::vlthread_critical_section_mutex.recursion_count, section.owner == thread ? section.depth + 1 : 1);
        EXPECT_EQ(vlthread_attached_tid(), pthread_self());
        vlthread_release_critical_section();
        EXPECT_EQ(vlthread_attached_tid(), VLTHREAD_INVALID_TID);
    }

    static void check_inherited(std::size_t thread, vlthread_mutex_t &mutex, const MutexModel &model)
    {
        const bool is_foreign = model.owner != nobody && model.owner != thread;
        EXPECT_EQ(vlthread_mutex_trylock(&mutex), is_foreign ? EBUSY : 0);
        EXPECT_EQ(mutex.recursion_count, is_foreign ? model.depth : model.depth + 1);
        EXPECT_EQ(vlthread_mutex_unlock(&mutex), is_foreign ? 1 : 0);
    }

    // --- Comparing ---

    void compare_state()
    {
        for (std::size_t i = 0; i < mutex_count; ++i)
            compare_mutex(world_.mutexes[i], model_.mutexes[i]);
        for (std::size_t i = 0; i < rwlock_count; ++i)
            expect("writer", world_.rwlocks[i].writer, id_of(model_.rwlocks[i].writer));
        for (std::size_t i = 0; i < thread_count; ++i) {
            expect("inhibit count", blocks_[i]->pfm_inh_count, inhibit_count(i));
            expect("suspend count", blocks_[i]->pfm_inh_susp, model_.threads[i].suspend_inhibits);
            compare_ordered(i);
        }
        expect("section owner", ks::vlthread_critical_section_mutex.owner, id_of(model_.section.owner));
        expect("section depth", ks::vlthread_critical_section_mutex.recursion_count, model_.section.depth);
        expect("attached thread", vlthread_attached_tid(), id_of(model_.attached));
        expect("order violations", violations.load(), model_.violations);
    }

    void compare_mutex(const vlthread_mutex_t &mutex, const MutexModel &model)
    {
        expect("owner", mutex.owner, id_of(model.owner));
        expect("recursion_count", mutex.recursion_count, model.depth);
        expect("lock_count", mutex.lock_count, model.times_taken);
        expect("locked_at is set", mutex.locked_at.tv_sec != 0, model.timed && model.owner != nobody);
        expect("locker is set", mutex.locker != nullptr, model.order_class != 0 && model.owner != nobody);
    }

    // Debug builds have an order class for the library's own locks, which are none of the model's.
    void compare_ordered(std::size_t thread)
    {
        const std::vector<std::size_t> &expected = model_.threads[thread].ordered;
        std::size_t count = 0;
        const llist_link *head = &blocks_[thread]->held_ordered;
        for (const llist_link *link = head->next; link != nullptr && link != head; link = link->next) {
            const auto *mutex = static_cast<const vlthread_mutex_t *>(link->owner);
            if (mutex->order_class == ks::lock_order())
                continue;
            expect("ordered mutex", mutex - world_.mutexes.data(), count < expected.size() ? expected[count] : 99);
            ++count;
        }
        expect("ordered mutexes held", count, expected.size());
    }

    template <typename Actual, typename Expected> void expect(const char *what, Actual actual, Expected expected)
    {
        if (actual == static_cast<Actual>(expected) || has_failed_)
            return;
        has_failed_ = true;
        std::fprintf(stderr,
                     "seed %lu, step %lu: %s differs: %s, expected %s; the last call: %s of %zu by thread %zu\n", seed_,
                     step_, what, std::to_string(actual).c_str(), std::to_string(static_cast<Actual>(expected)).c_str(),
                     note_.what, note_.object, note_.thread);
    }

    // --- Helpers ---

    std::size_t below(std::size_t limit) { return random_() % limit; }
    ThreadModel &of(std::size_t thread) { return model_.threads[thread]; }
    const ThreadModel &of(std::size_t thread) const { return model_.threads[thread]; }
    int inhibit_count(std::size_t thread) const { return of(thread).locks + of(thread).inhibits; }
    vlthread_t id_of(std::size_t thread) const { return thread == nobody ? VLTHREAD_INVALID_TID : ids_[thread]; }

    Model model_;
    World world_{};
    std::array<Worker, thread_count> workers_{}; // the first is not used
    std::array<vlthread_t, thread_count> ids_{};
    std::array<const pfm_fault_block *, thread_count> blocks_{};
    std::mt19937_64 random_;
    unsigned long seed_;
    unsigned long steps_;
    unsigned long step_ = 0;
    unsigned long forks_ = 0;
    unsigned long ended_ = 0;
    bool has_failed_ = false;
    std::size_t has_turn_ = 0; // passed on with the turn itself
    struct {
        const char *what = "none";
        std::size_t thread = 0;
        std::size_t object = 0;
    } note_{};
};

unsigned long setting(const char *name, unsigned long otherwise)
{
    const char *value = std::getenv(name);
    return value == nullptr ? otherwise : std::strtoul(value, nullptr, 10);
}

TEST(KernelModel, RandomStepsDoWhatTheRulesSay)
{
    const unsigned long steps = setting("KORVAKS_MODEL_STEPS", 200000);
    const unsigned long seed = setting("KORVAKS_MODEL_SEED", 1);
    constexpr int deadline_per_step_us = 500;
    const auto deadline_ms = static_cast<int>(60000 + steps * deadline_per_step_us / 1000);
    const auto result = test::run_child(
        [&] {
            const auto scenario = std::make_unique<Scenario>(seed, steps);
            return scenario->execute();
        },
        deadline_ms);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_FALSE(result.timed_out);
    std::printf("%s", result.out.c_str());
}

} // namespace
