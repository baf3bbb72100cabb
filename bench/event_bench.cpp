// What does the event runtime cost beside other loops: timers, and a pass over descriptors of which few or all are
// ready? Everybody's handlers do nothing, what is ready stays ready, and memory of timers is there before the clock
// runs.
#include <korvaks/pfm.h>
#include <korvaks/rt.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#ifdef BENCH_LIBEVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#endif
#ifdef BENCH_LIBUV
#include <uv.h>
#endif

namespace {

constexpr std::size_t timer_count = 10000;
constexpr std::size_t due_count = 1000;

long calls = 0;

// Delays between 1 and 3,600 s.
std::vector<timeval> random_delays()
{
    std::minstd_rand random(1);
    std::vector<timeval> delays(timer_count);
    for (timeval &delay : delays)
        delay = {static_cast<long>(1 + random() % 3599), static_cast<long>(random() % 1000000)};
    return delays;
}

std::vector<timeval> constant_delays()
{
    return std::vector<timeval>(timer_count, timeval{30, 0});
}

// Open and ready descriptors; the others of them never are.
class Files {
  public:
    Files(std::size_t count, std::size_t ready_count)
    {
        rlimit limit;
        (void)getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
        for (std::size_t i = 0; i < count; ++i) // the last are ready
            fds_.push_back(eventfd(i + ready_count >= count ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
    }
    ~Files()
    {
        for (const int fd : fds_)
            close(fd);
    }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;

    bool are_open() const { return fds_.empty() || fds_.back() >= 0; }
    auto begin() const { return fds_.begin(); }
    auto end() const { return fds_.end(); }

  private:
    std::vector<int> fds_;
};

// --- The library ---

class Korvaks {
  public:
    Korvaks() : events_(timer_count) {}
    ~Korvaks()
    {
        for (const int fd : fds_)
            rt_unhandle_fd(RT_FD_READ, fd);
    }
    Korvaks(const Korvaks &) = delete;
    Korvaks &operator=(const Korvaks &) = delete;

    void add_timer(std::size_t i, const timeval &delay)
    {
        events_[i] = rt_sched_rel([](void *) { ++calls; }, nullptr, &delay);
    }
    void cancel_timer(std::size_t i) { rt_unsched(events_[i]); }
    void add_due(std::size_t i) { add_timer(i, {0, 0}); }
    void fire_due(std::size_t)
    {
        const timeval now{0, 0};
        rt_sched_rel([](void *) { rt_shutdown(); }, nullptr, &now);
        rt_run();
    }
    void add_fd(int fd)
    {
        rt_handle_fd(
            RT_FD_READ, [](int, void *) { ++calls; }, fd, nullptr);
        fds_.push_back(fd);
    }
    void pass() { rt_poll(); }

  private:
    std::vector<rt_event *> events_;
    std::vector<int> fds_;
};

// --- Peers ---

#ifdef BENCH_LIBEVENT
template <bool has_epoll> class LibEvent {
  public:
    LibEvent() : timers_(timer_count)
    {
        event_config *config = event_config_new();
        if (!has_epoll) {
            event_config_avoid_method(config, "epoll");
            event_config_avoid_method(config, "poll");
        }
        base_ = event_base_new_with_config(config);
        event_config_free(config);
        for (event &timer : timers_)
            evtimer_assign(
                &timer, base_, [](evutil_socket_t, short, void *) { ++calls; }, nullptr);
    }
    ~LibEvent()
    {
        for (event *each : fd_events_)
            event_free(each);
        event_base_free(base_);
    }
    LibEvent(const LibEvent &) = delete;
    LibEvent &operator=(const LibEvent &) = delete;

    void add_timer(std::size_t i, const timeval &delay) { evtimer_add(&timers_[i], &delay); }
    void cancel_timer(std::size_t i) { evtimer_del(&timers_[i]); }
    void add_due(std::size_t i) { add_timer(i, {0, 0}); }
    void fire_due(std::size_t wanted)
    {
        for (const long end = calls + static_cast<long>(wanted); calls < end;)
            event_base_loop(base_, EVLOOP_ONCE);
    }
    void add_fd(int fd)
    {
        fd_events_.push_back(event_new(
            base_, fd, EV_READ | EV_PERSIST, [](evutil_socket_t, short, void *) { ++calls; }, nullptr));
        event_add(fd_events_.back(), nullptr);
    }
    void pass() { event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK); }

  private:
    event_base *base_;
    std::vector<event> timers_;
    std::vector<event *> fd_events_;
};
#endif

#ifdef BENCH_LIBUV
// Its timers have milliseconds.
class LibUv {
  public:
    LibUv() : timers_(timer_count)
    {
        uv_loop_init(&loop_);
        for (uv_timer_t &timer : timers_)
            uv_timer_init(&loop_, &timer);
    }
    ~LibUv()
    {
        uv_walk(
            &loop_, [](uv_handle_t *handle, void *) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    LibUv(const LibUv &) = delete;
    LibUv &operator=(const LibUv &) = delete;

    void add_timer(std::size_t i, const timeval &delay)
    {
        const auto ms = static_cast<uint64_t>(delay.tv_sec * 1000 + delay.tv_usec / 1000);
        uv_timer_start(
            &timers_[i], [](uv_timer_t *) { ++calls; }, ms, 0);
    }
    void cancel_timer(std::size_t i) { uv_timer_stop(&timers_[i]); }
    void add_due(std::size_t i) { add_timer(i, {0, 0}); }
    void fire_due(std::size_t wanted)
    {
        for (const long end = calls + static_cast<long>(wanted); calls < end;)
            uv_run(&loop_, UV_RUN_ONCE);
    }
    void add_fd(int fd)
    {
        polls_.push_back(std::make_unique<uv_poll_t>());
        uv_poll_init(&loop_, polls_.back().get(), fd);
        uv_poll_start(polls_.back().get(), UV_READABLE, [](uv_poll_t *, int, int) { ++calls; });
    }
    void pass() { uv_run(&loop_, UV_RUN_NOWAIT); }

  private:
    uv_loop_t loop_;
    std::vector<uv_timer_t> timers_;
    std::vector<std::unique_ptr<uv_poll_t>> polls_;
};
#endif

// --- Jobs ---

template <typename Loop> void add_and_cancel(benchmark::State &state, const std::vector<timeval> &delays)
{
    Loop loop;
    for (auto _ : state) {
        for (std::size_t i = 0; i < timer_count; ++i)
            loop.add_timer(i, delays[i]);
        for (std::size_t i = 0; i < timer_count; ++i)
            loop.cancel_timer(i);
    }
}

template <typename Loop> void fire_timers(benchmark::State &state)
{
    Loop loop;
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < due_count; ++i)
            loop.add_due(i);
        usleep(1); // due is what is past
        state.ResumeTiming();
        loop.fire_due(due_count);
    }
}

template <typename Loop> void make_pass(benchmark::State &state, std::size_t count, std::size_t ready_count)
{
    constexpr int passes_before = 100; // those that register, copy or grow on first use
    const Files files(count, ready_count);
    if (!files.are_open()) {
        state.SkipWithError("too few descriptors are allowed");
        return;
    }
    Loop loop;
    for (const int fd : files)
        loop.add_fd(fd);
    for (int i = 0; i < passes_before; ++i)
        loop.pass();
    const long before = calls;
    for (auto _ : state)
        loop.pass();
    if (calls - before != state.iterations() * static_cast<long>(ready_count))
        state.SkipWithError("a pass missed handlers, or served them twice");
}

void register_timers(const char *contender, auto loop)
{
    using Loop = typename decltype(loop)::type;
    const auto name = [contender](const char *job) { return std::string("event/") + job + "/" + contender; };
    benchmark::RegisterBenchmark(name("timers_random").c_str(), add_and_cancel<Loop>, random_delays());
    benchmark::RegisterBenchmark(name("timers_constant").c_str(), add_and_cancel<Loop>, constant_delays());
    benchmark::RegisterBenchmark(name("timers_fire").c_str(), fire_timers<Loop>);
}

void register_pass(std::size_t ready_count, std::size_t count, const char *contender, auto loop)
{
    using Loop = typename decltype(loop)::type;
    const std::string job = "event/ready_" + std::to_string(ready_count) + "_of_" + std::to_string(count);
    benchmark::RegisterBenchmark((job + "/" + contender).c_str(), make_pass<Loop>, count, ready_count);
}

const int registered = [] {
    register_timers("korvaks", std::type_identity<Korvaks>());
    for (const std::size_t count : {1UL, 64UL, 1000UL})
        register_pass(count, count, "korvaks", std::type_identity<Korvaks>());
    for (const std::size_t count : {1000UL, 16000UL})
        register_pass(1, count, "korvaks", std::type_identity<Korvaks>());
#ifdef BENCH_LIBEVENT
    register_timers("libevent", std::type_identity<LibEvent<true>>());
    for (const std::size_t count : {1UL, 64UL, 1000UL})
        register_pass(count, count, "libevent_select", std::type_identity<LibEvent<false>>());
    for (const std::size_t count : {1000UL, 16000UL})
        register_pass(1, count, "libevent_epoll", std::type_identity<LibEvent<true>>());
#endif
#ifdef BENCH_LIBUV
    register_timers("libuv", std::type_identity<LibUv>());
    for (const std::size_t count : {1000UL, 16000UL})
        register_pass(1, count, "libuv", std::type_identity<LibUv>());
#endif
    return 0;
}();

} // namespace
