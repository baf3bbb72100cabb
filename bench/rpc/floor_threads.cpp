// The bare server with threads, of connections only.
//
//     floor_threads [--threads N] [--mode handoff|shared]
//
//     handoff   the main thread waits and hands each ready connection to one of the workers, which arms it again when
//               it has served it
//     shared    the workers wait themselves
#include "floor.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>

#include <poll.h>
#include <sys/epoll.h>

namespace {

using bench::Connection;

// A hand-over without a connection is for the listener.
class Server {
  public:
    Server()
    {
        arm(EPOLL_CTL_ADD, listener_, nullptr);
        bench::say_ready(listener_, -1);
    }

    [[noreturn]] void hand_over()
    {
        std::vector<epoll_event> events(256);
        for (;;) {
            const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
            int handed = 0;
            for (int i = 0; i < count; ++i)
                if (void *connection = events[static_cast<std::size_t>(i)].data.ptr; connection != nullptr) {
                    const std::lock_guard lock(mutex_);
                    ready_.push_back(static_cast<Connection *>(connection));
                    ++handed;
                } else {
                    accept_all();
                }
            if (handed == 1)
                is_ready_.notify_one();
            else if (handed > 1)
                is_ready_.notify_all();
        }
    }

    [[noreturn]] void take()
    {
        for (;;) {
            std::unique_lock lock(mutex_);
            is_ready_.wait(lock, [this] { return !ready_.empty(); });
            Connection *connection = ready_.front();
            ready_.pop_front();
            lock.unlock();
            serve(connection);
        }
    }

    [[noreturn]] void wait_and_serve()
    {
        for (;;) {
            epoll_event event{};
            if (epoll_wait(epoll_, &event, 1, -1) != 1)
                continue;
            if (event.data.ptr == nullptr)
                accept_all();
            else
                serve(static_cast<Connection *>(event.data.ptr));
        }
    }

  private:
    void arm(int operation, int fd, Connection *connection) const
    {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.ptr = connection;
        (void)epoll_ctl(epoll_, operation, fd, &event);
    }

    void accept_all() const
    {
        for (int fd = bench::accept_one(listener_); fd >= 0; fd = bench::accept_one(listener_))
            arm(EPOLL_CTL_ADD, fd, new Connection(fd));
        arm(EPOLL_CTL_MOD, listener_, nullptr);
    }

    static bool push_all(Connection &connection)
    {
        while (!connection.out.empty()) {
            if (!connection.push())
                return false;
            pollfd room{connection.fd, POLLOUT, 0};
            if (!connection.out.empty())
                (void)poll(&room, 1, 1000);
        }
        return true;
    }

    void serve(Connection *connection) const
    {
        bool may_have_more = true;
        bool is_alive = true;
        while (is_alive && may_have_more)
            is_alive = connection->pump(may_have_more) && push_all(*connection);
        if (is_alive) {
            arm(EPOLL_CTL_MOD, connection->fd, connection);
            return;
        }
        close(connection->fd);
        delete connection;
    }

    int listener_ = bench::open_loopback(SOCK_STREAM | SOCK_NONBLOCK, 0);
    int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    std::mutex mutex_;
    std::condition_variable is_ready_;
    std::deque<Connection *> ready_{}; // guarded by mutex_
};

} // namespace

int main(int argc, char **argv)
{
    int threads = 16;
    bool is_shared = false;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view name = argv[i];
        if (name == "--threads")
            threads = std::atoi(argv[i + 1]);
        else if (name == "--mode")
            is_shared = std::string_view(argv[i + 1]) == "shared";
    }
    (void)bench::raise_descriptor_limit();
    Server server;
    for (int i = 0; i < threads; ++i)
        std::thread(is_shared ? &Server::wait_and_serve : &Server::take, &server).detach();
    if (!is_shared)
        server.hand_over();
    for (;;)
        pause();
}
