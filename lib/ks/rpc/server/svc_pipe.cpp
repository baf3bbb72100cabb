// The update pipe: by which workers make the main thread look at the set of descriptors again.
//
// Its read end is a registered transport. At most one byte waits in it. Without workers it is made only for a
// connection whose turn has ended with calls in memory, of which no descriptor tells.
#include "rpc/server/svc_impl.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>

namespace ks::svc {

namespace {

// Guarded by ks_svc_pipe_lock.
constinit int ks_svc_pipe_write_fd = -1;
constinit int ks_svc_pipe_written = 0;
constinit int ks_svc_main_thread_in_select = 1;

constinit Transport *update_pipe = nullptr; // the read end's; of the main thread
// Connections that are served again, each held; of the main thread.
constinit Transport *later_first = nullptr;
constinit Transport *later_last = nullptr;

void write_byte()
{
    if (ks_svc_pipe_written != 0 || ks_svc_pipe_write_fd < 0)
        return;
    constexpr char byte = 0;
    ssize_t count = 0;
    do
        count = write(ks_svc_pipe_write_fd, &byte, sizeof byte);
    while (count < 0 && errno == EINTR);
    ks_svc_pipe_written = 1;
}

// One that is not done with its turn comes to the end again, and has to wait for the next byte.
void serve_later_ones()
{
    for (const Transport *last = later_last; later_first != nullptr;) {
        Transport &transport = *std::exchange(later_first, later_first->next_ready);
        const bool is_last = &transport == last;
        transport.is_served_later = false;
        serve_leftover(transport);
        if (is_last)
            return;
    }
}

extern "C" bool_t update_select_request(SVCXPRT *xprt, rpc_msg *)
{
    char byte = 0;
    {
        const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
        ssize_t count = 0;
        do
            count = read(xprt->xp_fd, &byte, sizeof byte);
        while (count < 0 && errno == EINTR);
        if (count != sizeof byte && !(count < 0 && errno == EAGAIN))
            (void)std::fputs("update_select_request: bad read count\n", stderr);
        ks_svc_pipe_written = 0;
    }
    serve_later_ones();
    return FALSE;
}

void dispose_pipe(Transport &transport)
{
    if (update_pipe == &transport) {
        update_pipe = nullptr;
        const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
        (void)close(std::exchange(ks_svc_pipe_write_fd, -1)); // given up either way
        ks_svc_pipe_written = 0;
    }
    dispose_plain(transport);
}

constexpr Kind pipe_kind =
    kind_of(without_calls(update_select_request, nullptr), Serving::inline_by_main_thread, false, dispose_pipe);

enum class Made { yes, no_pipe, no_memory, not_registered };

Made make_update_pipe()
{
    if (update_pipe != nullptr)
        return Made::yes;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        return Made::no_pipe;
    ks::UniqueFd read_end(ks::above_stdio(fds[0]));
    ks::UniqueFd write_end(ks::above_stdio(fds[1]));
    if (!read_end || !write_end)
        return Made::no_pipe;
    auto *made = static_cast<Transport *>(std::calloc(1, sizeof(Transport)));
    if (made == nullptr)
        return Made::no_memory;
    begin_transport(*made, read_end.get(), pipe_kind, 0);
    if (!enter(*made)) {
        std::free(made);
        return Made::not_registered;
    }
    (void)read_end.release(); // the transport's now
    update_pipe = made;
    const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
    ks_svc_pipe_write_fd = write_end.release();
    return Made::yes;
}

} // namespace

void require_update_pipe()
{
    switch (make_update_pipe()) {
    case Made::yes:
        return;
    case Made::no_pipe:
        (void)std::fputs("ks_mk_update_select_pipe: problem creating pipe\n", stderr);
        break;
    case Made::no_memory:
        (void)std::fputs("ks_mk_update_select_pipe: out of memory\n", stderr);
        break;
    case Made::not_registered:
        break;
    }
    std::abort();
}

void wake_main_thread(const Transport *selected)
{
    const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
    if (ks_svc_main_thread_in_select != 0 && !watch_now(*selected))
        write_byte();
}

void begin_serving()
{
    const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
    ks_svc_main_thread_in_select = 0;
}

void end_serving()
{
    const ks::WriteGuard lock(ks::ks_svc_pipe_lock);
    ks_svc_main_thread_in_select = 1;
    if (later_first != nullptr) // also those that a raise has left there
        write_byte();
}

bool serve_later(Transport &transport)
{
    if (make_update_pipe() != Made::yes)
        return false;
    if (std::exchange(transport.is_served_later, true)) { // and was ready by its descriptor meanwhile
        release(transport);
        return true;
    }
    transport.next_ready = nullptr;
    if (later_first == nullptr)
        later_first = &transport;
    else
        later_last->next_ready = &transport;
    later_last = &transport;
    return true;
}

// In a child: the other end is its parent's. What was to be served again is served with what comes next.
void drop_inherited_pipe()
{
    while (later_first != nullptr) {
        Transport &transport = *std::exchange(later_first, later_first->next_ready);
        transport.is_served_later = false;
        release(transport);
    }
    later_last = nullptr;
    if (update_pipe != nullptr)
        end_transport(*update_pipe);
    ks_svc_main_thread_in_select = 1;
}

} // namespace ks::svc
