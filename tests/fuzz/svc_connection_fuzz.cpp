// Whatever comes in over a connection, in one of the modes: the server lasts, answers others and keeps nothing of it.
#include "fuzz/fuzz_support.h"

#include <korvaks/svc.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr rpcprog_t program = 0x20000099;
constexpr std::size_t input_size_max = 1 << 16;

void serve(svc_req *request, SVCXPRT *transport)
{
    const auto text_routine = reinterpret_cast<xdrproc_t>(xdr_wrapstring);
    char *text = nullptr;
    if (request->rq_proc == 0)
        (void)ks_svc_sendreply(transport, nullptr, nullptr);
    else if (!svc_getargs(transport, text_routine, &text))
        ks_svcerr_decode(transport);
    else
        (void)ks_svc_sendreply(transport, text_routine, &text);
    (void)svc_freeargs(transport, text_routine, &text);
}

// Serves all that is ready.
void serve_some()
{
    std::vector<pollfd> fds;
    for (int fd = 0; fd <= ks_svc_maxfd; ++fd)
        if (ks_fd_has(&ks_svc_fdset, fd))
            fds.push_back({fd, POLLIN, 0});
    ks_svc_getreq_poll(fds.data(), poll(fds.data(), fds.size(), 0));
}

struct Server {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    SVCXPRT *listener = nullptr;
    int good = -1;

    Server()
    {
        fuzz::suppress_messages();
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const t_bind here{{sizeof address, sizeof address, &address}, 16};
        listener = ks_svc_tli_create(fd, nullptr, &here, 0, 0);
        FUZZ_REQUIRE(listener != nullptr && ks_svc_register(listener, program, 1, serve, 0));
        socklen_t size = sizeof address;
        FUZZ_REQUIRE(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0);
        good = dial(0);
    }

    int dial(int limit)
    {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        FUZZ_REQUIRE(reinterpret_cast<ks_svcxprt *>(listener)->ops->control(listener, 4, &limit));
        FUZZ_REQUIRE(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
        serve_some();
        return fd;
    }

    static uint64_t connections()
    {
        ks_svc_counters counters{};
        ks_svc_get_counters(&counters);
        return counters.connections_open;
    }

    void require_service() const
    {
        constexpr uint8_t call[44] = {0x80, 0, 0, 40, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 2, 0x20, 0, 0, 0x99, 0, 0, 0, 1};
        constexpr uint8_t reply[28] = {0x80, 0, 0, 24, 1, 2, 3, 4, 0, 0, 0, 1};
        uint8_t bytes[64];
        FUZZ_REQUIRE(send(good, call, sizeof call, MSG_NOSIGNAL) == sizeof call);
        serve_some();
        FUZZ_REQUIRE(recv(good, bytes, sizeof bytes, MSG_DONTWAIT) == sizeof reply);
        FUZZ_REQUIRE(std::equal(reply, reply + sizeof reply, bytes));
    }
};

} // namespace

FUZZ_TARGET(input)
{
    static Server server;
    const bool waits = input.take_byte() % 2 == 0; // for what is not there yet, unless it never comes
    const int fd = server.dial(waits ? 0 : 2048);
    for (const std::size_t size : {std::size_t{input.take_byte()}, std::size_t{input_size_max}}) { // in two pieces
        const std::string bytes = input.take_bytes(size);
        (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (!waits)
            serve_some();
    }
    (void)shutdown(fd, SHUT_WR);
    for (int i = 0; i < 1000 && Server::connections() > 1; ++i)
        serve_some();
    FUZZ_REQUIRE(Server::connections() == 1);
    (void)close(fd);
    server.require_service();
}
