// The built-in hash function of strings and byte strings, and the comparison of strings that goes with it, both by
// words. The function: from 0, h = h + ((h << 7) ^ byte).
//
// The low seven bits of h << 7 are 0, so that for a byte below 0x80 the step is 129 * h + byte, and
// eight such bytes are one step of a polynomial in 129, whose parts are computed side by side. Bytes
// from 0x80 on are rare in keys and take the step itself, with their sign or without.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ks::hash {

inline constexpr std::size_t word_bytes = 8;

constexpr uint32_t power_of_129(unsigned exponent)
{
    uint32_t power = 1;
    while (exponent-- > 0)
        power *= 129;
    return power;
}

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

// The same for 1 to 8 of the bytes of a whole word: its first ones, or its last ones.
inline uint64_t load_first(const char *bytes, std::size_t count)
{
    return load_word(bytes) << 8 * (word_bytes - count);
}

inline uint64_t load_last(const char *bytes, std::size_t count)
{
    const std::size_t others = word_bytes - count;
    return load_word(bytes - others) >> 8 * others << 8 * others;
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
    const uint64_t pairs = (word & even_bytes) * power_of_129(1) + (word >> 8 & even_bytes);
    const uint64_t fours = (pairs & even_halves) * power_of_129(2) + (pairs >> 16 & even_halves);
    return static_cast<uint32_t>(fours) * power_of_129(4) + static_cast<uint32_t>(fours >> 32);
}

// The bytes that make no whole word come first: zeros in front of them add nothing to a hash of 0.
template <typename Byte> uint32_t mix(const char *bytes, std::size_t count)
{
    if constexpr (std::endian::native != std::endian::little)
        return mix_bytes<Byte>(0, bytes, count);
    if (count == 0)
        return 0;
    const char *const end = bytes + count;
    const std::size_t first = (count - 1) % word_bytes + 1;
    const uint64_t word = count < word_bytes ? load_short(bytes, count) : load_first(bytes, first);
    uint32_t h = is_ascii_word(word) ? polynomial(word) : mix_bytes<Byte>(0, bytes, first);
    for (bytes += first; bytes != end; bytes += word_bytes) {
        const uint64_t next = load_word(bytes);
        if (is_ascii_word(next)) [[likely]]
            h = h * power_of_129(word_bytes) + polynomial(next);
        else
            h = mix_bytes<Byte>(h, bytes, word_bytes);
    }
    return h;
}

// Whether a string of `length` bytes equals a copy that lies in an area, which hands out whole words: the copy can
// be read to the end of the word that its NUL is in. The words before the last have no NUL in the string, and so
// none in a copy that is equal so far.
inline bool is_equal_to_copy(const char *string, std::size_t length, const char *copy)
{
    if constexpr (std::endian::native != std::endian::little)
        return std::strcmp(string, copy) == 0;
    const std::size_t bytes = length + 1; // with the NUL
    const std::size_t left = length % word_bytes + 1;
    const std::size_t whole = bytes - left;
    for (std::size_t at = 0; at < whole; at += word_bytes) {
        if (load_word(string + at) != load_word(copy + at))
            return false;
    }
    const char *last = string + whole;
    return load_first(copy + whole, left) == (bytes < word_bytes ? load_short(last, left) : load_last(last, left));
}

} // namespace ks::hash
