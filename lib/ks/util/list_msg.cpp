// The messages of lists.
#include "util/list_msg.h"

#include "base/msg_table.h"

#include <korvaks/list.h>

namespace {

constexpr ks::MsgRow rows[] = {
    {list_msg_null_storage, 1, "Storage allocation returned null pointer, file %s, line %d.\n"},
    {list_msg_too_many_attrs, 2, "Attempt to store %d attribute bytes in list providing %d bytes.\n"},
    {list_msg_no_storage, 3, "Unable to allocate storage\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 2;

} // namespace

extern "C" constinit const msg_table _list_ks_msg_table = ks::make_table("ks/list", catalog_set, columns);
