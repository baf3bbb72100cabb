// Message lists: the collected text, the sizes of both buffers, tags and captured lines, and what is
// done with a message that cannot be formatted.
#include <korvaks/imsg.h>
#include <korvaks/imsg_list.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "harness/child.h"

namespace {

TEST(ImsgList, GrowsInUnitsAndShrinksOnReset)
{
    imsg_list list;
    imsg_list_create(&list);
    EXPECT_EQ(list.one_msg_buf_size, 16384u);
    std::string text;
    constexpr struct {
        size_t length;
        uint32_t size; // behind it
    } steps[] = {{0, 512}, {511, 512}, {1, 1024}, {511, 1024}, {600, 2048}, {1, 2048}};
    EXPECT_EQ(imsg_list_add_str(&list, nullptr), 0);
    for (const auto &step : steps) {
        const std::string piece(step.length, static_cast<char>('a' + text.size() % 26));
        EXPECT_EQ(imsg_list_add_str(&list, piece.c_str()), 0);
        text += piece;
        EXPECT_EQ(list.list_buf_size, step.size) << text.size();
        EXPECT_EQ(list.used, text.size());
        EXPECT_EQ(imsg_list_get_buf(&list, nullptr), text);
    }
    EXPECT_EQ(imsg_list_add_str(&list, list.list_buf + 1000), 0); // its own text, through a move
    EXPECT_EQ(imsg_list_get_buf(&list, nullptr), text + text.substr(1000));
    imsg_list_reset(&list);
    char *fetched = nullptr;
    EXPECT_STREQ(imsg_list_get_buf(&list, &fetched), "");
    EXPECT_EQ(fetched, list.list_buf);
    EXPECT_EQ(list.list_buf_size, 512u);
    imsg_list_destroy(&list);
    EXPECT_TRUE(list.list_buf == nullptr && list.one_msg_buf == nullptr && list.list_buf_size == 0 && list.used == 0);
    imsg_list_destroy(nullptr);
}

TEST(ImsgList, AddsMessagesWhole)
{
    test::in_child([] {
        imsg_list list;
        imsg_list_create(&list);
        std::string expected;
        for (const size_t length : {size_t{0}, size_t{5}, size_t{16383}, size_t{16384}, size_t{20000}, size_t{20000}}) {
            const std::string text(length, 'm');
            const char *buffer = list.one_msg_buf;
            const bool fits = length + 1 < list.one_msg_buf_size; // the text, its "7" and a NUL
            EXPECT_EQ(imsg_list_add_msg(&list, "%s%d", IMSG_RAW, text.c_str(), 7), 0);
            expected += text + "7";
            EXPECT_EQ(imsg_list_get_buf(&list, nullptr), expected);
            EXPECT_EQ(list.one_msg_buf == buffer, fits) << length;
        }
        EXPECT_EQ(list.one_msg_buf_size, 20002u);
        EXPECT_EQ(imsg_list_add_msg(&list, &_ks_ks_msg_table, 2, "open", "no"), 0);
        EXPECT_EQ(imsg_list_get_buf(&list, nullptr), expected + "Operation open: no\n");
        imsg_list_destroy(&list);
    });
}

TEST(ImsgList, PrintsAndWritesItsText)
{
    const auto result = test::run_child([] {
        imsg_set_app_name("tool");
        imsg_list list;
        imsg_list_create(&list);
        (void)imsg_list_add_str(&list, "100%s\n");
        (void)imsg_list_add_str(&list, "two\n");
        const int printed = imsg_list_print(&list, IMSG_ERROR) + imsg_list_fprint(&list, stdout);
        return printed + imsg_list_fprint(&list, nullptr) + 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "tool: Error: 100%s\ntwo\n");
    EXPECT_EQ(result.out, "100%s\ntwo\n");
}

TEST(ImsgList, TagsByItsMode)
{
    const char *const expected[] = {"2:01 ", "1:00 ", "2:01 ", "3:11 ", "2:01 "}; // mode, tagged while off and on
    for (const int mode : {0, 1, 2, 3, 4}) {
        const auto result = test::run_child([mode] {
            imsg_list list;
            imsg_list_create_taggable(mode, &list);
            printf("%d:", list.tag_mode);
            const std::string text(20000, 'x'); // formatted twice
            for (const bool is_enabled : {false, true}) {
                imsg_list_reset(&list);
                if (is_enabled)
                    imsg_ate_enable_tagging();
                (void)imsg_list_add_msg(&list, &_ks_ks_msg_table, 2, text.c_str(), "end");
                printf("%d", std::strstr(list.list_buf, "TAG_ID:ks!!2!!") != nullptr ? 1 : 0);
                if (list.used < 20000 || list.used != std::strlen(list.list_buf))
                    return 1;
            }
            imsg_list_destroy(&list);
            return 0;
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out + " ", expected[mode]);
    }
}

// A format that the C library refuses (a wide character that the locale lacks), and a number that the
// table does not have.
TEST(ImsgList, GoesOnBehindBadMessages)
{
    const auto result = test::run_child([] {
        imsg_suppress_prefix(1);
        imsg_set_trace_subsys("ks/imsg");
        imsg_set_trace_verbosity(1);
        imsg_list list;
        imsg_list_create(&list);
        (void)imsg_list_add_msg(&list, "an older text", IMSG_RAW);
        printf("%d", imsg_list_add_msg(&list, "%ls", IMSG_RAW, L"\x4E00"));
        printf("%d %s", imsg_list_add_msg(&list, &_ks_ks_msg_table, 60000), list.list_buf);
        imsg_list_destroy(&list);
    });
    EXPECT_EQ(result.out, "-1-1 an older text");
    const std::string report = "error writing message to `one_msg_buf'. (sz: 16384).\n";
    EXPECT_TRUE(result.err.starts_with(report) && result.err.ends_with(report)) << result.err;
}

TEST(ImsgList, RefusesListsThatAreNone)
{
    const auto result = test::run_child([] {
        imsg_list list{};
        return imsg_list_add_msg(&list, "x", IMSG_RAW);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.err.find("(imsg_list_p->list_buf != NULL) failed: 'lib/ks/imsg'"), std::string::npos);
}

} // namespace
