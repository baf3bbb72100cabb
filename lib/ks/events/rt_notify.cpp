// What a daemon tells its service manager: one datagram each time, to the socket that NOTIFY_SOCKET names.
#include <korvaks/rt_notify.h>

#include "base/ks_base.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr std::size_t status_bytes_max = 1000;

// The manager's socket; 1, 0 when there is none, -1 with errno. An abstract name begins with a NUL, and its length is
// that of the address.
int find_manager(sockaddr_un &out_address, socklen_t &out_size)
{
    out_address = {};
    out_address.sun_family = AF_UNIX;
    char *name = out_address.sun_path;
    const int errno_before = std::exchange(errno, 0);
    if (getenv_safe("NOTIFY_SOCKET", name, sizeof out_address.sun_path,
                    EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_SECURE | EVUTL_GETENV_WHOLE) == nullptr) {
        if (errno == ERANGE)
            return -1;
        errno = errno_before;
        return 0;
    }
    errno = errno_before;
    const std::size_t length = std::strlen(name);
    if ((name[0] != '/' && name[0] != '@') || length == 1) {
        errno = EINVAL;
        return -1;
    }
    if (name[0] == '@')
        name[0] = '\0';
    out_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return 1;
}

int send_lines(const char *state, const char *status)
{
    sockaddr_un address;
    socklen_t size = 0;
    const int found = find_manager(address, size);
    if (found <= 0)
        return found;
    std::array<char, status_bytes_max + 64> lines;
    const auto length =
        static_cast<int>(status != nullptr ? std::min(std::strcspn(status, "\n"), status_bytes_max) : 0);
    const int used = strutl_snprintf(lines.data(), lines.size(), "%s%s%.*s", state, status != nullptr ? "STATUS=" : "",
                                     length, status != nullptr ? status : "");
    const ks::UniqueFd socket_fd(ks::above_stdio(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
    if (!socket_fd || sendto(socket_fd.get(), lines.data(), static_cast<std::size_t>(used), MSG_NOSIGNAL | MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr *>(&address), size) < 0)
        return -1;
    return 1;
}

} // namespace

extern "C" {

int rt_notify_ready(const char *status)
{
    return send_lines("READY=1\n", status);
}

int rt_notify_stopping(const char *status)
{
    return send_lines("STOPPING=1\n", status);
}

int rt_notify_status(const char *status)
{
    return send_lines("", status != nullptr ? status : "");
}
}
