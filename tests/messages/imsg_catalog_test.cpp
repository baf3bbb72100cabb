// Texts from message catalogues, compiled here with the system's gencat.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <nl_types.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const char *const texts[] = {"zero %s\n", "one %d of %ld\n", "two\n", "three\n"};
const uint16_t numbers[] = {1, 2, 3, 9};

msg_table table_of(const char *catalog)
{
    return {catalog, "test", 7, 4, texts, numbers};
}

void compile(const test::TempDir &dir, const std::string &name, const std::string &source)
{
    test::write_file(dir.file(name + ".msg"), source);
    const std::string command = "gencat " + dir.file(name + ".cat") + " " + dir.file(name + ".msg");
    ASSERT_EQ(system(command.c_str()), 0);
}

test::ChildResult run_with_catalogs(const test::TempDir &dir, const std::function<int()> &body)
{
    return test::run_child([&] {
        setenv("NLSPATH", dir.file("%N.cat").c_str(), 1);
        return body();
    });
}

TEST(ImsgCatalog, TranslatesTextsAndHeads)
{
    const test::TempDir dir;
    compile(dir, "t", "$set 7\n$quote \"\n1 \"null <%s>\\n\"\n2 \"eins: %d/%ld 100%%\\n\"\n");
    compile(dir, "ks_lib", "$set 10\n$quote \"\n19 \"Fehler: \"\n");
    const auto result = run_with_catalogs(dir, [] {
        const msg_table table = table_of("t");
        imsg_print(6, &table, 0, "x");
        imsg_print(6, &table, 1, 3, 4L);
        imsg_print(4, &table, 2); // not in the catalogue
        char buffer[64];
        imsg_snprintf(buffer, sizeof buffer, &table, 0, "y");
        return std::string(buffer) == "null <y>\n" ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "noname: Fehler: null <x>\nnoname: Fehler: eins: 3/4 100%\nnoname: Warning: two\n");
}

// A translated text with other directives would read arguments that are not there.
TEST(ImsgCatalog, RefusesTextsThatTakeOtherArguments)
{
    struct Row {
        const char *text;
        bool is_used;
    };
    static const char unterminated[] = {'f', 'o', 'u', 'r'};
    const struct {
        const char *default_text;
        int (*print)(const msg_table *, unsigned);
        std::vector<Row> rows;
    } groups[] = {
        {"%d of %ld",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, 3, 4L); },
         {{"%d %ld", true},     {"%5d<%-3ld>", true},    {"%i %li", true},       {"%d %ld %%n", true},
          {"%2$ld %1$d", true}, {"%1$d%2$ld%1$i", true}, {"%d", false},          {"%ld %d", false},
          {"%d %ld %s", false}, {"%*d %ld", false},      {"%.*d %ld", false},    {"%d %n", false},
          {"%s %ld", false},    {"%d %ld %", false},     {"%hhd %ld", false},    {"%d %lld", false},
          {"none", false},      {"%d %ld %m", false},    {"%u %ld", false},      {"%1$d %ld", false},
          {"%2$ld", false},     {"%1$ld %2$d", false},   {"%1$d %3$ld", false},  {"%1$d %2$ld %2$d", false},
          {"%0$d %ld", false},  {"%1$d %99$ld", false},  {"%77777d %ld", false}, {"%d %ld %y", false}}},
        {"%zu %'jd %#lx %-+5d %m",
         [](const msg_table *table, unsigned n) {
             return imsg_print(IMSG_OK, table, n, sizeof n, intmax_t{5}, 6UL, 7);
         },
         {{"<%zu> %'jd, %#lx: %-+5d (%m)", true},
          {"%4$d %3$lx %2$jd %1$zu %m", true},
          {"%lu %'jd %#lx %-+5d %m", false},
          {"%zu %'jd %#lx %-+5d", false}}},
        {"%*d %.*s %s",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, 5, 6, 4, unterminated, "end"); },
         {{"%-*d<%.*s>%s", true},
          {"%5$s %4$.*3$s %2$*1$d", true},
          {"%5$s %4$s %3$d %2$*1$d", false},
          {"%d %d %.*s %s", false},
          {"%*d %s %.*s", false}}},
        {"%.4s|%.2f",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, unterminated, 1.5); },
         {{"%.4s %.1f", true},
          {"%.3s %.2f", true},
          {"%2$.2f %1$.4s", true},
          {"%s|%.2f", false},
          {"%.5s|%.2f", false},
          {"%.4s|%f", false},
          {"%2$.2f %1$.4s %1$s", false},
          {"%.4ls|%.2f", false}}},
    };
    for (const auto &group : groups) {
        const test::TempDir dir;
        std::string source = "$set 7\n$quote \"\n";
        std::vector<const char *> defaults;
        std::vector<uint16_t> catalog_numbers;
        for (const Row &row : group.rows) {
            defaults.push_back(group.default_text);
            catalog_numbers.push_back(static_cast<uint16_t>(defaults.size()));
            source += std::to_string(defaults.size()) + " \"new " + row.text + "\"\n";
        }
        compile(dir, "t", source);
        const msg_table table = {
            "t", "test", 7, static_cast<uint16_t>(defaults.size()), defaults.data(), catalog_numbers.data()};
        const auto result = run_with_catalogs(dir, [&] {
            setenv("TRACE_SUBSYS", "ks/imsg", 1);
            setenv("TRACE_VERBOSITY", "1", 1);
            for (unsigned n = 0; n < 2 * table.count; ++n) { // the answers are remembered
                group.print(&table, n / 2);
                putchar('\n');
            }
            return 0;
        });
        std::istringstream out(result.out);
        for (const Row &row : group.rows) {
            SCOPED_TRACE(row.text);
            std::string line;
            std::string again;
            std::getline(out, line);
            std::getline(out, again);
            EXPECT_EQ(line.starts_with("new "), row.is_used) << line;
            EXPECT_EQ(line, again);
            EXPECT_EQ(result.err.find("new " + std::string(row.text) + "\n") == std::string::npos, row.is_used);
        }
    }
}

// A catalogue may be written over while it is mapped.
TEST(ImsgCatalog, ATextIsReadOnce)
{
    const test::TempDir dir;
    compile(dir, "t", "$set 7\n$quote \"\n2 \"eins: %d/%ld\\n\"\n");
    const auto result = run_with_catalogs(dir, [&] {
        const msg_table table = table_of("t");
        imsg_print(IMSG_OK, &table, 1, 3, 4L);
        std::string file = test::read_file(dir.file("t.cat"));
        file.replace(file.find("%d"), 2, "%s");
        const int fd = open(dir.file("t.cat").c_str(), O_WRONLY);
        return pwrite(fd, file.data(), file.size(), 0) < 0 ? 1 : imsg_print(IMSG_OK, &table, 1, 3, 4L);
    });
    EXPECT_EQ(result.exit_status, 0) << "signal " << result.signal;
    EXPECT_EQ(result.out, "eins: 3/4\neins: 3/4\n");
}

// Only so many catalogues stay open; all of them go on being found, and none is leaked.
TEST(ImsgCatalog, MoreCataloguesThanStayOpen)
{
    const test::TempDir dir;
    std::string expected;
    for (const char name : std::string("abcdefg")) {
        compile(dir, std::string(1, name), std::string("$set 7\n$quote \"\n3 \"of ") + name + "\\n\"\n");
        expected += std::string("of ") + name + "\ntwo\n";
    }
    const auto result = run_with_catalogs(dir, [&] {
        for (int i = 0; i < 21; ++i) {
            const char name[] = {static_cast<char>('a' + i % 7), '\0'};
            for (const char *catalog : {name, "missing"}) {
                const msg_table table = table_of(catalog);
                imsg_print(IMSG_OK, &table, 2);
            }
        }
        const std::string maps = test::read_file("/proc/self/maps");
        int still_open = 0;
        for (size_t at = maps.find(".cat"); at != std::string::npos; at = maps.find(".cat", at + 1))
            ++still_open;
        return still_open; // one of the five slots is taken by the missing one
    });
    EXPECT_EQ(result.exit_status, 4);
    EXPECT_EQ(result.out, expected + expected + expected);
}

TEST(ImsgCatalog, TablesWithHolesAreSafe)
{
    const auto result = test::run_child([] {
        const char *const some[] = {nullptr, "text\n"};
        const std::string long_name(5000, 'n');
        const msg_table tables[] = {{nullptr, nullptr, 1, 2, some, numbers},
                                    {"", "s", 1, 2, some, nullptr},
                                    {long_name.c_str(), "s", 1, 2, some, numbers},
                                    {"../../x/%N", "", 1, 2, some, numbers}};
        for (const msg_table &table : tables) {
            if (imsg_print(6, &table, 0) != 0 || imsg_print(7, &table, 1) != 0)
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "noname: Error: text\nnoname: Error: text\nnoname: Error: text\nnoname: Error: text\n");
}

// --- The library's own catalogue ---

// Where the build puts it, seen from this program.
std::string generated(const std::string &name)
{
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "share/korvaks/nls" / name).string();
}

TEST(ImsgGeneratedCatalog, ATranslationOfItIsPrinted)
{
    std::string source = test::read_file(generated("ks_lib.msg"));
    const std::string original = "\"Supplied buffer too small.\\n\"";
    const size_t at = source.find(original);
    ASSERT_NE(at, std::string::npos);
    source.replace(at, original.size(), "\"Der Puffer ist zu klein.\\n\"");
    const test::TempDir dir;
    compile(dir, "ks_lib", source);
    const auto result = run_with_catalogs(dir, [] {
        imsg_print(6, &_strutl_ks_msg_table, 1);
        char small[4] = "ab";
        return strutl_replace_substr(small, 0, sizeof small, 1, "longer") == 1 ? 0 : 1; // the library's own use of it
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "noname: Error: Der Puffer ist zu klein.\nnoname: Error: Der Puffer ist zu klein.\n");
}

// What gencat made of the texts is what the tables hold, style markers and quotes included.
TEST(ImsgGeneratedCatalog, HoldsEveryDefaultText)
{
    const nl_catd catalog = catopen(generated("ks_lib.cat").c_str(), 0);
    ASSERT_NE(catalog, reinterpret_cast<nl_catd>(-1));
    for (const msg_table *table : {&_stg_ks_msg_table, &_ks_ks_msg_table, &_imsg_ks_msg_table}) {
        for (unsigned i = 0; i < table->count; ++i) {
            SCOPED_TRACE(std::string(table->subsystem) + " " + std::to_string(i));
            EXPECT_STREQ(catgets(catalog, table->set, table->catalog_numbers[i], "missing"), table->default_texts[i]);
        }
    }
    catclose(catalog);
}

TEST(ImsgTables, NumbersThatOthersRelyOn)
{
    EXPECT_EQ(_imsg_ks_msg_table.count, 104);
    EXPECT_EQ(_imsg_ks_msg_table.set, 10);
    EXPECT_EQ(_imsg_ks_msg_table.catalog_numbers[17], 20);
    EXPECT_EQ(_imsg_ks_msg_table.catalog_numbers[18], 26);
    EXPECT_EQ(_imsg_ks_msg_table.catalog_numbers[103], 111);
    EXPECT_STREQ(_imsg_ks_msg_table.default_texts[103], "String buffer too small.\n");
    EXPECT_STREQ(_imsg_ks_msg_table.default_texts[71], "%s. host \"%s\", pid %d, user \"%s\"\n");
    EXPECT_EQ(_ks_ks_msg_table.count, 45);
    EXPECT_EQ(_ks_ks_msg_table.set, 9);
    EXPECT_STREQ(_ks_ks_msg_table.default_texts[8], "\1\1"
                                                    "1BThis product is not installed correctly.\1\1"
                                                    "0B\n");
}

} // namespace
