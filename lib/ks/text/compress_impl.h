// The format of a compressed block (see korvaks/compress.h), and the byte order helpers that both
// directions need.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ks::compress {

inline constexpr unsigned char format_number = 1;
inline constexpr std::size_t header_bytes = 5;

inline constexpr unsigned distance_bits = 12;
inline constexpr unsigned length_bits = 5;
inline constexpr unsigned match_token_bits = 2 + distance_bits + length_bits;
inline constexpr std::uint32_t match_tag = 2; // the token's first two bits

inline constexpr std::size_t window_bytes = std::size_t{1} << distance_bits; // farthest a match reaches back
inline constexpr unsigned match_min = 3;
inline constexpr unsigned match_max = match_min + (1u << length_bits) - 1;

// Both directions look for a raise each time they have gone on by so many bytes of data.
inline constexpr std::size_t check_bytes = std::size_t{1} << 20;

inline std::uint64_t swap_unless(std::endian order, std::uint64_t word)
{
    return std::endian::native == order ? word : __builtin_bswap64(word);
}

inline std::uint64_t load_u64(const unsigned char *bytes)
{
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// Words whose first byte in memory is the most significant: the order of the bit stream.
inline std::uint64_t load_be64(const unsigned char *bytes)
{
    return swap_unless(std::endian::big, load_u64(bytes));
}

inline void store_be64(unsigned char *bytes, std::uint64_t word)
{
    word = swap_unless(std::endian::big, word);
    std::memcpy(bytes, &word, sizeof word);
}

// Words whose first byte in memory is the least significant: its number is its place.
inline std::uint64_t load_le64(const unsigned char *bytes)
{
    return swap_unless(std::endian::little, load_u64(bytes));
}

inline std::uint32_t load_le32(const unsigned char *bytes)
{
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return std::endian::native == std::endian::little ? word : __builtin_bswap32(word);
}

inline void store_le64(unsigned char *bytes, std::uint64_t word)
{
    word = swap_unless(std::endian::little, word);
    std::memcpy(bytes, &word, sizeof word);
}

} // namespace ks::compress
