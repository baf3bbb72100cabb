// Private to the server: transports, their table, and how calls come in and replies go out.
//
// A transport lives as long as somebody holds it: its creation, until it is destroyed, and every thread that serves it.
// The last one to let go closes the socket. Whoever found it in the table holds it before the table's lock is released.
#pragma once

#include "base/ks_base.h"
#include "kernel/kernel.h"
#include "rpc/wire/rpc_platform.h"

#include <korvaks/svc.h>

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <sys/socket.h>

namespace ks::svc {

inline constexpr ks::AssertPath here{"lib/ks/rpc/svc"};

inline constexpr int fd_limit = 16384;
inline constexpr std::size_t set_words = fd_limit / 64;
// Calls of one connection in a turn, while others wait.
inline constexpr int calls_per_turn = 64;
inline constexpr int idle_seconds = 30;

struct Transport;

// The platform's tables: their fields have the names of the types.
using PlatformOps = std::remove_const_t<std::remove_pointer_t<decltype(SVCXPRT::xp_ops)>>;
using PlatformControl = std::remove_const_t<std::remove_pointer_t<decltype(SVCXPRT::xp_ops2)>>;

// Who serves a transport that is ready.
enum class Serving {
    inline_by_main_thread, // also where there are workers
    by_worker,             // which gets the transport itself
    as_clone,              // by a worker, which gets a copy with one call
};

// What all transports of a kind have in common.
struct Kind {
    ks_svc_ops ops; // this library's table, and the platform's, which its macros use
    PlatformOps platform;
    PlatformControl control;
    Serving serving;
    bool is_connection;
    void (*dispose)(Transport &); // closes and frees all of it
};

consteval Kind kind_of(const ks_svc_ops &own, Serving serving, bool connection, void (*dispose)(Transport &))
{
    return {own,           {own.recv, own.stat, own.getargs, own.reply, own.freeargs, own.destroy},
            {own.control}, serving,
            connection,    dispose};
}

// What every kind has; the kinds put theirs behind it in the same block.
struct Transport {
    ks_svcxprt handle;
    const Kind *kind;
    uint32_t holds;        // atomic
    bool is_ended;         // atomic: destroyed; the first hold is given back
    bool is_paused;        // atomic: a listener that waits for a descriptor
    bool is_served;        // atomic: by the main thread or a worker, or queued for one
    bool is_passed_over;   // ready again in the middle of that; the main thread's
    bool is_served_later;  // is in the list of those
    Transport *next_ready; // in the queue for workers
    sockaddr_storage local;
    sockaddr_storage remote;
    rpc_msg pending; // the reply that is in progress
    char verifier[KS_MAX_AUTH_BYTES];
    char netid[8];
    char device[32];
};

// Operations that several kinds share: the end, and those of a transport that never brings a call.
extern "C" {
void ks_svc_vc_destroy(SVCXPRT *xprt);
xprt_stat no_call_stat(SVCXPRT *xprt);
bool_t no_call_getargs(SVCXPRT *xprt, xdrproc_t xdr_args, void *args);
bool_t no_call_reply(SVCXPRT *xprt, rpc_msg *msg);
XDR *no_call_get_xdrs(SVCXPRT *xprt);
bool_t no_call_reply_finish(SVCXPRT *xprt);
}
consteval ks_svc_ops without_calls(bool_t (*recv)(SVCXPRT *, rpc_msg *), bool_t (*control)(SVCXPRT *, u_int, void *))
{
    return {recv,
            no_call_stat,
            no_call_getargs,
            no_call_reply,
            no_call_get_xdrs,
            no_call_reply_finish,
            no_call_getargs,
            ks_svc_vc_destroy,
            control};
}
// For a kind that has a socket and nothing else.
void dispose_plain(Transport &transport);

inline Transport &transport_of(SVCXPRT *xprt)
{
    return *reinterpret_cast<Transport *>(xprt);
}

inline SVCXPRT *handle_of(Transport &transport)
{
    return &transport.handle.platform;
}

inline int fd_of(const Transport &transport)
{
    return transport.handle.platform.xp_fd;
}

// --- svc_transport.cpp ---

// Fills in what every kind has. The block is zeroed.
void begin_transport(Transport &transport, int fd, const Kind &kind, int socket_type);
// Asks the system for the socket's own address: false with errno.
[[nodiscard]] bool read_local_address(Transport &transport);
// Who calls, of whom the system has written `size` bytes into `remote`.
void note_remote(Transport &transport, socklen_t size);
void close_socket(const Transport &transport);
void set_netid(Transport &transport, const char *netid);

inline void hold(Transport &transport)
{
    (void)__atomic_fetch_add(&transport.holds, 1, __ATOMIC_RELAXED);
}
// The last one closes and frees it.
void release(Transport &transport);
// Out of the table; gone when nobody serves it any more. A second time nothing.
void end_transport(Transport &transport);
// The same by whoever serves it.
void end_served(Transport &transport);
// The table's lock is held and nobody serves it: out of the table, and the caller gives the first hold back behind the
// lock. False when somebody else is about to.
[[nodiscard]] bool end_transport_unlocked(Transport &transport);

// A transport is served by one at a time: false when it is already.
[[nodiscard]] inline bool begin_service(Transport &transport)
{
    return !__atomic_exchange_n(&transport.is_served, true, __ATOMIC_ACQUIRE);
}
inline void end_service(Transport &transport)
{
    __atomic_store_n(&transport.is_served, false, __ATOMIC_RELEASE);
}

// --- svc_table.cpp ---

// A registration outlives its transport: the descriptor may be another one's by now.
struct Registration {
    int fd;
    uint64_t serial;
};
inline Registration registration_of(const Transport &transport)
{
    return {fd_of(transport), transport.handle.serial};
}
[[nodiscard]] bool is_registered(const Registration &registration);

// Enters a transport whose descriptor is close-on-exec already.
[[nodiscard]] bool enter(Transport &transport);
// The transport at a descriptor, held for the caller; NULL when there is none.
[[nodiscard]] Transport *hold_transport(int fd);
// Takes a transport's descriptor out of the set, or puts it back if it is registered and not paused, and lets the main
// thread know.
void deselect(const Transport &transport);
void select_again(const Transport &transport);
void clear_selected(int fd);

// Calls visit(transport) for each registered one, with the table's lock held for reading.
template <typename Visit> void for_each_transport(Visit visit);
struct Slot {
    Transport *transport; // guarded by ks_svc_fd_lock
    uint64_t serial;      // atomic: 0 when there is none
};
extern constinit Slot *__ks_svc_xports; // guarded by ks_svc_fd_lock; made once, and never freed

template <typename Visit> void for_each_transport_locked(Visit visit)
{
    if (__ks_svc_xports == nullptr)
        return;
    for (int fd = 0; fd <= ks_svc_maxfd; ++fd)
        if (Transport *transport = __ks_svc_xports[fd].transport)
            visit(*transport);
}

template <typename Visit> void for_each_transport(Visit visit)
{
    const ks::ReadGuard lock(ks::ks_svc_fd_lock);
    for_each_transport_locked(visit);
}

// --- svc_program.cpp ---

struct Found {
    ks_svc_dispatch dispatch; // NULL: the version is not served
    bool is_program_known;
    rpcvers_t low;
    rpcvers_t high;
};
[[nodiscard]] Found find_program(rpcprog_t program, rpcvers_t version);

// --- svc_dispatch.cpp ---

// Serves a transport that is ready: all calls that there are, as far as its turn goes. True when calls that are in
// memory are left.
[[nodiscard]] bool serve_turn(Transport &transport);
// Dispatches the call that a clone holds, and ends the clone, which the caller holds for that.
void serve_clone(Transport &clone);
// Gives back a transport, held for it, that nobody will serve.
void give_up(Transport &transport);
// Ends a reply that a routine has begun and not finished.
void drop_reply_in_progress(Transport &transport);
// A routine has left by a raise, or ended its thread, in the middle of a call. Takes over the hold of
// whoever served it.
void abandon_call(Transport &transport);
// What the main thread serves itself at this moment, for it to be abandoned when its routine leaves by a raise.
extern constinit Transport *served_by_main_thread;
// Serves what is ready, or hands it over; the main thread's.
void serve_set(const ks_fd_set &ready);
// The same for a connection with calls in memory; takes over the caller's hold.
void serve_leftover(Transport &transport);
// A raise has left the serving of a transport, or of none, and goes on.
void pass_on(int32_t status, Transport *served);

// --- svc_vc.cpp ---

// Makes a connection transport, which is not registered; NULL when memory is short, which is said.
[[nodiscard]] Transport *make_connection(int fd, u_int sendsize, u_int recvsize);
// Gives a connection that was just accepted a record limit.
void limit_records(Transport &connection, int limit);
// Writes what was held back of its replies: false when the connection is dead.
[[nodiscard]] bool send_held_replies(Transport &connection);
[[nodiscard]] bool has_input_in_memory(const Transport &connection);
// Ends a reply that was begun and not finished.
void drop_reply(Transport &connection);

struct Idleness {
    bool is_limited;  // has a record limit
    int64_t since_us; // last read
};
[[nodiscard]] Idleness idleness_of(const Transport &connection);
// A moment of CLOCK_MONOTONIC_COARSE in microseconds.
int64_t now_us();

// --- svc_backlog.cpp ---

// What a connection's peer has not taken yet; all zero when it has taken everything.
struct Backlog {
    char *bytes;
    std::size_t begin;
    std::size_t end;
    std::size_t room;
    int64_t give_up_at_us;
    Transport *next;
};
[[nodiscard]] Backlog &backlog_of(Transport &connection); // svc_vc.cpp
[[nodiscard]] const Backlog &backlog_of(const Transport &connection);
[[nodiscard]] bool is_stuck(const Transport &connection);
// Keeps bytes behind those that are kept, to be sent when the peer reads. False, and nothing is kept, where workers
// wait for slow peers, and when it is too much.
[[nodiscard]] bool keep_unsent(Transport &connection, const char *bytes, std::size_t size);
// Hands out what is kept, whose bytes the caller frees.
void take_backlog(Transport &connection, Backlog &out_backlog);
void drain_backlogs();
void drop_inherited_backlogs();

// --- svc_rendezvous.cpp ---

// The record limit of listeners to come; 0: none.
extern constinit std::atomic<int> __ks_svc_maxrec;
// Listeners that wait for a descriptor listen again.
void resume_listeners();
// How long the main thread may wait until that is due: milliseconds, or `longest_ms`.
[[nodiscard]] int ms_until_resume(int longest_ms);
void resume_when_due();

// --- svc_dg.cpp ---

[[nodiscard]] bool is_clone(Transport &transport);
// Whether datagrams that were read are still to be served; and giving them up, for their callers to send them again.
[[nodiscard]] bool has_arrivals(const Transport &transport);
void drop_arrivals(Transport &transport);
// A transport for one call of a datagram transport, with a buffer of its own, held once; NULL when memory is short.
[[nodiscard]] Transport *make_clone(Transport &transport);
[[nodiscard]] rpc_msg *held_call(Transport &clone);

// --- svc_workers.cpp ---

extern constinit std::atomic<bool> is_multi_threaded; // with workers, or after their end
extern constinit std::atomic<bool> is_ending;
// Puts a transport, which is held for it, into the queue for workers, and wakes one where that is needed.
void hand_over(Transport &transport);
// Whether a worker is idle for whom nothing is queued.
[[nodiscard]] bool has_idle_worker();
// Whether others wait for a worker.
[[nodiscard]] bool is_anybody_queued();
// Whether the caller may wait for a slow peer: not when he were the last worker to do so.
class WaitingSeat {
  public:
    WaitingSeat();
    ~WaitingSeat();
    WaitingSeat(const WaitingSeat &) = delete;
    WaitingSeat &operator=(const WaitingSeat &) = delete;
    bool is_granted() const { return is_granted_; }

  private:
    bool is_granted_;
};
struct PoolState {
    uint64_t workers;
    uint64_t busy;
    uint64_t queued;
};
[[nodiscard]] PoolState pool_state();
// Settings of the pool: false for a number that is none, and once it is set up.
[[nodiscard]] bool set_mt_mode(int mode);
[[nodiscard]] bool set_threads(int count);
[[nodiscard]] int mt_mode();
[[nodiscard]] int max_threads();
struct InheritedPool {
    bool had_workers;
    const Transport *own; // what the caller serves as a worker
};
InheritedPool drop_inherited_pool();

// --- svc_pipe.cpp ---

// Multi-threaded mode: made, or the process ends.
void require_update_pipe();
// Wakes the main thread, if it waits or is about to. Under ks_svc_fd_lock.
void wake_main_thread(const Transport *selected);
// The main thread serves, and must not be woken; it looks at the set again.
void begin_serving();
void end_serving();
// A connection with calls in memory is to be served again, by the main thread; takes over the caller's hold. False, and
// nothing is done, when there is no pipe by which the loop learns of it.
[[nodiscard]] bool serve_later(Transport &transport);
void drop_inherited_pipe();

// --- svc_idle.cpp ---

// There is a connection that may become idle: somebody has to look.
void watch_idleness();
void clean_idle_connections();

// --- svc_run.cpp ---

extern constinit std::atomic<bool> is_running; // ks_svc_run()

// --- svc_watch.cpp ---

// What ks_svc_run() waits with: a set in the kernel, kept beside the exported one. A descriptor that is handed over is
// reported once and then not until it is selected again.
class Watch {
  public:
    [[nodiscard]] bool open();
    [[nodiscard]] bool is_open() const;
    void close();
    // Has the kernel watch what is selected now: false with errno.
    [[nodiscard]] bool follow_set();
    // Waits: descriptors that are ready, 0 at the time-out, -1 with errno. EINTR: also when a raise is pending.
    [[nodiscard]] int wait(int timeout_ms, ks_fd_set &out_ready);
};
// A transport was selected: watched at once when there is a watch; false when there is none. Under ks_svc_fd_lock, held
// for writing.
void forget_watched(int fd); // the same lock
[[nodiscard]] bool watch_now(const Transport &transport);

// --- svc_control.cpp ---

struct Counters {
    std::atomic<uint64_t> connections_accepted, connections_refused, connections_idled, connections_open, accept_pauses,
        dead_peers, bad_records, calls, calls_abandoned;
    std::atomic<uint64_t> succeeded, no_program, bad_version, no_procedure, bad_arguments, failed, denied;
};
extern constinit Counters counters;
inline void count(std::atomic<uint64_t> &counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

// --- svc_fork.cpp ---

// Once, with the table.
[[nodiscard]] bool watch_forks();

} // namespace ks::svc
