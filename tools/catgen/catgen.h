// What goes into a message catalogue. Each catalogue is printed by a program of its own: catgen.cpp, and one
// file that says which tables the catalogue holds.
#pragma once

#include <korvaks/base.h>

#include <span>

// In the rising order of their catalogue sets.
extern const std::span<const msg_table *const> catalogue_tables;
