// UTF-8, UTF-16 and Shift-JIS. The tables and the arithmetic are those of the reference conversion of
// the Unicode consortium in its form without validation.
#include "util/strutl_impl.h"

#include <algorithm>

namespace {

using Code = std::uint32_t;

constexpr Code replacement = 0xFFFD;
constexpr Code high_surrogate_first = 0xD800;
constexpr Code low_surrogate_first = 0xDC00;
constexpr Code surrogates_of_a_half = 0x400;
constexpr Code supplementary_first = 0x10000;
constexpr Code last_of_utf16 = 0x10FFFF;
constexpr Code last_of_four_bytes = 0x1FFFFF;

enum : unsigned {
    converted = 0,
    input_cut_off = 1,
    output_full = 3,
};

// What a lead byte adds to the sequence, by the number of bytes of the sequence.
constexpr unsigned char firstByteMark[] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};

// What the marks of all bytes of a sequence add to its value, by the number of trailing bytes.
constexpr Code offsetsFromUTF8[] = {0x00000000, 0x00003080, 0x000E2080, 0x03C82080};

constexpr long longest_decoded = 3; // trailing bytes

constexpr long trailingBytesForUTF8(unsigned char lead)
{
    if (lead < 0xC0)
        return 0;
    if (lead < 0xE0)
        return 1;
    if (lead < 0xF0)
        return 2;
    if (lead < 0xF8)
        return 3;
    return lead < 0xFC ? 4 : 5;
}

Code decode_sequence(const unsigned char *in, long trailing)
{
    if (trailing > longest_decoded)
        return replacement;
    Code value = *in;
    for (long i = 1; i <= trailing; ++i)
        value = (value << 6) + in[i];
    value -= offsetsFromUTF8[trailing];
    return value > last_of_utf16 ? replacement : value;
}

// Code units written to `out`; 0 when they do not fit in `room`.
long put_utf16(Code value, wchar_t *out, long room)
{
    const long units = value < supplementary_first ? 1 : 2;
    if (units > room)
        return 0;
    if (units == 1) {
        out[0] = static_cast<wchar_t>(value);
    } else {
        value -= supplementary_first;
        out[0] = static_cast<wchar_t>(high_surrogate_first + value / surrogates_of_a_half);
        out[1] = static_cast<wchar_t>(low_surrogate_first + value % surrogates_of_a_half);
    }
    return units;
}

bool is_surrogate(Code unit, Code first)
{
    return unit >= first && unit < first + surrogates_of_a_half;
}

// Takes one character off the input.
Code take_utf16(const wchar_t *&in, const wchar_t *end)
{
    const auto unit = static_cast<Code>(*in++);
    if (!is_surrogate(unit, high_surrogate_first) || in == end)
        return unit;
    const auto second = static_cast<Code>(*in);
    if (!is_surrogate(second, low_surrogate_first))
        return unit;
    ++in;
    return supplementary_first + (unit - high_surrogate_first) * surrogates_of_a_half + (second - low_surrogate_first);
}

// Bytes written to `out`; 0 when they do not fit in `room`.
long put_utf8(Code value, char *out, long room)
{
    if (value > last_of_four_bytes)
        value = replacement;
    const long bytes = value < 0x80 ? 1 : value < 0x800 ? 2 : value < supplementary_first ? 3 : 4;
    if (bytes > room)
        return 0;
    for (long i = bytes - 1; i > 0; --i) {
        out[i] = static_cast<char>((value & 0x3F) | 0x80);
        value >>= 6;
    }
    out[0] = static_cast<char>(value | firstByteMark[bytes]);
    return bytes;
}

} // namespace

extern "C" {

unsigned strutl_utf8to16(wchar_t *out, const unsigned char *in, long in_len, long out_units, size_t *out_used)
{
    unsigned result = out_units < 1 ? output_full : converted;
    long written = 0;
    long used = 0;
    while (result == converted && used < in_len) {
        const long trailing = trailingBytesForUTF8(in[used]);
        if (trailing >= in_len - used) {
            result = input_cut_off;
            break;
        }
        const long units = put_utf16(decode_sequence(in + used, trailing), out + written, out_units - 1 - written);
        if (units == 0) {
            result = output_full;
            break;
        }
        written += units;
        used += trailing + 1;
    }
    if (out_units > 0)
        out[written] = L'\0';
    ks::strutl::store(out_used, static_cast<std::size_t>(used));
    return result;
}

unsigned strutl_utf16to8(char *out, const wchar_t *in, long in_units, long out_size)
{
    if (out_size < 1)
        return output_full;
    const wchar_t *end = in + std::max(in_units, 0L);
    long written = 0;
    unsigned result = converted;
    while (in < end) {
        const long bytes = put_utf8(take_utf16(in, end), out + written, out_size - 1 - written);
        if (bytes == 0) {
            result = output_full;
            break;
        }
        written += bytes;
    }
    out[written] = '\0';
    return result;
}

void strutl_cvt_sjis_to_euc(unsigned char lead, unsigned char trail, unsigned char *out_euc_high,
                            unsigned char *out_euc_low)
{
    const bool is_second_row = trail > 0x9E;
    const int high = 2 * lead - (lead <= 0x9F ? 0xE1 : 0x161) + (is_second_row ? 1 : 0);
    const int low = trail - (is_second_row ? 0x7E : trail >= 0x7F ? 0x20 : 0x1F);
    ks::strutl::store(out_euc_high, static_cast<unsigned char>(high | 0x80));
    ks::strutl::store(out_euc_low, static_cast<unsigned char>(low | 0x80));
}
}
