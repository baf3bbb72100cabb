// The kinds of transport, their classes, and the walks over them.
//
// A walk is a list of netids, that of the class or that of NETPATH, which is read as far as the next name whenever one
// is asked for. So a walk over NETPATH, one without it and one over "tcp" differ in nothing but their text.
#include <korvaks/rpc.h>

#include "base/ks_base.h"
#include "rpc/wire/rpc_impl.h"

#include <korvaks/evutl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace ks::rpc {

namespace {

// Callers see the platform's structure, whose texts are not const; the rows are.
constexpr netconfig row(const char *netid, unsigned long semantics, const char *family, const char *protocol)
{
    netconfig made{};
    made.nc_netid = const_cast<char *>(netid);
    made.nc_semantics = semantics;
    made.nc_flag = NC_NOFLAG;
    made.nc_protofmly = const_cast<char *>(family);
    made.nc_proto = const_cast<char *>(protocol);
    made.nc_device = const_cast<char *>("-");
    return made;
}

} // namespace

constinit const std::array<netconfig, 4> transports{
    row("udp6", NC_TPI_CLTS, NC_INET6, NC_UDP),
    row("tcp6", NC_TPI_COTS_ORD, NC_INET6, NC_TCP),
    row("udp", NC_TPI_CLTS, NC_INET, NC_UDP),
    row("tcp", NC_TPI_COTS_ORD, NC_INET, NC_TCP),
};

} // namespace ks::rpc

namespace {

constexpr char netids_without_netpath[] = "udp6:tcp6:udp:tcp";

struct Class {
    const char *name;
    const char *netids;      // NULL: those of NETPATH
    unsigned long semantics; // which of them, 0 for all
};

constexpr std::array classes{
    Class{"netpath", nullptr, 0},
    Class{"circuit_n", nullptr, NC_TPI_COTS_ORD},
    Class{"datagram_n", nullptr, NC_TPI_CLTS},
    Class{"tcp", "tcp6:tcp", 0},
    Class{"udp", "udp6:udp", 0},
    Class{"visible", "", 0}, // no transport is
    Class{"circuit_v", "", 0},
    Class{"datagram_v", "", 0},
};

// One block with the list behind it, which is unescaped as it is read.
struct Walk {
    unsigned long semantics;
    char *rest; // NULL behind the last name
};

// The same in every locale, unlike strcasecmp().
bool is_class_name(std::string_view name, std::string_view given)
{
    return std::equal(name.begin(), name.end(), given.begin(), given.end(), [](char lower, char c) {
        return lower == c || (c >= 'A' && c <= 'Z' && lower == c - 'A' + 'a');
    });
}

const Class *find_class(const char *nettype)
{
    if (nettype == nullptr || *nettype == '\0')
        return &classes.front();
    for (const Class &known : classes)
        if (is_class_name(known.name, nettype))
            return &known;
    return nullptr;
}

Walk *allocate_walk(std::size_t list_size, unsigned long semantics)
{
    void *block = std::malloc(sizeof(Walk) + list_size);
    if (block == nullptr)
        return nullptr;
    return new (block) Walk{semantics, static_cast<char *>(block) + sizeof(Walk)};
}

Walk *make_walk(std::string_view netids, unsigned long semantics)
{
    Walk *walk = allocate_walk(netids.size() + 1, semantics);
    if (walk != nullptr)
        *std::copy(netids.begin(), netids.end(), walk->rest) = '\0';
    return walk;
}

// Copies NETPATH, or what stands for it; false when there is no room.
bool read_netpath(char *list, std::size_t size)
{
    const ks::ErrnoSaver saver;
    errno = 0;
    if (getenv_safe("NETPATH", list, size, EVUTL_GETENV_WHOLE) != nullptr)
        return true;
    if (errno == ERANGE)
        return false;
    std::memcpy(list, netids_without_netpath, sizeof netids_without_netpath);
    return true;
}

Walk *make_walk_over_netpath(unsigned long semantics)
{
    constexpr std::size_t usual_size = 64;
    static_assert(usual_size >= sizeof netids_without_netpath);
    for (std::size_t size = usual_size;; size *= 2) {
        Walk *walk = allocate_walk(size, semantics);
        if (walk == nullptr || read_netpath(walk->rest, size))
            return walk;
        std::free(walk);
    }
}

// NULL behind the last one. A "\" at the very end stands for itself.
const char *next_netid(Walk &walk)
{
    if (walk.rest == nullptr)
        return nullptr;
    const char *netid = walk.rest;
    char *to = walk.rest;
    char *from = walk.rest;
    while (*from != '\0' && *from != ':') {
        if (*from == '\\' && from[1] != '\0')
            ++from;
        *to++ = *from++;
    }
    walk.rest = *from == ':' ? from + 1 : nullptr;
    *to = '\0';
    return netid;
}

const netconfig *find_transport(const char *netid)
{
    for (const netconfig &transport : ks::rpc::transports)
        if (std::strcmp(transport.nc_netid, netid) == 0)
            return &transport;
    return nullptr;
}

} // namespace

extern "C" {

void *__ks_rpc_setconf(const char *nettype)
{
    const Class *chosen = find_class(nettype);
    if (chosen == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (chosen->netids == nullptr)
        return make_walk_over_netpath(chosen->semantics);
    return make_walk(chosen->netids, chosen->semantics);
}

netconfig *__ks_rpc_getconf(void *walk)
{
    if (walk == nullptr)
        return nullptr;
    auto &own = *static_cast<Walk *>(walk);
    while (const char *netid = next_netid(own)) {
        const netconfig *transport = find_transport(netid);
        if (transport != nullptr && (own.semantics == 0 || own.semantics == transport->nc_semantics))
            return const_cast<netconfig *>(transport);
    }
    return nullptr;
}

void __ks_rpc_endconf(void *walk)
{
    std::free(walk);
}
}
