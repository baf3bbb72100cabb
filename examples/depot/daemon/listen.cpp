#include "daemon/listen.h"

#include "daemon/daemon_msg.h"

#include <cerrno>
#include <iterator>

#include <netinet/in.h>
#include <unistd.h>

namespace depot {

namespace {

constexpr int types[] = {SOCK_STREAM, SOCK_DGRAM};

struct Sockets {
    int fds[std::size(types)] = {-1, -1};
};

void close_sockets(Sockets &sockets)
{
    for (int &fd : sockets.fds) {
        if (fd >= 0)
            (void)close(fd);
        fd = -1;
    }
}

bool set(int fd, int level, int option)
{
    const int on = 1;
    return setsockopt(fd, level, option, &on, sizeof on) == 0;
}

// IPv4 has a socket of its own. A server that is started anew finds connections of the one before, which may not keep
// it from its port.
bool prepare(int fd, const Address &address, int type)
{
    const bool is_stream = type == SOCK_STREAM;
    return (address.bytes.ss_family != AF_INET6 || set(fd, IPPROTO_IPV6, IPV6_V6ONLY)) &&
           (!is_stream || set(fd, SOL_SOCKET, SO_REUSEADDR)) &&
           bind(fd, reinterpret_cast<const sockaddr *>(&address.bytes), address.size) == 0 &&
           (!is_stream || listen(fd, SOMAXCONN) == 0);
}

bool learn_port(int fd, Address &address)
{
    socklen_t size = sizeof address.bytes;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&address.bytes), &size) == 0;
}

// Both sockets, at the port that the first gets where none is given. 0 or an errno number.
int open_sockets(Address &address, Sockets &out_sockets)
{
    for (unsigned i = 0; i < std::size(types); ++i) {
        int &fd = out_sockets.fds[i];
        fd = socket(address.bytes.ss_family, types[i] | SOCK_CLOEXEC, 0);
        if (fd < 0 || !prepare(fd, address, types[i]) || !learn_port(fd, address)) {
            const int failure = errno;
            close_sockets(out_sockets);
            return failure;
        }
    }
    return 0;
}

// A port that is free for TCP need not be so for UDP.
int open_sockets_somewhere(Address &address, Sockets &out_sockets)
{
    constexpr int tries = 100;
    const bool is_any_port = port_of(address) == 0;
    int failure = EADDRINUSE;
    for (int i = 0; failure == EADDRINUSE && i < (is_any_port ? tries : 1); ++i) {
        if (is_any_port)
            set_port(address, 0);
        failure = open_sockets(address, out_sockets);
    }
    return failure;
}

// The library has the sockets then, or says why not.
bool make_transports(Sockets &sockets, Listener &out_listener)
{
    for (unsigned i = 0; i < std::size(types); ++i) {
        out_listener.transports[i] = ks_svc_tli_create(sockets.fds[i], nullptr, nullptr, 0, 0);
        if (out_listener.transports[i] == nullptr)
            break;
        sockets.fds[i] = -1;
    }
    if (out_listener.transports[1] != nullptr)
        return true;
    if (out_listener.transports[0] != nullptr)
        svc_destroy(out_listener.transports[0]);
    close_sockets(sockets);
    return false;
}

bool add(const Address &address, Sockets &sockets, Listeners &listeners)
{
    Listener &listener = listeners.items[listeners.count];
    listener = {address, {}};
    if (!make_transports(sockets, listener))
        return false;
    ++listeners.count;
    say(IMSG_OK, msg_daemon_serving, shown(address));
    return true;
}

// A host may be without one of the families.
bool is_lacking(const Address &address, int failure)
{
    return is_any(address) && (failure == EAFNOSUPPORT || failure == EADDRNOTAVAIL);
}

} // namespace

Search listen_at(stg_area *area, const char *word, Listeners &listeners)
{
    Addresses addresses;
    if (const Search search = find_own_addresses(area, word, addresses); search != Search::found)
        return search;
    const unsigned before = listeners.count;
    for (std::size_t i = 0; i < addresses.count; ++i) {
        Address &address = addresses.items[i];
        if (port_of(address) == 0 && listeners.count > before)
            set_port(address, port_of(listeners.items[before].address)); // all at the one that the first got
        if (listeners.count == listeners_max) {
            say(IMSG_ERROR, msg_daemon_many, listeners_max);
            return Search::unknown;
        }
        Sockets sockets;
        const int failure = open_sockets_somewhere(address, sockets);
        const bool is_last_chance = i + 1 == addresses.count && listeners.count == before;
        if (failure != 0 && is_lacking(address, failure) && !is_last_chance)
            continue;
        if (failure != 0)
            say(IMSG_ERROR, msg_daemon_no_socket, shown(address), imsg_strerror(failure));
        if (failure != 0 || !add(address, sockets, listeners))
            return Search::unknown;
    }
    return Search::found;
}

void close_listeners(Listeners &listeners)
{
    for (unsigned i = 0; i < listeners.count; ++i)
        for (SVCXPRT *const transport : listeners.items[i].transports)
            svc_destroy(transport);
    listeners.count = 0;
}

} // namespace depot
