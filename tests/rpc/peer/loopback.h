// Loopback sockets for servers of the tests' own, which run in a thread of the test.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t size = sizeof bytes;

    sockaddr *get() { return reinterpret_cast<sockaddr *>(&bytes); }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&bytes); }
    // Both families have it at the same place.
    uint16_t port() const { return ntohs(reinterpret_cast<const sockaddr_in *>(&bytes)->sin_port); }
};

inline SocketAddress loopback(int family, uint16_t port)
{
    SocketAddress address;
    if (family == AF_INET6) {
        const sockaddr_in6 in6 = {AF_INET6, htons(port), 0, IN6ADDR_LOOPBACK_INIT, 0};
        address.size = sizeof in6;
        std::memcpy(&address.bytes, &in6, sizeof in6);
    } else {
        const sockaddr_in in = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        address.size = sizeof in;
        std::memcpy(&address.bytes, &in, sizeof in);
    }
    return address;
}

// Closes itself. -1: none.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

// A socket that is bound to loopback, 0: at a port that the system chooses; a stream socket listens, others are
// non-blocking. Throws where the host has not that family.
inline Descriptor open_loopback(int family, int type, uint16_t port = 0)
{
    Descriptor fd(socket(family, type | SOCK_CLOEXEC | (type == SOCK_DGRAM ? SOCK_NONBLOCK : 0), 0));
    const SocketAddress address = loopback(family, port);
    if (fd.get() < 0 || bind(fd.get(), address.get(), address.size) != 0 ||
        (type == SOCK_STREAM && listen(fd.get(), SOMAXCONN) != 0))
        throw std::runtime_error(std::string("loopback socket: ") + std::strerror(errno));
    return fd;
}

inline uint16_t port_of(const Descriptor &fd)
{
    SocketAddress address;
    if (getsockname(fd.get(), address.get(), &address.size) != 0)
        throw std::runtime_error("getsockname");
    return address.port();
}

inline bool has_ipv6()
{
    const Descriptor fd(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const SocketAddress address = loopback(AF_INET6, 0);
    return fd.get() >= 0 && bind(fd.get(), address.get(), address.size) == 0;
}

// What ends a server's waits, for good.
class Stop {
  public:
    void now() { (void)eventfd_write(event_.get(), 1); }

    // Waits until `fd` is ready; false at the end of the time, and when all is to end. -1: for that alone.
    bool wait(int fd, short events, int timeout_ms = -1) const
    {
        pollfd fds[] = {{event_.get(), POLLIN, 0}, {fd, events, 0}};
        int ready = 0;
        do
            ready = poll(fds, 2, timeout_ms);
        while (ready < 0 && errno == EINTR);
        return ready > 0 && fds[0].revents == 0;
    }

    bool is_told() const
    {
        pollfd event = {event_.get(), POLLIN, 0};
        return poll(&event, 1, 0) > 0;
    }

  private:
    Descriptor event_{eventfd(0, EFD_CLOEXEC)};
};

} // namespace test
