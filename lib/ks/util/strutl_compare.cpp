// Comparing strings, judging names, and the string hash.
#include "util/strutl_impl.h"

#include <bit>

namespace {

using ks::strutl::byte_of;
using ks::strutl::char_length;
using ks::strutl::Character;
using ks::strutl::decode;
using ks::strutl::is_ascii;
using ks::strutl::is_in_classes;
using ks::strutl::is_white_space;
using ks::strutl::npos;
using ks::strutl::offset_in_set;
using ks::strutl::store;

// Walks a string as the comparison without white space sees it: without its ends, a run as a blank.
class WhiteSpaceFolder {
  public:
    explicit WhiteSpaceFolder(const char *s) : at_(s), next_(decode(s)) { (void)skip_white_space(); }

    struct Piece {
        const char *text;
        std::size_t length; // 0 at the end
    };

    Piece next()
    {
        if (skip_white_space() && *at_ != '\0')
            return {" ", 1};
        const Piece piece{at_, next_.length};
        advance();
        return piece;
    }

  private:
    void advance()
    {
        at_ += next_.length;
        next_ = decode(at_);
    }

    bool skip_white_space()
    {
        const char *start = at_;
        while (is_white_space(next_, at_))
            advance();
        return at_ != start;
    }

    const char *at_;
    Character next_; // at `at_`
};

bool is_in(const char *set, const char *ch, std::size_t length)
{
    return set != nullptr && offset_in_set(set, ch, length) != npos;
}

bool is_plain_name_character(const Character &character, const char *at)
{
    return is_in_classes(character, at, STRUTL_PRINT) && !is_white_space(character, at) &&
           !(is_ascii(*at) && is_in_classes(character, at, STRUTL_PUNCT));
}

} // namespace

extern "C" {

unsigned strutl_cmp_ignore_whitespace(const char *a, const char *b)
{
    WhiteSpaceFolder left(a);
    WhiteSpaceFolder right(b);
    for (;;) {
        const auto x = left.next();
        const auto y = right.next();
        if (x.length != y.length || std::memcmp(x.text, y.text, x.length) != 0)
            return 1;
        if (x.length == 0)
            return 0;
    }
}

int strutl_stricoll(const char *a, const char *b)
{
    // A character may need more bytes in its other case, but never more than the longest.
    char on_stack[1024];
    std::size_t a_size = 0;
    std::size_t b_size = 0;
    std::size_t both = 0;
    if (__builtin_mul_overflow(std::strlen(a) + 1, MB_CUR_MAX, &a_size) ||
        __builtin_mul_overflow(std::strlen(b) + 1, MB_CUR_MAX, &b_size) ||
        __builtin_add_overflow(a_size, b_size, &both))
        return std::strcoll(a, b);
    char *folded = both <= sizeof on_stack ? on_stack : static_cast<char *>(stg_malloc_int(both, 1));
    int order = 0;
    if (folded != nullptr && strutl_cvt_case_string(a, 0, a_size, folded) != 0 &&
        strutl_cvt_case_string(b, 0, b_size, folded + a_size) != 0)
        order = std::strcoll(folded, folded + a_size);
    else
        order = std::strcoll(a, b);
    if (folded != on_stack)
        stg_free_int(folded, 1); // quiet, as its allocation: a trace could raise before it is gone
    return order;
}

unsigned strutl_match_prefix(const char *a, const char *b, size_t *out_len)
{
    std::size_t common = 0;
    for (;;) {
        const std::size_t length = char_length(a + common);
        if (length != char_length(b + common) || std::memcmp(a + common, b + common, length) != 0)
            break;
        if (length == 0) {
            store(out_len, common);
            return 0;
        }
        common += length;
    }
    store(out_len, common);
    return 1;
}

unsigned strutl_is_ok_name(const char *name, const char *bad_first, const char *extra_ok)
{
    if (name == nullptr || *name == '\0')
        return 0;
    if (is_in(bad_first, name, char_length(name)))
        return 0;
    while (*name != '\0') {
        const Character character = decode(name);
        if (!character.valid)
            return 0;
        if (!is_plain_name_character(character, name) && !is_in(extra_ok, name, character.length))
            return 0;
        name += character.length;
    }
    return 1;
}

unsigned strutl_str_to_hash32(unsigned seed, const char *str)
{
    std::uint32_t hash = seed;
    for (; *str != '\0'; ++str)
        hash = std::rotl(hash, 5) + byte_of(*str);
    return hash;
}
}
