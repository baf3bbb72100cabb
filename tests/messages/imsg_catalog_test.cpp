// Texts from message catalogues, compiled here with the system's gencat.
#include "harness/child.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

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
    const std::pair<const char *, bool> cases[] = {
        {"%d %ld\\n", true},    {"%5d<%-3ld>\\n", true}, {"%i %li\\n", true},   {"%d\\n", false},
        {"%ld %d\\n", false},   {"%d %ld %s\\n", false}, {"%*d %ld\\n", false}, {"%.*d %ld\\n", false},
        {"%1$d %2$ld", false},  {"%d %n\\n", false},     {"%s %ld\\n", false},  {"%d %ld %", false},
        {"%hhd %ld\\n", false}, {"%d %ld %%n\\n", true}, {"%d %lld\\n", false}, {"none\\n", false},
    };
    for (const auto &[text, is_used] : cases) {
        SCOPED_TRACE(text);
        const test::TempDir dir;
        compile(dir, "t", std::string("$set 7\n$quote \"\n2 \"new ") + text + "\"\n");
        const auto result = run_with_catalogs(dir, [] {
            const msg_table table = table_of("t");
            imsg_print(0, &table, 1, 3, 4L);
            return imsg_print(0, &table, 1, 3, 4L); // the answer is remembered
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out.substr(0, 4), is_used ? "new " : "one ");
        EXPECT_EQ(result.out.substr(0, result.out.size() / 2), result.out.substr(result.out.size() / 2));
    }
    const test::TempDir dir;
    compile(dir, "t", "$set 7\n$quote \"\n1 \"wide %ls\\n\"\n");
    const auto result = run_with_catalogs(dir, [] {
        const msg_table table = table_of("t");
        return imsg_print(0, &table, 0, "narrow");
    });
    EXPECT_EQ(result.out, "zero narrow\n");
}

// Only so many catalogues stay open; all of them go on being found, and none is leaked.
TEST(ImsgCatalog, MoreCataloguesThanStayOpen)
{
    const test::TempDir dir;
    const std::vector<std::string> names = {"a", "b", "c", "d", "e", "f", "g"};
    for (const std::string &name : names)
        compile(dir, name, "$set 7\n$quote \"\n3 \"of " + name + "\\n\"\n");
    std::string expected;
    for (int round = 0; round < 3; ++round) {
        for (const std::string &name : names)
            expected += "of " + name + "\n" + "two\n";
    }
    const auto result = run_with_catalogs(dir, [&] {
        for (int round = 0; round < 3; ++round) {
            for (const std::string &name : names) {
                const msg_table table = table_of(name.c_str());
                imsg_print(0, &table, 2);
                const msg_table missing = table_of("missing");
                imsg_print(0, &missing, 2);
            }
        }
        const std::string maps = test::read_file("/proc/self/maps");
        int still_open = 0;
        for (size_t at = maps.find(".cat"); at != std::string::npos; at = maps.find(".cat", at + 1))
            ++still_open;
        return still_open; // one of the five slots is taken by the missing one
    });
    EXPECT_EQ(result.exit_status, 4);
    EXPECT_EQ(result.out, expected);
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
