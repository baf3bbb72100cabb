// Environment variables in strings.
//
// What most strings need fits into room on the stack, so that nothing is left behind by a raise and no cleanup record
// is made, which takes two system calls. A string that needs more is expanded once again, in an area.
//
// The environment lock stands behind area mutexes and message state in the lock order, so nothing is
// allocated while it is held: a value is copied into room that is already there.
#include "util/strutl_impl.h"

#include "kernel/ks_guard.h"

#include <korvaks/evutl.h>

#include <algorithm>

namespace {

using ks::strutl::char_length;
using ks::strutl::Encoding;
using ks::strutl::is_ascii;
using ks::strutl::locale_encoding;
using ks::strutl::store;

constexpr std::size_t first_area_size = 1024;
constexpr std::size_t small_string_size = 512; // with its NUL
constexpr std::size_t small_text_size = 1024;

// How much longer than the text that it began with a result of several passes may become: each pass can multiply it.
constexpr std::size_t growth_max = std::size_t{1} << 20;

// Text that grows in an area, up to a limit, or that stays in the room it is given.
class Text {
  public:
    Text(stg_area *area, std::size_t limit) : area_(area), limit_(limit) {}
    Text(char *room, std::size_t capacity, std::size_t limit) : limit_(limit), data_(room), capacity_(capacity) {}

    const char *data() const { return data_; }
    std::size_t size() const { return size_; }
    std::size_t room() const { return capacity_ - size_; }
    char *end() { return data_ + size_; }
    void grow_by(std::size_t count) { size_ += count; }

    int error() const { return error_; }                  // of what failed
    bool has_no_room() const { return error_ == ENOSPC; } // that is all that failed

    [[nodiscard]] bool reserve(std::size_t count)
    {
        if (count > limit_ - size_) {
            error_ = EINVAL;
            return false;
        }
        if (count <= room())
            return true;
        if (area_ == STG_AREA_NULL) {
            error_ = ENOSPC;
            return false;
        }
        std::size_t wanted = 0;
        if (__builtin_add_overflow(size_, count, &wanted) || __builtin_mul_overflow(wanted, std::size_t{2}, &wanted))
            return false;
        wanted = std::min(wanted, limit_); // the room is used without a look at the limit
        char *grown = static_cast<char *>(stg_alloc(area_, wanted));
        if (grown == nullptr)
            return false;
        if (size_ > 0)
            std::memcpy(grown, data_, size_);
        data_ = grown;
        capacity_ = wanted;
        return true;
    }

    [[nodiscard]] bool append(const char *text, std::size_t count)
    {
        if (!reserve(count))
            return false;
        if (count > 0)
            std::memcpy(end(), text, count);
        size_ += count;
        return true;
    }

  private:
    stg_area *area_ = STG_AREA_NULL; // none: the room it has is all
    std::size_t limit_;
    int error_ = ENOMEM;
    char *data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

// One pass, and what a raise on the way must give back.
struct Expansion {
    std::size_t limit = SIZE_MAX; // of the result's length
    stg_area *area = STG_AREA_NULL;
    char *result = nullptr;
    unsigned found = 0;
    int error = ENOMEM; // when there is no result
};

bool is_ascii_alnum(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool is_name_character(const char *s, std::size_t &out_length)
{
    if (is_ascii(*s)) { // of which all locales say the same
        out_length = 1;
        return is_ascii_alnum(*s) || *s == '_';
    }
    return strutl_test_char(s, MB_LEN_MAX, STRUTL_ALNUM, &out_length) != 0;
}

bool starts_reference(const char *after_dollar)
{
    std::size_t length = 0;
    return *after_dollar == '{' || is_name_character(after_dollar, length);
}

char *end_of_name(char *at)
{
    std::size_t length = 0;
    while (is_name_character(at, length))
        at += length;
    return at;
}

// Text up to the next "$" or backslash that is a character of its own.
std::size_t plain_length(const char *at, Encoding encoding)
{
    if (encoding != Encoding::multibyte)
        return std::strcspn(at, "$\\");
    const char *start = at;
    while (*at != '\0' && *at != '$' && *at != '\\')
        at += char_length(at);
    return static_cast<std::size_t>(at - start);
}

bool append_value(const char *name, Text &text)
{
    for (;;) {
        evutl_lock_environ();
        const char *value = std::getenv(name);
        const std::size_t length = value == nullptr ? 0 : std::strlen(value);
        const bool fits = length <= text.room();
        if (fits && length > 0) {
            std::memcpy(text.end(), value, length);
            text.grow_by(length);
        }
        evutl_unlock_environ();
        if (fits)
            return true;
        if (!text.reserve(length))
            return false;
    }
}

// Expands the reference whose "$" stands before `at`, and moves behind it.
bool append_reference(char *&at, Text &text)
{
    const bool is_braced = *at == '{';
    char *name = is_braced ? at + 1 : at;
    char *end = nullptr;
    if (is_braced) {
        std::size_t closing = 0;
        end = strutl_find_char(name, '}', &closing) == 0 ? name + closing : name + std::strlen(name);
    } else {
        end = end_of_name(name);
    }
    const char after = *end;
    *end = '\0';
    const bool appended = append_value(name, text);
    *end = after;
    at = is_braced && after == '}' ? end + 1 : end;
    return appended;
}

bool append_escaped(char *&at, Text &text)
{
    const char *literal = at[1] == '\0' ? at : at + 1;
    const std::size_t length = char_length(literal);
    at = const_cast<char *>(literal) + length;
    return text.append(literal, length);
}

// Works on a copy of its own, in which names are terminated in place.
bool expand(char *at, Text &text, unsigned &found)
{
    const Encoding encoding = locale_encoding();
    for (;;) {
        const std::size_t plain = plain_length(at, encoding);
        if (!text.append(at, plain))
            return false;
        at += plain;
        if (*at == '\0')
            return true;
        bool appended = false;
        if (*at == '\\') {
            appended = append_escaped(at, text);
        } else if (starts_reference(at + 1)) {
            found = 1;
            appended = append_reference(++at, text);
        } else {
            appended = text.append(at++, 1);
        }
        if (!appended)
            return false;
    }
}

char *heap_copy(const Text &text)
{
    char *copy = static_cast<char *>(stg_malloc(text.size() + 1));
    if (copy == nullptr)
        return nullptr;
    if (text.size() > 0)
        std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

void expand_into_heap(char *copy, Text &text, Expansion &expansion)
{
    if (expand(copy, text, expansion.found))
        expansion.result = heap_copy(text);
    else
        expansion.error = text.error();
}

// False when it needs more room than there is here.
bool run_in_small_room(const char *str, Expansion &expansion)
{
    char copy[small_string_size];
    const std::size_t size = std::strlen(str) + 1;
    if (size > sizeof copy)
        return false;
    std::memcpy(copy, str, size);
    char room[small_text_size];
    Text text(room, sizeof room, expansion.limit);
    expand_into_heap(copy, text, expansion);
    return !text.has_no_room();
}

void run_in_area(const char *str, Expansion &expansion)
{
    expansion.area = stg_create_area(first_area_size);
    if (expansion.area == STG_AREA_NULL)
        return;
    Text text(expansion.area, expansion.limit);
    char *copy = stg_area_strdup(expansion.area, str);
    if (copy != nullptr)
        expand_into_heap(copy, text, expansion);
    stg_delete_area(&expansion.area);
}

// A raise goes on when nothing is left behind.
void run_protected(const char *str, Expansion &expansion)
{
    const int32_t raised = ks::protect([&] { run_in_area(str, expansion); });
    if (raised == 0)
        return;
    if (expansion.area != STG_AREA_NULL)
        stg_delete_area(&expansion.area);
    stg_free(expansion.result);
    pfm_raise(raised);
}

// The result, or NULL with errno.
char *expand_once(const char *str, Expansion &expansion)
{
    pfm_test_raise(nullptr); // as the area's cleanup record would be
    const Expansion fresh = expansion;
    if (!run_in_small_room(str, expansion)) {
        expansion = fresh;
        run_protected(str, expansion);
    }
    if (expansion.result == nullptr)
        errno = expansion.error;
    return expansion.result;
}

// Expands the last result as long as it held a reference; NULL with `out_error` set.
void iterate(const char *str, int passes_max, char *&current, int &out_error)
{
    const Expansion fresh{.limit = std::strlen(str) + growth_max};
    Expansion pass = fresh;
    current = expand_once(str, pass);
    for (int passes = 1; current != nullptr && pass.found != 0; ++passes) {
        char *last = current;
        pass = fresh;
        if (passes <= passes_max) {
            current = expand_once(last, pass);
        } else {
            current = nullptr;
            pass.error = EINVAL;
        }
        stg_free_int(last, 1); // quiet: its trace could raise before the block is gone
    }
    out_error = pass.error;
}

} // namespace

extern "C" {

char *strutl_expand_evs_status(const char *str, unsigned *out_found)
{
    Expansion expansion;
    char *result = expand_once(str, expansion);
    store(out_found, expansion.found);
    return result;
}

char *strutl_expand_evs(const char *str)
{
    return strutl_expand_evs_status(str, nullptr);
}

char *strutl_expand_evs_iterate(const char *str, int max_passes)
{
    constexpr int default_passes = 8;
    if (max_passes < 0) {
        errno = EINVAL;
        return nullptr;
    }
    char *current = nullptr;
    int error = 0;
    const int limit = max_passes == 0 ? default_passes : max_passes;
    const int32_t raised = ks::protect([&] { iterate(str, limit, current, error); });
    if (raised != 0) {
        stg_free(current);
        pfm_raise(raised);
    }
    if (current == nullptr)
        errno = error;
    return current;
}
}
