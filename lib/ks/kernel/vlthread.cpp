// Start of the thread layer, its diagnostics, and threads themselves.
#include "kernel/kernel.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <strings.h>
#include <sys/select.h>

namespace ks {

constinit std::atomic<uint32_t> vlthread_modes{0};

} // namespace ks

namespace {

constexpr std::size_t stack_bytes_min = 0x100000;
constexpr std::size_t trace_bytes_max = 4096;

constinit pthread_once_t init_once = PTHREAD_ONCE_INIT;
constinit std::atomic<bool> vlthread_inited{false};

void init_layer()
{
    const char *trace = std::getenv("TRACE_VLTHREAD");
    if (trace != nullptr && strcasecmp(trace, "TRUE") == 0)
        ks::vlthread_set_mode(ks::vlthread_mode_trace);
    pfm_tls_init();
    ks::require_no_threads();
    ks::fault_block_of_caller()->state = ks::add_thread_to_process(pthread_self());
    vlthread_inited.store(true, std::memory_order_release);
}

// Bytes an snprintf into `room` bytes left there.
std::size_t kept(int formatted, std::size_t room)
{
    return formatted < 0 ? 0 : std::min(static_cast<std::size_t>(formatted), room - 1);
}

std::size_t format_trace_prefix(char *line, std::size_t size)
{
    const timeval now = ks::wall_clock();
    tm local{};
    (void)localtime_r(&now.tv_sec, &local); // on failure the zeroed time is shown
    char clock_text[16] = "";
    (void)strftime(clock_text, sizeof clock_text, "%H:%M:%S", &local); // fits: 8 characters
    const int formatted = std::snprintf(line, size, ">>> %s.%.3ld (vlthread): [P%u][T%lu]", clock_text,
                                        static_cast<long>(now.tv_usec / 1000), static_cast<unsigned>(getpid()),
                                        static_cast<unsigned long>(pthread_self()));
    return kept(formatted, size);
}

struct ThreadStart {
    void *(*start)(void *);
    void *arg;
};

// First function of a thread. Whichever way the thread ends, its fault block takes it off the state
// list: an entry that outlived its thread would hand its raise status to the next thread with the
// same id.
void *run_thread(void *argument)
{
    const ThreadStart start = *static_cast<ThreadStart *>(argument);
    std::free(argument);
    ks::adopt_own_state();
    void *value = start.start(start.arg);
    ks::leave_process(ks::fault_block_of_caller());
    return value;
}

int widen_stack(pthread_attr_t *attr)
{
    std::size_t stack_bytes = 0;
    if (pthread_attr_getstacksize(attr, &stack_bytes) == 0 && stack_bytes >= stack_bytes_min)
        return 0;
    return pthread_attr_setstacksize(attr, stack_bytes_min);
}

int trace_create_failure(const char *function, int error)
{
    if (ks::is_tracing())
        vlthread_trace("Unable to create thread ('%s' failed): %s\n", function, strerror(error));
    return error;
}

int create_with_attr(vlthread_t *out_thread, pthread_attr_t *attr, ThreadStart *start)
{
    int error = widen_stack(attr);
    if (error != 0)
        return trace_create_failure("pthread_attr_setstacksize", error);
    (void)vlthread_mutex_lock(&ks::vlthread_lock);
    error = pthread_create(out_thread, attr, run_thread, start);
    if (error == 0)
        (void)ks::add_thread_to_process(*out_thread);
    (void)vlthread_mutex_unlock(&ks::vlthread_lock);
    return error == 0 ? 0 : trace_create_failure("pthread_create", error);
}

int create_with_default_attr(vlthread_t *out_thread, ThreadStart *start)
{
    pthread_attr_t attr;
    int error = pthread_attr_init(&attr);
    if (error != 0)
        return trace_create_failure("pthread_attr_init", error);
    error = create_with_attr(out_thread, &attr, start);
    (void)pthread_attr_destroy(&attr); // always succeeds for an initialised attribute
    return error;
}

timeval monotonic_clock()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock and a valid address
    return {now.tv_sec, now.tv_nsec / 1000};
}

} // namespace

extern "C" {

int vlthread_init(void)
{
    if (vlthread_inited.load(std::memory_order_acquire)) [[likely]]
        return 0;
    return pthread_once(&init_once, init_layer);
}

int vlthread_once(vlthread_once_t *once, void (*fn)(void))
{
    return pthread_once(once, fn);
}

void vlthread_trace(const char *format, ...)
{
    if (!ks::is_tracing())
        return;
    const ks::ErrnoSaver saver;
    const ks::CancelHold hold; // whatever lock the caller has
    char line[trace_bytes_max];
    std::size_t length = format_trace_prefix(line, sizeof line);
    va_list args;
    va_start(args, format);
    const int formatted = std::vsnprintf(line + length, sizeof line - length, format, args);
    va_end(args);
    length += kept(formatted, sizeof line - length);
    (void)!write(STDERR_FILENO, line, length); // a diagnostic that cannot be written is lost
}

void vlthread_assert_fail(const char *expr, int line)
{
    char text[4095];
    const int formatted = std::snprintf(text, sizeof text, "vlthread assertion fail: [%lu] %s at 'vlthread':%d\n",
                                        static_cast<unsigned long>(pthread_self()), expr, line);
    (void)!write(STDERR_FILENO, text, kept(formatted, sizeof text)); // the process ends either way
    std::abort();
}

int vlthread_create(vlthread_t *out_thread, vlthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    (void)vlthread_init();
    // malloc: the thread layer lies below the storage module.
    auto *thread_start = static_cast<ThreadStart *>(std::malloc(sizeof(ThreadStart)));
    if (thread_start == nullptr)
        return trace_create_failure("pthread_create", EAGAIN);
    *thread_start = {start, arg};
    const int error = attr != nullptr ? create_with_attr(out_thread, attr, thread_start)
                                      : create_with_default_attr(out_thread, thread_start);
    if (error != 0)
        std::free(thread_start);
    return error;
}

void vlthread_exit(void *value)
{
    ks::remove_thread_from_process(pthread_self());
    ks::leave_process(ks::fault_block_of_caller());
    pthread_exit(value);
}

int vlthread_join(vlthread_t thread, void **value)
{
    const int error = pthread_join(thread, value);
    if (error != 0 && ks::is_tracing())
        vlthread_trace("Unable to wait for thread termination ('%s' failed): %s\n", "pthread_join", strerror(error));
    return error;
}

int vlthread_kill(vlthread_t thread, int sig)
{
    return pthread_kill(thread, sig);
}

int vlthread_is_null(const vlthread_t *tid)
{
    return *tid == VLTHREAD_INVALID_TID;
}

void vlthread_set_null(vlthread_t *tid)
{
    *tid = VLTHREAD_INVALID_TID;
}

int vlthread_sleep(uint32_t milliseconds)
{
    timeval left{static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    while (left.tv_sec >= 0) {
        const timeval started = monotonic_clock();
        timeval timeout = left;
        if (select(0, nullptr, nullptr, nullptr, &timeout) >= 0)
            break;
        left = ks::time_difference(left, ks::time_difference(monotonic_clock(), started));
    }
    return 0;
}
}
