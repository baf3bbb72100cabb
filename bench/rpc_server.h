// The barest RPC server: answers every call with success and no results, and a binder's with its own port.
#pragma once

#include <cstdint>

namespace bench {

constexpr uint32_t rpc_program = 0x2000bb01;

struct RpcServer {
    uint16_t port;  // of TCP and of UDP, on the loopback address of IPv4
    bool is_binder; // it has port 111 too
};

// Starts it in a process of its own, which ends with this one, and moves this process into a network namespace of its
// own where that is permitted. Called before any thread is started. Ends the process where it cannot.
RpcServer start_rpc_server();

} // namespace bench
