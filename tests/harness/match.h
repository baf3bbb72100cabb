// Texts against expressions. (The standard library's <regex> does not compile without warnings
// under the address sanitizer.)
#pragma once

#include <string>

#include <regex.h>

namespace test {

// Whether all of `text` is described by a POSIX extended expression.
inline bool matches(const std::string &text, const std::string &expression)
{
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + expression + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool is_match = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return is_match;
}

} // namespace test
