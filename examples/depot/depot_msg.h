// What veldepot says: its message table, and the messages by event.
#pragma once

#include <korvaks/imsg.h>

extern "C" const msg_table _depot_ks_msg_table;

namespace depot {

enum Msg : unsigned {
    msg_usage = 0,
    msg_no_directory,
    msg_unknown_command, // word
    msg_bad_word,        // what is wrong, word
    msg_option_needs,    // option letter
    msg_too_few_words,   // command
    msg_too_many_words,  // command, first word too many
    msg_bad_name,        // name, most bytes
    msg_no_depot,        // directory, error text
    msg_cannot_read,     // name, error text
    msg_cannot_write,    // name, error text
    msg_cannot_remove,   // name, error text
    msg_not_plain,       // name
    msg_too_big,         // name
    msg_exists,          // name
    msg_no_entry,        // name
    msg_not_an_entry,    // name
    msg_unknown_version, // name
    msg_bad_header,      // name
    msg_bad_size,        // name
    msg_bad_block,       // name
    msg_bad_content,     // name
    msg_foreign,         // name
    msg_stored,          // name, bytes, stored bytes
    msg_fetched,         // name, file
    msg_removed,         // name
    msg_verified,        // sound entries, entries
    msg_list_name,       // heading of the first column
    msg_list_head,       // the above, padded
    msg_list_row,        // name, padded; bytes, stored bytes, checksum
    msg_list_entries,    // entries
    msg_list_total,      // the above, padded; bytes, stored bytes
    msg_count
};

} // namespace depot
