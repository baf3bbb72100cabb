// Input data that are the same at every run and on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

// A small generator (xorshift), so that no data depend on a standard library.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next()
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }

    // 0 to `bound` - 1
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() >> 16) % bound; }

  private:
    std::uint64_t state_;
};

// Sentences of words that are the more frequent the shorter they are, in lines of about 80 columns.
std::string prose(std::size_t size);

// Archive members: a header block with names and octal numbers, then prose, filled up to 512 bytes.
std::string archive(std::size_t size);

} // namespace bench
