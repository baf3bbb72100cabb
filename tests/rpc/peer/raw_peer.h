// A server that answers what a script says, byte for byte: for calls that must look as they should, and for replies
// that no server should send.
//
//     test::RawPeer peer(AF_INET, SOCK_STREAM, [](test::RawPeer::Link &link, const std::string &call) {
//         link.reply(test::reply_to(call, {1, 0, 0, 0, 2, 2, 3})); // accepted, null verifier, versions 2 to 3
//     });
#pragma once

#include "rpc/peer/loopback.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace test {

// XDR of words.
inline std::string words(const std::vector<uint32_t> &numbers)
{
    std::string bytes;
    for (const uint32_t number : numbers)
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(number >> shift);
    return bytes;
}

// A reply to a call: its transaction id, then these.
inline std::string reply_to(const std::string &call, const std::vector<uint32_t> &after_xid,
                            const std::string &results = "")
{
    return call.substr(0, 4) + words(after_xid) + results;
}

class RawPeer {
  public:
    // What a script answers through. All waits end, with false, when the peer does.
    class Link {
      public:
        // Sends bytes as they are: into the connection, or as one datagram to who sent the last one.
        bool send(const std::string &bytes)
        {
            std::size_t sent = 0;
            do {
                if (!is_open_ || !peer_.stop_.wait(fd_, POLLOUT))
                    return false;
                const ssize_t count = sendto(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT,
                                             is_stream() ? nullptr : caller_.get(), is_stream() ? 0 : caller_.size);
                if (count < 0 && errno != EAGAIN)
                    return false;
                sent += count < 0 ? 0 : static_cast<std::size_t>(count);
            } while (sent < bytes.size());
            return true;
        }

        // Sends a message: as a record of one fragment, or as a datagram.
        bool reply(const std::string &message)
        {
            const auto size = static_cast<uint32_t>(message.size());
            return send(is_stream() ? words({size | 0x80000000u}) + message : message);
        }

        // Lets some time pass.
        bool wait(int ms) const
        {
            (void)peer_.stop_.wait(-1, 0, ms);
            return !peer_.stop_.is_told();
        }

        // Ends the connection when the script comes back; the next one is accepted then.
        void close() { is_open_ = false; }

      private:
        friend RawPeer;
        Link(RawPeer &peer, int fd) : peer_(peer), fd_(fd) {}

        bool is_stream() const { return peer_.type_ == SOCK_STREAM; }

        // False at the end of the connection.
        bool receive(std::string &out_bytes, std::size_t size) const
        {
            out_bytes.assign(size, '\0');
            for (std::size_t got = 0; got < size;) {
                if (!peer_.stop_.wait(fd_, POLLIN))
                    return false;
                const ssize_t count = recv(fd_, out_bytes.data() + got, size - got, 0);
                if (count <= 0)
                    return false;
                got += static_cast<std::size_t>(count);
            }
            return true;
        }

        bool receive_record(std::string &out_record) const
        {
            out_record.clear();
            std::string head;
            std::string part;
            do {
                if (!receive(head, 4))
                    return false;
                uint32_t mark = 0;
                std::memcpy(&mark, head.data(), sizeof mark);
                if (!receive(part, ntohl(mark) & 0x7fffffffu))
                    return false;
                out_record += part;
            } while ((head[0] & '\x80') == 0);
            return true;
        }

        bool receive_datagram(std::string &out_bytes)
        {
            if (!peer_.stop_.wait(fd_, POLLIN))
                return false;
            out_bytes.assign(65536, '\0');
            caller_ = SocketAddress();
            const ssize_t size = recvfrom(fd_, out_bytes.data(), out_bytes.size(), 0, caller_.get(), &caller_.size);
            out_bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
            return true;
        }

        RawPeer &peer_;
        int fd_;
        bool is_open_ = true;
        SocketAddress caller_{};
    };

    // Called in the peer's thread for each call, without its record mark.
    using Script = std::function<void(Link &link, const std::string &call)>;

    // Serves loopback over TCP or UDP: one connection at a time. Throws where the host has not that family.
    RawPeer(int family, int type, Script script, uint16_t port = 0)
        : type_(type), script_(std::move(script)), socket_(open_loopback(family, type, port)),
          thread_([this] { run(); })
    {
        std::unique_lock lock(mutex_); // a fork in the middle of a thread's start is none that a sanitizer survives
        changed_.wait(lock, [this] { return has_begun_; });
    }

    ~RawPeer()
    {
        stop_.now();
        thread_.join();
    }

    RawPeer(const RawPeer &) = delete;
    RawPeer &operator=(const RawPeer &) = delete;

    uint16_t port() const { return port_of(socket_); }

    // The calls so far, when there are that many; fewer after the deadline.
    std::vector<std::string> calls(std::size_t count, int deadline_ms = 20000)
    {
        std::unique_lock lock(mutex_);
        (void)changed_.wait_for(lock, std::chrono::milliseconds(deadline_ms), [&] { return calls_.size() >= count; });
        return calls_;
    }

  private:
    void run()
    {
        {
            const std::lock_guard lock(mutex_);
            has_begun_ = true;
        }
        changed_.notify_all();
        if (type_ == SOCK_DGRAM) {
            Link link(*this, socket_.get());
            std::string call;
            while (link.receive_datagram(call))
                answer(link, call);
            return;
        }
        while (stop_.wait(socket_.get(), POLLIN)) {
            const Descriptor connection(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            Link link(*this, connection.get());
            std::string call;
            while (link.is_open_ && link.receive_record(call))
                answer(link, call);
        }
    }

    void answer(Link &link, const std::string &call)
    {
        {
            const std::lock_guard lock(mutex_);
            calls_.push_back(call);
        }
        changed_.notify_all();
        script_(link, call);
    }

    const int type_;
    const Script script_;
    Stop stop_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_; // guarded by mutex_
    bool has_begun_ = false;         // guarded by mutex_
    Descriptor socket_;
    std::thread thread_; // the last one: it uses all others
};

// One in a process of its own, which `make` makes there: for tests that fork, whose children then find no lock held by
// its thread, such as that of a sanitizer's allocator.
class PeerProcess {
  public:
    template <typename Make> explicit PeerProcess(Make make)
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        const Descriptor told(ends[0]);
        const Descriptor tells(ends[1]);
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            const auto peer = make();
            const uint16_t port = peer->port();
            (void)!write(tells.get(), &port, sizeof port);
            for (;;)
                pause();
        }
        if (read(told.get(), &port_, sizeof port_) != sizeof port_)
            throw std::runtime_error("the peer did not start");
    }
    ~PeerProcess()
    {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;

    uint16_t port() const { return port_; }

  private:
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

} // namespace test
