// Compressed blocks: any data comes back, and any bytes as a block are read as a plain decoder reads them.
#include "fuzz/fuzz_support.h"

#include <korvaks/compress.h>
#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <cstring>
#include <optional>

namespace {

using Bytes = std::string;

constexpr std::size_t header_size = 5;
constexpr std::size_t data_max = 1 << 20;

// Bits, the most significant of each byte first; past the end it stays failed.
class Bits {
  public:
    explicit Bits(const Bytes &bytes) : bytes_(bytes) {}

    bool take(unsigned count, std::size_t &out_value)
    {
        out_value = 0;
        for (; count > 0; --count, ++at_) {
            if (at_ / 8 >= bytes_.size())
                return false;
            const auto byte = static_cast<unsigned char>(bytes_[at_ / 8]);
            out_value = out_value << 1 | (byte >> (7 - at_ % 8) & 1U);
        }
        return true;
    }

  private:
    const Bytes &bytes_;
    std::size_t at_ = 8 * header_size;
};

std::size_t declared_length(const Bytes &block)
{
    std::size_t length = 0;
    for (std::size_t i = 1; i < header_size; ++i)
        length = length << 8 | static_cast<unsigned char>(block[i]);
    return length;
}

bool decode_token(Bits &bits, Bytes &data)
{
    std::size_t byte = 0;
    std::size_t second = 0;
    std::size_t first = 0;
    if (!bits.take(1, first))
        return false;
    if (first == 0) {
        if (!bits.take(7, byte))
            return false;
        data += static_cast<char>(byte);
        return true;
    }
    if (!bits.take(1, second))
        return false;
    if (second == 1) {
        if (!bits.take(7, byte))
            return false;
        data += static_cast<char>(0x80 | byte);
        return true;
    }
    std::size_t distance = 0;
    std::size_t length = 0;
    if (!bits.take(12, distance) || !bits.take(5, length) || distance + 1 > data.size())
        return false;
    for (length += 3; length > 0; --length)
        data += data[data.size() - distance - 1];
    return true;
}

std::optional<Bytes> decode_plainly(const Bytes &block)
{
    if (block.size() < header_size || block[0] != 1)
        return std::nullopt;
    Bits bits(block);
    Bytes data;
    while (data.size() < declared_length(block)) {
        if (!decode_token(bits, data))
            return std::nullopt;
    }
    if (data.size() > declared_length(block))
        return std::nullopt;
    return data;
}

std::optional<Bytes> uncompress(const Bytes &block)
{
    const auto copy = fuzz::exact_copy(reinterpret_cast<const unsigned char *>(block.data()), block.size());
    std::size_t length = 77;
    unsigned char *data = compress_uncompress(block.size(), copy.get(), &length);
    if (data == nullptr) {
        FUZZ_REQUIRE(length == 0);
        return std::nullopt;
    }
    Bytes made(reinterpret_cast<const char *>(data), length);
    stg_free(data);
    return made;
}

void check_round_trip(const Bytes &data)
{
    const auto copy = fuzz::exact_copy(reinterpret_cast<const unsigned char *>(data.data()), data.size());
    std::size_t size = 0;
    unsigned char *packed = compress_compress(data.size(), copy.get(), &size);
    FUZZ_REQUIRE(packed != nullptr && size <= data.size() + data.size() / 8 + 6);
    const Bytes block(reinterpret_cast<const char *>(packed), size);
    stg_free(packed);
    FUZZ_REQUIRE(block[0] == 1 && declared_length(block) == data.size());
    FUZZ_REQUIRE(uncompress(block) == data);
    FUZZ_REQUIRE(decode_plainly(block) == data);
    if (!data.empty())
        FUZZ_REQUIRE(!uncompress(block.substr(0, size - 1)).has_value());
    FUZZ_REQUIRE(uncompress(block + "more") == data);
}

void check_hostile(const Bytes &block)
{
    const std::optional<Bytes> made = uncompress(block);
    if (block.size() >= header_size && declared_length(block) > data_max) {
        // No block of this size holds that much.
        FUZZ_REQUIRE(!made.has_value());
        return;
    }
    FUZZ_REQUIRE(made == decode_plainly(block));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // A block that is refused is reported each time.
    imsg_redirect_output(IMSG_PROC_SUPPRESS, nullptr, IMSG_PROC_SUPPRESS, nullptr);
    const Bytes bytes = fuzz::Input(data, size).take_rest();
    check_hostile(bytes);
    if (size < 0x10000) // a plausible header, so that the bits are read
        check_hostile(Bytes{'\1', '\0', '\0', static_cast<char>(size >> 8), static_cast<char>(size)} + bytes);
    check_round_trip(bytes);
    return 0;
}
