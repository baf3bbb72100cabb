// The least that a server must do to a call, by hand: what the kernel allows, by which servers are judged. No
// credential is looked at, a record is one fragment, and any version is served.
#pragma once

#include "probe.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace bench {

// What a procedure has to say: its accept status, and the results, which are among the arguments.
struct Outcome {
    uint32_t status;
    std::size_t size;
};

inline Outcome perform(uint32_t procedure, const uint8_t *arguments, std::size_t size)
{
    constexpr uint32_t success = 0;
    constexpr uint32_t unavailable = 3;
    constexpr uint32_t garbage = 4;
    if (procedure == PROBE_NULL)
        return {success, 0};
    if (procedure > PROBE_BURN)
        return {unavailable, 0};
    if (size < 4)
        return {garbage, 0};
    const uint32_t number = word_at(arguments);
    if (procedure == PROBE_ECHO) {
        const uint64_t wanted = 4 + padded(number);
        return wanted > size ? Outcome{garbage, 0} : Outcome{success, static_cast<std::size_t>(wanted)};
    }
    if (procedure == PROBE_BURN) {
        burn(number);
        return {success, 4};
    }
    (void)usleep(number * 1000);
    return {success, 0};
}

// Appends the reply to a call, with a record mark unless it is a datagram. False: it is no call.
inline bool answer(const uint8_t *call, std::size_t size, bool is_datagram, Bytes &out)
{
    constexpr uint32_t body_max = 400;
    constexpr std::size_t bare_size = 40;
    if (size < bare_size || word_at(call + 4) != 0 || word_at(call + 8) != 2)
        return false;
    const uint32_t credential = word_at(call + 28);
    if (credential > body_max || bare_size + padded(credential) > size)
        return false;
    const uint32_t verifier = word_at(call + 36 + padded(credential));
    const std::size_t at = bare_size + padded(credential) + padded(verifier);
    if (verifier > body_max || at > size)
        return false;
    const Outcome outcome = perform(word_at(call + 20), call + at, size - at);
    const auto reply_size = static_cast<uint32_t>(reply_head_size + outcome.size);
    if (!is_datagram)
        add_words(out, {reply_size | last_fragment});
    add_words(out, {word_at(call), 1, 0, 0, 0, outcome.status});
    out.insert(out.end(), call + at, call + at + outcome.size);
    return true;
}

struct Connection {
    explicit Connection(int socket) : fd(socket) {}

    // Reads what is there and answers every whole record. False: it is over. `out_more`: there may be more to read.
    bool pump(bool &out_more)
    {
        if (in.size() - have < read_size)
            in.resize(have + std::max(have, read_size) + read_size);
        const std::size_t room = in.size() - have;
        const ssize_t count = recv(fd, in.data() + have, room, MSG_DONTWAIT);
        out_more = count == static_cast<ssize_t>(room);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        have += static_cast<std::size_t>(count);
        return count > 0 && answer_records();
    }

    // Writes what is to be written; `out` is empty when all of it went. False: it is over.
    bool push()
    {
        while (sent < out.size()) {
            const ssize_t count = send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0)
                return errno == EAGAIN;
            sent += static_cast<std::size_t>(count);
        }
        out.clear();
        sent = 0;
        return true;
    }

    int fd;
    Bytes out{};

  private:
    static constexpr std::size_t read_size = 16384;
    static constexpr std::size_t record_size_max = 16u << 20;

    bool answer_records()
    {
        std::size_t at = 0;
        while (have - at >= 4) {
            const uint32_t mark = word_at(&in[at]);
            const std::size_t size = mark & ~last_fragment;
            if ((mark & last_fragment) == 0 || size > record_size_max)
                return false;
            if (have - at - 4 < size) {
                in.resize(std::max(in.size(), at + 4 + size));
                break;
            }
            if (!answer(&in[at + 4], size, false, out))
                return false;
            at += 4 + size;
        }
        std::copy(in.begin() + static_cast<std::ptrdiff_t>(at), in.begin() + static_cast<std::ptrdiff_t>(have),
                  in.begin());
        have -= at;
        return true;
    }

    Bytes in{};
    std::size_t have = 0;
    std::size_t sent = 0;
};

// -1 when there is none any more.
inline int accept_one(int listener)
{
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    if (fd >= 0)
        set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    return fd;
}

inline void say_ready(int tcp, int udp)
{
    std::printf("ready tcp=%d udp=%d pid=%d\n", port_of(tcp), udp < 0 ? 0 : port_of(udp), static_cast<int>(getpid()));
    (void)std::fflush(stdout);
}

} // namespace bench
