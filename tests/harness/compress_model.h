// A plain decoder of compressed blocks, as the format reads.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace test::compress {

using Bytes = std::vector<unsigned char>;

inline constexpr std::size_t header_size = 5;

inline std::size_t declared_length(const Bytes &block)
{
    std::size_t length = 0;
    for (std::size_t i = 1; i < header_size; ++i)
        length = length << 8 | block[i];
    return length;
}

// Bits, the most significant of each byte first; past the end there are zeros, and it knows.
class Bits {
  public:
    explicit Bits(const Bytes &bytes) : bytes_(bytes) {}

    std::size_t take(unsigned count)
    {
        std::size_t value = 0;
        for (; count > 0; --count, ++at_)
            value = value << 1 | (at_ / 8 < bytes_.size() ? bytes_[at_ / 8] >> (7 - at_ % 8) & 1U : 0U);
        return value;
    }

    bool is_past_end() const { return at_ > 8 * bytes_.size(); }

  private:
    const Bytes &bytes_;
    std::size_t at_ = 8 * header_size;
};

// Nothing for a block that is cut short, copies from before its start or passes the declared length.
inline std::optional<Bytes> decode(const Bytes &block)
{
    if (block.size() < header_size || block[0] != 1)
        return std::nullopt;
    Bits bits(block);
    Bytes data;
    while (data.size() < declared_length(block) && !bits.is_past_end()) {
        if (bits.take(1) == 0) {
            data.push_back(static_cast<unsigned char>(bits.take(7)));
        } else if (bits.take(1) == 1) {
            data.push_back(static_cast<unsigned char>(0x80 | bits.take(7)));
        } else {
            const std::size_t distance = bits.take(12) + 1;
            if (distance > data.size())
                return std::nullopt;
            for (std::size_t length = bits.take(5) + 3; length > 0; --length)
                data.push_back(data[data.size() - distance]);
        }
    }
    if (bits.is_past_end() || data.size() > declared_length(block))
        return std::nullopt;
    return data;
}

} // namespace test::compress
