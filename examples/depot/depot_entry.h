// The format of an entry: one file with a header and a compressed block.
//
//     offset  size  content
//          0     8  "VELDEPOT"
//          8     4  format version, 1 or 2
//         12     4  checksum of the content
//         16     8  bytes of the content
//         24     8  bytes of the block
//         32     8  time of the file's last change, seconds since 1970 (two's complement)
//         40     4  and nanoseconds
//         44     4  checksum of the block
//         48     4  checksum of the 48 bytes before
//
// Version 1 has the block here. Version 2, which is what is written, goes on:
//
//         52     8  time at which the entry was stored, seconds since 1970 (two's complement)
//         60     4  and nanoseconds
//         64     2  bytes of the owner's name, O
//         66     2  bytes of the comment, C
//         68     O  the login name of who stored the entry
//     68 + O     C  the comment
// 68 + O + C     4  checksum of the 16 + O + C bytes before
// 72 + O + C        the block, as compress_compress() makes it, up to the end of the file
//
// All numbers are big-endian, all checksums are those of fileutl_crc_buffer(). The header vouches
// for itself and for the length of the file, so that listing a depot reads only headers. What version 2
// has more comes behind the checksum of version 1, so that an older program can tell that an entry
// is newer than itself from one that is damaged.
#pragma once

#include "depot_file.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <time.h>

namespace depot {

inline constexpr std::size_t owner_bytes_max = 255;
inline constexpr std::size_t comment_bytes_max = 1023;
inline constexpr std::size_t header_bytes_max = 72 + owner_bytes_max + comment_bytes_max;

// Longest content: a compressed block tells its length in 32 bits.
inline constexpr std::uint64_t content_bytes_max = UINT32_MAX;

struct Entry {
    std::uint32_t checksum = 0;
    std::uint64_t length = 0;
    std::uint64_t block_length = 0;
    timespec changed = {};
    std::uint32_t block_checksum = 0;
    timespec stored = {};     // version 1 does not tell: the same as `changed`
    std::string_view owner;   // empty: version 1 does not tell
    std::string_view comment; // without NUL, like the owner
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

// Takes lengths and checksums of a content and its block into the entry.
void describe(const Bytes &content, const Bytes &block, Entry &entry);

// Writes a header of at most header_bytes_max; gives its size. Owner and comment must not be longer
// than their limits.
std::size_t write_header(const Entry &entry, unsigned char *header);

// Reads the header of a file of `file_bytes`, of which `available` bytes are here: all of them, or
// header_bytes_max. The owner and the comment stay parts of `header`.
Fault read_header(const unsigned char *header, std::size_t available, std::uint64_t file_bytes, Entry &out_entry,
                  std::size_t &out_header_bytes);

// Restores the content of a block. Raises: yes.
Fault unpack(const Entry &entry, const Bytes &block, Bytes &out_content);

} // namespace depot
