// The format of an entry: one file with a header, and the content packed in blocks.
//
//     offset  size  content
//          0     8  "VELDEPOT"
//          8     4  format version, 1 to 3
//         12     4  checksum of the content
//         16     8  bytes of the content
//         24     8  bytes behind the header
//         32     8  time of the file's last change, seconds since 1970 (two's complement)
//         40     4  and nanoseconds
//         44     4  checksum of what is packed
//         48     4  checksum of the 48 bytes before
//
// Version 3, which is what is written, goes on:
//
//         52     8  time at which the entry was stored, seconds since 1970 (two's complement)
//         60     4  and nanoseconds
//         64     2  bytes of the owner's name, O
//         66     2  bytes of the comment, C
//         68     2  permissions of the file, the 9 bits of chmod()
//         70     O  the login name of who stored the entry
//     70 + O     C  the comment
// 70 + O + C     4  checksum of the 70 + O + C bytes before, taken twice
// 74 + O + C        the blocks, up to the end of the file
//
// Each block holds 1 MiB of the content, the last one what is left:
//
//          0     4  bytes as stored, S
//          4     4  checksum of S and the stored bytes of all blocks up to this one
//          8     S  the content as compress_compress() packs it; as it is where that makes it no shorter
//
// So each block can be checked as it comes, and the last block's checksum is the one at offset 44. The checksum
// overlooks one change of a bit in some thousands. It hardly does so twice, so that all is covered by two that
// differ: the header's, and those of what is stored and of the content.
//
// Older versions hold the content as one compressed block. Version 2 has no permissions, version 1 nothing
// at all between the first 52 bytes and the block.
//
// All numbers are big-endian, all checksums are those of fileutl_crc_buffer(). The header vouches
// for itself and for the length of the file, so that listing a depot reads only headers. The first 52 bytes
// stay as they are in every version, so that an older program can tell that an entry is newer than itself from
// one that is damaged.
#pragma once

#include <korvaks/fileutl.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <time.h>

namespace depot {

inline constexpr std::size_t owner_bytes_max = 255;
inline constexpr std::size_t comment_bytes_max = 1023;
inline constexpr std::size_t header_bytes_max = 74 + owner_bytes_max + comment_bytes_max;

// Content of every block but the last.
inline constexpr std::size_t block_content_bytes = 1 << 20;
inline constexpr std::size_t block_head_bytes = 8;

// A checksum that is continued from piece to piece.
class Checksum {
  public:
    Checksum() = default;
    Checksum(std::uint32_t value, std::uint32_t counter) : value_(value), counter_(counter) {}

    void add(const void *data, std::size_t size) { (void)fileutl_crc_buffer_step(data, size, &counter_, &value_); }
    std::uint32_t value() const { return value_; }
    std::uint32_t counter() const { return counter_; }

  private:
    std::uint32_t value_ = 0;
    std::uint32_t counter_ = 0;
};

struct Entry {
    bool is_in_blocks = true; // else of an older version
    std::uint32_t checksum = 0;
    std::uint64_t length = 0;
    std::uint64_t stored_length = 0; // all behind the header
    timespec changed = {};
    std::uint32_t stored_checksum = 0;
    timespec stored = {};     // version 1 does not tell: the same as `changed`
    unsigned permissions = 0; // older versions do not tell
    std::string_view owner;   // empty: version 1 does not tell
    std::string_view comment; // without NUL, like the owner
};

struct BlockHead {
    std::uint32_t stored_bytes = 0;
    std::uint32_t checksum = 0;
};

enum class Fault {
    none,
    foreign, // no entry at all
    version,
    header,
    size,
    block,
    content,
    memory, // not the entry's
};

// Writes a header of at most header_bytes_max; gives its size, which does not depend on the content. Owner and
// comment must not be longer than their limits.
std::size_t write_header(const Entry &entry, unsigned char *header);

// Reads the header of a file of `file_bytes`, of which `available` bytes are here: all of them, or
// header_bytes_max. The owner and the comment stay parts of `header`.
Fault read_header(const unsigned char *header, std::size_t available, std::uint64_t file_bytes, Entry &out_entry,
                  std::size_t &out_header_bytes);

void write_block_head(const BlockHead &block, unsigned char *head);
BlockHead read_block_head(const unsigned char *head);

// Goes on with the checksum of what is stored.
void add_block(Checksum &sum, const unsigned char *stored, std::size_t size);

} // namespace depot
