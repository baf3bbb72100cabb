// Servers of this library in processes of their own, and callers that put their calls together by hand. What is served
// is the probe program, and what routines should not do.
#pragma once

#include "harness/child.h"
#include "rpc/peer/raw_peer.h"

#include "probe_service.h"

#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/svc.h>

#include <array>
#include <atomic>

#include <dirent.h>
#include <malloc.h>

namespace test {

// Procedures beside those of the probe program.
enum : uint32_t {
    STREAM = 100, // unsigned STREAM(unsigned n)[n + 1]: the numbers up to it, in parts
    WEAK,         // refused: the credential is too weak
    FAIL,         // a system error
    STATE,        // State STATE(void)
    COMMAND,      // COMMAND(unsigned n) has no reply: for the program that serves
    RAISE,
    EXIT,
    END_THREAD,
    DESTROY,           // ends the connection that it came by
    DESTROY_ELSEWHERE, // another thread does
};

struct State {
    u_int descriptors;
    u_int heap_kib;
    u_int connections;
    u_int workers;
    u_int abandoned;
    u_int raises; // that the main thread has survived
};

inline std::atomic<u_int> command{0};
inline std::atomic<u_int> raises{0};

inline State state_now()
{
    ks_svc_counters counters{};
    ks_svc_get_counters(&counters);
    return {static_cast<u_int>(open_descriptor_count()),   static_cast<u_int>(mallinfo2().uordblks / 1024),
            static_cast<u_int>(counters.connections_open), static_cast<u_int>(counters.workers),
            static_cast<u_int>(counters.calls_abandoned),  raises};
}

inline bool_t xdr_state(XDR *xdrs, State *state)
{
    return xdr_opaque(xdrs, reinterpret_cast<char *>(state), sizeof *state); // both are of one machine
}

inline void stream_numbers(SVCXPRT *transport, u_int count)
{
    const auto number = reinterpret_cast<xdrproc_t>(xdr_u_int);
    u_int i = 0;
    EXPECT_TRUE(ks_svc_sendreply_start(transport, number, &i));
    for (i = 1; i < count; ++i)
        (void)xdr_u_int(ks_svc_sendreply_get_xdrs(transport), &i);
    EXPECT_TRUE(ks_svc_sendreply_finish(transport, number, &i));
}

inline void serve(svc_req *request, SVCXPRT *transport)
{
    static constexpr probe_replies replies = {ks_svc_sendreply, ks_svcerr_noproc, ks_svcerr_decode,
                                              ks_svcerr_systemerr};
    State state{};
    u_int number = 0;
    switch (request->rq_proc) {
    case STREAM:
    case COMMAND:
        (void)svc_getargs(transport, reinterpret_cast<xdrproc_t>(xdr_u_int), &number);
        request->rq_proc == STREAM ? stream_numbers(transport, number) : command.store(number);
        break;
    case WEAK:
        ks_svcerr_weakauth(transport);
        break;
    case FAIL:
        ks_svcerr_systemerr(transport);
        break;
    case STATE:
        state = state_now();
        (void)ks_svc_sendreply(transport, reinterpret_cast<xdrproc_t>(xdr_state), &state);
        break;
    case RAISE:
        pfm_raise(PFM_RAISE_INTERRUPT);
        break;
    case EXIT:
        pfm_exit(3);
        break;
    case END_THREAD:
        pthread_exit(nullptr);
    case DESTROY:
        svc_destroy(transport);
        break;
    case DESTROY_ELSEWHERE:
        std::thread([transport] { svc_destroy(transport); }).join();
        break;
    default:
        probe_serve(&replies, request, transport);
    }
}

struct Mode {
    int workers = 0;      // 0: single-threaded
    int record_limit = 0; // 0: none, and connections block
};

inline constexpr int record_limit = 1 << 16;
inline constexpr Mode modes[] = {{0, 0}, {0, record_limit}, {4, 0}, {4, record_limit}};

inline std::string to_string(const Mode &mode)
{
    return std::to_string(mode.workers) + " workers, record limit " + std::to_string(mode.record_limit);
}

// All that is done once.
inline void set_up(Mode mode)
{
    int is_threaded = 1;
    (void)ks_system_init();
    EXPECT_TRUE(mode.record_limit == 0 || ks_rpc_control(KS_SVC_SET_RECORD_LIMIT, &mode.record_limit));
    EXPECT_TRUE(mode.workers == 0 || (ks_rpc_control(KS_SVC_SET_MT_MODE, &is_threaded) &&
                                      ks_rpc_control(KS_SVC_SET_THREADS, &mode.workers)));
    for (const rpcvers_t version : {PROBE_LOWEST, PROBE_HIGHEST})
        EXPECT_TRUE(ks_svc_register(nullptr, PROBE_PROGRAM, version, serve, 0));
}

// A loop of a program's own: waits once, and serves what is ready.
inline void serve_some(int timeout_ms)
{
    static std::vector<pollfd> fds; // a raise may leave from here
    fds.clear();
    for (int fd = 0; fd <= __atomic_load_n(&ks_svc_maxfd, __ATOMIC_RELAXED); ++fd)
        if ((__atomic_load_n(&ks_svc_fdset.words[fd / 64], __ATOMIC_RELAXED) >> fd % 64 & 1) != 0)
            fds.push_back({fd, POLLIN, 0});
    const int count = poll(fds.data(), fds.size(), timeout_ms);
    if (count > 0)
        ks_svc_getreq_poll(fds.data(), count);
}

// Over TCP and UDP of both families, at any port, as long as the object lives.
class Server {
  public:
    explicit Server(Mode mode, std::function<void()> run = ks_svc_run)
        : child_([this, mode, &run] {
              set_up(mode);
              for (const Descriptor &socket : sockets_)
                  EXPECT_NE(ks_svc_tli_create(dup(socket.get()), nullptr, nullptr, 0, 0), nullptr);
              run();
              return 1;
          })
    {
        for (const Descriptor &socket : sockets_)
            ports_.push_back(port_of(socket));
        sockets_.clear();
    }

    pid_t pid() const { return child_.pid(); }
    static std::vector<std::string> netids()
    {
        return has_ipv6() ? std::vector<std::string>{"tcp", "udp", "tcp6", "udp6"}
                          : std::vector<std::string>{"tcp", "udp"};
    }
    uint16_t port(const std::string &netid = "tcp") const
    {
        return ports_[(netid.back() == '6' ? 2u : 0u) + (netid[0] == 'u' ? 1u : 0u)];
    }

  private:
    static std::vector<Descriptor> open_sockets()
    {
        std::vector<Descriptor> sockets;
        for (const std::string &netid : netids())
            sockets.push_back(
                open_loopback(netid.back() == '6' ? AF_INET6 : AF_INET, netid[0] == 'u' ? SOCK_DGRAM : SOCK_STREAM));
        return sockets;
    }

    std::vector<Descriptor> sockets_ = open_sockets();
    std::vector<uint16_t> ports_{};
    Child child_;
};

inline std::string call_message(uint32_t procedure, const std::string &arguments = "", uint32_t xid = 1,
                                const std::string &credential = words({0, 0}))
{
    return words({xid, 0, 2, PROBE_PROGRAM, PROBE_HIGHEST, procedure}) + credential + words({0, 0}) + arguments;
}

inline std::string record(const std::string &message)
{
    return words({static_cast<uint32_t>(message.size()) | 0x80000000u}) + message;
}

inline std::string success(uint32_t xid = 1, const std::string &results = "")
{
    return words({xid, 1, 0, 0, 0, 0}) + results;
}

// A connection, or a socket of datagrams, whose peer is 127.0.0.1 or another address of this host.
class Caller {
  public:
    explicit Caller(uint16_t port, int type = SOCK_STREAM, const char *host = "127.0.0.1")
        : type_(type), fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        sockaddr_in server{AF_INET, htons(port), {}, {}};
        EXPECT_EQ(inet_pton(AF_INET, host, &server.sin_addr), 1);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server), 0);
    }

    int fd() const { return fd_.get(); }

    bool send(const std::string &bytes, int flags = 0) const
    {
        return ::send(fd_.get(), bytes.data(), bytes.size(), flags | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool send_call(const std::string &message) const { return send(type_ == SOCK_STREAM ? record(message) : message); }

    // The next reply; "" when the server has ended the connection, or is silent for so long.
    std::string receive(int timeout_ms = 10000) const
    {
        if (type_ == SOCK_DGRAM)
            return receive_bytes(65536, timeout_ms, 0);
        std::string reply;
        for (uint32_t mark = 0; (mark & 0x80000000u) == 0;) {
            const std::string bytes = receive_bytes(sizeof mark, timeout_ms, MSG_WAITALL);
            if (bytes.size() != sizeof mark)
                return "";
            std::memcpy(&mark, bytes.data(), sizeof mark);
            mark = ntohl(mark);
            reply += receive_bytes(mark & 0x7fffffffu, timeout_ms, MSG_WAITALL);
        }
        return reply;
    }

    std::string call(uint32_t procedure, const std::string &arguments = "") const
    {
        return send_call(call_message(procedure, arguments)) ? receive() : "";
    }

    bool is_served() const { return call(PROBE_NULL) == success(); }

    // Whether the server ends the connection, having sent nothing any more.
    bool is_ended(int timeout_ms = 10000) const
    {
        pollfd end{fd_.get(), POLLIN, 0};
        char byte;
        return poll(&end, 1, timeout_ms) == 1 && recv(fd_.get(), &byte, 1, MSG_DONTWAIT) <= 0 && errno != EAGAIN;
    }

    State state() const
    {
        State state{};
        const std::string reply = call(STATE);
        EXPECT_EQ(reply.size(), success().size() + sizeof state);
        std::memcpy(&state, reply.data() + success().size(), sizeof state);
        return state;
    }

    // Its state, when it is as it should be or after a while.
    State await_state(const std::function<bool(const State &)> &is_right) const
    {
        for (int i = 0; i < 1000 && !is_right(state()); ++i)
            (void)usleep(10000);
        return state();
    }

  private:
    std::string receive_bytes(std::size_t size, int timeout_ms, int flags) const
    {
        std::string bytes(size, '\0');
        pollfd end{fd_.get(), POLLIN, 0};
        const ssize_t count = poll(&end, 1, timeout_ms) == 1 ? recv(fd_.get(), bytes.data(), size, flags) : 0;
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    int type_;
    Descriptor fd_;
};

} // namespace test
