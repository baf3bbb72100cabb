// Text that cannot be read in passing. Both tables are a stored format: what one version wrote, every
// later one must read.
#include "util/strutl_impl.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace {

constexpr unsigned group_values = 64;
constexpr unsigned group_mask = group_values - 1;
constexpr unsigned char not_encoded = 0xFF;

constexpr char encoding[group_values + 1] = "PUcdm+bFsOQXJH5BCiNItSgRGKyq2D3VnoLju6E4AphWTZz07819xklaevfMY-rw";

constexpr unsigned char keys[group_values] = {
    10, 9,  14, 39, 2,  8,  43, 3,  33, 53, 41, 5,  32, 22, 56, 48, //
    15, 38, 57, 40, 26, 27, 18, 34, 24, 13, 63, 17, 28, 46, 55, 35, //
    1,  20, 58, 62, 59, 52, 36, 0,  16, 12, 45, 11, 6,  19, 21, 61, //
    60, 25, 4,  44, 49, 51, 23, 47, 37, 31, 42, 54, 7,  29, 30, 50, //
};

// Value of each ASCII character in the encoding.
consteval std::array<unsigned char, 128> make_decoding()
{
    std::array<unsigned char, 128> values{};
    values.fill(not_encoded);
    for (unsigned i = 0; i < group_values; ++i)
        values[static_cast<unsigned char>(encoding[i])] = static_cast<unsigned char>(i);
    return values;
}

constexpr auto decoding = make_decoding();
static_assert(decoding.size() - static_cast<std::size_t>(std::ranges::count(decoding, not_encoded)) == group_values,
              "a character stands for two values");

// Three input bytes make four groups. At each of the three steps a byte is split: its high bits
// complete the group begun by the byte before, its low ones begin the next.
struct Step {
    unsigned shift; // low bits kept for the next group
    unsigned mask;  // of those bits
};

constexpr Step steps[] = {{2, 0x03}, {4, 0x0F}, {6, 0x3F}};
constexpr unsigned step_count = 3;
constexpr unsigned group_bits = 6;

unsigned value_of(char c)
{
    const unsigned char byte = ks::strutl::byte_of(c);
    return byte < decoding.size() ? decoding[byte] : not_encoded;
}

// Applies the keys to groups one after the other and keeps the XOR of what was emitted.
class KeyStream {
  public:
    explicit KeyStream(unsigned start) : index_(start) {}

    unsigned apply(unsigned group)
    {
        const unsigned key = keys[index_];
        index_ = (index_ + 1) & group_mask;
        return group ^ key;
    }

  private:
    unsigned index_;
};

class Scrambler {
  public:
    Scrambler(unsigned start, char *out) : stream_(start), check_(start), out_(out) {}

    void emit(unsigned group)
    {
        const unsigned emitted = stream_.apply(group);
        check_ ^= emitted;
        *out_++ = encoding[emitted];
    }

    void finish()
    {
        *out_++ = encoding[check_];
        *out_ = '\0';
    }

  private:
    KeyStream stream_;
    unsigned check_;
    char *out_;
};

// Characters that `size` bytes become, without the NUL; false when no memory could hold them.
bool scrambled_size(std::size_t size, std::size_t &out_size)
{
    const std::size_t padding = size % 3 == 0 ? 0 : size % 3 + 1;
    return !__builtin_mul_overflow(size / 3, std::size_t{4}, &out_size) &&
           !__builtin_add_overflow(out_size, padding + 1, &out_size);
}

void scramble(const char *src, std::size_t size, unsigned long now, char *out)
{
    Scrambler scrambler(now & group_mask, out);
    unsigned carried = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const Step &step = steps[i % step_count];
        const unsigned byte = ks::strutl::byte_of(src[i]);
        scrambler.emit(carried | byte >> step.shift);
        carried = (byte & step.mask) << (group_bits - step.shift);
        if (i % step_count == step_count - 1) {
            scrambler.emit(carried);
            carried = 0;
        }
    }
    if (size % step_count != 0) {
        // The spare bits tell nothing; the time keeps them from being always the same.
        const unsigned spare_bits = group_bits - steps[size % step_count - 1].shift;
        const auto spare = static_cast<unsigned>(now / group_values) & ((1U << spare_bits) - 1);
        scrambler.emit(carried | spare);
    }
    scrambler.finish();
}

// XOR of the values of all characters, the start index by now; false for a character outside the table.
bool recover_start(const char *src, std::size_t size, unsigned &out_start)
{
    out_start = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned value = value_of(src[i]);
        if (value == not_encoded)
            return false;
        out_start ^= value;
    }
    return true;
}

void unscramble(const char *src, std::size_t groups, unsigned start, char *out)
{
    KeyStream stream(start);
    unsigned carried = 0;
    for (std::size_t i = 0; i < groups; ++i) {
        const unsigned group = stream.apply(value_of(src[i]));
        const std::size_t place = i % (step_count + 1);
        if (place > 0) {
            const unsigned shift = steps[place - 1].shift;
            *out++ = static_cast<char>(carried << shift | group >> (group_bits - shift));
        }
        carried = group;
    }
    *out = '\0';
}

unsigned fail(char *out, std::size_t out_size)
{
    if (out_size > 0)
        *out = '\0';
    return 1;
}

} // namespace

extern "C" {

unsigned strutl_extract_head(const char *src, char *out, size_t out_size)
{
    const std::size_t size = std::strlen(src);
    std::size_t wanted = 0;
    if (size > 0 && !scrambled_size(size, wanted))
        return fail(out, out_size);
    if (wanted >= out_size)
        return fail(out, out_size);
    if (size == 0)
        *out = '\0';
    else
        scramble(src, size, static_cast<unsigned long>(std::time(nullptr)), out);
    return 0;
}

unsigned strutl_extract_tail(const char *src, char *out, size_t out_size)
{
    const std::size_t size = std::strlen(src);
    const std::size_t groups = size == 0 ? 0 : size - 1;
    // One group alone, or one more than whole fours, holds no whole byte.
    if ((size > 0 && groups == 0) || groups % 4 == 1)
        return fail(out, out_size);
    unsigned start = 0;
    if (!recover_start(src, size, start) || groups / 4 * 3 + groups % 4 * 3 / 4 >= out_size)
        return fail(out, out_size);
    unscramble(src, groups, start, out);
    return 0;
}
}
