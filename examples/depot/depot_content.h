// The content of one file on its way into an entry or out of it, a block at a time. All functions report what
// fails, and are raise points: whoever has a transfer under way gives back what it holds when Ctrl-C comes.
#pragma once

#include "depot_entry.h"
#include "depot_file.h"

#include <cstddef>

namespace depot {

// What the transfer of one file holds. Plain numbers and pointers: a raise runs no destructor.
struct Transfer {
    const char *source_name = nullptr; // for messages, as the target's
    const char *target_name = nullptr;
    int source = -1;
    int target_directory = -1;
    Aside aside;
    unsigned char *room = nullptr;   // for one block as it is read; kept from file to file
    unsigned char *result = nullptr; // a block, packed or unpacked
    unsigned char *whole = nullptr;  // an entry of an older version
    void *sink_argument = nullptr;   // for a sink that needs more
    unsigned char header[header_bytes_max];
};

// Gives back all that belongs to one file.
void end_transfer(Transfer &transfer);

// And what is kept for the next.
void release(Transfer &transfer);

// Content that is being packed: what of it waits in the transfer's room for the rest of its block, and the sums.
struct Packing {
    std::size_t waiting = 0;
    Checksum content;
    Checksum stored;
};

// Adds content, in blocks behind what the aside holds; the entry's lengths grow with each.
bool add_content(Transfer &transfer, Packing &packing, Entry &entry, const unsigned char *data, std::size_t size);

// Packs what waits, and tells the entry the sums.
bool end_content(Transfer &transfer, Packing &packing, Entry &entry);

// The same with all of the source.
bool pack(Transfer &transfer, Entry &entry);

// Where content goes: 0 or an errno number.
using Sink = int (*)(Transfer &transfer, const unsigned char *data, std::size_t size);

int to_nowhere(Transfer &transfer, const unsigned char *data, std::size_t size);
int to_aside(Transfer &transfer, const unsigned char *data, std::size_t size);
int to_output(Transfer &transfer, const unsigned char *data, std::size_t size);

// Gives the content of the entry, in front of whose blocks the source stands, to a sink, each block when it has
// been checked. False also when only the end shows that something is wrong.
bool unpack(Transfer &transfer, const Entry &entry, Sink sink);

// How far an entry is unpacked, in front of a block.
struct Position {
    std::uint64_t given = 0;  // of the content
    std::uint64_t stored = 0; // of what is behind the header
    Checksum stored_sum;
    Checksum content;
};

// The same in steps, for as long as content is left: gives the next block, or all of an entry of an older version. Of
// the content each block is checked, and with the last one all that is stored; the content's own sum is the caller's to
// check.
bool unpack_next(Transfer &transfer, const Entry &entry, Position &position, Sink sink);

// Reports what is wrong with an entry.
bool fail(Fault fault, const char *name);

} // namespace depot
