// Switches of sockets, and what waits in them.
#include <korvaks/sysutl.h>

#include "base/ks_base.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

bool set_async(int fd, int on)
{
    return ioctl(fd, FIOASYNC, &on) == 0;
}

} // namespace

extern "C" {

int sysutl_accept(int fd, sockaddr *addr, socklen_t *addrlen)
{
    return ks::above_stdio(accept4(fd, addr, addrlen, SOCK_CLOEXEC));
}

int sysutl_set_socket_nonblocking(int fd, int on)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        return 1;
    return fcntl(fd, F_SETFL, on != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) == 0 ? 0 : 1;
}

int sysutl_set_socket_interrupting(int fd)
{
    // The owner comes first: who switches on without one loses the signals in between.
    const int owner_before = fcntl(fd, F_GETOWN);
    if (fcntl(fd, F_SETOWN, getpid()) != 0)
        return 1;
    if (set_async(fd, 1))
        return 0;
    const ks::ErrnoSaver saver;
    (void)fcntl(fd, F_SETOWN, owner_before); // what it had before cannot be refused
    return 1;
}

int sysutl_clear_socket_interrupting(int fd)
{
    const bool is_off = set_async(fd, 0);
    const bool is_disowned = fcntl(fd, F_SETOWN, 0) == 0;
    return is_off && is_disowned ? 0 : 1;
}

int sysutl_socket_bytes_ready(int fd, int *count)
{
    int ready = 0;
    if (ioctl(fd, FIONREAD, &ready) != 0)
        return 1;
    *count = ready;
    return 0;
}
}
