// Where the text of a report goes: a buffer of fixed size, or a heap block that grows.
#pragma once

#include "base/ks_base.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

namespace ks::strfmt {

inline constexpr AssertPath here{"lib/ks/strfmt"};
inline constexpr char tab_letter = 't';

// The text is terminated behind every step. A growing block is the caller's all the time, so that a
// raise through a procedure of the caller's loses nothing.
class Output {
  public:
    Output(char *buffer, std::size_t size) : begin_(buffer), capacity_(size) { *begin_ = '\0'; }

    Output(char **handle, std::size_t size) : begin_(*handle), capacity_(*handle == nullptr ? 0 : size), handle_(handle)
    {
        if (capacity_ != 0 || resize(std::max<std::size_t>(size, 1)))
            *begin_ = '\0';
    }

    // False when there is no memory even for an empty text.
    bool is_usable() const { return capacity_ != 0; }
    bool is_growing() const { return handle_ != nullptr; }
    bool is_exhausted() const { return is_exhausted_; } // a growing block got no more memory

    char *end() { return begin_ + used_; }
    std::size_t space() const { return capacity_ - used_; } // bytes, the NUL's included

    // Appends bytes, or in a fixed buffer what fits; false when that is not all.
    bool put(const char *bytes, std::size_t count)
    {
        if (!make_space(count)) {
            (void)strutl_ncpy_buf(end(), bytes, count, space()); // whole characters; known to be cut
            used_ += std::strlen(end());
            return false;
        }
        std::memcpy(end(), bytes, count);
        return advance(count);
    }

    // put() for `count` blanks.
    bool fill(int count)
    {
        const auto wanted = static_cast<std::size_t>(count);
        const bool has_space = make_space(wanted);
        const std::size_t filled = has_space ? wanted : space() - 1;
        std::memset(end(), ' ', filled);
        return advance(filled) && has_space;
    }

    void terminate() { *end() = '\0'; }

    // Space for `count` bytes and a NUL; false when there is none, and then nothing changes.
    bool make_space(std::size_t count)
    {
        if (count < space()) [[likely]]
            return true;
        std::size_t needed;
        return is_growing() && !__builtin_add_overflow(used_ + 1, count, &needed) && grow_to(needed);
    }

    // Takes what a procedure has written at the end; false when it fills the space without a NUL, of
    // which then the last byte is dropped.
    bool take_rendered()
    {
        const std::size_t rendered = strnlen(end(), space());
        const bool is_terminated = rendered < space();
        return advance(is_terminated ? rendered : rendered - 1) && is_terminated;
    }

    // Columns behind the last line feed, with tabs expanded. Each byte is looked at once, however often
    // this is asked.
    int line_width()
    {
        const char *fresh = begin_ + measured_;
        const auto *feed = static_cast<const char *>(memrchr(fresh, '\n', used_ - measured_));
        if (feed != nullptr) {
            fresh = feed + 1;
            columns_ = 0;
        }
        int added = 0;
        (void)imsg_detabify(columns_, fresh, -1, 0, nullptr, &added, nullptr); // only measures
        if (__builtin_add_overflow(columns_, added, &columns_))
            columns_ = INT_MAX;
        measured_ = used_;
        return columns_;
    }

  private:
    static constexpr std::size_t growth_bytes = 153600;

    bool advance(std::size_t count)
    {
        used_ += count;
        terminate();
        return true;
    }

    bool grow_to(std::size_t needed)
    {
        std::size_t roomy;
        std::size_t doubled;
        if (__builtin_add_overflow(needed, growth_bytes, &roomy) ||
            __builtin_mul_overflow(capacity_, std::size_t{2}, &doubled))
            return false; // more than a half of all addresses
        return resize(std::max(roomy, doubled));
    }

    bool resize(std::size_t size)
    {
        auto *block = static_cast<char *>(stg_realloc(begin_, size));
        is_exhausted_ = block == nullptr;
        if (is_exhausted_)
            return false;
        begin_ = *handle_ = block;
        capacity_ = size;
        return true;
    }

    char *begin_;
    std::size_t used_ = 0;
    std::size_t capacity_;
    char **handle_ = nullptr; // of a growing block
    bool is_exhausted_ = false;
    std::size_t measured_ = 0; // what columns_ takes into account
    int columns_ = 0;
};

} // namespace ks::strfmt
