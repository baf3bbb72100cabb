// Formats: how an entry is shown in one line of the list. The format may be the user's.
#pragma once

#include "depot_entry.h"

namespace depot {

struct Row {
    const char *name; // as it is to be shown
    Entry entry;
};

// False when it is wrong, which has been reported.
bool check_format(const char *format);

// Prints a row in a format that is right; false when memory is exhausted.
bool print_row(const char *format, const Row &row);

// Prints the headings of the values instead.
bool print_headings(const char *format);

// Columns that the row's date takes.
int width_of_date(const Row &row);

// Prints what may stand in a format.
void explain_formats();

} // namespace depot
