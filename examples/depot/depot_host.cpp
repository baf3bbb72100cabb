#include "depot_host.h"

#include "depot_number.h"
#include "depot_report.h"

#include <korvaks/pfm.h>
#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace depot {

namespace {

// A question to the resolver. Nothing interrupts that, and it may wait long for a server of names: so it is asked by
// a thread of its own, while this one hears Ctrl-C.
struct Lookup {
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    int answered; // a descriptor, readable when the rest is there
    int code;     // of getaddrinfo(3)
    int failure;  // errno, for a code of EAI_SYSTEM
    addrinfo *list;
};

// There is one for the process: after a raise the thread goes on with it, to the process's end.
constinit Lookup lookup = {};

extern "C" void *look_up(void *)
{
    lookup.code = sysutl_host_addr(lookup.host, lookup.port, SOCK_STREAM, &lookup.list);
    lookup.failure = errno;
    (void)eventfd_write(lookup.answered, 1);
    return nullptr;
}

// Does nothing but wait: a raise is delivered by pfm_enable().
void wait_for_answer()
{
    for (int ready = 0; ready <= 0;) {
        pollfd answered = {lookup.answered, POLLIN, 0};
        pfm_inhibit();
        ready = pfm_poll_inhibited(&answered, 1, -1);
        pfm_enable();
    }
}

int failed(int failure)
{
    lookup.failure = failure;
    return EAI_SYSTEM;
}

// 0, or the code of getaddrinfo(3).
int resolve()
{
    lookup.answered = eventfd(0, EFD_CLOEXEC);
    if (lookup.answered < 0)
        return failed(errno);
    vlthread_t thread = {};
    const int error = vlthread_create(&thread, nullptr, look_up, nullptr);
    if (error == 0) {
        wait_for_answer();
        (void)vlthread_join(thread, nullptr);
    }
    (void)close(lookup.answered);
    return error == 0 ? lookup.code : failed(error);
}

bool copy(std::string_view host)
{
    if (host.size() >= sizeof lookup.host)
        return false;
    *std::copy(host.begin(), host.end(), lookup.host) = '\0';
    return true;
}

// The resolver knows decimal numbers only.
bool read_port(const char *word, std::uint32_t least)
{
    std::uint32_t port = 0;
    const bool is_port = read_number(word, least, 65535, port);
    (void)strutl_snprintf(lookup.port, sizeof lookup.port, "%u", port);
    return is_port;
}

// A ":" in the host must be one of an address in brackets.
bool split(std::string_view word, std::uint32_t least_port) // with a NUL behind it
{
    const std::size_t colon = word.rfind(':');
    if (colon == word.npos)
        return false;
    std::string_view host = word.substr(0, colon);
    const bool is_bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (is_bracketed)
        host = host.substr(1, host.size() - 2);
    return (host.find(':') != host.npos) == is_bracketed && copy(host) &&
           read_port(word.data() + colon + 1, least_port);
}

bool keep(stg_area *area, const addrinfo *list, Addresses &out_addresses)
{
    std::size_t count = 0;
    for (const addrinfo *one = list; one != nullptr; one = one->ai_next)
        ++count;
    out_addresses.items = static_cast<Address *>(stg_alloc(area, count * sizeof(Address)));
    if (out_addresses.items == nullptr)
        return false;
    for (const addrinfo *one = list; one != nullptr; one = one->ai_next) {
        Address &address = out_addresses.items[out_addresses.count++];
        address.size = one->ai_addrlen;
        std::memcpy(&address.bytes, one->ai_addr, one->ai_addrlen);
    }
    return true;
}

Search ask_resolver(stg_area *area, Addresses &out_addresses)
{
    if (const int code = resolve(); code != 0) {
        report(IMSG_ERROR, msg_no_host, shown(lookup.host),
               code == EAI_SYSTEM ? imsg_strerror(lookup.failure) : gai_strerror(code));
        return Search::unknown;
    }
    const bool is_kept = keep(area, lookup.list, out_addresses);
    freeaddrinfo(lookup.list);
    return is_kept ? Search::found : Search::unknown;
}

Search every_address(stg_area *area, Addresses &out_addresses)
{
    out_addresses.items = static_cast<Address *>(stg_alloc(area, 2 * sizeof(Address)));
    if (out_addresses.items == nullptr)
        return Search::unknown;
    out_addresses.count = 2;
    const sockaddr_in6 in6 = {AF_INET6, 0, 0, IN6ADDR_ANY_INIT, 0};
    const sockaddr_in in = {AF_INET, 0, {INADDR_ANY}, {}};
    out_addresses.items[0] = {{}, sizeof in6};
    std::memcpy(&out_addresses.items[0].bytes, &in6, sizeof in6);
    out_addresses.items[1] = {{}, sizeof in};
    std::memcpy(&out_addresses.items[1].bytes, &in, sizeof in);
    std::uint32_t port = 0;
    (void)read_number(lookup.port, 0, 65535, port);
    for (std::size_t i = 0; i < out_addresses.count; ++i)
        set_port(out_addresses.items[i], static_cast<std::uint16_t>(port));
    return Search::found;
}

} // namespace

Search find_addresses(stg_area *area, const char *word, Addresses &out_addresses)
{
    if (split(word, 1) && lookup.host[0] != '\0')
        return ask_resolver(area, out_addresses);
    (void)fail(msg_bad_target, word);
    return Search::bad_word;
}

Search find_own_addresses(stg_area *area, const char *word, Addresses &out_addresses)
{
    if (!split(word, 0)) {
        (void)fail(msg_bad_target, word);
        return Search::bad_word;
    }
    return lookup.host[0] == '\0' ? every_address(area, out_addresses) : ask_resolver(area, out_addresses);
}

bool is_place(const char *word)
{
    return split(word, 0);
}

bool is_any(const Address &address)
{
    if (address.bytes.ss_family == AF_INET6)
        return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6 *>(&address.bytes)->sin6_addr);
    return reinterpret_cast<const sockaddr_in *>(&address.bytes)->sin_addr.s_addr == INADDR_ANY;
}

std::uint16_t port_of(const Address &address)
{
    return ntohs(reinterpret_cast<const sockaddr_in *>(&address.bytes)->sin_port);
}

void set_port(Address &address, std::uint16_t port)
{
    reinterpret_cast<sockaddr_in *>(&address.bytes)->sin_port = htons(port);
}

const char *shown(const Address &address)
{
    constexpr std::size_t size = SYSUTL_ADDR_TEXT_SIZE;
    char host[size];
    char port[NI_MAXSERV];
    char *const text = make_text(size);
    const auto *const bytes = reinterpret_cast<const sockaddr *>(&address.bytes);
    if (text == nullptr || sysutl_host_numeric(bytes, sizeof host, host, sizeof port, port) != 0)
        return "?";
    (void)strutl_snprintf(text, size, bytes->sa_family == AF_INET6 ? "[%s]:%s" : "%s:%s", host, port);
    return text;
}

} // namespace depot
