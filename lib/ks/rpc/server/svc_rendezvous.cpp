// Listeners: transports whose requests are newcomers.
//
// A listener that finds no descriptor for a newcomer would be ready again at once. So it is not selected on for a
// while, and then again when a connection has ended or the time is over, whatever comes first.
#include "rpc/server/svc_impl.h"

#include "events/rt_started.h"

#include <korvaks/ks_warn.h>
#include <korvaks/rt.h>
#include <korvaks/sysutl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <netinet/tcp.h>

namespace ks::svc {

constinit std::atomic<int> __ks_svc_maxrec{0};

namespace {

constexpr int newcomers_per_turn = 16;
constexpr int64_t pause_us = 400'000;

struct Rendezvous : Transport {
    u_int sendsize;
    u_int recvsize;
    std::atomic<int> maxrec;
};

Rendezvous &rendezvous_of(SVCXPRT *xprt)
{
    return reinterpret_cast<Rendezvous &>(transport_of(xprt));
}

// --- Pauses ---

constinit std::atomic<int64_t> resume_at_us{0}; // of CLOCK_MONOTONIC_COARSE; 0: no listener pauses
constinit rt_event resume_event{};
constinit std::atomic<bool> is_resume_scheduled{false};

bool means_exhaustion(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

extern "C" void resume_by_event(void *)
{
    is_resume_scheduled = false;
    resume_listeners();
}

// The loop of ks_svc_run() looks at the time itself; that of rt_run() has an event.
void schedule_resume()
{
    if (is_running.load(std::memory_order_relaxed) || !ks::rt_has_started() || is_resume_scheduled.exchange(true))
        return;
    (void)rt_sched_int(resume_by_event, nullptr, 1, &resume_event, sizeof resume_event); // has room
}

void pause_listener(Rendezvous &listener, int error)
{
    static constinit std::atomic<bool> was_said{false};
    if (!was_said.exchange(true))
        (void)ks_warnx("ks_rendezvous_request: no newcomer is accepted for now: %s", std::strerror(error));
    count(counters.accept_pauses);
    // In this order: whoever resumes listeners in between leaves this one selected.
    deselect(listener);
    __atomic_store_n(&listener.is_paused, true, __ATOMIC_RELEASE);
    resume_at_us.store(now_us() + pause_us, std::memory_order_release);
    schedule_resume();
}

// --- Newcomers ---

// -1 with errno.
int accept_one(const Rendezvous &listener, sockaddr_storage &out_remote, socklen_t &out_size, bool is_limited)
{
    int fd = -1;
    do {
        out_size = sizeof out_remote;
        fd = accept4(fd_of(listener), reinterpret_cast<sockaddr *>(&out_remote), &out_size,
                     SOCK_CLOEXEC | (is_limited ? SOCK_NONBLOCK : 0));
    } while (fd < 0 && errno == EINTR);
    return ks::above_stdio(fd);
}

void refuse(int fd)
{
    count(counters.connections_refused);
    (void)close(fd); // given up either way
    (void)ks_warnx("new accepted socket out of fd_set range\n");
}

Transport *make_newcomer(const Rendezvous &listener, int fd, int limit)
{
    // A buffer larger than any record is of no use.
    const u_int recvsize = limit > 0 ? std::min(listener.recvsize, static_cast<u_int>(limit)) : listener.recvsize;
    Transport *newcomer = make_connection(fd, listener.sendsize, recvsize);
    if (newcomer == nullptr)
        return nullptr;
    if (limit > 0)
        limit_records(*newcomer, limit);
    std::memcpy(newcomer->netid, listener.netid, sizeof newcomer->netid);
    std::memcpy(newcomer->device, listener.device, sizeof newcomer->device);
    newcomer->handle.platform.xp_port = listener.handle.platform.xp_port;
    return newcomer;
}

// False when there is nobody more.
bool take_newcomer(Rendezvous &listener)
{
    const int limit = listener.maxrec.load(std::memory_order_relaxed);
    sockaddr_storage remote;
    socklen_t size = 0;
    const int fd = accept_one(listener, remote, size, limit > 0);
    if (fd < 0) {
        const int error = errno;
        if (means_exhaustion(error))
            pause_listener(listener, error);
        return error == ECONNABORTED;
    }
    count(counters.connections_accepted);
    Transport *newcomer = make_newcomer(listener, fd, limit);
    if (newcomer == nullptr) {
        refuse(fd);
        return true;
    }
    std::memcpy(&newcomer->remote, &remote, std::min<std::size_t>(size, sizeof remote));
    note_remote(*newcomer, size);
    if (!enter(*newcomer)) {
        count(counters.connections_refused);
        end_transport(*newcomer);
    } else if (limit > 0) {
        watch_idleness();
    }
    return true;
}

extern "C" bool_t ks_rendezvous_request(SVCXPRT *xprt, rpc_msg *)
{
    Rendezvous &listener = rendezvous_of(xprt);
    for (int i = 0; i < newcomers_per_turn && take_newcomer(listener); ++i) {
    }
    return FALSE;
}

extern "C" bool_t ks_svc_vc_rendezvous_control(SVCXPRT *xprt, u_int request, void *info)
{
    constexpr u_int get_limit = 3;
    constexpr u_int set_limit = 4;
    Rendezvous &listener = rendezvous_of(xprt);
    if (info == nullptr)
        return FALSE;
    int &limit = *static_cast<int *>(info);
    if (request == get_limit) {
        limit = listener.maxrec.load();
        return TRUE;
    }
    if (request != set_limit || limit < 0)
        return FALSE;
    listener.maxrec.store(limit);
    return TRUE;
}

constexpr Kind listener_kind = kind_of(without_calls(ks_rendezvous_request, ks_svc_vc_rendezvous_control),
                                       Serving::by_worker, false, dispose_plain);

Transport *fail(Rendezvous *listener, const char *message)
{
    (void)ks_warnx("%s", message);
    std::free(listener);
    return nullptr;
}

} // namespace

void resume_listeners()
{
    if (resume_at_us.exchange(0, std::memory_order_acq_rel) == 0)
        return;
    // Held one by one: what is selected on again takes the table's lock.
    for (int fd = 0; fd <= __atomic_load_n(&ks_svc_maxfd, __ATOMIC_RELAXED); ++fd) {
        Transport *transport = hold_transport(fd);
        if (transport == nullptr)
            continue;
        if (__atomic_exchange_n(&transport->is_paused, false, __ATOMIC_ACQ_REL))
            select_again(*transport);
        release(*transport);
    }
}

int ms_until_resume(int longest_ms)
{
    const int64_t due = resume_at_us.load(std::memory_order_acquire);
    if (due == 0)
        return longest_ms;
    return static_cast<int>(std::clamp<int64_t>((due - now_us()) / 1000 + 1, 0, longest_ms));
}

void resume_when_due()
{
    if (ms_until_resume(1) == 0)
        resume_listeners();
}

} // namespace ks::svc

extern "C" SVCXPRT *ks_svc_vc_create(int fd, u_int sendsize, u_int recvsize)
{
    using namespace ks::svc;
    auto *listener = static_cast<Rendezvous *>(std::calloc(1, sizeof(Rendezvous)));
    if (listener == nullptr)
        return reinterpret_cast<SVCXPRT *>(fail(listener, "ks_svc_vc_create: out of memory"));
    __rpc_sockinfo info{};
    begin_transport(*listener, fd, listener_kind, SOCK_STREAM);
    if (!read_local_address(*listener) || __ks_rpc_fd2sockinfo(fd, &info) == 0)
        return reinterpret_cast<SVCXPRT *>(fail(listener, "ks_svc_vc_create: could not retrieve local addr"));
    const char *netid = "";
    (void)__ks_rpc_sockinfo2netid(&info, &netid); // a kind that was just found
    set_netid(*listener, netid);
    listener->sendsize = __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(sendsize));
    listener->recvsize = __ks_rpc_get_t_size(info.si_af, info.si_proto, static_cast<int>(recvsize));
    listener->maxrec = __ks_svc_maxrec.load();
    constexpr int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // its connections inherit it; a wish
    if (sysutl_set_socket_nonblocking(fd, 1) == 0 && ks_xprt_register(handle_of(*listener)) != FALSE)
        return handle_of(*listener);
    std::free(listener);
    return nullptr;
}
