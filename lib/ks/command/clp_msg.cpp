// The texts of the subsystem "ks/clp".
#include "command/clp_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {clp_msg_nested_groups, 1, "Bad flag descriptors - cannot have nested CLP_START_MUTUAL_EXCLUSIONs\n"},
    {clp_msg_end_without_start, 2,
     "Bad flag descriptors - CLP_END_MUTUAL_EXCLUSION without matching CLP_START_MUTUAL_EXCLUSION\n"},
    {clp_msg_same_value, 3,
     "Bad flag descriptors: \"%s\" and \"%s\" have the same value. Define one as CLP_ALIAS_FLAG\n"},
    {clp_msg_alias_of_nothing, 4,
     "Bad flag descriptors - alias flag \"%s\" defined without a non-alias flag with the same value\n"},
    {clp_msg_unterminated_quote, 5, "Bad command line: unterminated quoted string\n"},
    {clp_msg_duplicate_flag, 6, "Illegal duplicate use of flag \"%s\"\n"},
    {clp_msg_exclusive_flags, 7, "Illegal use of mutually exclusive flags \"%s\" and \"%s\"\n"},
    {clp_msg_bad_magic, 8, "BAD MAGIC: Command line parsing handle\n"},
    {clp_msg_null_handle, 9, "NULL HANDLE: Command line parsing handle\n"},
    {clp_msg_null_flags, 10, "BAD FLAGS PTR: Command line parsing handle\n"},
    {clp_msg_null_constraints, 11, "BAD CONSTRAINTS PTR: Command line parsing handle\n"},
    {clp_msg_null_argv, 12, "BAD ARGV PTR: Command line parsing handle\n"},
    {clp_msg_null_word, 13, "BAD ARGV ARRAY: Command line parsing handle\n"},
    {clp_msg_no_area_for_switch, 14, "NULL STORAGE AREA: Cannot switch parsing flags\n"},
    {clp_msg_unrecognized_option, 15, "Unrecognized option \"%s\"\n"},
    {clp_msg_obsolete_name, 16, "Obsolete command or flag: \"%s\"\n"},
    {clp_msg_obsolete_syntax, 17, "Obsolete syntax was used.\n"},
    {clp_msg_token_too_long, 18, "Token buffer overflow, max size is %d.\n"},
};
constexpr auto columns = ks::split_rows(rows);
constexpr std::uint16_t catalog_set = 11;

} // namespace

extern "C" constinit const msg_table _clp_ks_msg_table = ks::make_table("ks/clp", catalog_set, columns);
