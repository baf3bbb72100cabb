// Message table of the library at large: texts that several modules share. A number whose text
// nothing settles is held by an empty text.
#include "base/ks_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {0, 1, ""},
    {1, 2, ""},
    {2, 3, "Operation %s: %s\n"},
    {3, 4, "Operation %s, %s: %s\n"},
    {4, 5, "Unable to open %s: %s\n"},
    {5, 6, ""},
    {6, 7, ""},
    {7, 8, ""},
    {8, 9, "\001\0011BThis product is not installed correctly.\001\0010B\n"},
    {9, 10, "Can't find host data directory, tried: \"%s\".\n"},
    {10, 11, ""},
    {11, 12, ""},
    {12, 13, ""},
    {13, 14, "Bad format number for \"%s\"\n"},
    {14, 15, ""},
    {15, 16, "Unable to allocate storage.\n"},
    {16, 17, ""},
    {17, 18, ""},
    {18, 19, ""},
    {19, 20, "Bad option"},
    {20, 21, "Duplicate or conflicting option"},
    {21, 22, "Bad argument"},
    {22, 23, "Unknown error"},
    {23, 24, "Out of memory"},
    {24, 25, "Unexpected error in hash package.\n"},
    {25, 26, "hash_str_free on a hash table with copied keys. Memory leak.\n"},
    {26, 27, ""},
    {27, 28, "The application will exit ... "},
    {28, 29, ""},
    {29, 30, ""},
    {30, 31, ""},
    {31, 32, ""},
    {32, 33, ""},
    {33, 34, "File \"%s\" changed size during read.\n"},
    {34, 35, "Unable to create pipe to subprocess:  %s\n"},
    {35, 36, ""},
    {36, 37, "Unable to create new process, fork() failed:  %s\n"},
    {37, 38, ""},
    {38, 39, ""},
    {39, 40, ""},
    {40, 41, ""},
    {41, 42, ""},
    {42, 43, ""},
    {43, 44, ""},
    {44, 45, ""},
};
constexpr auto columns = ks::split_rows(rows);

} // namespace

extern "C" {

constinit const msg_table _ks_ks_msg_table = ks::make_table("ks", 9, columns);
}
