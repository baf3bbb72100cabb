// What the fuzz targets share: a property that aborts when it does not hold, and a way to cut an
// input into parts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace fuzz {

[[noreturn]] inline void report_violation(const char *property, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: property violated: %s\n", file, line, property);
    std::abort();
}

// An allocation of exactly the size asked for, so that a sanitizer sees the first byte beyond it.
template <typename T> std::unique_ptr<T[]> exact_copy(const T *from, std::size_t count)
{
    std::unique_ptr<T[]> copy(new T[count]);
    for (std::size_t i = 0; i < count; ++i)
        copy[i] = from[i];
    return copy;
}

// An input, taken from the front. Past its end there are zeros and empty texts.
class Input {
  public:
    Input(const std::uint8_t *data, std::size_t size) : data_(data), left_(size) {}

    std::size_t left() const { return left_; }

    std::uint8_t take_byte()
    {
        if (left_ == 0)
            return 0;
        --left_;
        return *data_++;
    }

    std::string take_bytes(std::size_t count)
    {
        if (count > left_)
            count = left_;
        std::string bytes(reinterpret_cast<const char *>(data_), count);
        data_ += count;
        left_ -= count;
        return bytes;
    }

    // Up to the next NUL, which is taken too, or the end.
    std::string take_text()
    {
        std::size_t length = 0;
        while (length < left_ && data_[length] != 0)
            ++length;
        std::string text = take_bytes(length);
        (void)take_byte();
        return text;
    }

    std::string take_rest() { return take_bytes(left_); }

  private:
    const std::uint8_t *data_;
    std::size_t left_;
};

} // namespace fuzz

#define FUZZ_REQUIRE(property)                                                                                         \
    ((property) ? static_cast<void>(0) : ::fuzz::report_violation(#property, __FILE__, __LINE__))

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
