// Report formats and message lists under exhaustion and raises: a growing buffer and a list always
// hold a whole text, and belong to their owner.
#include "harness/fault_sweep.h"

#include <korvaks/imsg.h>
#include <korvaks/imsg_list.h>
#include <korvaks/stg.h>
#include <korvaks/strfmt.h>

#include <cstdio>
#include <cstring>

namespace {

using test::fault::Call;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";

int render(void *, char *out, std::size_t space, const strfmt_directive *directive)
{
    const int length = std::snprintf(out, space, "%*s", directive->width, "value");
    return static_cast<std::size_t>(length) < space ? 0 : STRFMT_FULL;
}

TEST(FaultReport, GrowingBuffer)
{
    const std::string whole = "start" + std::string(2995, ' ') + "|" + std::string(399995, ' ') + "value";
    static char *text;
    const auto clear = [] { text = nullptr; };
    const auto free_text = [] { stg_free(text); };
    Operation("strfmt_gsprintf_fmt")
        .setup(clear)
        .act([] { return strfmt_gsprintf_fmt(&text, 2, "v", "start%[3001]t|%400000v", nullptr, render) == 0; })
        .gives([&] { return text == whole; })
        .keeps([&] { return text == nullptr || whole.starts_with(text); })
        .says(no_memory)
        .cleanup(free_text)
        .sweep();
    Operation("strfmt_gsprintf_fmt with a bad control string")
        .setup(clear)
        .act([] { (void)strfmt_gsprintf_fmt(&text, 2, "v", "start%5v% v", nullptr, render); })
        .check([](const Trial &) { return std::strcmp(text, "startvalue") == 0 ? nullptr : "not the text before it"; })
        .cleanup(free_text)
        .sweep_raises();
    std::string many;
    for (int i = 0; i < 600; ++i)
        many += "%5v";
    Operation("strfmt_gsprintf_fmt of many directives")
        .setup(clear)
        .act([&] { (void)strfmt_gsprintf_fmt(&text, 2, "v", many.c_str(), nullptr, render); })
        .check([](const Trial &trial) {
            const long steps = trial.raised == 0 ? 600 : 256 * trial.plan.nth - 1;
            return std::strlen(text) == 5 * static_cast<std::size_t>(steps) ? nullptr : "not the text up to there";
        })
        .cleanup(free_text)
        .sweep_raises();
}

imsg_list list{};

Operation on_list(const char *name, const std::string &content)
{
    return Operation(name)
        .setup([content] {
            imsg_list_create(&list);
            (void)imsg_list_add_str(&list, content.c_str());
        })
        .cleanup([] { imsg_list_destroy(&list); });
}

TEST(FaultMessageList, CreateAndReset)
{
    on_list("imsg_list_create", "")
        .setup([] { list = {}; })
        .act([] { imsg_list_create(&list); })
        .gives([] { return list.list_buf != nullptr; })
        .ends({{Call::allocation, "PFM_ASSERT:(imsg_list_p->one_msg_buf != NULL) failed: 'lib/ks/imsg':#\n"},
               {Call::allocation, "PFM_ASSERT:(imsg_list_p->list_buf != NULL) failed: 'lib/ks/imsg':#\n"}})
        .sweep();
    on_list("imsg_list_reset", std::string(1000, 'x'))
        .act([] { imsg_list_reset(&list); })
        .gives([](const Trial &trial) {
            return list.used == 0 && *list.list_buf == '\0' && list.list_buf_size == (trial.fired ? 1024u : 512u);
        })
        .sweep();
}

TEST(FaultMessageList, Add)
{
    constexpr unsigned raw = static_cast<unsigned>(IMSG_RAW_FORMAT);
    const std::string message(20000, 'm');
    int result = 0;
    const auto is_what_results_say = [&](const Trial &) {
        std::string expected = "before ";
        for (int added = 0; added < 2 + result; ++added) // each failure is -1
            expected += message;
        return expected == list.list_buf && expected.size() == list.used ? nullptr : "not what the results say";
    };
    on_list("imsg_list_add_msg, imsg_list_add_str", "before ")
        .act([&] {
            result = imsg_list_add_msg(&list, "%s", raw, message.c_str());
            result += imsg_list_add_str(&list, message.c_str());
            return result == 0;
        })
        .check(is_what_results_say)
        .says(no_memory)
        .sweep();
    on_list("imsg_list_add_msg with a wrong number, imsg_list_print", "before ")
        .act([] {
            (void)imsg_list_add_msg(&list, &_ks_ks_msg_table, 60000);
            (void)imsg_list_print(&list, 6);
        })
        .check([](const Trial &) { return std::strcmp(list.list_buf, "before ") == 0 ? nullptr : "not as it was"; })
        .sweep_raises();
}

} // namespace
