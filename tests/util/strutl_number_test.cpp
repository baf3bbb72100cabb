// Numbers, tokens, flag sets, the hash and printf directives.
#include <korvaks/strutl.h>

#include <cerrno>
#include <climits>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

TEST(StrutlNumber, ConversionsFailClearly)
{
    const struct {
        const char *str;
        int base;
        unsigned extended_failed;
        unsigned failed;
        long value;
        size_t end;
    } cases[] = {
        {"12", 10, 0, 0, 12, 2},  {" -12", 10, 0, 0, -12, 4},
        {"12x", 10, 0, 1, 12, 2}, {"0", 10, 0, 0, 0, 1},
        {"", 10, 1, 1, 0, 0},     {"x", 10, 1, 1, 0, 0},
        {"ff", 16, 0, 0, 255, 2}, {"1", 99, 1, 1, 0, 0},
        {"0x", 16, 0, 1, 0, 1},   {"99999999999999999999", 10, 1, 1, 0, 20},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.str);
        long value = 7;
        char *end = nullptr;
        errno = EPERM;
        EXPECT_EQ(strutl_strtol_extended(c.str, c.base, &value, &end), c.extended_failed);
        EXPECT_EQ(value, c.extended_failed != 0 ? 0 : c.value);
        EXPECT_EQ(end, c.str + c.end);
        if (c.extended_failed == 0) {
            EXPECT_EQ(errno, EPERM);
        }
        EXPECT_EQ(strutl_strtol(c.str, c.base, &value), c.failed);
        EXPECT_EQ(value, c.failed != 0 ? 0 : c.value);
    }
    unsigned long unsigned_value = 7;
    EXPECT_EQ(strutl_strtoul("18446744073709551615", 10, &unsigned_value), 0U);
    EXPECT_EQ(unsigned_value, ULONG_MAX);
    EXPECT_EQ(strutl_strtoul("18446744073709551616", 10, &unsigned_value), 1U);
    EXPECT_EQ(unsigned_value, 0U);
    double real = 7;
    EXPECT_EQ(strutl_strtod("1.5e2", &real), 0U);
    EXPECT_EQ(real, 150);
    EXPECT_EQ(strutl_strtod("1e999", &real), 1U);
    EXPECT_EQ(real, 0);
    EXPECT_EQ(strutl_strtod("1.5.", &real), 1U);
}

TEST(StrutlNumber, SizesWithASuffix)
{
    constexpr unsigned long failed = ULONG_MAX;
    const struct {
        const char *str;
        unsigned long kilobytes;
        unsigned long bytes;
    } cases[] = {
        {"1", 1, 1},
        {"2048", 2, 2048},
        {"0", 0, 0},
        {"1k", 1, 1024},
        {"1M", 1024, 1048576},
        {"2g", 2097152, 2147483648},
        {"1.5k", 1, 1536},
        {"18446744073709551615k", failed, failed}, // 2 to the 64th kilobytes, for a double
        {"1e3K", 1000, 1024000},
        {"0.1", 1, 1},
        {"-0.5", 1, 1},
        {"-1", 1, failed}, // a thousandth of a kilobyte, and not 0
        {"-1024", failed, failed},
        {"1kb", failed, failed},
        {"", failed, failed},
        {"1 k", failed, failed},
        {"inf", failed, failed},
        {"1e30", failed, failed},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.str);
        unsigned long size = failed;
        EXPECT_EQ(strutl_kstr_to_long(c.str, &size), c.kilobytes == failed ? 1U : 0U);
        EXPECT_EQ(size, c.kilobytes);
        size = failed;
        EXPECT_EQ(strutl_kstr_or_str_to_long(c.str, &size), c.bytes == failed ? 1U : 0U);
        EXPECT_EQ(size, c.bytes);
    }
}

TEST(StrutlNumber, ParametersWithinLimits)
{
    const struct {
        const char *str;
        long value;
    } cases[] = {{nullptr, 5}, {"", 5}, {"7x", 5}, {"7", 7}, {"0", 1}, {"11", 10}, {"1", 1}, {"10", 10}, {"0x8", 5}};
    for (const auto &c : cases)
        EXPECT_EQ(strutl_process_long_param(c.str, 5, 1, 10), c.value) << (c.str == nullptr ? "NULL" : c.str);
    EXPECT_EQ(strutl_match_numeric_string("0123456789"), 0U);
    EXPECT_EQ(strutl_match_numeric_string("12a"), 1U);
    EXPECT_EQ(strutl_match_numeric_string("-1"), 1U);
    EXPECT_EQ(strutl_match_numeric_string(""), 1U);
    EXPECT_EQ(strutl_match_numeric_string(nullptr), 1U);
}

TEST(StrutlNumber, DigitsInABase)
{
    const struct {
        unsigned long value;
        int base;
        int width;
        const char *digits;
    } cases[] = {
        {255, 16, -1, "ff"},
        {0, 10, -1, "0"},
        {255, 16, 4, "00ff"},
        {0x12345, 16, 2, "45"},
        {5, 2, 99, "00000000000000000000000000000101"},
        {ULONG_MAX, 16, -1, "ffffffffffffffff"},
        {ULONG_MAX, 2, -1, "11111111111111111111111111111111"},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(strutl_u32tostr(c.value, c.base, c.width), c.digits);
    EXPECT_EQ(strutl_u32tostr(1, 1, -1), nullptr);
    EXPECT_EQ(strutl_u32tostr(1, 37, -1), nullptr);
}

TEST(StrutlTokenize, PlaceIsTheThreads)
{
    char mine[] = "1 2 3";
    EXPECT_STREQ(strutl_tokenize(mine, " "), "1");
    std::thread([] {
        EXPECT_EQ(strutl_tokenize(nullptr, " "), nullptr);
        char other[] = "a b";
        EXPECT_STREQ(strutl_tokenize(other, " "), "a");
    }).join();
    EXPECT_STREQ(strutl_tokenize(nullptr, " "), "2");
}

const strutl_flag_item_t rows[] = {{"A", 1}, {"B", 6}};

TEST(StrutlFlags, ToText)
{
    const struct {
        unsigned flags;
        const char *sep;
        int count;
        const char *text;
    } cases[] = {
        {7, nullptr, 2, "A B"},        {7, ", ", 2, "A, B"},         {0, ",", 2, ""},
        {9, ",", 2, "A UNKNOWN(0x8)"}, {8, ",", 2, " UNKNOWN(0x8)"}, {5, ",", 0, " UNKNOWN(0x5)"},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(strutl_flags_to_str(c.flags, c.sep, rows, c.count), c.text);
}

TEST(StrutlHash, RotatesAndAdds)
{
    EXPECT_EQ(strutl_str_to_hash32(17, ""), 17U);
    EXPECT_EQ(strutl_str_to_hash32(0, "a"), 97U);
    EXPECT_EQ(strutl_str_to_hash32(0, "ab"), 97U * 32 + 98);
    EXPECT_EQ(strutl_str_to_hash32(0x80000000U, "\xFF"), 0x10U + 0xFF);
    EXPECT_EQ(strutl_str_to_hash32(0xFFFFFFFFU, "\x01"), 0U);
}

TEST(StrutlPrintf, StarsStartAndCutText)
{
    char dir[4];
    size_t next = 0;
    strutl_printf_kind kind = strutl_printf_kind_null;
    int width = 0;
    int precision = 0;
    EXPECT_EQ(strutl_find_printf_directive("%s %-*.*f", 2, sizeof dir, dir, &next, &kind, &width, &precision), 1U);
    EXPECT_STREQ(dir, "%-*");
    EXPECT_EQ(next, 9U);
    EXPECT_EQ(width + precision, 2);
}

TEST(StrutlPrintf, FormattingIsThatOfTheCLibrary)
{
    const char *formats[] = {
        "%s: %d|%i|%u|%x|%ld|%lu|%lx|%%",  "%s %d %i %u %x %ld %lu %lx",
        "%5.2s%% %d %i %u %c %ld %lu %lx", "%s%5d%+i%u%#x%12ld%lu%lx",
#ifndef __SANITIZE_THREAD__ // whose vsnprintf() ends the process at a directive that is cut off
        "%s %d %i %u %x %.9ld %lu %lx %l", "%s%5d%+i%u%#x%12ld%lu%lx%",
#endif
    };
    for (const char *format : formats) {
        for (std::size_t size = 0; size < 120; ++size) {
            const auto print = [&](auto *function, char *buf) {
                return function(buf, size, format, size % 2 == 0 ? "text" : nullptr, INT_MIN, -1, UINT_MAX, 0xBEEFu,
                                LONG_MIN, ULONG_MAX, ULONG_MAX);
            };
            char expected[120] = "untouched";
            char got[120] = "untouched";
            ASSERT_EQ(print(strutl_snprintf, got), print(snprintf, expected)) << format;
            ASSERT_EQ(std::string(got), expected) << size;
        }
    }
}

} // namespace
