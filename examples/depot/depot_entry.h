// The format of an entry: one file with a header and a compressed block.
//
//     offset  size  content
//          0     8  "VELDEPOT"
//          8     4  format version, 1
//         12     4  checksum of the content
//         16     8  bytes of the content
//         24     8  bytes of the block
//         32     8  time of the file's last change, seconds since 1970 (two's complement)
//         40     4  and nanoseconds
//         44     4  checksum of the block
//         48     4  checksum of the 48 bytes before
//         52        the block, as compress_compress() makes it, up to the end of the file
//
// All numbers are big-endian, all checksums are those of fileutl_crc_buffer(). The header vouches
// for itself and for the length of the file, so that listing a depot reads only headers.
#pragma once

#include "depot_file.h"

#include <cstddef>
#include <cstdint>

#include <time.h>

namespace depot {

inline constexpr std::size_t header_bytes = 52;

// Longest content: a compressed block tells its length in 32 bits.
inline constexpr std::uint64_t content_bytes_max = UINT32_MAX;

struct Entry {
    std::uint32_t checksum = 0;
    std::uint64_t length = 0;
    std::uint64_t block_length = 0;
    timespec changed = {};
    std::uint32_t block_checksum = 0;
};

enum class Fault {
    none,
    foreign, // no entry at all
    version,
    header,
    size,
    block,
    content,
};

// Describes a content and its block; `header` receives header_bytes.
void write_header(const Bytes &content, const Bytes &block, const timespec &changed, unsigned char *header);

// Reads the first `available` bytes of a file of `file_bytes`.
Fault read_header(const unsigned char *header, std::size_t available, std::uint64_t file_bytes, Entry &out_entry);

// Restores the content of a block. Raises: yes.
Fault unpack(const Entry &entry, const Bytes &block, Bytes &out_content);

} // namespace depot
