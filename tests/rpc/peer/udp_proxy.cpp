// The proxy as a program, for scripts: "udp_proxy PORT REQUESTS REPLIES" stands before a server of this host, tells the
// port where it does, does what the two words say, and ends with its standard input.
#include "rpc/peer/udp_proxy.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fputs("usage: udp_proxy PORT REQUESTS REPLIES\n", stderr);
        return 2;
    }
    const auto port = static_cast<uint16_t>(std::strtoul(argv[1], nullptr, 10));
    const test::UdpProxy proxy(AF_INET, port, {argv[2], argv[3]});
    std::printf("port=%u\n", unsigned{proxy.port()});
    std::fflush(stdout);
    while (std::getchar() != EOF)
        continue;
    std::printf("%d requests, %d replies\n", proxy.count(test::UdpProxy::requests),
                proxy.count(test::UdpProxy::replies));
    return 0;
}
