#include "depot_msg.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace depot {

// Not constexpr on purpose: reaching it in a constant expression is the compile error.
void rows_are_not_in_order();

namespace {

struct Row {
    Msg number;
    const char *text;
};

constexpr Row rows[] = {
    {msg_no_directory, "No depot: give its directory with -d or in VELDEPOT_DIR, or a server with -se or in "
                       "VELDEPOT_SERVER.\n"},
    {msg_no_server, "No server: give one with -se or in VELDEPOT_SERVER.\n"},
    {msg_two_depots, "Two depots: a directory with -d, and that of server \"%s\"; give one of them.\n"},
    {msg_unknown_command, "Unknown command \"%s\"; there are %s.\n"},
    {msg_unknown_flag, "Unknown flag \"%s\"; a name that begins with \"-\" stands behind \"--\".\n"},
    {msg_flag_needs, "Flag \"%s\" needs an argument, %s.\n"},
    {msg_too_few_words, "Too few arguments for \"%s\".\n"},
    {msg_too_many_words, "Too many arguments for \"%s\": \"%s\".\n"},
    {msg_long_comment, "The comment is too long: it may have %d bytes.\n"},
    {msg_bad_date, "\"%s\" is no date; write it like yesterday, 05-Mar-24.14:03 or 2024-03-05T14:03.\n"},
    {msg_bad_pattern, "Bad pattern \"%s\": a \"[\" and a \"]\" belong together, or stand behind a backslash.\n"},
    {msg_bad_format, "A format may hold %sand %%[column]t; see \"veldepot help list\".\n"},
    {msg_same_name, "Two files of one name: \"%s\" and \"%s\"; nothing was stored.\n"},
    {msg_one_name, "With -name one file is stored: \"%s\" is one too many.\n"},
    {msg_stdin_needs_name, "\"%s\" is standard input, whose entry needs a -name; a file of that name is ./-.\n"},
    {msg_one_out, "With -out one entry is fetched; nothing was written to \"%s\".\n"},
    {msg_bad_number, "\"%s\" is no number from %u to %u.\n"},
    {msg_bad_target, "\"%s\" is no HOST:PORT; a port is 1 to 65535, an IPv6 address stands in brackets: [::1]:4711.\n"},

    {msg_bad_name, "\"%s\" cannot name an entry: a name has 1 to 251 bytes, no \"/\", and is not \".\" or \"..\".\n"},
    {msg_no_owner, "Unable to find your name: %s\n"},
    {msg_no_depot, "Unable to open depot \"%s\": %s\n"},
    {msg_no_new_depot, "Unable to make depot \"%s\": %s\n"},
    {msg_cannot_read, "Unable to read \"%s\": %s\n"},
    {msg_cannot_write, "Unable to write \"%s\": %s\n"},
    {msg_cannot_remove, "Unable to remove \"%s\": %s\n"},
    {msg_not_plain, "\"%s\" is not a plain file.\n"},
    {msg_changed, "\"%s\" changed while it was read, and was not stored.\n"},
    {msg_no_memory, "Not enough memory for \"%s\".\n"},
    {msg_output_lost, "Unable to write to standard output: something is missing there.\n"},
    {msg_not_synced, "\"%s\" is in place, but may not outlast a crash of the system: %s\n"},
    {msg_removal_not_synced, "\"%s\" is removed, but may be back after a crash of the system: %s\n"},
    {msg_exists, "\"%s\" exists; use -f to replace it.\n"},
    {msg_entry_exists, "Entry \"%s\" exists and was not replaced.\n"},
    {msg_no_entry, "No entry \"%s\" in the depot.\n"},
    {msg_no_match, "No entry matches \"%s\".\n"},
    {msg_not_an_entry, "\"%s\" is in an entry's place and is none.\n"},
    {msg_unknown_version, "Entry \"%s\" was written by a newer program.\n"},
    {msg_bad_header, "Entry \"%s\" is damaged: its header does not match its checksum.\n"},
    {msg_bad_size, "Entry \"%s\" is damaged: it has lost or gained bytes.\n"},
    {msg_bad_block, "Entry \"%s\" is damaged: its compressed bytes do not match their checksum.\n"},
    {msg_bad_content, "Entry \"%s\" is damaged: its content does not match its checksum.\n"},
    {msg_foreign, "\"%s\" in the depot's directory is not part of the depot.\n"},
    {msg_no_host, "Unable to find host \"%s\": %s\n"},
    {msg_ping_unanswered, "Unable to call \"%s\" over %s.\n"},
    {msg_cannot_reach, "Unable to reach server \"%s\": %s\n"},
    {msg_cannot_ask, "Unable to get an answer from server \"%s\": %s\n"},

    {msg_bad_transfer, "\"%s\" was damaged or cut on its way, and was not taken.\n"},
    {msg_put_unknown, "The server knows no more of storing \"%s\": it was started anew, or waited for too long.\n"},
    {msg_put_out_of_order, "Something of \"%s\" got lost on its way, and it was not stored.\n"},
    {msg_too_many_puts, "The server stores too many files at once, and did not take \"%s\".\n"},
    {msg_needs_connection, "\"%s\" may be too much for a datagram: ask for it over TCP.\n"},
    {msg_replaced, "Entry \"%s\" was replaced while it was fetched; try again.\n"},
    {msg_busy, "The server is too busy to give \"%s\".\n"},
    {msg_not_owner, "Entry \"%s\" is another's: only its owner may replace or remove it.\n"},
    {msg_no_identity, "Unable to tell who %s is: %s\n"},
    {msg_unknown_failure, "The server failed with \"%s\" in a way that this program does not know.\n"},

    {msg_stored, "Stored \"%s\": %llu bytes in %llu.\n"},
    {msg_fetched, "Fetched \"%s\" into \"%s\".\n"},
    {msg_removed, "Removed \"%s\".\n"},
    {msg_verified, "%lu of %lu entries are sound.\n"},
    {msg_version, "veldepot %s\n"},
    {msg_progress, "\r%s %8llu MiB "},
    {msg_progress_end, "\r                                                       \r"},
    {msg_output, "standard output"},

    {msg_ping_answered, "%s %s: answered in %.1f ms\n"},
    {msg_ping_timed_out, "%s %s: timed out\n"},
    {msg_ping_refused, "%s %s: refused\n"},
    {msg_ping_no_program, "%s %s: program %u is not served\n"},
    {msg_ping_no_version, "%s %s: version %u is not served, but %u to %u\n"},
    {msg_ping_denied, "%s %s: denied, %s\n"},
    {msg_ping_failed, "%s %s: %s\n"},

    {msg_denied_credential, "bad credential"},
    {msg_denied_refused, "credential refused"},
    {msg_denied_verifier, "bad verifier"},
    {msg_denied_discard, "verifier refused"},
    {msg_denied_weak, "credential too weak"},
    {msg_denied_reply, "the reply has a bad verifier"},
    {msg_denied_unsaid, "no reason given"},
    {msg_denied_number, "reason %u"},
    {msg_call_denied, "denied, %s"},

    {msg_counter, "%12llu  %s\n"},
    {msg_counter_uptime, "seconds since it was started"},
    {msg_counter_open, "connections open now"},
    {msg_counter_accepted, "connections accepted"},
    {msg_counter_refused, "connections refused for want of memory or room"},
    {msg_counter_idled, "connections closed because they were idle"},
    {msg_counter_pauses, "times that a listener waited for a free descriptor"},
    {msg_counter_dead, "connections ended because the peer was silent or did not read"},
    {msg_counter_bad_records, "records and datagrams that held no call or were too long"},
    {msg_counter_calls, "calls"},
    {msg_counter_succeeded, "calls that were answered"},
    {msg_counter_no_program, "calls for another program"},
    {msg_counter_bad_version, "calls for another version"},
    {msg_counter_no_procedure, "calls for no procedure"},
    {msg_counter_bad_arguments, "calls with bad arguments"},
    {msg_counter_failed, "calls that the server failed in"},
    {msg_counter_denied, "calls denied for their credential"},
    {msg_counter_abandoned, "calls whose procedure was left in its middle"},
    {msg_counter_queued, "connections that wait for a worker now"},
    {msg_counter_workers, "workers"},
    {msg_counter_busy, "workers busy now"},
    {msg_counter_puts, "files being stored now"},
    {msg_counter_repeated, "calls that came again and were answered as before"},
    {msg_counter_dropped, "calls that came again and were dropped"},
    {msg_counter_remembered, "callers whose last call is remembered now"},

    {msg_who_user, "user    %s\n"},
    {msg_who_group, "group   %s\n"},
    {msg_who_groups, "groups  %s\n"},
    {msg_who_host, "host    %s/%s\n"},
    {msg_who_believed, "claim   %s, believed\n"},
    {msg_who_not_believed, "claim   %s, not believed\n"},

    {msg_ask_replace_entry, "Replace entry \"%s\"?"},
    {msg_ask_replace_file, "Replace file \"%s\"?"},
    {msg_ask_remove, "Remove entry \"%s\"?"},

    {msg_text, "%s"},
    {msg_list_total, "%lu in all"},
    {msg_list_comment, "    %s\n"},
    {msg_unknown, "-"},
    {msg_bytes, "%llu"},
    {msg_checksum, "%08x"},
    {msg_percent, "%u%%"},
    {msg_seconds, "@%lld"},
    {msg_head_name, "NAME"},
    {msg_head_size, "SIZE"},
    {msg_head_stored, "STORED"},
    {msg_head_ratio, "RATIO"},
    {msg_head_checksum, "CHECKSUM"},
    {msg_head_date, "DATE"},
    {msg_head_changed, "CHANGED"},
    {msg_head_owner, "OWNER"},
    {msg_head_comment, "COMMENT"},

    {msg_usage, "usage: %s\n"},
    {msg_help_about, "\nKeeps compressed copies of files, with checksums, in a depot: a directory, or a server's.\n"},
    {msg_help_commands, "\nCommands:\n"},
    {msg_help_flags, "\nFlags:\n"},
    {msg_help_row, "  %s  %s\n"},
    {msg_help_notation,
     "\nA command or flag may be cut off where its \"[\" stands, or later. Of flags with \"|\" between them one\n"
     "may be given; what has \"...\" behind it may be repeated. A flag may have two dashes as well: --help.\n"},
    {msg_help_general,
     "\nFiles may be of any size. An interrupted command leaves every entry and every file as it was, or\n"
     "finished.\n"
     "\nThe exit status is 0 when all was done, 1 when something failed, and 2 when the command line is wrong;\n"
     "a command that is interrupted ends by the signal.\n"
     "\n\"veldepot help COMMAND\" tells more about a command.\n"},
    {msg_argument_command, "COMMAND [ARGUMENT]..."},
    {msg_argument_put, "FILE..."},
    {msg_argument_get, "PATTERN..."},
    {msg_argument_list, "[PATTERN]..."},
    {msg_argument_verify, "[PATTERN]..."},
    {msg_argument_remove, "PATTERN..."},
    {msg_argument_ping, "HOST:PORT"},
    {msg_argument_help, "[COMMAND]"},
    {msg_summary_put, "store files"},
    {msg_summary_get, "fetch entries"},
    {msg_summary_list, "list entries"},
    {msg_summary_verify, "check entries against their checksums"},
    {msg_summary_remove, "remove entries"},
    {msg_summary_status, "show what a server of a depot counts"},
    {msg_summary_whoami, "show who you are, or who a server takes you for"},
    {msg_summary_ping, "see whether a server answers"},
    {msg_summary_help, "show this text, or more about a command"},
    {msg_notes_put,
     "\nEach FILE becomes an entry of its base name, with your name, the time and the comment. An entry of\n"
     "that name is replaced, comment and all, unless -nreplace is given; on a terminal you are asked, unless\n"
     "-replace is. A directory that does not exist is made.\n"
     "\"-\" is standard input, and needs a -name. A file that changes while it is read is not stored.\n"},
    {msg_notes_get,
     "\nEach entry is checked, and written to a file of its own name, or one entry to FILE, with the time and\n"
     "the permissions to execute that the stored file had. Only a plain file is ever replaced: with -force, or\n"
     "when you say so on a terminal. With \"-out -\"\n"
     "the content goes to standard output, each piece when it is checked: the exit status tells whether all is\n"
     "there.\n"
     "\nA PATTERN is the name of an entry, or one as \"veldepot help list\" describes it.\n"},
    {msg_notes_list,
     "\nLists the entries that match a PATTERN, or all. In a PATTERN \"*\" stands for any characters, \"?\" for\n"
     "any one, \"[a-z]\" for one of these; a backslash makes the next character ordinary. The whole name of an\n"
     "entry always means that entry. One that matches nothing is an error. The date of an entry is when it was\n"
     "stored.\n"},
    {msg_notes_verify, "\nChecks these entries, or all. Every byte is looked at.\n"},
    {msg_notes_remove,
     "\nRemoves these entries for good. On a terminal you are asked for each, unless -yes is given. A server removes\n"
     "those that you have stored, and older ones that have no owner; all for the user root of its own host.\n"},
    {msg_notes_status,
     "\nShows what the server of a depot has done since it was started, and does now: a number, and what it counts,\n"
     "in each line.\n"},
    {msg_notes_whoami,
     "\nShows your user, group and further groups, and your host. Of a server it shows whom it takes you for, which\n"
     "is nobody where it does not believe what you claim: it believes the user root from its own host alone.\n"},
    {msg_notes_ping,
     "\nCalls the null procedure of an RPC server, which does nothing, over TCP and UDP, at each address of HOST.\n"
     "HOST is a name or an address; one of IPv6 stands in brackets. The call carries your user and groups.\n"
     "The exit status is 0 when each transport has had its answer from one address at least.\n"},
    {msg_notes_help, "\nShows what the tool is for, or all about one COMMAND.\n"},
    {msg_argument_depot, "DIR"},
    {msg_argument_server, "HOST:PORT"},
    {msg_argument_name, "NAME"},
    {msg_argument_comment, "TEXT"},
    {msg_argument_out, "FILE"},
    {msg_argument_format, "FORMAT"},
    {msg_argument_since, "DATE"},
    {msg_argument_number, "NUMBER"},
    {msg_argument_seconds, "SECONDS"},
    {msg_flag_depot, "the depot's directory, else that of VELDEPOT_DIR"},
    {msg_flag_server, "the server that has the depot, else that of VELDEPOT_SERVER, before any directory"},
    {msg_flag_help, "show help about the command instead"},
    {msg_flag_version, "show the program's version instead"},
    {msg_flag_name, "the entry's name, for one FILE"},
    {msg_flag_comment, "a comment to keep with the entries; each one is a line of it"},
    {msg_flag_replace, "replace entries that exist, without a question"},
    {msg_flag_keep, "keep entries that exist: storing again is an error"},
    {msg_flag_out, "where to write one entry to; - is standard output"},
    {msg_flag_force, "replace a file that exists, without a question"},
    {msg_flag_long, "also show ratio, date, owner and comment"},
    {msg_flag_short, "show names only"},
    {msg_flag_format, "show each entry in this format"},
    {msg_flag_nul, "show names only, as they are, with a NUL behind each"},
    {msg_flag_since, "only entries stored then or later"},
    {msg_flag_yes, "without a question"},
    {msg_flag_program, "the program, decimal or as 0x20000000, else that of depots"},
    {msg_flag_program_version, "its version, else 1"},
    {msg_flag_tcp, "call over TCP only"},
    {msg_flag_udp, "call over UDP only"},
    {msg_flag_timeout, "how long each call may take, connection included, else 5"},
    {msg_help_format, "\nA FORMAT is text with conversions:\n"},
    {msg_format_name, "name"},
    {msg_format_size, "bytes of the content"},
    {msg_format_stored, "bytes as stored"},
    {msg_format_ratio, "the latter in percent of the former"},
    {msg_format_checksum, "checksum of the content"},
    {msg_format_date, "date at which it was stored; %%Dd only the day, %%Sd short, %%Ud in UTC"},
    {msg_format_changed, "date of the file's last change; also with D, S and U"},
    {msg_format_owner, "who stored it"},
    {msg_format_comment, "comment"},
    {msg_format_column, "blanks up to column 30"},
    {msg_format_notes,
     "A width and a precision may stand behind the \"%%\": %%8s is right-aligned, %%-20n left-aligned, %%.10c cut "
     "off.\n"
     "%%%% is a percent sign, \\n ends a line, \\t is a tab. Nothing is added: without a \\n all entries stand in one\n"
     "line. In comments, and in names on a terminal, what is not printable is shown as \\ooo, in octal digits.\n"},
    {msg_help_dates, "\nA DATE is a <date-time>:\n\n%s"},
};

struct Columns {
    std::array<const char *, msg_count> texts;
    std::array<std::uint16_t, msg_count> catalog_numbers; // from 1
};

consteval Columns split_rows()
{
    static_assert(std::size(rows) == msg_count);
    Columns columns{};
    for (std::size_t i = 0; i < msg_count; ++i) {
        if (rows[i].number != i)
            rows_are_not_in_order();
        columns.texts[i] = rows[i].text;
        columns.catalog_numbers[i] = static_cast<std::uint16_t>(i + 1);
    }
    return columns;
}
constexpr Columns columns = split_rows();

} // namespace

} // namespace depot

extern "C" const msg_table _depot_ks_msg_table = {
    "veldepot", "depot", 1, depot::msg_count, depot::columns.texts.data(), depot::columns.catalog_numbers.data()};
