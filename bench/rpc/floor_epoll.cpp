// The bare server of one thread: epoll, replies put together by hand.
#include "floor.h"

#include <sys/epoll.h>

namespace {

using bench::Connection;

class Server {
  public:
    Server()
    {
        watch(listener_, EPOLL_CTL_ADD, EPOLLIN, &listener_);
        watch(datagrams_, EPOLL_CTL_ADD, EPOLLIN, &datagrams_);
        bench::say_ready(listener_, datagrams_);
    }

    [[noreturn]] void run()
    {
        std::vector<epoll_event> events(512);
        for (;;) {
            const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i)
                serve(events[static_cast<std::size_t>(i)]);
        }
    }

  private:
    void watch(int fd, int operation, uint32_t wanted, void *who) const
    {
        epoll_event event{};
        event.events = wanted;
        event.data.ptr = who;
        (void)epoll_ctl(epoll_, operation, fd, &event);
    }

    void serve(const epoll_event &event)
    {
        if (event.data.ptr == &listener_)
            accept_all();
        else if (event.data.ptr == &datagrams_)
            answer_datagrams();
        else
            serve_connection(static_cast<Connection *>(event.data.ptr), event.events);
    }

    void accept_all() const
    {
        for (int fd = bench::accept_one(listener_); fd >= 0; fd = bench::accept_one(listener_))
            watch(fd, EPOLL_CTL_ADD, EPOLLIN, new Connection(fd));
    }

    void answer_datagrams()
    {
        for (;;) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            auto *address = reinterpret_cast<sockaddr *>(&from);
            const ssize_t count = recvfrom(datagrams_, call_.data(), call_.size(), 0, address, &size);
            if (count < 0)
                return;
            reply_.clear();
            if (bench::answer(call_.data(), static_cast<std::size_t>(count), true, reply_))
                (void)sendto(datagrams_, reply_.data(), reply_.size(), 0, address, size);
        }
    }

    // Reads nothing more while replies wait for room.
    void serve_connection(Connection *connection, uint32_t ready) const
    {
        const bool was_stuck = !connection->out.empty();
        bool may_have_more = false;
        bool is_alive = (ready & ~uint32_t{EPOLLOUT}) == 0 || connection->pump(may_have_more);
        is_alive = is_alive && connection->push();
        const bool is_stuck = !connection->out.empty();
        if (!is_alive) {
            close(connection->fd);
            delete connection;
        } else if (is_stuck != was_stuck) {
            watch(connection->fd, EPOLL_CTL_MOD, is_stuck ? EPOLLOUT : EPOLLIN, connection);
        }
    }

    int listener_ = bench::open_loopback(SOCK_STREAM | SOCK_NONBLOCK, 0);
    int datagrams_ = bench::open_loopback(SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    bench::Bytes call_ = bench::Bytes(65536);
    bench::Bytes reply_{};
};

} // namespace

int main()
{
    (void)bench::raise_descriptor_limit();
    Server().run();
}
