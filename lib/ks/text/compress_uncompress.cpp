// Restores a packed block. The block comes from outside and may be anything: nothing outside of it
// and of the declared length is ever read or written.
#include <korvaks/compress.h>

#include "text/compress_impl.h"
#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"
#include "base/ks_msg.h"
#include "base/msg_port.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <bit>
#include <cerrno>

namespace {

using ks::compress::check_bytes;
using ks::compress::format_number;
using ks::compress::header_bytes;
using ks::compress::length_bits;
using ks::compress::load_be64;
using ks::compress::load_le64;
using ks::compress::match_max;
using ks::compress::match_min;
using ks::compress::match_tag;
using ks::compress::match_token_bits;
using ks::compress::store_be64;
using ks::compress::store_le64;
using ks::compress::window_bytes;

// The bit stream, the next bits at the top of a word.
class BitReader {
  public:
    BitReader(const unsigned char *in, const unsigned char *end) : in_(in), end_(end) {}

    std::uint64_t bits() const { return bits_; }
    unsigned count() const { return count_; }

    void skip(unsigned count)
    {
        bits_ <<= count;
        count_ -= count;
    }

    // Whether refill_wide() may be called twice.
    bool has_room() const { return end_ - in_ >= 16; }

    // Fills up to at least 56 bits. Bits below them may already be those that the next call puts
    // there again.
    void refill_wide()
    {
        bits_ |= load_be64(in_) >> count_;
        in_ += (63 - count_) / 8;
        count_ |= 56;
    }

    // The same a byte at a time; less where the stream ends, with zero bits behind.
    void refill()
    {
        for (; count_ <= 56 && in_ != end_; count_ += 8)
            bits_ |= std::uint64_t{*in_++} << (56 - count_);
    }

  private:
    const unsigned char *in_;
    const unsigned char *end_;
    std::uint64_t bits_ = 0;
    unsigned count_ = 0; // bits that are valid
};

bool is_match(std::uint64_t bits)
{
    return bits >> 62 == match_tag;
}

// A literal begins with 0 or 11; the second form has one bit more in front of the byte.
unsigned literal_bits(std::uint64_t bits)
{
    return 8 + static_cast<unsigned>(bits >> 63);
}

unsigned char literal(std::uint64_t bits)
{
    return static_cast<unsigned char>(bits >> (64 - literal_bits(bits)));
}

std::size_t distance_of(std::uint64_t match)
{
    return (match >> (64 - match_token_bits + length_bits) & (window_bytes - 1)) + 1;
}

std::size_t length_of(std::uint64_t match)
{
    return (match >> (64 - match_token_bits) & ((1u << length_bits) - 1)) + match_min;
}

// Bytes that copy_match_wide() may write behind its start.
constexpr std::size_t match_room = (match_max + 7) / 8 * 8 + 8;

// How `distance` bytes at the beginning of a word are repeated all over it.
struct Pattern {
    std::uint64_t mask;   // the bytes that are repeated
    std::uint64_t repeat; // a factor that puts a copy at every multiple of the distance
    std::size_t stride;   // the greatest multiple of the distance that fits in a word
};

constexpr Pattern patterns[8] = {
    {},
    {0xFF, 0x0101010101010101, 8},
    {0xFFFF, 0x0001000100010001, 8},
    {0xFFFFFF, 0x0001000001000001, 6},
    {0xFFFFFFFF, 0x0000000100000001, 8},
    {0xFFFFFFFFFF, 0x0000010000000001, 5},
    {0xFFFFFFFFFFFF, 0x0001000000000001, 6},
    {0xFFFFFFFFFFFFFF, 0x0100000000000001, 7},
};

// A match that begins less than a word back repeats `distance` bytes. The word that they fill is
// stored again and again.
[[gnu::always_inline]] inline void copy_pattern(unsigned char *out, std::size_t distance, std::size_t length)
{
    const Pattern &pattern = patterns[distance];
    const std::uint64_t word = (load_le64(out - distance) & pattern.mask) * pattern.repeat;
    for (std::size_t at = 0; at < length; at += pattern.stride)
        store_le64(out + at, word);
}

// Copies a match in whole words; what lands behind its end is overwritten by what follows.
[[gnu::always_inline]] inline void copy_match_wide(unsigned char *out, std::size_t distance, std::size_t length)
{
    const unsigned char *from = out - distance;
    if (distance >= 16) {
        std::memcpy(out, from, 16);
        if (length > 16) [[unlikely]] {
            std::memcpy(out + 16, from + 16, 16);
            std::memcpy(out + 32, from + 32, 8);
        }
        return;
    }
    if (distance >= 8) {
        for (std::size_t at = 0; at < length; at += 8)
            std::memcpy(out + at, from + at, 8);
        return;
    }
    copy_pattern(out, distance, length);
}

class Decoder {
  public:
    Decoder(const unsigned char *in, const unsigned char *in_end, unsigned char *out, std::size_t out_bytes)
        : reader_(in, in_end), out_(out), begin_(out), end_(out + out_bytes)
    {
    }

    // False when the stream is cut short or damaged.
    [[nodiscard]] bool run() { return run_wide() && run_to_end(); }

  private:
    // What a round may write: 7 literals and two matches.
    static constexpr std::ptrdiff_t round_room = 8 + match_max + match_room;

    // A stretch of rounds tells what kind of data this is, and the rounds that suit it follow.
    static constexpr unsigned sample_rounds = 64;
    static constexpr unsigned binary_rounds = 1024;
    static constexpr std::size_t binary_long_literals = sample_rounds / 4;

    bool has_room(const BitReader &reader, const unsigned char *out) const
    {
        return end_ - out >= round_room && reader.has_room();
    }

    // As long as a round fits into what is left of both sides.
    bool run_wide()
    {
        bool is_good = true;
        const unsigned char *checked = out_;
        while (is_good && has_room(reader_, out_)) {
            is_good = run_rounds<true>(sample_rounds);
            if (is_good && long_literals_ > binary_long_literals)
                is_good = run_rounds<false>(binary_rounds);
            if (static_cast<std::size_t>(out_ - checked) >= check_bytes) {
                pfm_test_raise(nullptr);
                checked = out_;
            }
        }
        return is_good;
    }

    // A word holds two tokens of any kind. In text, short literals in front of them are taken several
    // at a time. Works on copies, because the compiler must expect stores to change members.
    template <bool is_text> bool run_rounds(unsigned rounds)
    {
        BitReader reader = reader_;
        unsigned char *out = out_;
        std::size_t long_literals = 0;
        bool is_good = true;
        for (; is_good && rounds != 0 && has_room(reader, out); --rounds) {
            if constexpr (is_text)
                out = put_short_literals(reader, out);
            reader.refill_wide();
            for (unsigned tokens = 0; tokens < 2; ++tokens) {
                const std::uint64_t bits = reader.bits();
                if (!is_match(bits)) {
                    *out++ = literal(bits);
                    long_literals += bits >> 63;
                    reader.skip(literal_bits(bits));
                    continue;
                }
                const std::size_t distance = distance_of(bits);
                if (!reaches_back(out, distance)) [[unlikely]] {
                    is_good = false;
                    break;
                }
                copy_match_wide(out, distance, length_of(bits));
                out += length_of(bits);
                reader.skip(match_token_bits);
            }
        }
        reader_ = reader;
        out_ = out;
        long_literals_ = long_literals;
        return is_good;
    }

    // Short literals are their own bytes: up to 7 at the top of the word are stored at once.
    [[gnu::always_inline]] static unsigned char *put_short_literals(BitReader &reader, unsigned char *out)
    {
        reader.refill_wide();
        const std::uint64_t others = (reader.bits() & 0x8080808080808080) | 0x80;
        const auto count = static_cast<unsigned>(std::countl_zero(others)) / 8;
        store_be64(out, reader.bits());
        reader.skip(count * 8);
        return out + count;
    }

    // Token by token, with every limit looked at.
    bool run_to_end()
    {
        while (out_ != end_) {
            reader_.refill();
            const std::uint64_t bits = reader_.bits();
            const unsigned count = is_match(bits) ? match_token_bits : literal_bits(bits);
            if (reader_.count() < count)
                return false;
            reader_.skip(count);
            if (!is_match(bits))
                *out_++ = literal(bits);
            else if (!copy_match(distance_of(bits), length_of(bits)))
                return false;
        }
        return true;
    }

    bool copy_match(std::size_t distance, std::size_t length)
    {
        if (!reaches_back(out_, distance) || length > static_cast<std::size_t>(end_ - out_))
            return false;
        for (; length != 0; --length, ++out_)
            *out_ = *(out_ - distance);
        return true;
    }

    bool reaches_back(const unsigned char *out, std::size_t distance) const
    {
        return distance <= static_cast<std::size_t>(out - begin_);
    }

    BitReader reader_;
    unsigned char *out_;
    unsigned char *const begin_;

    unsigned char *const end_;
    std::size_t long_literals_ = 0; // met in the last rounds
};

std::size_t declared_length(const unsigned char *block)
{
    std::size_t length = 0;
    for (std::size_t i = 1; i < header_bytes; ++i)
        length = length << 8 | block[i];
    return length;
}

// Whether tokens in this many bytes can stand for so much: 19 bytes hold 8 matches, and what is
// left over at most 8 more.
bool can_hold(std::size_t stream_bytes, std::size_t length)
{
    constexpr std::size_t group_length = 8 * match_max;
    return length / group_length <= stream_bytes / match_token_bits + 1;
}

// Whether the data was restored. Small data is restored without a look for raises.
bool restore(const unsigned char *block, std::size_t length, unsigned char *data, std::size_t data_length)
{
    Decoder decoder(block + header_bytes, block + length, data, data_length);
    if (data_length < check_bytes)
        return decoder.run();
    bool is_good = false;
    const int32_t raised = ks::protect([&] { is_good = decoder.run(); });
    if (raised != 0) {
        stg_free_int(data, 1);
        pfm_raise(raised);
    }
    return is_good;
}

struct Restored {
    unsigned char *data; // NULL on failure
    std::size_t length;
    int error; // of a failure: EINVAL when the block is refused, ENOMEM
};

Restored uncompress(size_t length, const unsigned char *block, void *(*allocate)(std::size_t size))
{
    constexpr Restored refused{nullptr, 0, EINVAL};
    if (length < header_bytes || block[0] != format_number)
        return refused;
    const std::size_t data_length = declared_length(block);
    if (!can_hold(length - header_bytes, data_length))
        return refused;
    auto *data = static_cast<unsigned char *>(allocate(data_length));
    if (data == nullptr)
        return {nullptr, 0, ENOMEM};
    if (!restore(block, length, data, data_length)) {
        stg_free_int(data, 1); // quiet: its trace could raise before the buffer is gone
        return refused;
    }
    return {data, data_length, 0};
}

unsigned char *give(const Restored &restored, std::size_t *out_length)
{
    if (restored.data == nullptr)
        errno = restored.error;
    *out_length = restored.length;
    return restored.data;
}

} // namespace

extern "C" {

unsigned char *compress_uncompress(size_t length, const unsigned char *block, size_t *out_length)
{
    const Restored restored = uncompress(length, block, stg_malloc);
    if (restored.error == EINVAL)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_bad_format_number, "compressed data");
    if (restored.error == ENOMEM)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_no_storage);
    return give(restored, out_length);
}

unsigned char *compress_uncompress_quiet(size_t length, const unsigned char *block, size_t *out_length)
{
    return give(uncompress(length, block, ks::heap_try_malloc), out_length);
}
}
