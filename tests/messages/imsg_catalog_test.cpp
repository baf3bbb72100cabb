// Texts from message catalogues, compiled here with the system's gencat.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

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
    static const char unterminated[] = {'f', 'o', 'u', 'r'};
    const struct {
        const char *default_text;
        int (*print)(const msg_table *, unsigned);
        std::vector<const char *> used, refused;
    } groups[] = {
        {"%d of %ld",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, 3, 4L); },
         {"%d %ld", "%5d<%-3ld>", "%i %li", "%d %ld %%n", "%2$ld %1$d", "%1$d%2$ld%1$i"},
         {"%d",       "%ld %d",     "%d %ld %s",       "%*d %ld",    "%.*d %ld",  "%d %n",       "%s %ld",
          "%d %ld %", "%hhd %ld",   "%d %lld",         "none",       "%d %ld %m", "%u %ld",      "%1$d %ld",
          "%2$ld",    "%1$ld %2$d", "%1$d %2$ld %2$d", "%1$d %3$ld", "%0$d %ld",  "%1$d %99$ld", "%77777d %ld",
          "%d %ld %y"}},
        {"%zu %'jd %#lx %-+5d %m",
         [](const msg_table *table, unsigned n) {
             return imsg_print(IMSG_OK, table, n, sizeof n, intmax_t{5}, 6UL, 7);
         },
         {"<%zu> %'jd, %#lx: %-+5d (%m)", "%4$d %3$lx %2$jd %1$zu %m"},
         {"%lu %'jd %#lx %-+5d %m", "%zu %'jd %#lx %-+5d"}},
        {"%*d %.*s %s",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, 5, 6, 4, unterminated, "end"); },
         {"%-*d<%.*s>%s", "%5$s %4$.*3$s %2$*1$d"},
         {"%5$s %4$s %3$d %2$*1$d", "%d %d %.*s %s", "%*d %s %.*s"}},
        {"%.4s|%.2f",
         [](const msg_table *table, unsigned n) { return imsg_print(IMSG_OK, table, n, unterminated, 1.5); },
         {"%.4s %.1f", "%.3s %.2f", "%2$.2f %1$.4s"},
         {"%s|%.2f", "%.5s|%.2f", "%.4s|%f", "%2$.2f %1$.4s %1$s", "%.4ls|%.2f"}},
    };
    for (const auto &group : groups) {
        const test::TempDir dir;
        std::vector<const char *> translations = group.used;
        translations.insert(translations.end(), group.refused.begin(), group.refused.end());
        const std::vector<const char *> defaults(translations.size(), group.default_text);
        std::vector<uint16_t> catalog_numbers;
        std::string source = "$set 7\n$quote \"\n";
        for (const char *text : translations) {
            catalog_numbers.push_back(static_cast<uint16_t>(catalog_numbers.size() + 1));
            source += std::to_string(catalog_numbers.back()) + " \"new " + text + "\"\n";
        }
        compile(dir, "t", source);
        const msg_table table = {"t", "t", 7, catalog_numbers.back(), defaults.data(), catalog_numbers.data()};
        const auto result = run_with_catalogs(dir, [&] {
            setenv("TRACE_SUBSYS", "ks/imsg", 1);
            setenv("TRACE_VERBOSITY", "1", 1);
            for (unsigned n = 0; n < 2U * table.count; ++n) { // the answers are remembered
                group.print(&table, n / 2);
                puts("");
            }
            return 0;
        });
        std::istringstream out(result.out);
        for (size_t i = 0; i < translations.size(); ++i) {
            SCOPED_TRACE(translations[i]);
            const bool is_used = i < group.used.size();
            std::string line, again;
            std::getline(std::getline(out, line), again);
            EXPECT_EQ(line.starts_with("new "), is_used) << line;
            EXPECT_EQ(line, again);
            EXPECT_EQ(result.err.find("new " + std::string(translations[i]) + "\n") == std::string::npos, is_used);
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
            for (const msg_table &table : {table_of(name), table_of("missing")})
                imsg_print(IMSG_OK, &table, 2);
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
        for (const char *name : {static_cast<const char *>(nullptr), "", long_name.c_str(), "../../x/%N"}) {
            const msg_table table = {name, name, 1, MSG_TABLE_COUNT(some), some, name == nullptr ? nullptr : numbers};
            imsg_print(IMSG_ERROR, &table, 0);
            imsg_print(IMSG_ERROR_MORE, &table, 1);
        }
    });
    const std::string one = "noname: Error: text\n";
    EXPECT_EQ(result.err, one + one + one + one);
}

// --- The library's own catalogue ---

// Where the build puts it, seen from this program.
std::string generated(const std::string &name)
{
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "catalogues" / name).string();
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
    EXPECT_EQ(_imsg_ks_msg_table.catalog_numbers[103], 111);
    EXPECT_STREQ(_imsg_ks_msg_table.default_texts[103], "String buffer too small.\n");
    EXPECT_STREQ(_imsg_ks_msg_table.default_texts[71], "%s. host \"%s\", pid %d, user \"%s\"\n");
    EXPECT_EQ(_ks_ks_msg_table.count, 45);
    EXPECT_EQ(_ks_ks_msg_table.set, 9);
    EXPECT_STREQ(_ks_ks_msg_table.default_texts[8],
                 IMSG_STYLE_BOLD "This product is not installed correctly." IMSG_STYLE_BOLD_END "\n");
}

} // namespace
