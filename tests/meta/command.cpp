#include "meta/command.h"

#include <cstdio>

#include <gtest/gtest.h>

namespace meta {

std::string output_of(const std::string &command)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run: " << command;
        return output;
    }
    char buffer[65536];
    for (std::size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, got);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

} // namespace meta
