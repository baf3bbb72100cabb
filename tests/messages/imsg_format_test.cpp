// Formatting without printing, the ATE form, the capture log and error texts.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const texts[] = {"plain\n", "%s is %d\n", "%s"};
const uint16_t numbers[] = {4, 9, 10};
const msg_table table = {"imsg_test", "test/imsg", 77, 3, texts, numbers};

TEST(ImsgSnprintf, CutsTerminatesAndCounts)
{
    const auto result = test::run_child([] {
        for (const size_t size : {1U, 2U, 8U, 9U, 10U}) {
            char buffer[16];
            std::memset(buffer, '#', sizeof buffer);
            const int length = imsg_snprintf(buffer, size, &table, 1, "abc", 7);
            if (length != 9 || std::string(buffer) != std::string("abc is 7\n").substr(0, size - 1) ||
                buffer[size] != '#')
                return 1;
        }
        char buffer[64];
        if (imsg_snprintf(buffer, 0, &table, 1, "no bound", 1) != 14 || std::string(buffer) != "no bound is 1\n")
            return 2;
        if (imsg_sprintf(buffer, "raw %c", IMSG_RAW_FORMAT, 'x') != 5 || std::string(buffer) != "raw x")
            return 3;
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST(ImsgSnprintf, WrongTableOrNumberIsReportedOnce)
{
    const auto result = test::run_child([] {
        char buffer[16];
        char *text = buffer;
        int failures = 0;
        failures += imsg_snprintf(buffer, sizeof buffer, nullptr, IMSG_RAW_FORMAT) == -1;
        failures += imsg_snprintf(buffer, sizeof buffer, nullptr, 1) == -1;
        failures += imsg_snprintf(buffer, sizeof buffer, &table, -2) == -1;
        failures += imsg_snprintf(buffer, sizeof buffer, &table, 3) == -1;
        failures += imsg_dynamic_len_snprintf(&text, 10, 1000, &table, 3) == -1 && text == nullptr;
        return failures;
    });
    EXPECT_EQ(result.exit_status, 5);
    const std::string number = " - tbl " + std::to_string(reinterpret_cast<long>(&table)) + ", num ";
    const std::string head = "noname: Error: IMSG Internal error (vsprintf";
    EXPECT_EQ(result.err, head + "/NOMSG) - NULL Message.\n" + head + ") - tbl 0, num 1.\n" + head + ")" + number +
                              "-2.\n" + head + ")" + number + "3.\n" + head + ")" + number + "3.\n");
}

TEST(ImsgSnprintfType, PutsTheHeadInFront)
{
    const auto result = test::run_child([] {
        imsg_set_app_name("prog");
        imsg_output_subsys(1);
        char buffer[64];
        const std::string whole = "prog/test/imsg: Error: a is 1\n";
        for (const size_t size : {64U, 30U, 16U, 4U, 1U}) {
            const int length = imsg_snprintf_type(6, buffer, size, &table, 1, "a", 1);
            if (length != static_cast<int>(whole.size()) || std::string(buffer) != whole.substr(0, size - 1))
                return 1;
        }
        imsg_snprintf_type(7, buffer, sizeof buffer, &table, 0);
        return std::string(buffer) == "plain\n" ? 0 : 2;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(ImsgDynamic, GrowsToTheTextWithinItsLimit)
{
    struct Case {
        long start_size, max_size;
        size_t length;
        int expected;
        const char *explained;
    };
    const std::string no_room = "Error, max buffer size 50 passed to imsg_dynamic_len_vsnprintf() is not sufficient to "
                                "hold the string.\n";
    const std::string bad_sizes = "ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than "
                                  "passed start_size argument, or start_size argument is less or equal to 0.\n";
    const std::string above = bad_sizes + "max_size = 5,\tstart_size = 10\n";
    const std::string zero = bad_sizes + "max_size = 5,\tstart_size = 0\n";
    const Case cases[] = {
        {100, 100, 20, 20, ""},        {1, 50, 49, 49, ""},         {1, 50, 50, -1, no_room.c_str()},
        {50, 50, 50, 50, ""}, // a result equal to the size is taken as it stands
        {10, 5, 1, -1, above.c_str()}, {0, 5, 1, -1, zero.c_str()}, {1, LONG_MAX, 70000, 70000, ""},
    };
    for (const Case &c : cases) {
        for (const bool is_traced : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.start_size << " " << c.max_size << " " << c.length);
            const std::string text(c.length, 'd');
            const auto result = test::run_child([&] {
                imsg_set_trace_verbosity(is_traced ? 1 : 0);
                imsg_set_trace_subsys("ks/imsg");
                char *buffer = const_cast<char *>("");
                const int length =
                    imsg_dynamic_len_snprintf(&buffer, c.start_size, c.max_size, &table, 2, text.c_str());
                const bool is_right =
                    length < 0 ? buffer == nullptr
                               : std::strncmp(buffer, text.c_str(),
                                              static_cast<size_t>(length == c.start_size ? length - 1 : length)) == 0;
                if (length >= 0)
                    stg_free(buffer);
                return length == c.expected && is_right ? 0 : 1;
            });
            EXPECT_EQ(result.exit_status, 0);
            EXPECT_EQ(result.err, is_traced ? c.explained : "");
        }
    }
    const auto result = test::run_child([] {
        // A text that can never be formatted ends the search, whatever the sizes.
        const wchar_t invalid[] = {0x7fffffff, 0};
        char *buffer = nullptr;
        for (const long max_size : {10L, 12L, 1000L}) {
            if (imsg_dynamic_len_snprintf(&buffer, 10, max_size, "%ls", static_cast<unsigned>(-1), invalid) != -1)
                return 1;
        }
        return buffer == nullptr ? 0 : 2;
    });
    EXPECT_EQ(result.exit_status, 0);
}

// --- The ATE form ---

std::string ate_form(const std::string &subsystem, int number, int catalog_number, const std::string &raw,
                     const std::string &values)
{
    return "\nTAG_ID:" + subsystem + "!!" + std::to_string(number) + "!!" + std::to_string(catalog_number) +
           ":END_ID\nTAG_RAW:" + raw + ":END_RAW\nTAG_VALUES:" + values + ":END_VALUES\n";
}

TEST(ImsgAte, ShowsIdentityRawFormatAndEveryArgument)
{
    const auto result = test::run_child([] {
        imsg_ate_enable_tagging();
        imsg_print(0, &table, 1, nullptr, -3);
        constexpr auto raw = static_cast<unsigned>(-1);
        imsg_print_shared(0, "ignored", "%d %i %u %x %c\n", raw, -1, 2, 3U, 255U, 'c');
        imsg_print_shared(0, nullptr, "%ld %lu %lld %llu\t", raw, LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
        imsg_print_shared(0, nullptr, "%5.2f %e 100%% %p %s\v\f\r", raw, 1.5, 2.0, nullptr, "s!!s");
        imsg_print_shared(0, nullptr, "%*d %.*s %*.*f", raw, 4, 7, 2, "abc", 8, 3, 3.14159);
        imsg_print_shared(0, nullptr, "none", raw);
        imsg_print_shared(0, nullptr, "%d %zu %d", raw, 1, sizeof(int), 3); // "%zu" is no known directive
        return 0;
    });
    EXPECT_EQ(result.out,
              ate_form("test/imsg", 1, 9, "%s is %d\\n", "<<<NULL STRING>>>!!-3") +
                  ate_form("no subsys", -1, -1, "%d %i %u %x %c\\n", "-1!!2!!3!!ff!!c") +
                  ate_form("no subsys", -1, -1, "%ld %lu %lld %llu\\t",
                           "-9223372036854775808!!18446744073709551615!!-9223372036854775808!!18446744073709551615") +
                  ate_form("no subsys", -1, -1, "%5.2f %e 100%% %p %s\\v\\f\\r", " 1.50!!2.000000e+00!!(nil)!!s!!s") +
                  ate_form("no subsys", -1, -1, "%*d %.*s %*.*f", "   7!!ab!!   3.142") +
                  ate_form("no subsys", -1, -1, "none", "") + ate_form("no subsys", -1, -1, "%d %zu %d", "1"));
}

TEST(ImsgAte, TagModesAndTheSwitch)
{
    const std::string tagged = ate_form("test/imsg", 0, 4, "plain\\n", "");
    const auto result = test::run_child([&] {
        char buffer[256];
        for (const bool is_enabled : {false, true}) {
            is_enabled ? imsg_ate_enable_tagging() : imsg_ate_disable_tagging();
            for (const int mode : {0, 1, 2, 3, 4}) {
                const bool is_tagged = mode == 3 || (mode == 2 && is_enabled);
                const int length = imsg_snprintf_taggable(mode, buffer, sizeof buffer, &table, 0);
                if (buffer != (is_tagged ? tagged : "plain\n") || length != static_cast<int>(std::strlen(buffer)) ||
                    imsg_ate_tagging_is_enabled() != (is_enabled ? 1 : 0))
                    return 1;
            }
            imsg_snprintf(buffer, sizeof buffer, &table, 0);
            if (std::string(buffer) != "plain\n")
                return 2;
        }
        // Cut anywhere it stays terminated and counts in full.
        for (size_t size = 1; size <= tagged.size() + 1; ++size) {
            if (imsg_snprintf_taggable(3, buffer, size, &table, 0) != static_cast<int>(tagged.size()) ||
                buffer != tagged.substr(0, size - 1))
                return 3;
        }
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(ImsgAte, EnvironmentSwitchesItOnInAnyLetterCase)
{
    for (const auto &[value, expected] : {std::pair{"tRUE", 1}, {"True", 1}, {"1", 0}, {"", 0}, {"Truer", 0}}) {
        SCOPED_TRACE(value);
        const auto result = test::run_child([&, value = value] {
            setenv("VELLUM_ENABLE_ATE_MESSAGES", value, 1);
            return imsg_ate_tagging_is_enabled();
        });
        EXPECT_EQ(result.exit_status, expected);
    }
}

// --- The capture log ---

TEST(ImsgCapture, NotesEveryShownMessageOnce)
{
    const test::TempDir dir;
    const std::string name = dir.file("capture");
    pid_t pid = 0;
    {
        test::Child child([&] {
            setenv("VELLUM_IMSG_CAPTURE_LOG", name.c_str(), 1);
            imsg_print(0, &table, 1, "a", 1);
            imsg_print_shared(0, nullptr, "raw", static_cast<unsigned>(-1)); // has no number to note
            char buffer[8];
            imsg_snprintf(buffer, sizeof buffer, &table, 0); // is not shown
            imsg_snprintf_taggable(1, buffer, sizeof buffer, &table, 0);
            imsg_print(0, &table, 2, std::string(40000, 'x').c_str()); // formatted twice
            char *text = nullptr;
            if (imsg_dynamic_len_snprintf(&text, 1, 100, &table, 1, "name", 5) > 0)
                stg_free(text);
            return 0;
        });
        pid = child.pid();
        EXPECT_EQ(child.finish().exit_status, 0);
    }
    EXPECT_EQ(test::read_file(name + "." + std::to_string(pid)), "## library : subsys : msg ID : msg text\n"
                                                                 "imsg_test : test/imsg : 9 : %s is %d\n\n"
                                                                 "imsg_test : test/imsg : 4 : plain\n\n"
                                                                 "imsg_test : test/imsg : 10 : %s\n"
                                                                 "imsg_test : test/imsg : 9 : %s is %d\n\n");
}

TEST(ImsgCapture, AnUnopenableLogIsSkipped)
{
    const auto result = test::run_child([] {
        setenv("VELLUM_IMSG_CAPTURE_LOG", "/nonexistent/dir/log", 1);
        return imsg_print(0, &table, 0);
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "plain\n");
    EXPECT_EQ(result.err, "");
}

// The leak checker of the address sanitizer cannot look into a program with other rights.
#if !defined(__SANITIZE_ADDRESS__)
// What a set-group-ID program runs in the test below.
TEST(ImsgPrivileged, Prints)
{
    EXPECT_EQ(imsg_print(0, &table, 0), 0);
    if (getauxval(AT_SECURE) != 0)
        puts("privileged");
}

TEST(ImsgPrivileged, IgnoresTheNameOfACaptureLog)
{
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to make a set-group-ID program";
    constexpr uid_t other_user = 65534;
    const test::TempDir dir;
    const std::string program = dir.file("program");
    test::write_file(program, test::read_file("/proc/self/exe"));
    ASSERT_EQ(chown(program.c_str(), 0, 1), 0);
    ASSERT_EQ(chmod(program.c_str(), 02755), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    const auto result = test::run_child([&] {
        setenv("VELLUM_IMSG_CAPTURE_LOG", dir.file("capture").c_str(), 1);
        if (setgid(other_user) != 0 || setuid(other_user) != 0)
            return 76;
        execl(program.c_str(), program.c_str(), "--gtest_filter=ImsgPrivileged.Prints", static_cast<char *>(nullptr));
        return 75;
    });
    if (result.out.find("privileged\n") == std::string::npos)
        GTEST_SKIP() << "this file system or place does not run set-group-ID programs: " << result.err;
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.out.find("plain\n"), std::string::npos);
    EXPECT_EQ(system(("ls " + dir.path() + " | grep -q capture").c_str()) == 0, false);
}
#endif

// --- Error texts ---

TEST(ImsgStrerror, TextOrNumber)
{
    const auto result = test::run_child([] {
        const std::pair<long, std::string> cases[] = {{ENOENT, strerror(ENOENT)},
                                                      {EHWPOISON, strerror(EHWPOISON)},
                                                      {0, "0"},
                                                      {-5, "-5"},
                                                      {100000, "100000"},
                                                      {LONG_MAX, std::to_string(LONG_MAX)},
                                                      {LONG_MIN, std::to_string(LONG_MIN)},
                                                      {(1L << 32) + 1, "4294967297"}};
        for (const auto &[number, expected] : cases) {
            if (imsg_strerror(number) != expected)
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0);
}

} // namespace
