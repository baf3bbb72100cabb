// Misuse ends the process, and says why on descriptor 2.
#pragma once

#include "harness/child.h"

#include <csignal>

namespace test {

struct Misuse {
    std::function<void()> call;
    std::string text; // part of what is said
};

// Runs each call in a child of its own, which must abort. `behind` follows the text of every row: an
// assertion's module, the end of a line.
inline void expect_misuse(const std::vector<Misuse> &rows, const std::string &behind = "")
{
    for (const Misuse &row : rows) {
        const std::string expected = row.text + behind;
        const ChildResult result = run_child(row.call);
        EXPECT_EQ(result.signal, SIGABRT) << expected;
        EXPECT_NE(result.err.find(expected), std::string::npos)
            << "not said: " << expected << "\nbut:      " << result.err;
    }
}

} // namespace test
