// Texts of a fixed form: dates and times in digits. A pattern has a letter at the place of each digit; all its
// other characters stand for themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ks::date {

// What the digits are, by their letter.
enum Field : unsigned char {
    field_year,    // Y
    field_month,   // M
    field_day,     // D, of the month
    field_ordinal, // O, day of the year
    field_week,    // w
    field_weekday, // d
    field_hour,    // h
    field_minute,  // m
    field_second,  // s
    field_none,    // no letter of a field
};

constexpr Field field_of(char letter)
{
    constexpr std::string_view letters = "YMDOwdhms";
    const std::size_t at = letters.find(letter);
    return at == std::string_view::npos ? field_none : static_cast<Field>(at);
}

// How many digits each field has.
using DigitCounts = std::array<unsigned char, field_none>;

// A pattern and, worked out at compile time, what stands where.
struct Pattern {
    std::string_view text;
    std::array<Field, 16> fields{}; // of each place
    std::uint32_t continues = 0;    // a bit for each place that goes on with the number before it
    DigitCounts digits{};

    consteval Pattern(const char *pattern) : text(pattern)
    {
        for (std::size_t i = 0; i < text.size(); ++i) {
            fields[i] = field_of(text[i]);
            if (fields[i] == field_none)
                continue;
            ++digits[fields[i]];
            continues |= i > 0 && text[i - 1] == text[i] ? 1U << i : 0;
        }
    }
};

// The numbers that a text has.
struct Fields {
    std::array<int, field_none + 1> values{}; // behind them all, a place for what is no number
    DigitCounts digits{};

    bool has(Field field) const { return digits[field] > 0; }
    int get(Field field, int otherwise) const { return has(field) ? values[field] : otherwise; }
};

constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// False, with `out` spoilt, when the text has another form. A "W" matches in either case.
bool match(const Pattern &pattern, std::string_view text, Fields &out);

} // namespace ks::date
