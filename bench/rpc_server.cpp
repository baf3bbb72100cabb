// The barest RPC server: one thread, poll, replies put together by hand.
#include "rpc_server.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

namespace {

constexpr uint16_t binder_port = 111;
constexpr uint32_t binder_program = 100000;
constexpr std::size_t call_max = 65536;

uint32_t word_at(const char *bytes, std::size_t index)
{
    uint32_t word;
    std::memcpy(&word, bytes + 4 * index, sizeof word);
    return ntohl(word);
}

void add_word(std::string &bytes, uint32_t word)
{
    word = htonl(word);
    bytes.append(reinterpret_cast<const char *>(&word), sizeof word);
}

// Where the program is: a port in version 2, a universal address in the others.
void add_place(std::string &reply, uint32_t version, uint16_t port)
{
    if (version == 2) {
        add_word(reply, port);
        return;
    }
    std::string address = "127.0.0.1." + std::to_string(port >> 8) + '.' + std::to_string(port & 0xff);
    add_word(reply, static_cast<uint32_t>(address.size()));
    address.resize((address.size() + 3) / 4 * 4);
    reply += address;
}

std::string reply_to(const char *call, uint16_t port)
{
    std::string reply(call, 4);
    for (const uint32_t word : {1, 0, 0, 0, 0})
        add_word(reply, word);
    constexpr uint32_t find_procedure = 3;
    if (word_at(call, 3) == binder_program && word_at(call, 5) == find_procedure)
        add_place(reply, word_at(call, 4), port);
    return reply;
}

// -1 where the port cannot be had.
int open_socket(int type, uint16_t port)
{
    const int fd = socket(AF_INET, type, 0);
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        (type == SOCK_DGRAM || listen(fd, SOMAXCONN) == 0))
        return fd;
    close(fd);
    return -1;
}

uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    (void)getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

void answer_datagram(int fd, uint16_t port)
{
    char call[call_max];
    sockaddr_storage from{};
    socklen_t size = sizeof from;
    const ssize_t count = recvfrom(fd, call, sizeof call, 0, reinterpret_cast<sockaddr *>(&from), &size);
    if (count < 24)
        return;
    const std::string reply = reply_to(call, port);
    (void)sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from), size);
}

// A call comes as one record of one fragment, in one piece. False at the end of the connection.
bool answer_record(int fd, uint16_t port)
{
    char record[call_max];
    const ssize_t count = recv(fd, record, sizeof record, 0);
    if (count < 28)
        return false;
    const std::string reply = reply_to(record + 4, port);
    std::string framed;
    add_word(framed, 0x80000000 | static_cast<uint32_t>(reply.size()));
    framed += reply;
    return send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) > 0;
}

int accept_one(int listener)
{
    const int fd = accept(listener, nullptr, nullptr);
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// `fds`: listeners and datagram sockets first, of which so many are given, then connections.
[[noreturn]] void serve(std::vector<pollfd> fds, uint16_t port)
{
    const std::size_t given = fds.size();
    for (;;) {
        (void)poll(fds.data(), fds.size(), -1);
        for (std::size_t i = fds.size(); i-- > 0;) {
            if (fds[i].revents == 0)
                continue;
            int type = 0;
            socklen_t size = sizeof type;
            (void)getsockopt(fds[i].fd, SOL_SOCKET, SO_TYPE, &type, &size);
            if (type == SOCK_DGRAM) {
                answer_datagram(fds[i].fd, port);
            } else if (i < given) {
                fds.push_back({accept_one(fds[i].fd), POLLIN, 0});
            } else if (!answer_record(fds[i].fd, port)) {
                close(fds[i].fd);
                fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }
}

bool enter_network_namespace()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool is_up = ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
    close(fd);
    return is_up;
}

void pin_to_last_core()
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(sysconf(_SC_NPROCESSORS_ONLN) - 1, &cores);
    (void)sched_setaffinity(0, sizeof cores, &cores); // a wish
}

} // namespace

namespace bench {

RpcServer start_rpc_server()
{
    const bool is_alone = enter_network_namespace();
    const int tcp = open_socket(SOCK_STREAM, 0);
    const uint16_t port = port_of(tcp);
    const int udp = open_socket(SOCK_DGRAM, port);
    std::vector<pollfd> fds{{tcp, POLLIN, 0}, {udp, POLLIN, 0}};
    if (is_alone)
        for (const int type : {SOCK_STREAM, SOCK_DGRAM})
            fds.push_back({open_socket(type, binder_port), POLLIN, 0});
    bool is_binder = is_alone;
    for (const pollfd &entry : fds)
        is_binder = is_binder && entry.fd >= 0;
    if (tcp < 0 || udp < 0) {
        std::perror("rpc server");
        std::exit(1);
    }
    const pid_t parent = getpid();
    if (fork() == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            pin_to_last_core();
            serve(std::move(fds), port);
        }
        _exit(0);
    }
    for (const pollfd &entry : fds)
        close(entry.fd);
    return {port, is_binder};
}

} // namespace bench
