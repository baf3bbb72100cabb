// Words of XDR, time, and what programs that hold many sockets begin with.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

namespace bench {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t last_fragment = 0x80000000u;
constexpr std::size_t reply_head_size = 24; // of one that was accepted, with a null verifier

inline uint32_t word_at(const uint8_t *bytes)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

inline void put_word(uint8_t *bytes, uint32_t word)
{
    word = htonl(word);
    std::memcpy(bytes, &word, sizeof word);
}

inline void add_words(Bytes &bytes, std::initializer_list<uint32_t> words)
{
    for (const uint32_t word : words) {
        bytes.resize(bytes.size() + 4);
        put_word(bytes.data() + bytes.size() - 4, word);
    }
}

constexpr uint64_t padded(uint32_t size)
{
    return (uint64_t{size} + 3) / 4 * 4;
}

inline uint64_t now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

inline void burn(uint32_t us)
{
    const uint64_t end_ns = now_ns() + uint64_t{us} * 1000;
    while (now_ns() < end_ns) {
    }
}

[[noreturn]] inline void fail(const char *what)
{
    std::perror(what);
    std::exit(2);
}

// How many descriptors the process may have, which is as many as it can get.
inline rlim_t raise_descriptor_limit()
{
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

inline void set_option(int fd, int level, int option, int value)
{
    (void)setsockopt(fd, level, option, &value, sizeof value);
}

// A socket on loopback at a port, 0: that the system chooses. A stream socket listens.
inline int open_loopback(int type, uint16_t port)
{
    const int fd = socket(AF_INET, type, 0);
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    constexpr int queue_max = 4096;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("bind");
    if ((type & SOCK_STREAM) != 0 && listen(fd, queue_max) != 0)
        fail("listen");
    return fd;
}

inline uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    (void)getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

} // namespace bench
