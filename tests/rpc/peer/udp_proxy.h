// Stands between a datagram client and its server, and loses, doubles and delays what a script says.
#pragma once

#include "rpc/peer/loopback.h"

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

namespace test {

class UdpProxy {
  public:
    enum Direction { requests, replies };

    // What becomes of the first datagrams of a direction, one character for each: '.' goes on, 'x' is lost, '2' goes on
    // twice, 'd' is delayed. Those behind the end go on.
    struct Script {
        std::string requests;
        std::string replies;
        int delay_ms = 100;
    };

    // For one client and a server on loopback. Throws where the host has not that family.
    UdpProxy(int family, uint16_t server_port, Script script)
        : script_(std::move(script)), server_(loopback(family, server_port)), sides_{open_loopback(family, SOCK_DGRAM),
                                                                                     open_loopback(family, SOCK_DGRAM)},
          thread_([this] { run(); })
    {
    }

    ~UdpProxy()
    {
        stop_.now();
        thread_.join();
    }

    UdpProxy(const UdpProxy &) = delete;
    UdpProxy &operator=(const UdpProxy &) = delete;

    // Where the client sends to.
    uint16_t port() const { return port_of(sides_[requests]); }

    // Datagrams that have come in, whatever became of them.
    int count(Direction direction) const { return counts_[direction]; }

  private:
    using Clock = std::chrono::steady_clock;

    struct Delayed {
        Clock::time_point due;
        Direction direction;
        std::string bytes;
    };

    void run()
    {
        while (!stop_.is_told()) {
            pollfd fds[] = {{sides_[requests].get(), POLLIN, 0}, {sides_[replies].get(), POLLIN, 0}};
            constexpr int tick_ms = 5; // for delays and for the end
            if (poll(fds, 2, tick_ms) > 0)
                for (const Direction direction : {requests, replies})
                    receive(direction);
            for (; !delayed_.empty() && delayed_.front().due <= Clock::now(); delayed_.pop_front())
                send(delayed_.front().direction, delayed_.front().bytes);
        }
    }

    // All that is there.
    void receive(Direction direction)
    {
        std::string bytes(65536, '\0');
        for (;;) {
            SocketAddress from;
            const ssize_t size =
                recvfrom(sides_[direction].get(), bytes.data(), bytes.size(), 0, from.get(), &from.size);
            if (size < 0)
                return;
            if (direction == requests)
                client_ = from;
            treat(direction, bytes.substr(0, static_cast<std::size_t>(size)));
        }
    }

    void treat(Direction direction, const std::string &bytes)
    {
        const auto number = static_cast<std::size_t>(counts_[direction]++);
        const std::string &script = direction == requests ? script_.requests : script_.replies;
        const char fate = number < script.size() ? script[number] : '.';
        if (fate == 'd')
            delayed_.push_back({Clock::now() + std::chrono::milliseconds(script_.delay_ms), direction, bytes});
        if (fate == '.' || fate == '2')
            send(direction, bytes);
        if (fate == '2')
            send(direction, bytes);
    }

    // Requests leave from the side where replies come in, and the other way round.
    void send(Direction direction, const std::string &bytes) const
    {
        const SocketAddress &to = direction == requests ? server_ : client_;
        const int fd = sides_[direction == requests ? replies : requests].get();
        (void)sendto(fd, bytes.data(), bytes.size(), 0, to.get(), to.size); // it may be lost, as any datagram
    }

    const Script script_;
    const SocketAddress server_;
    const std::array<Descriptor, 2> sides_; // where requests come in, and where replies do
    SocketAddress client_{};
    std::deque<Delayed> delayed_{};
    std::array<std::atomic<int>, 2> counts_{};
    Stop stop_;
    std::thread thread_; // the last one: it uses all others
};

} // namespace test
