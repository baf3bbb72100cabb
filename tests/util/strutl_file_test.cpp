// Whole files as strings, and lists of strings.
#include <korvaks/list.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>

#include "harness/child.h"

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace {

// Reads in a child, on the heap and in an area, and gives what both read or "errno n".
test::ChildResult read_in_child(const std::string &path, int quiet, int missing_ok)
{
    return test::run_child([&] {
        pfm_init(); // which opens descriptors of its own
        stg_area *area = stg_create_area(100);
        const int descriptors = test::open_descriptor_count();
        char *on_heap = strutl_read(STG_AREA_HEAP, path.c_str(), nullptr, quiet, missing_ok);
        const int error = errno;
        char *in_area = strutl_read(area, path.c_str(), nullptr, 1, missing_ok);
        EXPECT_STREQ(on_heap, in_area);
        EXPECT_EQ(test::open_descriptor_count(), descriptors);
        on_heap == nullptr ? std::printf("errno %d", error) : std::printf("%s", on_heap);
        stg_free(on_heap);
    });
}

TEST(StrutlFile, ReadsWhatIsThere)
{
    const test::TempDir dir;
    const std::string path = dir.file("f");
    for (const std::string &content : {std::string(), std::string("a\nb"), std::string(8192, 'x')}) {
        test::write_file(path, content);
        const test::ChildResult child = read_in_child(path, 0, 0);
        EXPECT_EQ(child.out, content);
        EXPECT_EQ(child.err, "");
    }
}

TEST(StrutlFile, ReadingFailsWithAMessage)
{
    const test::TempDir dir;
    const std::string missing = dir.file("missing");
    const struct {
        std::string path;
        int quiet;
        int missing_ok;
        int error;
        std::string message;
    } cases[] = {
        {missing, 0, 0, ENOENT, "Unable to open " + missing + ": No such file or directory\n"},
        {missing, 1, 0, ENOENT, ""},
        {missing, 0, 1, 0, ""},
        {dir.path(), 0, 0, EISDIR, "Operation read: Is a directory\n"},
        // Its size is 0 and yet it holds something: as a file that grows.
        {"/proc/self/status", 0, 0, EFBIG, "File \"/proc/self/status\" changed size during read.\n"},
    };
    for (const auto &c : cases) {
        const test::ChildResult child = read_in_child(c.path, c.quiet, c.missing_ok);
        EXPECT_EQ(child.out, c.error == 0 ? "" : "errno " + std::to_string(c.error));
        EXPECT_NE(child.err.find(c.message), std::string::npos) << child.err;
        EXPECT_EQ(child.err.empty(), c.message.empty()) << child.err;
    }
}

// "overflow:text"
std::string read_stream(std::string content, size_t hint)
{
    FILE *fp = fmemopen(content.data(), content.size(), "r");
    int overflow = 9;
    char *text = strutl_read_fp(STG_AREA_HEAP, hint, fp, 0, &overflow);
    std::fclose(fp);
    const std::string read = std::to_string(overflow) + ":" + text;
    stg_free(text);
    return read;
}

TEST(StrutlFile, StreamsWithAndWithoutAHint)
{
    const struct {
        std::string content;
        size_t hint;
        std::string read;
    } cases[] = {
        {"abc\nde", 8, "0:abc\nde"},
        {"abc\nde", 7, "1:abc\nde"},
        {"abc\nde", 4, "1:abc"},
        {"abc\nde", 1, "1:"},
        {std::string(50001, 'z'), 0, "0:" + std::string(50001, 'z')},
        {std::string("a\0b\nc\n", 6), 0, "0:ac\n"},
        {std::string("ab\0defgh\nc", 10), 6, "1:abfgh"}, // as fgets() cuts a line: "ab" of 5 bytes, then 3 more
    };
    for (const auto &c : cases)
        EXPECT_EQ(read_stream(c.content, c.hint), c.read);
}

TEST(StrutlFile, WritesAndReportsWhatFailed)
{
    const test::TempDir dir;
    const std::string path = dir.file("f");
    const std::string nowhere = dir.file("no/f");
    const test::ChildResult child = test::run_child([&] {
        EXPECT_EQ(strutl_write("old and longer", path.c_str(), nullptr, 0), 0U);
        EXPECT_EQ(strutl_write("line\n", path.c_str(), nullptr, 0), 0U);
        EXPECT_EQ(strutl_write(nullptr, nowhere.c_str(), nullptr, 0), 0U);
        EXPECT_EQ(strutl_write("x", nowhere.c_str(), nullptr, 0), 1U);
        EXPECT_EQ(strutl_write("x", nowhere.c_str(), nullptr, 1), 1U);
    });
    EXPECT_EQ(test::read_file(path), "line\n");
    EXPECT_EQ(child.err, "noname: Error: Unable to open " + nowhere + ": No such file or directory\n");
}

TEST(StrutlList, PrintsLinesAndFindsStrings)
{
    const test::ChildResult child = test::run_child([] {
        list_record *list = list_create(STG_AREA_HEAP, 0);
        char first[] = "one %d";
        char second[] = "two";
        list_append(list, first);
        list_append(list, second);
        strutl_list_print(list);
        strutl_list_print(nullptr);
        std::string text;
        strutl_list_trace_print_redirect(
            list, [](void *info, const char *piece) { *static_cast<std::string *>(info) += piece; }, &text);
        EXPECT_EQ(text, "one %d\ntwo\n\n");
        EXPECT_EQ(strutl_str_in_list("two", list), 1U);
        EXPECT_EQ(strutl_str_in_list("tw", list) + strutl_str_in_list("two", nullptr), 0U);
        list_destroy(list);
    });
    EXPECT_EQ(child.out, "one %d\ntwo\n\n");
}

} // namespace
