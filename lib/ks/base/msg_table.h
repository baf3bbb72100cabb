// Builds the two arrays of an exported message table from one list of rows, at compile time.
//
// A module writes its messages once, keyed by the enumerators of its <module>_msg.h:
//
//     constexpr ks::MsgRow rows[] = {{x_msg_no_memory, 1, "Out of memory\n"}, {x_msg_no_file, 2, "No such file:
//     %s\n"}}; constexpr auto columns = ks::split_rows(rows); constexpr std::uint16_t catalog_set = 7; extern "C"
//     constinit const msg_table _x_ks_msg_table = ks::make_table("ks/x", catalog_set, columns);
//
// A gap, a repeated number or a disorder fails to compile. A table with numbers whose texts nothing settles says
// how many it has, and leaves those out: ks::split_sparse_rows<x_msg_count>(rows).
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

// A number without a row holds an empty text, and in the catalogue the number behind that of the one before.
template <std::size_t total, std::size_t count>
consteval MsgColumns<total> split_sparse_rows(const MsgRow (&rows)[count])
{
    MsgColumns<total> columns{};
    std::size_t next_row = 0;
    unsigned previous = 0;
    for (std::size_t i = 0; i < total; ++i) {
        const bool has_row = next_row < count && rows[next_row].number == i;
        const unsigned catalog_number = has_row ? rows[next_row].catalog_number : previous + 1;
        if (catalog_number <= previous || catalog_number > UINT16_MAX)
            message_rows_out_of_order();
        columns.texts[i] = has_row ? rows[next_row].text : "";
        columns.catalog_numbers[i] = static_cast<std::uint16_t>(catalog_number);
        previous = catalog_number;
        next_row += has_row ? 1 : 0;
    }
    if (next_row != count)
        message_rows_out_of_order();
    return columns;
}

// Every number has its row: a gap leaves rows over.
template <std::size_t count> consteval MsgColumns<count> split_rows(const MsgRow (&rows)[count])
{
    return split_sparse_rows<count>(rows);
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
