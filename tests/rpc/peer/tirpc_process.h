// tirpc_peer in a process of its own, as long as the object lives.
#pragma once

#include "rpc/peer/loopback.h"
#include "rpc/peer/tirpc_peer.h"

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace test {

class TirpcPeer {
  public:
    TirpcPeer()
    {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        const Descriptor its_in(in[0]);
        const Descriptor its_out(out[1]);
        const Descriptor told(out[0]);
        held_ = Descriptor(in[1]);
        spawn(its_in.get(), its_out.get());
        read_ready_line(told);
    }

    ~TirpcPeer()
    {
        // The end of its standard input may be far, as children that were forked meanwhile hold the pipe too; and it
        // inherits the signals that a process with the library holds back.
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            (void)waitpid(pid_, nullptr, 0);
    }

    TirpcPeer(const TirpcPeer &) = delete;
    TirpcPeer &operator=(const TirpcPeer &) = delete;

    // TCP and UDP of both families have the same.
    uint16_t port() const { return port_; }
    bool has_ipv6() const { return has_ipv6_; }
    pid_t pid() const { return pid_; }

  private:
    void spawn(int in, int out)
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
        std::string program = TIRPC_PEER_PROGRAM_PATH;
        char *const argv[] = {program.data(), nullptr};
        const int error = posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::runtime_error(program + ": " + std::strerror(error));
    }

    void read_ready_line(const Descriptor &told)
    {
        std::string line;
        char byte = 0;
        while (byte != '\n' && read(told.get(), &byte, 1) == 1)
            line += byte;
        int tcp6 = 0;
        if (std::sscanf(line.c_str(), "ready tcp=%hu udp=%*u tcp6=%d", &port_, &tcp6) != 2)
            throw std::runtime_error("tirpc_peer did not start: " + line);
        has_ipv6_ = tcp6 != 0;
    }

    Descriptor held_; // it ends with its standard input, also when this process is killed
    pid_t pid_ = -1;
    uint16_t port_ = 0;
    bool has_ipv6_ = false;
};

} // namespace test
