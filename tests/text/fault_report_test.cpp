// Report formats and message lists under exhaustion and raises: a growing buffer and a list always
// hold a whole text, and belong to their owner.
#include "harness/fault_sweep.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_list.h>
#include <korvaks/stg.h>
#include <korvaks/strfmt.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";
constexpr unsigned raw = static_cast<unsigned>(IMSG_RAW_FORMAT);

char *text = nullptr;
int result = 0;

int render(void *, char *out, size_t space, const strfmt_directive *directive)
{
    const int length = std::snprintf(out, space, "%*s", directive->width, "value");
    return static_cast<size_t>(length) < space ? 0 : STRFMT_FULL;
}

TEST(FaultReport, GrowingBuffer)
{
    static const std::string whole = "start" + std::string(2995, ' ') + "|" + std::string(399995, ' ') + "value";
    test::fault::sweep({
        .name = "strfmt_gsprintf_fmt",
        .setup = [] { text = nullptr; },
        .act = [] { result = strfmt_gsprintf_fmt(&text, 2, "v", "start%[3001]t|%400000v", nullptr, render); },
        .check = [](const Trial &trial) -> const char * {
            if (result == 0)
                return text == whole ? nullptr : "not the text";
            if (!trial.fired || !has_said(no_memory))
                return "refused without a cause, or in silence";
            return text == nullptr || whole.compare(0, std::strlen(text), text) == 0 ? nullptr : "not what fitted";
        },
        .cleanup = [] { stg_free(text); },
    });
    test::fault::sweep_raises({
        .name = "strfmt_gsprintf_fmt with a bad control string",
        .setup = [] { text = nullptr; },
        .act = [] { result = strfmt_gsprintf_fmt(&text, 2, "v", "start%5v% v", nullptr, render); },
        .check =
            [](const Trial &) { return std::strcmp(text, "startvalue") == 0 ? nullptr : "not the text before it"; },
        .cleanup = [] { stg_free(text); },
    });
    static char fixed[8];
    test::fault::sweep_raises({
        .name = "strfmt_gsprintf into a small buffer",
        .act = [] { result = strfmt_gsprintf(fixed, sizeof fixed, "v", "start%5v", nullptr, render); },
        .check = [](const Trial &) { return std::strcmp(fixed, "startva") == 0 ? nullptr : "not what fits"; },
    });
}

imsg_list list{};

TEST(FaultMessageList, CreateAndReset)
{
    test::fault::sweep({
        .name = "imsg_list_create",
        .setup = [] { list = {}; },
        .act = [] { imsg_list_create(&list); },
        .check = [](const Trial &) { return list.list_buf != nullptr ? nullptr : "not made"; },
        .cleanup = [] { imsg_list_destroy(&list); },
        .ends = {{Call::allocation, "PFM_ASSERT:(imsg_list_p->one_msg_buf != NULL) failed: 'lib/ks/imsg':#\n"},
                 {Call::allocation, "PFM_ASSERT:(imsg_list_p->list_buf != NULL) failed: 'lib/ks/imsg':#\n"}},
    });
    test::fault::sweep({
        .name = "imsg_list_reset",
        .setup =
            [] {
                imsg_list_create(&list);
                (void)imsg_list_add_str(&list, std::string(1000, 'x').c_str());
            },
        .act = [] { imsg_list_reset(&list); },
        .check = [](const Trial &trial) -> const char * {
            const bool is_empty = list.used == 0 && *list.list_buf == '\0';
            return is_empty && list.list_buf_size == (trial.fired ? 1024u : 512u) ? nullptr : "not empty, or lost";
        },
        .cleanup = [] { imsg_list_destroy(&list); },
    });
}

TEST(FaultMessageList, Add)
{
    static const std::string message(20000, 'm');
    const Scenario adding{
        .name = "imsg_list_add_msg, imsg_list_add_str",
        .setup =
            [] {
                imsg_list_create(&list);
                (void)imsg_list_add_str(&list, "before ");
            },
        .act =
            [] {
                result = imsg_list_add_msg(&list, "%s", raw, message.c_str());
                result += imsg_list_add_str(&list, message.c_str());
            },
        .check = [](const Trial &trial) -> const char * {
            std::string expected = "before ";
            for (int added = 0; added < 2 + result; ++added) // each failure is -1
                expected += message;
            if (expected != list.list_buf || expected.size() != list.used)
                return "the text is not what the results say";
            return result == 0 || (trial.fired && has_said(no_memory)) ? nullptr : "refused without a cause";
        },
        .cleanup = [] { imsg_list_destroy(&list); },
    };
    test::fault::sweep(adding);
    test::fault::sweep_raises({
        .name = "imsg_list_add_msg with a wrong number, imsg_list_print",
        .setup = adding.setup,
        .act =
            [] {
                result = imsg_list_add_msg(&list, &_ks_ks_msg_table, 60000);
                result = imsg_list_print(&list, 6);
            },
        .check = [](const Trial &) { return std::strcmp(list.list_buf, "before ") == 0 ? nullptr : "not as it was"; },
        .cleanup = adding.cleanup,
    });
}

} // namespace
