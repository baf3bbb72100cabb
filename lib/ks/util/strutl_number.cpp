// Numbers in text: checked conversions, sizes with a suffix, digits in a base.
#include "util/strutl_impl.h"

#include <korvaks/tls_impl.h>

#include <algorithm>
#include <cmath>

namespace {

using ks::strutl::store;

// Runs a conversion of the C library with a clear result. A caller's errno survives success.
template <typename Number, typename Convert>
unsigned convert_checked(const char *str, Number *out_value, char **out_end, Convert convert)
{
    const int saved_errno = errno;
    errno = 0;
    char *end = const_cast<char *>(str);
    const Number value = convert(str, &end);
    const bool failed = errno != 0 || (value == 0 && end == str);
    *out_value = failed ? 0 : value;
    store(out_end, end);
    if (errno == 0)
        errno = saved_errno;
    return failed ? 1 : 0;
}

// With a bad base the C library need not say where it stopped.
template <typename Number> unsigned reject_base(const char *str, Number *out_value, char **out_end)
{
    *out_value = 0;
    store(out_end, const_cast<char *>(str));
    errno = EINVAL;
    return 1;
}

bool is_base(int base)
{
    return base == 0 || (base >= 2 && base <= 36);
}

// The result when nothing may stand behind the number.
template <typename Number> unsigned require_whole(unsigned failed, const char *end, Number *out_value)
{
    if (failed == 0 && *end == '\0')
        return 0;
    *out_value = 0;
    return 1;
}

// What each suffix multiplies by.
struct SizeUnits {
    double plain;
    double kilo;
    double mega;
    double giga;
};

constexpr SizeUnits kilobyte_units = {0.0009765625, 1, 1024, 1048576};
constexpr SizeUnits byte_units = {1, 1024, 1048576, 1073741824};

// 0 for text that is no suffix.
double suffix_factor(const char *suffix, const SizeUnits &units)
{
    if (*suffix == '\0')
        return units.plain;
    if (suffix[1] != '\0')
        return 0;
    switch (*suffix) {
    case 'k':
    case 'K':
        return units.kilo;
    case 'm':
    case 'M':
        return units.mega;
    case 'g':
    case 'G':
        return units.giga;
    default:
        return 0;
    }
}

// A number of digits only, as most sizes are written, that a double holds exactly; false for all others. No locale has
// a say in it.
bool read_digits(const char *str, double &out_number, const char *&out_end)
{
    constexpr std::ptrdiff_t digits_max = 15;
    std::uint64_t number = 0;
    const char *at = str;
    for (; *at >= '0' && *at <= '9' && at - str <= digits_max; ++at)
        number = number * 10 + static_cast<std::uint64_t>(*at - '0');
    const std::ptrdiff_t digits = at - str;
    out_number = static_cast<double>(number);
    out_end = at;
    return digits > 0 && digits <= digits_max;
}

// The factor of a size, with its number; 0 for text that is none.
double read_number_and_factor(const char *str, const SizeUnits &units, double &out_number)
{
    const char *suffix = nullptr;
    if (read_digits(str, out_number, suffix)) {
        const double factor = suffix_factor(suffix, units);
        if (factor != 0)
            return factor;
    }
    char *end = nullptr;
    return strutl_strtod_extended(str, &out_number, &end) == 0 ? suffix_factor(end, units) : 0;
}

unsigned read_size(const char *str, const SizeUnits &units, unsigned long *out_size)
{
    constexpr double first_beyond = 18446744073709551616.0; // 2 to the 64th
    double number = 0;
    const double factor = read_number_and_factor(str, units, number);
    if (factor == 0)
        return 1;
    const double size = number * factor;
    if (size <= -1 || size >= first_beyond)
        return 1;
    // A size that is not 0 never becomes 0. Kept exactly: neither does one that is not a number.
    const unsigned long truncated = std::isnan(size) ? 0 : static_cast<unsigned long>(size);
    *out_size = truncated == 0 && size != 0 ? 1 : truncated;
    return 0;
}

constexpr int most_digits = 32;

// Fills 32 digits, the low-order ones of a longer number.
void write_digits(unsigned long value, unsigned base, char *digits)
{
    constexpr char symbols[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    for (int i = most_digits - 1; i >= 0; --i) {
        digits[i] = symbols[value % base];
        value /= base;
    }
    digits[most_digits] = '\0';
}

} // namespace

extern "C" {

unsigned strutl_strtol_extended(const char *str, int base, long *out_value, char **out_end)
{
    if (!is_base(base))
        return reject_base(str, out_value, out_end);
    return convert_checked(str, out_value, out_end,
                           [base](const char *text, char **end) { return std::strtol(text, end, base); });
}

unsigned strutl_strtoul_extended(const char *str, int base, unsigned long *out_value, char **out_end)
{
    if (!is_base(base))
        return reject_base(str, out_value, out_end);
    return convert_checked(str, out_value, out_end,
                           [base](const char *text, char **end) { return std::strtoul(text, end, base); });
}

unsigned strutl_strtod_extended(const char *str, double *out_value, char **out_end)
{
    return convert_checked(str, out_value, out_end,
                           [](const char *text, char **end) { return std::strtod(text, end); });
}

unsigned strutl_strtol(const char *str, int base, long *out_value)
{
    char *end = nullptr;
    const unsigned failed = strutl_strtol_extended(str, base, out_value, &end);
    return require_whole(failed, end, out_value);
}

unsigned strutl_strtoul(const char *str, int base, unsigned long *out_value)
{
    char *end = nullptr;
    const unsigned failed = strutl_strtoul_extended(str, base, out_value, &end);
    return require_whole(failed, end, out_value);
}

unsigned strutl_strtod(const char *str, double *out_value)
{
    char *end = nullptr;
    const unsigned failed = strutl_strtod_extended(str, out_value, &end);
    return require_whole(failed, end, out_value);
}

unsigned strutl_kstr_to_long(const char *str, unsigned long *out_kbytes)
{
    return read_size(str, kilobyte_units, out_kbytes);
}

unsigned strutl_kstr_or_str_to_long(const char *str, unsigned long *out_bytes)
{
    return read_size(str, byte_units, out_bytes);
}

long strutl_process_long_param(const char *str, long dflt, long min, long max)
{
    long value = 0;
    if (str == nullptr || strutl_strtol(str, 10, &value) != 0)
        return dflt;
    return value < min ? min : std::min(value, max);
}

unsigned strutl_match_numeric_string(const char *str)
{
    if (str == nullptr || *str == '\0')
        return 1;
    return str[std::strspn(str, "0123456789")] == '\0' ? 0 : 1;
}

char *strutl_u32tostr(unsigned long value, int base, int width)
{
    if (base == 0 || !is_base(base))
        return nullptr;
    ks_tls *tls = ks_tls_get();
    char *&digits = tls->strutl.u32_digits;
    if (digits == nullptr)
        digits = static_cast<char *>(stg_alloc_nr(tls->area, most_digits + 1));
    if (digits == nullptr)
        return nullptr;
    write_digits(value, static_cast<unsigned>(base), digits);
    if (width >= 0)
        return digits + most_digits - std::min(width, most_digits);
    return digits + std::min(std::strspn(digits, "0"), std::size_t{most_digits - 1});
}
}
