// Formatting without printing, the ATE form, the capture log and error texts.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_list.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const texts[] = {"plain\n", "%s is %d\n", "%s"};
const uint16_t numbers[] = {4, 9, 10};
const msg_table table = {"imsg_test", "test/imsg", 77, 3, texts, numbers};

TEST(ImsgSnprintf, CutsTerminatesAndCounts)
{
    const auto result = test::run_child([] {
        char buffer[64];
        for (const size_t size : {1U, 9U, 10U, 0U}) { // 0: no bound
            std::memset(buffer, '#', sizeof buffer);
            printf("%d ", imsg_snprintf(buffer, size, &table, 1, "abc", 7));
            printf("%s%c;", buffer, size == 0 ? '.' : buffer[size]);
        }
        printf("%d ", imsg_sprintf(buffer, "raw %c", IMSG_RAW_FORMAT, 'x'));
        puts(buffer);
    });
    EXPECT_EQ(result.out, "9 #;9 abc is 7#;9 abc is 7\n#;9 abc is 7\n.;5 raw x\n");
}

TEST(ImsgSnprintf, WrongTableOrNumberIsReportedOnce)
{
    const auto result = test::run_child([] {
        char buffer[16];
        char *text = buffer;
        for (const int number : {-2, 3})
            printf("%d ", imsg_snprintf(buffer, sizeof buffer, &table, number));
        printf("%d ", imsg_snprintf(buffer, sizeof buffer, nullptr, IMSG_RAW_FORMAT));
        printf("%d ", imsg_snprintf(buffer, sizeof buffer, nullptr, 1));
        printf("%d", imsg_dynamic_len_snprintf(&text, 10, 1000, nullptr, 3));
        return text == nullptr ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "-1 -1 -1 -1 -1");
    const std::string number = ") - tbl " + std::to_string(reinterpret_cast<long>(&table)) + ", num ";
    const std::string head = "noname: Error: IMSG Internal error (vsprintf";
    EXPECT_EQ(result.err, head + number + "-2.\n" + head + number + "3.\n" + head + "/NOMSG) - NULL Message.\n" + head +
                              ") - tbl 0, num 1.\n" + head + ") - tbl 0, num 3.\n");
}

TEST(ImsgSnprintfType, PutsTheHeadInFront)
{
    const auto result = test::run_child([] {
        imsg_set_app_name("prog");
        imsg_output_subsys(1);
        char buffer[64];
        for (const size_t size : {64U, 30U, 4U, 1U}) {
            const int length = imsg_snprintf_type(IMSG_ERROR, buffer, size, &table, 1, "a", 1);
            printf("%d %s;", length, buffer);
        }
        imsg_snprintf_type(IMSG_ERROR_MORE, buffer, sizeof buffer, &table, 0);
        printf("%s", buffer);
    });
    EXPECT_EQ(result.out, "30 prog/test/imsg: Error: a is 1\n;30 prog/test/imsg: Error: a is 1;30 pro;30 ;plain\n");
}

TEST(ImsgDynamic, GrowsToTheTextWithinItsLimit)
{
    const auto result = test::run_child([] {
        char *buffer = nullptr;
        const auto format = [&buffer](long start_size, long max_size, size_t length) {
            buffer = const_cast<char *>("");
            const std::string text(length, 'd');
            printf("%d ", imsg_dynamic_len_snprintf(&buffer, start_size, max_size, &table, 2, text.c_str()));
            printf("%zu,", buffer == nullptr ? 999999 : std::string(buffer).size());
            stg_free(buffer);
        };
        format(0, 5, 1); // not explained unless traced
        imsg_set_trace_verbosity(1);
        imsg_set_trace_subsys("ks/imsg");
        format(100, 100, 20);
        format(1, 50, 49);
        format(1, 50, 50);
        format(50, 50, 50); // a result equal to the size is taken as it stands
        format(10, 5, 1);
        format(0, 5, 1);
        format(1, LONG_MAX, 70000);
        // A text that can never be formatted ends the search, whatever the sizes.
        const wchar_t invalid[] = {0x7fffffff, 0};
        return imsg_dynamic_len_snprintf(&buffer, 10, 1000, "%ls", IMSG_RAW, invalid) == -1 && buffer == nullptr ? 0
                                                                                                                 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "-1 999999,20 20,49 49,-1 999999,50 49,-1 999999,-1 999999,70000 70000,");
    const std::string no_room = " passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold the string.\n";
    const std::string bad_sizes = "ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than "
                                  "passed start_size argument, or start_size argument is less or equal to 0.\n";
    EXPECT_EQ(result.err, "Error, max buffer size 50" + no_room + bad_sizes + "max_size = 5,\tstart_size = 10\n" +
                              bad_sizes + "max_size = 5,\tstart_size = 0\nError, max buffer size 1000" + no_room);
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
        constexpr auto raw = IMSG_RAW;
        imsg_print_shared(0, "ignored", "%d %i %u %x %c\n", raw, -1, 2, 3U, 255U, 'c');
        imsg_print_shared(0, nullptr, "%ld %lu %lld %llu\t", raw, LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
        imsg_print_shared(0, nullptr, "%5.2f %e 100%% %p %s\v\f\r", raw, 1.5, 2.0, nullptr, "s!!s");
        imsg_print_shared(0, nullptr, "%*d %.*s %*.*f", raw, 4, 7, 2, "abc", 8, 3, 3.14159);
        imsg_print_shared(0, nullptr, "none", raw);
        imsg_print_shared(0, nullptr, "%d %zu %d", raw, 1, sizeof(int), 3); // "%zu" is no known directive
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
                const int length = imsg_snprintf_taggable(mode, buffer, sizeof buffer, &table, 0);
                printf("%d", length != static_cast<int>(std::strlen(buffer)) ? 9 : buffer == tagged ? 1 : 0);
            }
            imsg_snprintf(buffer, sizeof buffer, &table, 0);
            printf("%d%s", imsg_ate_tagging_is_enabled(), buffer);
        }
        // Cut anywhere it stays terminated and counts in full.
        for (size_t size = 1; size <= tagged.size() + 1; ++size) {
            if (imsg_snprintf_taggable(3, buffer, size, &table, 0) != static_cast<int>(tagged.size()) ||
                buffer != tagged.substr(0, size - 1))
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "000100plain\n001101plain\n");
}

TEST(ImsgAte, EnvironmentSwitchesItOnInAnyLetterCase)
{
    for (const char *value : {"tRUE", "1", "Truer"}) {
        const auto result = test::run_child([value] {
            setenv("VELLUM_ENABLE_ATE_MESSAGES", value, 1);
            return imsg_ate_tagging_is_enabled();
        });
        EXPECT_EQ(result.exit_status, *value == 't' ? 1 : 0) << value;
    }
}

// --- The capture log ---

TEST(ImsgCapture, NotesEveryShownMessageOnce)
{
    const test::TempDir dir;
    const std::string name = dir.file("capture");
    const auto result = test::run_child([&] {
        setenv("VELLUM_IMSG_CAPTURE_LOG", name.c_str(), 1);
        const std::string text(40000, 'x'); // formatted twice
        char buffer[8];
        imsg_snprintf(buffer, sizeof buffer, &table, 0);         // is not shown
        imsg_print_shared(IMSG_ERROR, nullptr, "raw", IMSG_RAW); // has no number to note
        imsg_snprintf_taggable(1, buffer, sizeof buffer, &table, 0);
        imsg_print(IMSG_ERROR, &table, 2, text.c_str());
        char *block = nullptr;
        if (imsg_dynamic_len_snprintf(&block, 1, 100, &table, 1, "name", 5) > 0)
            stg_free(block);
        imsg_list list;
        imsg_list_create(&list);
        (void)imsg_list_add_msg(&list, &table, 1, text.c_str(), 5);
        (void)imsg_list_add_str(&list, "no message");
        imsg_list_destroy(&list);
        printf("%d", getpid());
    });
    EXPECT_EQ(test::read_file(name + "." + result.out), "## library : subsys : msg ID : msg text\n"
                                                        "imsg_test : test/imsg : 4 : plain\n\n"
                                                        "imsg_test : test/imsg : 10 : %s\n"
                                                        "imsg_test : test/imsg : 9 : %s is %d\n\n"
                                                        "imsg_test : test/imsg : 9 : %s is %d\n\n");
}

// Nothing is written through a link that somebody has laid, and nobody waits for the reader of a pipe.
TEST(ImsgCapture, ALogThatIsNotTheCallersIsSkipped)
{
    const test::TempDir dir;
    const std::string victim = dir.file("victim");
    using Make = int (*)(const char *victim, const char *log);
    const Make makers[] = {symlink, link, [](const char *, const char *log) { return mkfifo(log, 0600); },
                           [](const char *, const char *log) { return mkdir(log, 0700); }};
    for (const Make make : makers) {
        test::write_file(victim, "untouched");
        const auto result = test::run_child([&] {
            const std::string name = dir.file("capture");
            setenv("VELLUM_IMSG_CAPTURE_LOG", name.c_str(), 1);
            return make(victim.c_str(), (name + "." + std::to_string(getpid())).c_str()) + imsg_print(0, &table, 0);
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out + result.err, "plain\n");
        EXPECT_EQ(test::read_file(victim), "untouched");
    }
}

// --- Error texts ---

TEST(ImsgStrerror, TextOrNumber)
{
    const auto result = test::run_child([] {
        for (const long number : {long{ENOENT}, long{EHWPOISON}, 0L, -5L, 100000L, LONG_MIN, (1L << 32) + 1})
            puts(imsg_strerror(number));
    });
    EXPECT_EQ(result.out, std::string(strerror(ENOENT)) + "\n" + strerror(EHWPOISON) +
                              "\n0\n-5\n100000\n-9223372036854775808\n4294967297\n");
}

} // namespace
