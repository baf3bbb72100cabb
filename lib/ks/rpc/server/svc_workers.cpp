// The workers: a fixed pool of threads that serve what the main thread finds ready.
//
// What is ready goes through a queue. One idle worker at a time is on its way to it: when it has taken something, and
// more is there, it wakes the next one. So all of them are at work as soon as there is enough of it, and a worker that
// is done at once takes what another would have been woken for.
//
// A worker holds raises off for its whole life, and for itself alone, so that a stop signal still stops the process. A
// routine that leaves by a raise ends there and costs its connection; one that ends the thread costs the connection
// too, and another worker takes the place.
#include "rpc/server/svc_impl.h"

#include <korvaks/ks_warn.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <pthread.h>

namespace ks::svc {

constinit std::atomic<bool> is_multi_threaded{false};
constinit std::atomic<bool> is_ending{false};

namespace {

enum Command : int { wait_command = 0, work_command = 1, exit_command = 2 };

struct Worker {
    Worker *next; // in the list that it is on; guarded by ks_svc_thread_lock
    vlthread_cond_t wake;
    vlthread_mutex_t mutex; // guards what it is told:
    int command;
    vlthread_t thread;
    Transport *served;   // its own
    bool is_of_a_parent; // its thread has forked, and is the child's only one
};

constinit std::atomic<int> ks_svc_mt_mode{0};
constinit std::atomic<int> ks_svc_mt_max_threads{16};
constinit std::atomic<bool> ks_svc_threads_running{false}; // setup is done

constinit Worker *ks_svc_waiting_threads = nullptr; // idle; guarded by ks_svc_thread_lock
constinit Worker *ks_svc_working_threads = nullptr; // busy; guarded by ks_svc_thread_lock

// Guarded by ks_svc_main_thread_wait_lock.
constinit Transport *queue_first = nullptr; // ready, with no worker for them
constinit Transport *queue_last = nullptr;
constinit bool is_one_on_its_way = false;  // a worker that was idle, to the queue
constinit Worker *ended_threads = nullptr; // to be joined
constinit bool is_left_alone = false;      // nobody joins those that end from now on
constinit int living_count = 0;
constinit vlthread_cond_t ks_svc_main_thread_wait_event = VLTHREAD_COND_INITIALIZER; // one has ended

constinit std::atomic<uint64_t> queued_count{0};
constinit std::atomic<int> waiting_writers{0};

// --- Lists ---

void push(Worker *&list, Worker &worker)
{
    worker.next = list;
    list = &worker;
}

bool unlink_from(Worker *&list, const Worker &worker)
{
    for (Worker **link = &list; *link != nullptr; link = &(*link)->next)
        if (*link == &worker) {
            *link = worker.next;
            return true;
        }
    return false;
}

// Under ks_svc_thread_lock, for writing.
Worker *take_idle()
{
    Worker *worker = ks_svc_waiting_threads;
    if (worker == nullptr)
        return nullptr;
    ks_svc_waiting_threads = worker->next;
    push(ks_svc_working_threads, *worker);
    return worker;
}

void tell(Worker &worker, Command command)
{
    const ks::LockGuard lock(worker.mutex); // one that is told may end, and its record with it
    worker.command = command;
    (void)pthread_cond_signal(&worker.wake); // cannot fail
}

// --- The queue; under ks_svc_main_thread_wait_lock ---

void append_to_queue(Transport &transport)
{
    transport.next_ready = nullptr;
    if (queue_first == nullptr)
        queue_first = &transport;
    else
        queue_last->next_ready = &transport;
    queue_last = &transport;
    queued_count.fetch_add(1, std::memory_order_relaxed);
}

Transport *take_from_queue()
{
    Transport *first = queue_first;
    if (first == nullptr)
        return nullptr;
    queue_first = first->next_ready;
    queued_count.fetch_sub(1, std::memory_order_relaxed);
    return first;
}

// The worker to be told to go to the queue, by the caller behind the lock; NULL when none is needed, or there is none.
Worker *choose_next()
{
    if (queue_first == nullptr || is_one_on_its_way)
        return nullptr;
    const ks::WriteGuard lock(ks::ks_svc_thread_lock);
    Worker *worker = take_idle();
    is_one_on_its_way = worker != nullptr;
    return worker;
}

// --- A worker's life ---

enum class Step { serve, wait, leave };

// Under ks_svc_main_thread_wait_lock.
Step choose_step(Worker &worker)
{
    if (is_ending.load(std::memory_order_relaxed) || worker.is_of_a_parent)
        return Step::leave;
    worker.served = take_from_queue();
    if (worker.served != nullptr)
        return Step::serve;
    const ks::WriteGuard lock(ks::ks_svc_thread_lock);
    if (!unlink_from(ks_svc_working_threads, worker))
        return Step::leave;
    worker.command = wait_command;
    push(ks_svc_waiting_threads, worker);
    return Step::wait;
}

// Has the worker go on with what is queued, or be idle.
Step settle(Worker &worker, bool was_on_its_way)
{
    Step step = Step::leave;
    Worker *next = nullptr;
    {
        const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
        if (was_on_its_way)
            is_one_on_its_way = false;
        step = choose_step(worker);
        next = choose_next();
    }
    if (next != nullptr)
        tell(*next, work_command);
    return step;
}

// False when it is to end.
bool wait_for_work(Worker &worker)
{
    const ks::LockGuard lock(worker.mutex);
    while (worker.command == wait_command)
        (void)vlthread_cond_wait(&worker.wake, &worker.mutex); // always 0
    return worker.command == work_command;
}

// Takes over the caller's hold; false when nothing is served any more.
bool queue_again(Transport &transport)
{
    const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
    if (is_ending.load(std::memory_order_relaxed))
        return false;
    append_to_queue(transport);
    return true;
}

// Serves it, and gives it back to the main thread, or to the queue behind those that wait.
void serve(Worker &worker)
{
    Transport &transport = *worker.served;
    if (is_clone(transport)) {
        serve_clone(transport);
    } else if (serve_turn(transport) && queue_again(transport)) {
        worker.served = nullptr;
        return;
    } else {
        end_service(transport);
        select_again(transport);
    }
    worker.served = nullptr;
    release(transport);
}

void work(Worker &worker)
{
    for (bool was_on_its_way = false;;) {
        const Step step = settle(worker, was_on_its_way);
        was_on_its_way = step == Step::wait;
        if (step == Step::leave || (was_on_its_way && !wait_for_work(worker)))
            return;
        if (step == Step::serve)
            serve(worker);
    }
}

void free_worker(Worker *worker)
{
    (void)pthread_cond_destroy(&worker->wake);
    (void)vlthread_mutex_destroy(&worker->mutex);
    std::free(worker);
}

// Off the lists, to be joined where somebody does: the last that the worker does with its record.
void leave_pool(Worker &worker)
{
    const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
    {
        const ks::WriteGuard list_lock(ks::ks_svc_thread_lock);
        if (!unlink_from(ks_svc_working_threads, worker))
            (void)unlink_from(ks_svc_waiting_threads, worker); // on one of them
    }
    --living_count;
    if (is_left_alone) {
        (void)pthread_detach(pthread_self()); // a joinable thread that runs
        free_worker(&worker);
        return;
    }
    push(ended_threads, worker);
    (void)pthread_cond_broadcast(&ks_svc_main_thread_wait_event); // cannot fail
}

Worker *start_worker();

// A routine has ended the thread. The record goes with it: nobody joins it.
extern "C" void replace_worker(void *argument)
{
    auto &worker = *static_cast<Worker *>(argument);
    if (worker.served != nullptr)
        abandon_call(*std::exchange(worker.served, nullptr));
    bool is_replaced = true;
    {
        const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
        {
            const ks::WriteGuard list_lock(ks::ks_svc_thread_lock);
            (void)unlink_from(ks_svc_working_threads, worker); // it was serving
        }
        --living_count;
        (void)pthread_cond_broadcast(&ks_svc_main_thread_wait_event); // cannot fail
        is_replaced = is_ending.load() || worker.is_of_a_parent || start_worker() != nullptr;
    }
    (void)pthread_detach(pthread_self()); // a joinable thread that runs
    free_worker(&worker);
    if (!is_replaced)
        (void)ks_warnx("ks_svc_worker_thread_main: no thread can be had in the place of one that ended");
}

extern "C" void *ks_svc_worker_thread_main(void *argument)
{
    auto &worker = *static_cast<Worker *>(argument);
    pthread_cleanup_push(replace_worker, &worker);
    const ks::RaiseHold hold;
    while (ks::protect([&] { work(worker); }) != 0) {
        pfm_enable(); // what protect() has left; raises stay held off
        if (worker.served != nullptr)
            abandon_call(*std::exchange(worker.served, nullptr));
    }
    pthread_cleanup_pop(0);
    if (!worker.is_of_a_parent)
        leave_pool(worker);
    return nullptr;
}

// Under ks_svc_main_thread_wait_lock. It starts as a busy one, and finds out what there is to do.
Worker *start_worker()
{
    auto *worker = static_cast<Worker *>(std::calloc(1, sizeof(Worker)));
    if (worker == nullptr)
        return nullptr;
    worker->wake = VLTHREAD_COND_INITIALIZER;
    (void)vlthread_mutex_init_full(&worker->mutex, 0, ks::lock_level_svc_worker, 0, ks::lock_order()); // memory alone
    {
        const ks::WriteGuard list_lock(ks::ks_svc_thread_lock);
        push(ks_svc_working_threads, *worker);
    }
    if (vlthread_create(&worker->thread, nullptr, ks_svc_worker_thread_main, worker) == 0) {
        ++living_count;
        return worker;
    }
    {
        const ks::WriteGuard list_lock(ks::ks_svc_thread_lock);
        (void)unlink_from(ks_svc_working_threads, *worker);
    }
    free_worker(worker);
    return nullptr;
}

bool start_pool()
{
    const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
    for (int i = 0; i < ks_svc_mt_max_threads.load(); ++i)
        if (start_worker() == nullptr)
            return false;
    return true;
}

// --- The end ---

void dismiss_idle()
{
    for (;;) {
        Worker *worker = nullptr;
        {
            const ks::WriteGuard list_lock(ks::ks_svc_thread_lock);
            worker = take_idle();
        }
        if (worker == nullptr)
            return;
        tell(*worker, exit_command);
    }
}

timespec moment_in(int timeout_ms)
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock and a valid address
    const long nsec = now.tv_nsec + timeout_ms % 1000 * 1'000'000L;
    return {now.tv_sec + timeout_ms / 1000 + nsec / 1'000'000'000, nsec % 1'000'000'000};
}

// Waits for the living; what is left of them when the time is over.
int await_ends(int timeout_ms)
{
    const timespec deadline = moment_in(timeout_ms);
    const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
    int error = 0;
    while (living_count > 0 && error != ETIMEDOUT) {
        if (timeout_ms < 0)
            (void)vlthread_cond_wait(&ks_svc_main_thread_wait_event, &ks::ks_svc_main_thread_wait_lock); // always 0
        else
            error =
                vlthread_cond_timedwait(&ks_svc_main_thread_wait_event, &ks::ks_svc_main_thread_wait_lock, &deadline);
    }
    is_left_alone = true;
    return living_count;
}

void join_ended()
{
    Worker *ended = nullptr;
    {
        const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
        ended = std::exchange(ended_threads, nullptr);
    }
    while (ended != nullptr) {
        Worker *worker = std::exchange(ended, ended->next);
        (void)vlthread_join(worker->thread, nullptr); // it has ended, or is about to
        free_worker(worker);
    }
}

void drop_queue()
{
    for (;;) {
        Transport *transport = nullptr;
        {
            const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
            transport = take_from_queue();
        }
        if (transport == nullptr)
            return;
        give_up(*transport);
    }
}

int end_pool(int timeout_ms)
{
    {
        const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
        is_ending = true;
    }
    dismiss_idle();
    drop_queue();
    const int left = await_ends(timeout_ms);
    join_ended();
    return left;
}

} // namespace

// --- Handing over ---

bool has_idle_worker()
{
    const ks::ReadGuard lock(ks::ks_svc_thread_lock);
    uint64_t queued = queued_count.load(std::memory_order_relaxed);
    const Worker *idle = ks_svc_waiting_threads;
    for (; idle != nullptr && queued > 0; --queued)
        idle = idle->next;
    return idle != nullptr;
}

bool is_anybody_queued()
{
    return queued_count.load(std::memory_order_relaxed) != 0;
}

void hand_over(Transport &transport)
{
    Worker *worker = nullptr;
    bool is_dropped = false;
    {
        const ks::LockGuard lock(ks::ks_svc_main_thread_wait_lock);
        is_dropped = is_ending.load(std::memory_order_relaxed);
        if (!is_dropped) {
            append_to_queue(transport);
            worker = choose_next();
        }
    }
    if (worker != nullptr)
        tell(*worker, work_command);
    if (is_dropped)
        give_up(transport);
}

WaitingSeat::WaitingSeat()
    : is_granted_(waiting_writers.fetch_add(1, std::memory_order_relaxed) + 1 < ks_svc_mt_max_threads.load() ||
                  !is_multi_threaded.load(std::memory_order_relaxed) || ks_svc_mt_max_threads.load() == 1)
{
}

WaitingSeat::~WaitingSeat()
{
    waiting_writers.fetch_sub(1, std::memory_order_relaxed);
}

PoolState pool_state()
{
    const ks::ReadGuard lock(ks::ks_svc_thread_lock);
    PoolState state{0, 0, queued_count.load(std::memory_order_relaxed)};
    for (const Worker *at = ks_svc_working_threads; at != nullptr; at = at->next)
        ++state.busy;
    state.workers = state.busy;
    for (const Worker *at = ks_svc_waiting_threads; at != nullptr; at = at->next)
        ++state.workers;
    return state;
}

bool set_threads(int count)
{
    if (count <= 0 || ks_svc_threads_running.load())
        return false;
    ks_svc_mt_max_threads = count;
    return true;
}

bool set_mt_mode(int mode)
{
    if ((mode != 0 && mode != 1) || ks_svc_threads_running.load())
        return false;
    ks_svc_mt_mode = mode;
    return true;
}

int mt_mode()
{
    return ks_svc_mt_mode.load();
}

int max_threads()
{
    return ks_svc_mt_max_threads.load();
}

// In a child, whose only thread this is.
InheritedPool drop_inherited_pool()
{
    InheritedPool pool{is_multi_threaded.load(), nullptr};
    for (Worker **list : {&ks_svc_waiting_threads, &ks_svc_working_threads, &ended_threads}) {
        while (Worker *worker = *list) {
            *list = worker->next;
            worker->is_of_a_parent = true;
            // That of the thread that forked, in a routine of its own, is still in use.
            if (vlthread_equal(worker->thread, vlthread_self()) != 0)
                pool.own = worker->served;
            else
                std::free(worker);
        }
    }
    while (Transport *transport = take_from_queue())
        give_up(*transport);
    living_count = 0;
    is_left_alone = false;
    is_one_on_its_way = false;
    ks_svc_main_thread_wait_event = VLTHREAD_COND_INITIALIZER;
    waiting_writers = 0;
    is_multi_threaded = false;
    is_ending = false;
    ks_svc_threads_running = false;
    return pool;
}

} // namespace ks::svc

extern "C" {

bool_t ks_svc_setup_threads(void)
{
    using namespace ks::svc;
    if (ks_svc_threads_running.exchange(true))
        return FALSE;
    if (ks_svc_mt_mode.load() == 0)
        return TRUE;
    pfm_init(); // by whoever sets up, who is the attached thread then, and not by the first worker
    require_update_pipe();
    if (!start_pool()) {
        (void)end_pool(-1);
        is_left_alone = false; // all have ended
        is_ending = false;
        ks_svc_threads_running = false;
        return FALSE;
    }
    is_multi_threaded = true;
    return TRUE;
}

int ks_svc_end_threads(int timeout_ms)
{
    return ks::svc::end_pool(timeout_ms);
}
}
