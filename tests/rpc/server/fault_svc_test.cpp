// Servers while everything underneath them fails, from the listener to the reply, and their workers.
#include "harness/fault_sweep.h"
#include "rpc/server/server_fixture.h"

namespace {

using test::fault::Call;
using test::fault::Operation;

int server_fd;
int client_fd;
ks_fd_set all;

// A call that waits to be served, on a connection that waits to be accepted.
void send_call(int type)
{
    const test::Descriptor socket = test::open_loopback(AF_INET, type);
    const test::Caller caller(test::port_of(socket), type);
    (void)caller.send_call(test::call_message(PROBE_ECHO, test::words({4, 0x61626364})));
    server_fd = dup(socket.get());
    client_fd = dup(caller.fd());
}

bool serve(bool is_stream, int limit)
{
    SVCXPRT *transport = ks_svc_tli_create(server_fd, nullptr, nullptr, 0, 0);
    if (transport == nullptr)
        return false;
    server_fd = -1;
    if (is_stream)
        (void)reinterpret_cast<ks_svcxprt *>(transport)->ops->control(transport, 4, &limit);
    for (int i = 0; i < 2; ++i) {
        ks_fd_set ready = ks_svc_fdset;
        ks_svc_getreqset(&ready);
        ks_fd_remove(&ks_svc_fdset, is_stream ? transport->xp_fd : -1);
    }
    char reply[64];
    const ssize_t size = recv(client_fd, reply, sizeof reply, MSG_DONTWAIT);
    svc_destroy(transport);
    (void)__ks_svc_clean_idle(&all, 0, TRUE);
    return size == (is_stream ? 36 : 32);
}

TEST(FaultSvc, ACallIsServedOrItsConnectionEnds)
{
    for (uint64_t &word : all.words)
        word = ~uint64_t{0};
    for (const int limit : {0, 4096, -1}) { // -1: datagrams
        const int type = limit < 0 ? SOCK_DGRAM : SOCK_STREAM;
        Operation("a server")
            .setup([type] {
                test::set_up({});
                send_call(type);
            })
            .act([=] { return serve(type == SOCK_STREAM, limit); })
            .check([](const test::fault::Trial &) { return ks_svc_maxfd == -1 ? nullptr : "a transport is left"; })
            .cleanup([] {
                (void)close(client_fd);
                if (server_fd >= 0)
                    (void)close(server_fd);
            })
            // The system fails the first for no open descriptor; where another says "not now" a reply is kept; and the
            // mutexes are marks of debug builds.
            .spares({Call::fcntl, Call::transfer, Call::mutex})
            .sweep()
            .sweep_noise(20);
    }
}

TEST(FaultSvc, WorkersAreMadeOrAllUndone)
{
    static bool is_done = false;
    Operation("workers")
        .setup([] {
            is_done ? static_cast<void>(0) : test::set_up({3, 0});
        })
        .act([] {
            is_done = is_done || ks_svc_setup_threads();
            ks_svc_counters counters{};
            do // what a worker has from its start is made by then
                ks_svc_get_counters(&counters);
            while (counters.workers_busy != 0);
            return is_done;
        })
        .gives([] { return test::state_now().workers == 3; })
        .keeps([] { return test::state_now().workers == 0; })
        .ends({{Call::pipe, "ks_mk_update_select_pipe: problem creating pipe"},
               {Call::allocation, "ks_mk_update_select_pipe: out of memory"}})
        .spares({Call::mutex})
        .sweep_first_use();
}

} // namespace
