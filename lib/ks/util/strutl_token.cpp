// The tokenizer that keeps its place per thread.
//
// An ASCII byte is a character of its own wherever it is reached over ASCII bytes only. So the scan runs
// over bytes, and asks for the locale only at the first byte that is no ASCII.
#include "util/strutl_impl.h"

#include <korvaks/tls_impl.h>

#include <bit>
#include <iterator>

namespace {

using ks::strutl::byte_of;
using ks::strutl::char_length;
using ks::strutl::Encoding;
using ks::strutl::is_ascii;
using ks::strutl::locale_encoding;

// The delimiters: one by one while they are few, else as a set of bytes.
class Delimiters {
  public:
    explicit Delimiters(const char *bytes)
    {
        std::size_t count = 0;
        for (; count < most_few && bytes[count] != '\0'; ++count)
            few_[count] = bytes[count];
        are_few_ = bytes[count] == '\0';
        if (!are_few_)
            make_set(bytes);
    }

    bool are_few() const { return are_few_; }
    char one(std::size_t i) const { return few_[i]; } // NUL where there is none

    // The end of the string, or a delimiter.
    bool is_stop(char c) const { return are_few_ ? c == '\0' || is_one_of_few(c) : is_in_set(c); }
    bool is_delimiter(char c) const { return c != '\0' && is_stop(c); }

    bool all_ascii() const
    {
        if (!are_few_)
            return (set_[2] | set_[3]) == 0;
        return is_ascii(few_[0]) && is_ascii(few_[1]) && is_ascii(few_[2]) && is_ascii(few_[3]);
    }

  private:
    static constexpr std::size_t most_few = 4;

    bool is_one_of_few(char c) const { return c == few_[0] || c == few_[1] || c == few_[2] || c == few_[3]; }
    bool is_in_set(char c) const { return (set_[byte_of(c) / 64] >> (byte_of(c) % 64) & 1) != 0; }

    void make_set(const char *bytes)
    {
        set_[0] = 1; // NUL
        for (std::size_t i = 1; i < std::size(set_); ++i)
            set_[i] = 0;
        for (; *bytes != '\0'; ++bytes)
            set_[byte_of(*bytes) / 64] |= std::uint64_t{1} << (byte_of(*bytes) % 64);
    }

    char few_[most_few] = {};
    bool are_few_ = true;
    std::uint64_t set_[4]; // only when they are not few
};

// The sanitizers would see the bytes beside the string read, so their builds take the plain loop.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STRUTL_TOKEN_BY_BLOCKS 0
#elif defined(__SSE2__) && defined(__has_feature)
#define STRUTL_TOKEN_BY_BLOCKS (!__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer))
#elif defined(__SSE2__)
#define STRUTL_TOKEN_BY_BLOCKS 1
#else
#define STRUTL_TOKEN_BY_BLOCKS 0
#endif

#if STRUTL_TOKEN_BY_BLOCKS

using Block [[gnu::vector_size(16)]] = char;

// Looks at aligned blocks, which never reach into a page that the string does not touch; the bytes
// around the string that come with them are masked out.
char *find_pause_of_few(char *at, const Delimiters &delims)
{
    const Block nul{};
    const Block a = nul + delims.one(0);
    const Block b = nul + delims.one(1);
    const Block c = nul + delims.one(2);
    const Block d = nul + delims.one(3);
    const std::uintptr_t before = reinterpret_cast<std::uintptr_t>(at) % sizeof(Block);
    const char *block = at - before;
    unsigned wanted = ~0U << before;
    for (;; block += sizeof(Block), wanted = ~0U) {
        const Block text = *reinterpret_cast<const Block *>(block);
        const auto hits = (text == nul) | (text == a) | (text == b) | (text == c) | (text == d);
        // The high bit of a byte that is no ASCII serves as a hit as it is.
        const Block marked = std::bit_cast<Block>(hits) | text;
        const unsigned found = static_cast<unsigned>(__builtin_ia32_pmovmskb128(marked)) & wanted;
        if (found != 0)
            return const_cast<char *>(block) + std::countr_zero(found);
    }
}

#endif

// The next delimiter, the end, or the first byte that is no ASCII.
char *find_pause(char *at, const Delimiters &delims)
{
#if STRUTL_TOKEN_BY_BLOCKS
    if (delims.are_few())
        return find_pause_of_few(at, delims);
#endif
    while (is_ascii(*at) && !delims.is_stop(*at))
        ++at;
    return at;
}

char *find_token_end(char *at, const Delimiters &delims)
{
    at = find_pause(at, delims);
    if (is_ascii(*at))
        return at;
    const Encoding encoding = locale_encoding();
    const bool by_bytes = encoding == Encoding::single_byte || (encoding == Encoding::utf8 && delims.all_ascii());
    while (!delims.is_stop(*at))
        at += by_bytes ? 1 : char_length(at);
    return at;
}

} // namespace

extern "C" char *strutl_tokenize(char *str, const char *delims)
{
    char *&resume = ks_tls_get()->strutl.tokenize_next;
    char *at = str != nullptr ? str : resume;
    if (at == nullptr)
        return nullptr;
    const Delimiters delimiters(delims);
    while (delimiters.is_delimiter(*at))
        ++at;
    if (*at == '\0') {
        resume = nullptr;
        return nullptr;
    }
    char *token = at;
    char *end = find_token_end(at, delimiters);
    resume = *end == '\0' ? nullptr : end + 1;
    *end = '\0';
    return token;
}
