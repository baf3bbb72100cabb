// What the fuzz targets share: the entry of a fuzzer, a property that aborts when it does not hold, a
// way to cut an input into parts, and blocks whose ends a sanitizer sees.
//
// A target is its input, its calls and its model: FUZZ_TARGET(input) { ... }
#pragma once

#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

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

template <typename T> std::unique_ptr<T[]> exact_room(std::size_t count, T fill)
{
    return exact_copy(std::vector<T>(count, fill).data(), count);
}

// A text and its NUL in such an allocation, for the length of a call or a block.
class ExactText {
  public:
    explicit ExactText(const std::string &text) : copy_(exact_copy(text.c_str(), text.size() + 1)) {}
    operator const char *() const { return copy_.get(); }

  private:
    std::unique_ptr<char[]> copy_;
};

// A block that the library gave away.
struct Freed {
    void operator()(void *block) const { stg_free(block); }
};
template <typename T> using Given = std::unique_ptr<T, Freed>;

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

// A number of five digits or more costs time or memory and nothing else.
inline bool has_long_number(const std::string &text)
{
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 4)
            return true;
    }
    return false;
}

// What is refused is reported each time.
inline void suppress_messages()
{
    imsg_redirect_output(IMSG_PROC_SUPPRESS, nullptr, IMSG_PROC_SUPPRESS, nullptr);
}

} // namespace fuzz

#define FUZZ_REQUIRE(property)                                                                                         \
    ((property) ? static_cast<void>(0) : ::fuzz::report_violation(#property, __FILE__, __LINE__))

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

#define FUZZ_TARGET(input)                                                                                             \
    static void fuzz_one(fuzz::Input input);                                                                           \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)                                  \
    {                                                                                                                  \
        fuzz_one(fuzz::Input(data, size));                                                                             \
        return 0;                                                                                                      \
    }                                                                                                                  \
    static void fuzz_one(fuzz::Input input)
