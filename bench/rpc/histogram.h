// Latencies in nanoseconds, in buckets that are 64 to each power of two: at most 1.6 % off.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

namespace bench {

class Histogram {
  public:
    void add(uint64_t value)
    {
        ++counts_[index_of(value)];
        ++count_;
        max_ = std::max(max_, value);
    }

    double max() const { return static_cast<double>(max_); }

    // The value that so great a part of all does not exceed.
    double quantile(double part) const
    {
        const auto wanted = static_cast<uint64_t>(std::ceil(part * static_cast<double>(count_)));
        uint64_t sum = 0;
        for (std::size_t i = 0; i < counts_.size(); ++i) {
            sum += counts_[i];
            if (sum >= wanted && sum > 0)
                return std::min(value_of(i), max());
        }
        return max();
    }

  private:
    static std::size_t index_of(uint64_t value)
    {
        if (value < 64)
            return value;
        const auto exponent = static_cast<unsigned>(std::bit_width(value)) - 1;
        return (exponent - 5) * 64 + (value >> (exponent - 6)) % 64;
    }

    static double value_of(std::size_t index)
    {
        if (index < 64)
            return static_cast<double>(index);
        return std::ldexp(static_cast<double>(64 + index % 64) + 0.5, static_cast<int>(index / 64) - 1);
    }

    std::vector<uint64_t> counts_ = std::vector<uint64_t>(64 * 64);
    uint64_t count_ = 0;
    uint64_t max_ = 0;
};

} // namespace bench
