// What the network says of datagrams that did not arrive.
#include "rpc/client/clnt_dg_errors.h"

#include "base/ks_base.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// One kept error: which, and how the datagram began, as far as it was told.
struct Kept {
    int error;
    uint32_t first_word;
    bool has_word;
};

const sock_extended_err *extended_error(msghdr &message)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        const bool is_one = (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_RECVERR) ||
                            (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_RECVERR);
        if (is_one)
            return reinterpret_cast<const sock_extended_err *>(CMSG_DATA(part));
    }
    return nullptr;
}

bool take_kept(int fd, Kept &out)
{
    alignas(cmsghdr) std::array<char, 512> control;
    uint32_t word = 0;
    iovec room{&word, sizeof word};
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT);
    if (size < 0)
        return false;
    const sock_extended_err *error = extended_error(message);
    out = {error != nullptr ? static_cast<int>(error->ee_errno) : 0, word, size >= ssize_t{sizeof word}};
    return true;
}

// So many at a time: a flood of them does not keep a call from its deadline.
constexpr int taken_at_once = 64;

} // namespace

namespace ks::clnt {

bool ask_for_network_errors(int fd)
{
    const ErrnoSaver saver;
    const int on = 1;
    // A socket of IPv6 takes both.
    const bool is_kept = setsockopt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on) == 0;
    return setsockopt(fd, IPPROTO_IPV6, IPV6_RECVERR, &on, sizeof on) == 0 || is_kept;
}

bool is_network_error(int error)
{
    constexpr std::array errors{ECONNREFUSED, EHOSTUNREACH, ENETUNREACH, EHOSTDOWN, ENOPROTOOPT,
                                EPROTO,       EMSGSIZE,     EACCES,      ENONET,    EOPNOTSUPP};
    return std::find(errors.begin(), errors.end(), error) != errors.end();
}

int find_network_error(int fd, int told, uint32_t first_word, uint64_t &count)
{
    Kept kept{};
    int i = 0;
    for (; i < taken_at_once && take_kept(fd, kept); ++i) {
        if (kept.error != 0 && (!kept.has_word || kept.first_word == first_word))
            return kept.error;
        ++count;
    }
    return i == 0 && is_network_error(told) ? told : 0;
}

bool take_network_errors(int fd, uint64_t &count)
{
    Kept kept{};
    int i = 0;
    for (; i < taken_at_once && take_kept(fd, kept); ++i)
        ++count;
    return i > 0;
}

} // namespace ks::clnt
