// Packs a block: finds repetitions through chains of positions with the same hash, and writes the
// tokens described in compress.h. What is written is fixed bit for bit.
#include <korvaks/compress.h>

#include "text/compress_impl.h"
#include "kernel/ks_guard.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <cerrno>

namespace {

using ks::compress::check_bytes;
using ks::compress::distance_bits;
using ks::compress::format_number;
using ks::compress::header_bytes;
using ks::compress::length_bits;
using ks::compress::load_le32;
using ks::compress::load_le64;
using ks::compress::match_max;
using ks::compress::match_min;
using ks::compress::match_tag;
using ks::compress::match_token_bits;
using ks::compress::store_be64;
using ks::compress::window_bytes;

constexpr std::size_t hash_values = 8091;
constexpr unsigned chain_nodes_max = 11;

// Heads are padded so that they can be swept in whole vectors. Heads and nodes fit into the
// first chunk of their area.
constexpr std::size_t heads_bytes = sizeof(std::uint16_t) * ((hash_values + 31) / 32 * 32);
constexpr std::size_t nodes_bytes = sizeof(std::uint16_t) * window_bytes;
constexpr std::uint64_t area_bytes = 32000;
static_assert(heads_bytes + nodes_bytes < area_bytes);

// Bytes that must be left so that a match can be measured 8 bytes at a time.
constexpr std::size_t wide_bytes = (match_max + 7) / 8 * 8;

// Appends tokens, the most significant bit first. Each call stores 8 bytes, of which only the
// complete ones count.
class BitWriter {
  public:
    explicit BitWriter(unsigned char *out) : out_(out) {}

    void put_literal(unsigned char byte) { put(byte | (byte & 0x80u) << 1, 8 + byte / 0x80u); }

    void put_match(std::size_t distance, unsigned length)
    {
        const auto back = static_cast<std::uint32_t>(distance - 1);
        put(match_tag << (distance_bits + length_bits) | back << length_bits | (length - match_min), match_token_bits);
    }

    // Pads to a whole byte; gives the end of the stream.
    unsigned char *finish()
    {
        put(0, 7);
        return out_;
    }

  private:
    void put(std::uint32_t value, unsigned count)
    {
        pending_ = pending_ << count | value;
        count_ += count;
        store_be64(out_, pending_ << (64 - count_));
        out_ += count_ / 8;
        count_ %= 8;
    }

    unsigned char *out_;
    std::uint64_t pending_ = 0; // its low count_ bits belong behind out_
    unsigned count_ = 0;        // bits of a byte that is not complete
};

// For each hash value the positions at which a token began, the latest first.
//
// A position that left the window is never reached again, so there is one node for each place in
// the window: that of position p is number p modulo window_bytes, and holds how far behind p the
// next older position of its chain lies. Overwriting a head that left the window and putting a
// new node in front of it are the same here.
//
// A head holds its position counted from `base_`, which moves on before the counts outgrow 16
// bits. Counts in the window are never 0, so 0 is an empty chain or a position beyond the window.
class Chains {
  public:
    Chains(std::uint16_t *heads, std::uint16_t *nodes) : heads_(heads), nodes_(nodes) {}

    // Puts position `p` in front of a chain; gives how far behind `p` the head was.
    std::size_t push(std::uint32_t hash, std::size_t p)
    {
        if (p - base_ > UINT16_MAX) [[unlikely]]
            advance_base(p);
        const std::size_t count = p - base_;
        const std::size_t behind = count - heads_[hash];
        heads_[hash] = static_cast<std::uint16_t>(count);
        nodes_[p % window_bytes] = static_cast<std::uint16_t>(behind);
        return behind;
    }

    // How far behind position `p` the next older one of its chain lies.
    std::size_t behind(std::size_t p) const { return nodes_[p % window_bytes]; }

  private:
    static constexpr std::size_t first_count = window_bytes + 1;

    // Counts `p` as first_count from now on. It is at most one token beyond the last position, so
    // the step fits.
    void advance_base(std::size_t p)
    {
        const auto step = static_cast<std::uint16_t>(p - base_ - first_count);
        for (std::size_t i = 0; i < heads_bytes / sizeof *heads_; ++i)
            heads_[i] = static_cast<std::uint16_t>(std::max(heads_[i], step) - step);
        base_ += step;
    }

    std::uint16_t *heads_;
    std::uint16_t *nodes_;
    std::size_t base_ = std::size_t{0} - first_count; // position 0 counts as first_count
};

struct Match {
    std::size_t distance;
    unsigned length; // below match_min: none
};

std::uint32_t hash_of(const unsigned char *bytes)
{
    const std::uint32_t b0 = bytes[0];
    const std::uint32_t b1 = bytes[1];
    const std::uint32_t b2 = bytes[2];
    return (b2 * 64 + b1 * 8 + b0) * b0 % hash_values;
}

// How many of the first `longest` bytes are common, with wide_bytes readable behind both. And whether three bytes are
// equal: one comparison, since most candidates fail at any of them.
struct WideCompare {
    static bool has_equal_three(const unsigned char *a, const unsigned char *b)
    {
        return ((load_le32(a) ^ load_le32(b)) << 8) == 0;
    }

    static unsigned common_length(const unsigned char *a, const unsigned char *b, unsigned)
    {
        for (unsigned at = 0; at < match_max; at += 8) {
            const std::uint64_t difference = load_le64(a + at) ^ load_le64(b + at);
            if (difference != 0)
                return std::min(at + static_cast<unsigned>(std::countr_zero(difference)) / 8, match_max);
        }
        return match_max;
    }
};

// The same near the end of the data.
struct NarrowCompare {
    static bool has_equal_three(const unsigned char *a, const unsigned char *b)
    {
        return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
    }

    static unsigned common_length(const unsigned char *a, const unsigned char *b, unsigned longest)
    {
        unsigned at = 0;
        while (at < longest && a[at] == b[at])
            ++at;
        return at;
    }
};

// The longest match for position `p`, the nearest of equally long ones, among the chain's first
// nodes. Matches below match_min count for nothing, so only longer ones are looked for, and a
// longer one has the three bytes that end at the best length in common.
template <typename Compare>
Match find_match(const Chains &chains, const unsigned char *data, std::size_t p, std::size_t behind, unsigned longest)
{
    Match best = {0, match_min - 1};
    for (unsigned nodes = 0; nodes < chain_nodes_max && behind <= window_bytes; ++nodes) {
        const unsigned char *here = data + p;
        const unsigned char *there = here - behind;
        const unsigned end = best.length - (match_min - 1);
        if (Compare::has_equal_three(there + end, here + end)) {
            const unsigned length = Compare::common_length(there, here, longest);
            if (length > best.length)
                best = {behind, length};
            if (length == longest)
                break;
        }
        behind += chains.behind(p - behind);
    }
    return best;
}

// Writes the token for position `p` of data with `left` bytes, at least match_min, from there on;
// gives the position behind it.
template <typename Compare>
std::size_t put_token(BitWriter &writer, Chains &chains, const unsigned char *data, std::size_t p, std::size_t left)
{
    const auto longest = static_cast<unsigned>(std::min<std::size_t>(match_max, left));
    const std::size_t behind = chains.push(hash_of(data + p), p);
    const Match match = find_match<Compare>(chains, data, p, behind, longest);
    if (match.length < match_min) {
        writer.put_literal(data[p]);
        return p + 1;
    }
    writer.put_match(match.distance, match.length);
    return p + match.length;
}

unsigned char *put_header(unsigned char *out, std::size_t length)
{
    out[0] = format_number;
    for (unsigned i = 1; i < header_bytes; ++i)
        out[i] = static_cast<unsigned char>(length >> 8 * (header_bytes - 1 - i));
    return out + header_bytes;
}

// Writes the tokens of data of which `Compare` may be asked as long as `needed` bytes are left, and looks for a raise
// now and then; gives the position behind them.
template <typename Compare> std::size_t put_tokens(BitWriter &writer, Chains &chains, const unsigned char *data,
                                                   std::size_t length, std::size_t p, std::size_t needed)
{
    for (std::size_t next_check = p + check_bytes; length - p >= needed;) {
        p = put_token<Compare>(writer, chains, data, p, length - p);
        if (p >= next_check) [[unlikely]] {
            pfm_test_raise(nullptr);
            next_check = p + check_bytes;
        }
    }
    return p;
}

// Gives the size of the block. Nothing here has a destructor, and the caller knows what a raise leaves.
std::size_t pack(std::size_t length, const unsigned char *data, Chains chains, unsigned char *block)
{
    BitWriter writer(put_header(block, length));
    std::size_t p = put_tokens<WideCompare>(writer, chains, data, length, 0, wide_bytes);
    p = put_tokens<NarrowCompare>(writer, chains, data, length, p, match_min);
    for (; p < length; ++p)
        writer.put_literal(data[p]);
    return static_cast<std::size_t>(writer.finish() - block);
}

// Memory for the block. A token takes at most 9 bits for each byte it stands for, so header,
// tokens and padding stay below 9/8 of the length and 7 bytes; the 8 bytes that the writer stores
// at a time end within 5/4 of the length and 32 bytes. Rounding of the product, 2^-53 of it, is
// far below the 1/8 of the length between the two.
unsigned char *allocate_block(std::size_t length)
{
    const double bytes = static_cast<double>(length) * 1.25 + 32;
    const bool is_possible = bytes < static_cast<double>(PTRDIFF_MAX);
    return static_cast<unsigned char *>(stg_malloc(is_possible ? static_cast<std::size_t>(bytes) : PTRDIFF_MAX));
}

// What a raise in the middle of the work leaves to be given back.
struct Work {
    stg_area *area = STG_AREA_NULL;
    unsigned char *block = nullptr;
    std::size_t block_bytes = 0;
};

// Storage prints traces, which are raise points. Held off here, a raise comes when the results are
// in their place.
void begin(Work &work, std::size_t length)
{
    const ks::InhibitGuard no_raise;
    work.block = allocate_block(length);
    work.area = stg_create_area(area_bytes);
}

void end(Work &work)
{
    const ks::InhibitGuard no_raise;
    if (work.area != STG_AREA_NULL)
        stg_delete_area(&work.area);
}

void compress_into(Work &work, std::size_t length, const unsigned char *data)
{
    if (work.block == nullptr || work.area == STG_AREA_NULL)
        return;
    stg_set_zero(work.area); // chains begin empty
    auto *heads = static_cast<std::uint16_t *>(stg_alloc(work.area, heads_bytes));
    auto *nodes = static_cast<std::uint16_t *>(stg_alloc(work.area, nodes_bytes));
    if (heads != nullptr && nodes != nullptr)
        work.block_bytes = pack(length, data, Chains(heads, nodes), work.block);
}

} // namespace

extern "C" unsigned char *compress_compress(size_t length, const unsigned char *data, size_t *out_length)
{
    Work work;
    const int32_t status = ks::protect([&] {
        begin(work, length);
        compress_into(work, length, data);
        end(work);
    });
    if (status != 0 || work.block_bytes == 0) {
        stg_free_int(work.block, 1); // quiet: its trace could raise before the block is gone
        work.block = nullptr;
        work.block_bytes = 0;
    }
    if (status != 0) {
        end(work);
        pfm_raise(status);
    }
    if (work.block == nullptr)
        errno = ENOMEM;
    *out_length = work.block_bytes;
    return work.block;
}
