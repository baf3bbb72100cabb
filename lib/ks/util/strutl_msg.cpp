// The texts of the subsystem "ks/strutl".
#include "util/strutl_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {strutl_msg_bad_format, 1, "Bad format in control string at or near \"%s\".\n"},
    {strutl_msg_buffer_too_small, 2, "Supplied buffer too small.\n"},
    {strutl_msg_no_memory, 3, "No memory available for storage allocation.\n"},
    {strutl_msg_null_string, 4, "The string to be converted is null.\n"},
    {strutl_msg_invalid_character, 5, "Invalid multibyte character: %s\n"},
    {strutl_msg_to_wide_failed, 6, "Error converting string to wide char string: %s\n"},
    {strutl_msg_to_narrow_failed, 7, "Error converting wide char string to string.\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 8;

} // namespace

extern "C" constinit const msg_table _strutl_ks_msg_table = ks::make_table("ks/strutl", catalog_set, columns);
