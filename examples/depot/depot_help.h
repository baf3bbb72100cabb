// Help: usage lines and pages, made from the tables of commands and flags. All functions print.
#pragma once

#include "depot_command.h"
#include "depot_report.h"

namespace depot {

// The page of a command; NULL: of the tool.
void show_help(const Command *command);

// The usage line of a command; NULL: of the tool.
void show_usage(int kind, const Command *command);

// "put, get, ...". The text lives until the next report().
const char *command_list();

} // namespace depot
