#include "depot_entry.h"

#include <cstring>

namespace depot {

namespace {

constexpr std::string_view magic = "VELDEPOT";
constexpr std::uint32_t version_without_owner = 1;
constexpr std::uint32_t version = 3;
constexpr std::size_t first_part_bytes = 52;  // as in version 1, its checksum included
constexpr std::size_t second_part_bytes = 22; // without owner and comment, its checksum included
constexpr std::size_t permission_bytes = 2;   // of these, since version 3
constexpr std::size_t checksum_bytes = 4;
constexpr std::uint32_t nanoseconds_max = 999999999;
static_assert(header_bytes_max == first_part_bytes + second_part_bytes + owner_bytes_max + comment_bytes_max);

std::uint32_t checksum_of(const void *data, std::size_t size)
{
    return fileutl_crc_buffer(data, size, nullptr);
}

class Writer {
  public:
    explicit Writer(unsigned char *to) : from_(to), to_(to) {}

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

    std::size_t size() const { return static_cast<std::size_t>(to_ - from_); }

  private:
    unsigned char *from_;
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

std::uint32_t checksum_taken_twice(const void *data, std::size_t size)
{
    Checksum sum;
    sum.add(data, size);
    sum.add(data, size);
    return sum.value();
}

// Whether bytes end in a checksum of what is before it.
template <typename Function> bool is_whole(const unsigned char *bytes, std::size_t size, const Function &checksum)
{
    return checksum(bytes, size - checksum_bytes) == Reader(bytes + size - checksum_bytes).get_32();
}

std::uint64_t block_count(std::uint64_t length)
{
    return length / block_content_bytes + (length % block_content_bytes != 0 ? 1 : 0);
}

// Whether so many bytes can hold a content, before memory is taken for either. A compressed block of the older
// versions has 5 bytes of its own, at most 9 bits for a byte, and at least 18 for 34 bytes.
bool can_hold(const Entry &entry)
{
    const std::uint64_t stored = entry.stored_length;
    const std::uint64_t length = entry.length;
    if (entry.is_in_blocks) {
        const std::uint64_t heads = block_count(length) * block_head_bytes;
        return stored >= heads && stored - heads <= length;
    }
    return length <= UINT32_MAX && stored >= 5 && stored - 5 <= length + (length + 7) / 8 &&
           length <= (stored - 5) * 8 / 18 * 34 + 34;
}

Fault read_first_part(const unsigned char *header, Entry &out_entry, std::uint32_t &out_version)
{
    if (!is_whole(header, first_part_bytes, checksum_of))
        return Fault::header;
    Reader reader(header + magic.size());
    out_version = reader.get_32();
    if (out_version < version_without_owner || out_version > version)
        return Fault::version;
    out_entry.is_in_blocks = out_version == version;
    out_entry.checksum = reader.get_32();
    out_entry.length = reader.get_64();
    out_entry.stored_length = reader.get_64();
    const bool is_time = reader.get_time(out_entry.changed);
    out_entry.stored_checksum = reader.get_32();
    return is_time && can_hold(out_entry) ? Fault::none : Fault::header;
}

bool holds_nul(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

Fault read_second_part(const unsigned char *header, std::size_t available, Entry &out_entry, std::size_t &out_size)
{
    const unsigned char *const part = header + first_part_bytes;
    out_size = second_part_bytes - (out_entry.is_in_blocks ? 0 : permission_bytes);
    if (available < out_size)
        return Fault::size;
    Reader reader(part);
    const bool is_time = reader.get_time(out_entry.stored);
    const std::size_t owner_bytes = reader.get_16();
    const std::size_t comment_bytes = reader.get_16();
    out_entry.permissions = out_entry.is_in_blocks ? reader.get_16() : 0;
    if (!is_time || owner_bytes > owner_bytes_max || comment_bytes > comment_bytes_max || out_entry.permissions > 0777)
        return Fault::header;
    out_size += owner_bytes + comment_bytes;
    if (available < out_size)
        return Fault::size;
    if (!(out_entry.is_in_blocks ? is_whole(header, first_part_bytes + out_size, checksum_taken_twice)
                                 : is_whole(part, out_size, checksum_of)))
        return Fault::header;
    out_entry.owner = reader.get_text(owner_bytes);
    out_entry.comment = reader.get_text(comment_bytes);
    return holds_nul(out_entry.owner) || holds_nul(out_entry.comment) ? Fault::header : Fault::none;
}

} // namespace

std::size_t write_header(const Entry &entry, unsigned char *header)
{
    Writer writer(header);
    writer.put(magic);
    writer.put(version, 4);
    writer.put(entry.checksum, 4);
    writer.put(entry.length, 8);
    writer.put(entry.stored_length, 8);
    writer.put(entry.changed);
    writer.put(entry.stored_checksum, 4);
    writer.put(checksum_of(header, writer.size()), checksum_bytes);
    writer.put(entry.stored);
    writer.put(entry.owner.size(), 2);
    writer.put(entry.comment.size(), 2);
    writer.put(entry.permissions, 2);
    writer.put(entry.owner);
    writer.put(entry.comment);
    writer.put(checksum_taken_twice(header, writer.size()), checksum_bytes);
    return writer.size();
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
    if (found != version_without_owner)
        fault = read_second_part(header, available - first_part_bytes, out_entry, more);
    else
        out_entry.stored = out_entry.changed;
    out_header_bytes = first_part_bytes + more;
    if (fault != Fault::none)
        return fault;
    const bool is_whole = file_bytes >= out_header_bytes && out_entry.stored_length == file_bytes - out_header_bytes;
    return is_whole ? Fault::none : Fault::size;
}

void write_block_head(const BlockHead &block, unsigned char *head)
{
    Writer writer(head);
    writer.put(block.stored_bytes, 4);
    writer.put(block.checksum, 4);
}

BlockHead read_block_head(const unsigned char *head)
{
    Reader reader(head);
    const std::uint32_t stored_bytes = reader.get_32();
    return {stored_bytes, reader.get_32()};
}

void add_block(Checksum &sum, const unsigned char *stored, std::size_t size)
{
    unsigned char length[4];
    Writer(length).put(size, sizeof length);
    sum.add(length, sizeof length);
    sum.add(stored, size);
}

} // namespace depot
