#include "depot_entry.h"

#include <korvaks/compress.h>
#include <korvaks/fileutl.h>

#include <cstring>

namespace {

constexpr unsigned char magic[8] = {'V', 'E', 'L', 'D', 'E', 'P', 'O', 'T'};
constexpr std::uint32_t version = 1;
constexpr std::size_t header_checksum_at = depot::header_bytes - 4;
constexpr std::uint32_t nanoseconds_max = 999999999;

class Writer {
  public:
    explicit Writer(unsigned char *to) : to_(to) {}

    void put(std::uint64_t number, unsigned bytes)
    {
        while (bytes-- > 0)
            *to_++ = static_cast<unsigned char>(number >> 8 * bytes);
    }

  private:
    unsigned char *to_;
};

class Reader {
  public:
    explicit Reader(const unsigned char *from) : from_(from) {}

    std::uint64_t get_64() { return get(8); }
    std::uint32_t get_32() { return static_cast<std::uint32_t>(get(4)); }

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

std::uint32_t checksum_of(const depot::Bytes &bytes)
{
    return fileutl_crc_buffer(bytes.data, bytes.size, nullptr);
}

} // namespace

namespace depot {

void write_header(const Bytes &content, const Bytes &block, const timespec &changed, unsigned char *header)
{
    std::memcpy(header, magic, sizeof magic);
    Writer writer(header + sizeof magic);
    writer.put(version, 4);
    writer.put(checksum_of(content), 4);
    writer.put(content.size, 8);
    writer.put(block.size, 8);
    writer.put(static_cast<std::uint64_t>(changed.tv_sec), 8);
    writer.put(static_cast<std::uint64_t>(changed.tv_nsec), 4);
    writer.put(checksum_of(block), 4);
    writer.put(fileutl_crc_buffer(header, header_checksum_at, nullptr), 4);
}

Fault read_header(const unsigned char *header, std::size_t available, std::uint64_t file_bytes, Entry &out_entry)
{
    if (available < sizeof magic || std::memcmp(header, magic, sizeof magic) != 0)
        return Fault::foreign;
    if (available < header_bytes)
        return Fault::size;
    if (fileutl_crc_buffer(header, header_checksum_at, nullptr) != Reader(header + header_checksum_at).get_32())
        return Fault::header;
    Reader reader(header + sizeof magic);
    if (reader.get_32() != version)
        return Fault::version;
    out_entry.checksum = reader.get_32();
    out_entry.length = reader.get_64();
    out_entry.block_length = reader.get_64();
    out_entry.changed.tv_sec = static_cast<time_t>(reader.get_64());
    const std::uint32_t nanoseconds = reader.get_32();
    out_entry.changed.tv_nsec = static_cast<long>(nanoseconds);
    out_entry.block_checksum = reader.get_32();
    if (nanoseconds > nanoseconds_max || out_entry.length > content_bytes_max)
        return Fault::header;
    return out_entry.block_length == file_bytes - header_bytes ? Fault::none : Fault::size;
}

Fault unpack(const Entry &entry, const Bytes &block, Bytes &out_content)
{
    if (block.size != entry.block_length)
        return Fault::size;
    if (checksum_of(block) != entry.block_checksum)
        return Fault::block;
    out_content.data = compress_uncompress(block.size, block.data, &out_content.size);
    if (out_content.data == nullptr || out_content.size != entry.length)
        return Fault::content;
    return checksum_of(out_content) == entry.checksum ? Fault::none : Fault::content;
}

} // namespace depot
