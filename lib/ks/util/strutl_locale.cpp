// Strings to wide strings and back, by the locale.
#include "util/strutl_impl.h"

#include "base/msg_port.h"
#include "util/strutl_msg.h"

#include <climits>
#include <cwchar>

namespace {

template <typename... Arguments> unsigned fail(int error, strutl_msg msg_no, Arguments... arguments)
{
    (void)imsg_print(ks::msg_error, &_strutl_ks_msg_table, msg_no, arguments...);
    errno = error;
    return 1;
}

enum class Outcome {
    whole,
    invalid,
    cut_off,
};

// Counts the wide characters, and writes them when `out` is given; `at` ends where it stopped.
Outcome widen(const char *&at, wchar_t *out, std::size_t &out_count)
{
    constexpr auto incomplete = static_cast<std::size_t>(-2);
    std::mbstate_t state{};
    out_count = 0;
    for (std::size_t left = std::strlen(at); left > 0;) {
        wchar_t code = 0;
        const std::size_t length = std::mbrtowc(&code, at, left, &state);
        if (length >= incomplete)
            return length == incomplete ? Outcome::cut_off : Outcome::invalid;
        if (out != nullptr)
            out[out_count] = code;
        ++out_count;
        at += length;
        left -= length;
    }
    return Outcome::whole;
}

// Counts the bytes, and writes them when `out` is given.
bool narrow(const wchar_t *src, char *out, std::size_t &out_count)
{
    std::mbstate_t state{};
    out_count = 0;
    for (; *src != L'\0'; ++src) {
        char unused[MB_LEN_MAX];
        const std::size_t length = std::wcrtomb(out != nullptr ? out + out_count : unused, *src, &state);
        if (length == static_cast<std::size_t>(-1) || __builtin_add_overflow(out_count, length, &out_count))
            return false;
    }
    return true;
}

} // namespace

extern "C" {

unsigned strutl_cvt_str_to_wide_str(stg_area *area, const char *src, wchar_t **out_str)
{
    if (src == nullptr)
        return fail(EINVAL, strutl_msg_null_string);
    std::size_t count = 0;
    const char *at = src;
    switch (widen(at, nullptr, count)) {
    case Outcome::invalid:
        return fail(EILSEQ, strutl_msg_invalid_character, at);
    case Outcome::cut_off:
        return fail(EILSEQ, strutl_msg_to_wide_failed, src);
    case Outcome::whole:
        break;
    }
    std::size_t size = 0;
    wchar_t *wide = nullptr;
    if (!__builtin_mul_overflow(count + 1, sizeof *wide, &size))
        wide = static_cast<wchar_t *>(stg_alloc(area, size));
    if (wide == nullptr)
        return fail(ENOMEM, strutl_msg_no_memory);
    at = src;
    (void)widen(at, wide, count); // the same text as just measured
    wide[count] = L'\0';
    *out_str = wide;
    return 0;
}

unsigned strutl_cvt_wide_str_to_str(stg_area *area, const wchar_t *src, char **out_str)
{
    if (src == nullptr)
        return fail(EINVAL, strutl_msg_null_string);
    std::size_t count = 0;
    if (!narrow(src, nullptr, count))
        return fail(EILSEQ, strutl_msg_to_narrow_failed);
    char *text = static_cast<char *>(stg_alloc(area, count + 1));
    if (text == nullptr)
        return fail(ENOMEM, strutl_msg_no_memory);
    (void)narrow(src, text, count); // the same text as just measured
    text[count] = '\0';
    *out_str = text;
    return 0;
}
}
