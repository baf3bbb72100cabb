// The built-in hash function of strings and byte strings: from 0, h = h + ((h << 7) ^ byte).
//
// The low seven bits of h << 7 are 0, so that for a byte below 0x80 the step is 129 * h + byte, and
// eight such bytes are one step of a polynomial in 129, whose parts are computed side by side. Bytes
// from 0x80 on are rare in keys and take the step itself, with their sign or without.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ks::hash {

inline constexpr std::size_t word_bytes = 8;

inline constexpr std::array<uint32_t, word_bytes + 1> powers_of_129 = [] {
    std::array<uint32_t, word_bytes + 1> powers{1};
    for (std::size_t i = 1; i < powers.size(); ++i)
        powers[i] = powers[i - 1] * 129;
    return powers;
}();

// `Byte` is signed char or unsigned char, and says what bytes from 0x80 on count as.
template <typename Byte> uint32_t mix_bytes(uint32_t h, const char *bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        h += h << 7 ^ static_cast<uint32_t>(static_cast<Byte>(bytes[i]));
    return h;
}

inline uint64_t load_word(const char *bytes)
{
    uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// 1 to 7 bytes at the upper end of a word. The zeros below them come first and add nothing.
inline uint64_t load_short(const char *bytes, std::size_t count)
{
    uint64_t word = 0;
    if (count >= 4) {
        uint32_t first;
        uint32_t last; // overlaps the first
        std::memcpy(&first, bytes, sizeof first);
        std::memcpy(&last, bytes + count - 4, sizeof last);
        word = first | static_cast<uint64_t>(last) << 8 * (count - 4);
    } else {
        const auto byte_at = [bytes](std::size_t at) {
            return static_cast<uint64_t>(static_cast<unsigned char>(bytes[at])) << 8 * at;
        };
        word = byte_at(0) | byte_at(count / 2) | byte_at(count - 1);
    }
    return word << 8 * (word_bytes - count);
}

inline bool is_ascii_word(uint64_t word)
{
    return (word & 0x8080808080808080) == 0;
}

// The polynomial of a word's eight bytes, the lowest one first: pairs, then fours, in lanes that
// have room for them.
inline uint32_t polynomial(uint64_t word)
{
    constexpr uint64_t even_bytes = 0x00FF00FF00FF00FF;
    constexpr uint64_t even_halves = 0x0000FFFF0000FFFF;
    const uint64_t pairs = (word & even_bytes) * powers_of_129[1] + (word >> 8 & even_bytes);
    const uint64_t fours = (pairs & even_halves) * powers_of_129[2] + (pairs >> 16 & even_halves);
    return static_cast<uint32_t>(fours) * powers_of_129[4] + static_cast<uint32_t>(fours >> 32);
}

template <typename Byte> uint32_t mix(const char *bytes, std::size_t count)
{
    if constexpr (std::endian::native != std::endian::little)
        return mix_bytes<Byte>(0, bytes, count);
    uint32_t h = 0;
    for (; count >= word_bytes; bytes += word_bytes, count -= word_bytes) {
        const uint64_t word = load_word(bytes);
        if (is_ascii_word(word)) [[likely]]
            h = h * powers_of_129[word_bytes] + polynomial(word);
        else
            h = mix_bytes<Byte>(h, bytes, word_bytes);
    }
    if (count == 0)
        return h;
    const uint64_t word = load_short(bytes, count);
    return is_ascii_word(word) ? h * powers_of_129[count] + polynomial(word) : mix_bytes<Byte>(h, bytes, count);
}

} // namespace ks::hash
