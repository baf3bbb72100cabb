// What the files of wild share: the items of compiled patterns, the characters of the locale, the
// matcher, and texts and stores that grow without a word.
#pragma once

#include <korvaks/strutl.h>
#include <korvaks/wild.h>

#include "base/ks_base.h"
#include "kernel/stg_quiet.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace ks::wild {

// Compiled patterns: the byte 1 and a code.
inline constexpr char item_mark = 1;
enum Item : char {
    item_mark_itself = 1,
    item_run = 2,
    item_any = 3,
    item_set = 4, // the members follow, then a lone item_mark
    item_levels = 5,
};

inline bool is_item(const char *at, Item code)
{
    return at[0] == item_mark && at[1] == code;
}

// Length of the character at `at`, which is no NUL. In every encoding that the C library offers as a
// locale, an ASCII byte at the start of a character is the whole character.
inline std::size_t character_length(const char *at)
{
    return static_cast<unsigned char>(*at) < 0x80 ? 1 : static_cast<std::size_t>(strutl_mblen(at, MB_CUR_MAX));
}

// A text that grows on the quiet heap, always ended by a NUL that does not count once it has been
// reserved. It has no destructor, so that a raise may pass by: its owner releases it.
struct Text {
    char *data = nullptr;
    std::size_t size = 0;
    std::size_t capacity = 0;

    [[nodiscard]] bool reserve(std::size_t count); // room for `count` more bytes and a NUL
    [[nodiscard]] bool append(std::string_view text);
    [[nodiscard]] bool append(char c) { return append({&c, 1}); }
    void cut(std::size_t new_size)
    {
        size = new_size;
        data[size] = '\0';
    }
    std::string_view view() const { return {data, size}; }
    void release();
};

// The same for things of one size.
template <typename T> struct Store {
    T *data = nullptr;
    std::size_t count = 0;
    std::size_t capacity = 0;

    [[nodiscard]] bool push(const T &added)
    {
        if (count == capacity && !grow())
            return false;
        data[count++] = added;
        return true;
    }
    T &last() { return data[count - 1]; }
    void release()
    {
        stg_free_int(data, 1);
        *this = Store{};
    }

  private:
    bool grow()
    {
        constexpr std::size_t first_capacity = 64;
        const std::size_t grown_capacity = std::max(first_capacity, capacity * 2);
        std::size_t bytes = 0;
        if (__builtin_mul_overflow(grown_capacity, sizeof(T), &bytes))
            return false;
        auto *grown = static_cast<T *>(heap_try_malloc(bytes));
        if (grown == nullptr)
            return false;
        if (count > 0)
            std::memcpy(grown, data, count * sizeof(T));
        stg_free_int(data, 1);
        data = grown;
        capacity = grown_capacity;
        return true;
    }
};

// Appends a word of a list, as transform_string() makes it.
[[nodiscard]] bool append_transformed(Text &list, std::string_view word);

// Compiles pattern text into `size` bytes without spare ones; wild_compile_pattern() otherwise.
int compile(std::string_view pattern, char *buf, std::size_t size, bool &out_has_wild);

// wild_match() in path mode.
bool match_name(const char *compiled, const char *name);

} // namespace ks::wild
