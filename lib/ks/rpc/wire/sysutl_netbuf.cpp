// The address in a transport's buffer as text: the one thing about addresses that knows the platform's RPC types.
#include "rpc/wire/rpc_platform.h"

#include <korvaks/sysutl.h>

extern "C" char *sysutl_netbuf_to_str(const netbuf *netbuf, std::size_t size, char *buf)
{
    constexpr sockaddr unknown{};
    const void *addr = netbuf->buf != nullptr ? netbuf->buf : &unknown;
    return sysutl_sockaddr_to_str(static_cast<const sockaddr *>(addr), size, buf);
}
