// Builds the two arrays of an exported message table from one list of rows, at compile time.
//
// A module writes its messages once:
//
//     constexpr ks::MsgRow rows[] = {{0, 1, "Out of memory\n"}, {1, 2, "No such file: %s\n"}};
//     constexpr auto columns = ks::split_rows(rows);
//     const msg_table _x_ks_msg_table = ks::make_table("ks/x", 7, columns);
//
// A gap, a repeated number or a disorder fails to compile.
#pragma once

#include <korvaks/base.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ks {

struct MsgRow {
    unsigned number;         // index in the table
    unsigned catalog_number; // number inside the catalogue set, from 1
    const char *text;        // default text, a printf format
};

template <std::size_t count> struct MsgColumns {
    std::array<const char *, count> texts;
    std::array<std::uint16_t, count> catalog_numbers;
};

// Not constexpr on purpose: reaching it in a constant expression is the compile error.
void message_rows_out_of_order();

template <std::size_t count> consteval MsgColumns<count> split_rows(const MsgRow (&rows)[count])
{
    MsgColumns<count> columns{};
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned previous = i == 0 ? 0 : rows[i - 1].catalog_number;
        if (rows[i].number != i || rows[i].catalog_number <= previous || rows[i].catalog_number > UINT16_MAX)
            message_rows_out_of_order();
        columns.texts[i] = rows[i].text;
        columns.catalog_numbers[i] = static_cast<std::uint16_t>(rows[i].catalog_number);
    }
    return columns;
}

// Every table of the library lives in this catalogue.
inline constexpr const char *library_catalog = "ks_lib";

template <std::size_t count>
constexpr msg_table make_table(const char *subsystem, std::uint16_t set, const MsgColumns<count> &columns)
{
    static_assert(count <= UINT16_MAX);
    return {library_catalog,
            subsystem,
            set,
            static_cast<std::uint16_t>(count),
            columns.texts.data(),
            columns.catalog_numbers.data()};
}

} // namespace ks
