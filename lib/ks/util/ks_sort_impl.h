// The pieces of the sort that know about element sizes.
//
// Every piece obeys one rule: when the comparison is called, the array holds exactly the elements
// it was given. So nothing is ever lost when the comparison leaves by a raise.
#pragma once

#include <korvaks/ks_sort.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace ks::sort {

template <std::size_t words> struct Words {
    uint64_t word[words];
};

// Elements of the size of a type; their alignment does not matter.
template <typename Word> struct SizeOf {
    static constexpr bool is_cheap_to_swap = true;

    static constexpr std::size_t size() { return sizeof(Word); }

    // The two may be the same element.
    static void swap(unsigned char *a, unsigned char *b)
    {
        Word from_a;
        Word from_b;
        std::memcpy(&from_a, a, sizeof(Word));
        std::memcpy(&from_b, b, sizeof(Word));
        std::memcpy(a, &from_b, sizeof(Word));
        std::memcpy(b, &from_a, sizeof(Word));
    }

    static void copy(unsigned char *to, const unsigned char *from) { std::memcpy(to, from, sizeof(Word)); }
};

// Exchanges two blocks that do not overlap.
inline void swap_blocks(unsigned char *a, unsigned char *b, std::size_t bytes)
{
    for (; bytes >= 16; bytes -= 16, a += 16, b += 16)
        SizeOf<Words<2>>::swap(a, b);
    for (; bytes >= 4; bytes -= 4, a += 4, b += 4)
        SizeOf<uint32_t>::swap(a, b);
    for (; bytes != 0; --bytes, ++a, ++b)
        std::swap(*a, *b);
}

// Elements of any other size.
struct AnySize {
    static constexpr bool is_cheap_to_swap = false;

    std::size_t bytes;

    std::size_t size() const { return bytes; }

    void swap(unsigned char *a, unsigned char *b) const
    {
        if (a != b)
            swap_blocks(a, b, bytes);
    }

    void copy(unsigned char *to, const unsigned char *from) const { std::memcpy(to, from, bytes); }
};

// The comparison, its context and the element size, and what can be said in their terms alone.
template <typename Size> struct Order {
    Size size;
    ks_compare_fn compare;
    void *ctx;

    unsigned char *at(unsigned char *base, std::size_t index) const { return base + index * size.size(); }

    int operator()(const unsigned char *a, const unsigned char *b) const { return compare(a, b, ctx); }
};

} // namespace ks::sort
