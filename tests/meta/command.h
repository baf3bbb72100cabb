// Runs a tool of the system and gives its output.
#pragma once

#include <string>

namespace meta {

// Standard output of a shell command; a command that fails fails the test.
std::string output_of(const std::string &command);

} // namespace meta
