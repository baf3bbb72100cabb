// Environment variables in strings. Each test runs in a process of its own.
#include <korvaks/evutl.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include "harness/locale.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

TEST(StrutlExpand, IteratesUpToALimit)
{
    const std::string invalid = "errno " + std::to_string(EINVAL);
    const struct {
        const char *str;
        int max_passes;
        std::string result;
    } cases[] = {
        {"$A", 0, invalid},
        // The first expansion and eight more; a ninth that sees a reference is one too many.
        {"$V5", 0, "end"},
        {"$V4", 0, invalid},
        {"$ONE", -1, invalid},
        {"$\xC3\xA9t\xC3\xA9.", 0, "summer."}, // letters of the locale
        // Each pass takes one level of backslashes, also from what a variable brought in.
        {"$ESCAPED", 0, "\\$ONE"},
        {"\\\\x", 0, "\\x"},
    };
    test::in_child([&] {
        const test::ScopedLocale locale("C.UTF-8");
        setenv("\xC3\xA9t\xC3\xA9", "summer", 1);
        setenv("A", "$B", 1);
        setenv("B", "$A", 1);
        for (int i = 1; i < 12; ++i)
            setenv(("V" + std::to_string(i)).c_str(), ("$V" + std::to_string(i + 1)).c_str(), 1);
        setenv("V12", "end", 1);
        setenv("ONE", "1", 1);
        setenv("ESCAPED", "\\\\\\$ONE", 1);
        for (const auto &c : cases) {
            char *text = strutl_expand_evs_iterate(c.str, c.max_passes);
            EXPECT_EQ(text == nullptr ? "errno " + std::to_string(errno) : text, c.result) << c.str;
            stg_free(text);
        }
    });
}

// A result may be 1 MiB longer than the text: each pass could multiply it.
TEST(StrutlExpand, IterationBoundsTheResult)
{
    const test::ChildResult child = test::run_child([] {
        constexpr size_t bound = 1 << 20;
        setenv("HALF", std::string(bound / 2, 'h').c_str(), 1);
        setenv("TWO", "$HALF$HALF", 1);
        setenv("ONE", "123456789", 1);
        setenv("EIGHT", "$EIGHT$EIGHT$EIGHT$EIGHT$EIGHT$EIGHT$EIGHT$EIGHT", 1);
        const auto length_of = [](const std::string &str) {
            char *text = strutl_expand_evs_iterate(str.c_str(), 0);
            const std::string result = std::to_string(text == nullptr ? -errno : static_cast<long>(std::strlen(text)));
            stg_free(text);
            return result + " ";
        };
        std::printf("%s", (length_of("$TWO") + length_of("$ONE$TWO") + length_of("$EIGHT")).c_str());
        std::printf("%s", length_of(std::string(bound + 1, 'x')).c_str());
        return 0;
    });
    EXPECT_EQ(child.out, "1048576 -22 -22 1048577 ");
}

// The value is read whole while another thread replaces it.
TEST(StrutlExpand, ReadsUnderTheEnvironmentLock)
{
    test::in_child([] {
        pfm_init();
        static std::string short_entry = "KNOWN=" + std::string(10, 's');
        static std::string long_entry = "KNOWN=" + std::string(3000, 'l');
        putenv_safe(short_entry.data());
        std::atomic<bool> done{false};
        std::thread writer([&done] {
            while (!done) {
                putenv_safe(long_entry.data());
                putenv_safe(short_entry.data());
            }
        });
        for (int i = 0; i < 2000; ++i) {
            char *text = strutl_expand_evs("$KNOWN");
            ASSERT_NE(text, nullptr);
            EXPECT_TRUE(short_entry.ends_with("=" + std::string(text)) ||
                        long_entry.ends_with("=" + std::string(text)));
            stg_free(text);
        }
        done = true;
        writer.join();
    });
}

} // namespace
