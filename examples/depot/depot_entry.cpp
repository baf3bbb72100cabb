#include "depot_entry.h"

#include <korvaks/compress.h>
#include <korvaks/fileutl.h>

#include <cstring>

namespace depot {

namespace {

constexpr std::string_view magic = "VELDEPOT";
constexpr std::uint32_t version_without_owner = 1;
constexpr std::uint32_t version = 2;
constexpr std::size_t first_part_bytes = 52;  // as in version 1, its checksum included
constexpr std::size_t second_part_bytes = 20; // without owner and comment, its checksum included
constexpr std::size_t checksum_bytes = 4;
constexpr std::uint32_t nanoseconds_max = 999999999;
static_assert(header_bytes_max == first_part_bytes + second_part_bytes + owner_bytes_max + comment_bytes_max);

std::uint32_t checksum_of(const void *data, std::size_t size)
{
    return fileutl_crc_buffer(data, size, nullptr);
}

class Writer {
  public:
    explicit Writer(unsigned char *to) : part_(to), to_(to) {}

    void put(std::uint64_t number, unsigned bytes)
    {
        while (bytes-- > 0)
            *to_++ = static_cast<unsigned char>(number >> 8 * bytes);
    }

    void put(std::string_view text) { to_ += text.copy(reinterpret_cast<char *>(to_), text.size()); }

    void put(const timespec &time)
    {
        put(static_cast<std::uint64_t>(time.tv_sec), 8);
        put(static_cast<std::uint64_t>(time.tv_nsec), 4);
    }

    // The checksum of what was put since the last one.
    void end_part()
    {
        put(checksum_of(part_, static_cast<std::size_t>(to_ - part_)), checksum_bytes);
        part_ = to_;
    }

    unsigned char *end() const { return to_; }

  private:
    unsigned char *part_;
    unsigned char *to_;
};

// Reads fields whose bytes are known to be there.
class Reader {
  public:
    explicit Reader(const unsigned char *from) : from_(from) {}

    std::uint64_t get_64() { return get(8); }
    std::uint32_t get_32() { return static_cast<std::uint32_t>(get(4)); }
    std::uint16_t get_16() { return static_cast<std::uint16_t>(get(2)); }

    // False for a time that is none.
    bool get_time(timespec &out_time)
    {
        out_time.tv_sec = static_cast<time_t>(get_64());
        const std::uint32_t nanoseconds = get_32();
        out_time.tv_nsec = static_cast<long>(nanoseconds);
        return nanoseconds <= nanoseconds_max;
    }

    std::string_view get_text(std::size_t size)
    {
        const auto *const text = reinterpret_cast<const char *>(from_);
        from_ += size;
        return {text, size};
    }

  private:
    std::uint64_t get(unsigned bytes)
    {
        std::uint64_t number = 0;
        while (bytes-- > 0)
            number = number << 8 | *from_++;
        return number;
    }

    const unsigned char *from_;
};

// Whether a part of the header ends in the checksum of what is before it.
bool is_part_whole(const unsigned char *part, std::size_t size)
{
    return checksum_of(part, size - checksum_bytes) == Reader(part + size - checksum_bytes).get_32();
}

Fault read_first_part(const unsigned char *header, Entry &out_entry, std::uint32_t &out_version)
{
    if (!is_part_whole(header, first_part_bytes))
        return Fault::header;
    Reader reader(header + magic.size());
    out_version = reader.get_32();
    if (out_version != version && out_version != version_without_owner)
        return Fault::version;
    out_entry.checksum = reader.get_32();
    out_entry.length = reader.get_64();
    out_entry.block_length = reader.get_64();
    const bool is_time = reader.get_time(out_entry.changed);
    out_entry.block_checksum = reader.get_32();
    return is_time && out_entry.length <= content_bytes_max ? Fault::none : Fault::header;
}

bool holds_nul(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

Fault read_second_part(const unsigned char *part, std::size_t available, Entry &out_entry, std::size_t &out_size)
{
    if (available < second_part_bytes)
        return Fault::size;
    Reader reader(part);
    const bool is_time = reader.get_time(out_entry.stored);
    const std::size_t owner_bytes = reader.get_16();
    const std::size_t comment_bytes = reader.get_16();
    if (!is_time || owner_bytes > owner_bytes_max || comment_bytes > comment_bytes_max)
        return Fault::header;
    out_size = second_part_bytes + owner_bytes + comment_bytes;
    if (available < out_size)
        return Fault::size;
    if (!is_part_whole(part, out_size))
        return Fault::header;
    out_entry.owner = reader.get_text(owner_bytes);
    out_entry.comment = reader.get_text(comment_bytes);
    return holds_nul(out_entry.owner) || holds_nul(out_entry.comment) ? Fault::header : Fault::none;
}

} // namespace

void describe(const Bytes &content, const Bytes &block, Entry &entry)
{
    entry.checksum = checksum_of(content.data, content.size);
    entry.length = content.size;
    entry.block_checksum = checksum_of(block.data, block.size);
    entry.block_length = block.size;
}

std::size_t write_header(const Entry &entry, unsigned char *header)
{
    Writer writer(header);
    writer.put(magic);
    writer.put(version, 4);
    writer.put(entry.checksum, 4);
    writer.put(entry.length, 8);
    writer.put(entry.block_length, 8);
    writer.put(entry.changed);
    writer.put(entry.block_checksum, 4);
    writer.end_part();
    writer.put(entry.stored);
    writer.put(entry.owner.size(), 2);
    writer.put(entry.comment.size(), 2);
    writer.put(entry.owner);
    writer.put(entry.comment);
    writer.end_part();
    return static_cast<std::size_t>(writer.end() - header);
}

Fault read_header(const unsigned char *header, std::size_t available, std::uint64_t file_bytes, Entry &out_entry,
                  std::size_t &out_header_bytes)
{
    if (available < magic.size() || std::memcmp(header, magic.data(), magic.size()) != 0)
        return Fault::foreign;
    if (available < first_part_bytes)
        return Fault::size;
    std::uint32_t found = 0;
    if (const Fault fault = read_first_part(header, out_entry, found); fault != Fault::none)
        return fault;
    std::size_t more = 0;
    Fault fault = Fault::none;
    if (found == version)
        fault = read_second_part(header + first_part_bytes, available - first_part_bytes, out_entry, more);
    else
        out_entry.stored = out_entry.changed;
    out_header_bytes = first_part_bytes + more;
    if (fault != Fault::none)
        return fault;
    const bool is_whole = file_bytes >= out_header_bytes && out_entry.block_length == file_bytes - out_header_bytes;
    return is_whole ? Fault::none : Fault::size;
}

Fault unpack(const Entry &entry, const Bytes &block, Bytes &out_content)
{
    if (block.size != entry.block_length)
        return Fault::size;
    if (checksum_of(block.data, block.size) != entry.block_checksum)
        return Fault::block;
    out_content.data = compress_uncompress(block.size, block.data, &out_content.size);
    if (out_content.data == nullptr || out_content.size != entry.length)
        return Fault::content;
    return checksum_of(out_content.data, out_content.size) == entry.checksum ? Fault::none : Fault::content;
}

} // namespace depot
