// Finding hosts: "HOST:PORT" on a command line, and the addresses that it stands for.
#pragma once

#include <korvaks/stg.h>

#include <cstddef>
#include <cstdint>

#include <sys/socket.h>

namespace depot {

struct Address {
    sockaddr_storage bytes;
    socklen_t size;
};

struct Addresses {
    Address *items = nullptr;
    std::size_t count = 0;
};

enum class Search {
    found,
    unknown,  // or the resolver has failed
    bad_word, // it is no HOST:PORT
};

// The addresses of a host with a port, in the resolver's order, in memory of the area. An IPv6 address stands in
// brackets. What fails has been reported. A raise point, also while it waits for the resolver.
Search find_addresses(stg_area *area, const char *word, Addresses &out_addresses);

// The same to serve at: no host before the ":" stands for every address of this one, IPv6 and IPv4, and a port of 0 for
// one that the system chooses.
Search find_own_addresses(stg_area *area, const char *word, Addresses &out_addresses);

// Whether a word is for that. Reports nothing.
bool is_place(const char *word);

bool is_any(const Address &address);

// Both families have it at the same place.
std::uint16_t port_of(const Address &address);
void set_port(Address &address, std::uint16_t port);

// "192.0.2.1:4711", "[2001:db8::1]:4711". A text for report().
const char *shown(const Address &address);

} // namespace depot
