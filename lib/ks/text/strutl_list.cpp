// Lists of strings: printing and looking up.
#include "util/strutl_impl.h"

#include "base/msg_port.h"

#include <korvaks/imsg.h>
#include <korvaks/list.h>

namespace {

constexpr unsigned literal_format = static_cast<unsigned>(-1);

const char *text_of(const list_element *element)
{
    return static_cast<const char *>(element->data);
}

// The empty line that ends the list carries no head.
void print_lines(const list_record *list, ks::MsgKind kind, ks::MsgKind kind_more)
{
    if (list == nullptr)
        return;
    for (const list_element *at = list->first; at != nullptr; at = at->next)
        (void)imsg_print_shared(kind, nullptr, "%s\n", literal_format, text_of(at));
    (void)imsg_print_shared(kind_more, nullptr, "\n", literal_format);
}

} // namespace

extern "C" {

void strutl_list_print(const list_record *list)
{
    print_lines(list, ks::msg_output, ks::msg_output_more);
}

void strutl_list_trace_print(const list_record *list)
{
    print_lines(list, ks::msg_trace, ks::msg_trace_more);
}

void strutl_list_trace_print_redirect(const list_record *list, strutl_print_fn print, void *info)
{
    if (list == nullptr)
        return;
    for (const list_element *at = list->first; at != nullptr; at = at->next) {
        print(info, text_of(at));
        print(info, "\n");
    }
    print(info, "\n");
}

unsigned strutl_str_in_list(const char *str, const list_record *list)
{
    if (list == nullptr)
        return 0;
    for (const list_element *at = list->first; at != nullptr; at = at->next) {
        if (std::strcmp(text_of(at), str) == 0)
            return 1;
    }
    return 0;
}
}
