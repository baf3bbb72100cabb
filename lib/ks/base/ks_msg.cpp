// Message table of the library at large: texts that several modules share.
#include "base/ks_msg.h"

#include "base/msg_table.h"

namespace {

constexpr ks::MsgRow rows[] = {
    {ks_msg_operation, 3, "Operation %s: %s\n"},
    {ks_msg_operation_on, 4, "Operation %s, %s: %s\n"},
    {ks_msg_unable_to_open, 5, "Unable to open %s: %s\n"},
    {ks_msg_not_installed, 9, "\001\0011BThis product is not installed correctly.\001\0010B\n"},
    {ks_msg_no_hostdata_dir, 10, "Can't find host data directory, tried: \"%s\".\n"},
    {ks_msg_bad_format_number, 14, "Bad format number for \"%s\"\n"},
    {ks_msg_no_storage, 16, "Unable to allocate storage.\n"},
    {ks_msg_cl_bad_option, 20, "Bad option"},
    {ks_msg_cl_conflicting_option, 21, "Duplicate or conflicting option"},
    {ks_msg_cl_bad_argument, 22, "Bad argument"},
    {ks_msg_cl_unknown_error, 23, "Unknown error"},
    {ks_msg_out_of_memory, 24, "Out of memory"},
    {ks_msg_hash_unexpected_error, 25, "Unexpected error in hash package.\n"},
    {ks_msg_hash_copied_key_leak, 26, "hash_str_free on a hash table with copied keys. Memory leak.\n"},
    {ks_msg_application_will_exit, 28, "The application will exit ... "},
    {ks_msg_file_changed_size, 34, "File \"%s\" changed size during read.\n"},
    {ks_msg_pipe_failed, 35, "Unable to create pipe to subprocess:  %s\n"},
    {ks_msg_fork_failed, 37, "Unable to create new process, fork() failed:  %s\n"},
};
constexpr auto columns = ks::split_sparse_rows<ks_msg_count>(rows);
constexpr std::uint16_t catalog_set = 9;

} // namespace

extern "C" constinit const msg_table _ks_ks_msg_table = ks::make_table("ks", catalog_set, columns);
