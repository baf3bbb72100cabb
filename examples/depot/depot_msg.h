// What veldepot says: its message table, and the messages by event.
#pragma once

#include <korvaks/imsg.h>

extern "C" const msg_table _depot_ks_msg_table;

namespace depot {

enum Msg : unsigned {
    // Errors of the command line.
    msg_no_directory = 0,
    msg_no_server,
    msg_two_depots,      // server
    msg_unknown_command, // word, the commands
    msg_unknown_flag,    // word
    msg_flag_needs,      // flag, its argument
    msg_too_few_words,   // command
    msg_too_many_words,  // command, first word too many
    msg_long_comment,    // most bytes
    msg_bad_date,        // word
    msg_bad_pattern,     // pattern
    msg_bad_format,      // the conversions there are
    msg_same_name,       // two paths
    msg_one_name,        // second path
    msg_stdin_needs_name,
    msg_one_out,    // its argument
    msg_bad_number, // word, least, most
    msg_bad_target, // word

    // Errors of the work.
    msg_bad_name,      // name
    msg_no_owner,      // error text
    msg_no_depot,      // directory, error text
    msg_no_new_depot,  // directory, error text
    msg_cannot_read,   // name, error text
    msg_cannot_write,  // name, error text
    msg_cannot_remove, // name, error text
    msg_not_plain,     // name
    msg_changed,       // name
    msg_no_memory,     // name
    msg_output_lost,
    msg_not_synced,         // name, error text
    msg_removal_not_synced, // name, error text
    msg_exists,             // name
    msg_entry_exists,       // name
    msg_no_entry,           // name
    msg_no_match,           // pattern
    msg_not_an_entry,       // name
    msg_unknown_version,    // name
    msg_bad_header,         // name
    msg_bad_size,           // name
    msg_bad_block,          // name
    msg_bad_content,        // name
    msg_foreign,            // name
    msg_no_host,            // host, error text
    msg_ping_unanswered,    // host and port, transport
    msg_cannot_reach,       // host and port, error text
    msg_cannot_ask,         // host and port, error text

    // What servers of depots answer beside those.
    msg_bad_transfer,     // name
    msg_put_unknown,      // name
    msg_put_out_of_order, // name
    msg_too_many_puts,    // name
    msg_needs_connection, // name
    msg_replaced,         // name
    msg_busy,             // name
    msg_not_owner,        // name
    msg_no_identity,      // whose, error text
    msg_unknown_failure,  // name

    // What was done.
    msg_stored,   // name, bytes, stored bytes
    msg_fetched,  // name, file
    msg_removed,  // name
    msg_verified, // sound entries, entries
    msg_version,  // of the program
    msg_progress, // name, MiB
    msg_progress_end,
    msg_output, // the name of standard output

    // What came of a call: transport, address, and
    msg_ping_answered,   // milliseconds
    msg_ping_timed_out,  // nothing more
    msg_ping_refused,    // nothing more
    msg_ping_no_program, // program
    msg_ping_no_version, // version, lowest, highest
    msg_ping_denied,     // one of those that follow
    msg_ping_failed,     // error text

    // Why a call is denied.
    msg_denied_credential,
    msg_denied_refused,
    msg_denied_verifier,
    msg_denied_discard,
    msg_denied_weak,
    msg_denied_reply,
    msg_denied_unsaid,
    msg_denied_number, // number of the reason
    msg_call_denied,   // one of those

    // What a server counts, and the line in which it is shown.
    msg_counter, // a number, what is counted
    msg_counter_uptime,
    msg_counter_open,
    msg_counter_accepted,
    msg_counter_refused,
    msg_counter_idled,
    msg_counter_pauses,
    msg_counter_dead,
    msg_counter_bad_records,
    msg_counter_calls,
    msg_counter_succeeded,
    msg_counter_no_program,
    msg_counter_bad_version,
    msg_counter_no_procedure,
    msg_counter_bad_arguments,
    msg_counter_failed,
    msg_counter_denied,
    msg_counter_abandoned,
    msg_counter_queued,
    msg_counter_workers,
    msg_counter_busy,
    msg_counter_puts,
    msg_counter_repeated,
    msg_counter_dropped,
    msg_counter_remembered,

    // Who somebody is.
    msg_who_user,         // name
    msg_who_group,        // name
    msg_who_groups,       // names
    msg_who_host,         // domain, host
    msg_who_believed,     // claimed name
    msg_who_not_believed, // claimed name

    // Questions.
    msg_ask_replace_entry, // name
    msg_ask_replace_file,  // name
    msg_ask_remove,        // name

    // The list. A value without text, as an old entry's owner, is shown as msg_unknown.
    msg_text,         // any text, as it is
    msg_list_total,   // entries
    msg_list_comment, // a line of a comment
    msg_unknown,
    msg_bytes,    // a number
    msg_checksum, // a number
    msg_percent,  // a number
    msg_seconds,  // a time that the calendar does not have
    msg_head_name,
    msg_head_size,
    msg_head_stored,
    msg_head_ratio,
    msg_head_checksum,
    msg_head_date,
    msg_head_changed,
    msg_head_owner,
    msg_head_comment,

    // Help. Those without a comment have no arguments.
    msg_usage, // a usage line
    msg_help_about,
    msg_help_commands, // heading
    msg_help_flags,    // heading
    msg_help_row,      // name, padded; meaning
    msg_help_notation,
    msg_help_general,
    msg_argument_command,
    msg_argument_put,
    msg_argument_get,
    msg_argument_list,
    msg_argument_verify,
    msg_argument_remove,
    msg_argument_ping,
    msg_argument_help,
    msg_summary_put,
    msg_summary_get,
    msg_summary_list,
    msg_summary_verify,
    msg_summary_remove,
    msg_summary_status,
    msg_summary_whoami,
    msg_summary_ping,
    msg_summary_help,
    msg_notes_put,
    msg_notes_get,
    msg_notes_list,
    msg_notes_verify,
    msg_notes_remove,
    msg_notes_status,
    msg_notes_whoami,
    msg_notes_ping,
    msg_notes_help,
    msg_argument_depot,
    msg_argument_server,
    msg_argument_name,
    msg_argument_comment,
    msg_argument_out,
    msg_argument_format,
    msg_argument_since,
    msg_argument_number,
    msg_argument_seconds,
    msg_flag_depot,
    msg_flag_server,
    msg_flag_help,
    msg_flag_version,
    msg_flag_name,
    msg_flag_comment,
    msg_flag_replace,
    msg_flag_keep,
    msg_flag_out,
    msg_flag_force,
    msg_flag_long,
    msg_flag_short,
    msg_flag_format,
    msg_flag_nul,
    msg_flag_since,
    msg_flag_yes,
    msg_flag_program,
    msg_flag_program_version,
    msg_flag_tcp,
    msg_flag_udp,
    msg_flag_timeout,
    msg_help_format,
    msg_format_name,
    msg_format_size,
    msg_format_stored,
    msg_format_ratio,
    msg_format_checksum,
    msg_format_date,
    msg_format_changed,
    msg_format_owner,
    msg_format_comment,
    msg_format_column,
    msg_format_notes,
    msg_help_dates, // the traditional grammar

    msg_count,
    msg_none = msg_count // where there may be a message and is none
};

} // namespace depot
