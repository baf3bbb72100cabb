// What veldepotd says.
#pragma once

#include "depot_report.h"

#include <korvaks/imsg.h>
#include <korvaks/korvaks.hpp>

namespace depot {

enum DaemonMsg : unsigned {
    msg_daemon_usage,       // program
    msg_daemon_version,     // version
    msg_daemon_option,      // error, word
    msg_daemon_needs,       // letter, most bytes
    msg_daemon_words,       // word
    msg_daemon_interval,    // word, least, most
    msg_daemon_no_depot,    // program
    msg_daemon_started,     // version, pid, directory, seconds
    msg_daemon_stopping,    // reason
    msg_daemon_stopped,     // version, pid, reason
    msg_daemon_counts,      // events, handlers, children, records, lost
    msg_daemon_reopened,    // log
    msg_daemon_verified,    // count
    msg_daemon_unsound,     // count
    msg_daemon_died,        // signal
    msg_daemon_gone,        // entry
    msg_daemon_no_memory,   // seconds
    msg_daemon_threads,     // word, most
    msg_daemon_many,        // most addresses
    msg_daemon_place,       // word
    msg_daemon_serving,     // address
    msg_daemon_no_socket,   // address, error text
    msg_daemon_no_server,   // nothing more
    msg_daemon_calls,       // calls, of them denied, connections
    msg_daemon_cut_off,     // calls
    msg_daemon_caller,      // user, claimed user, domain, host, address
    msg_daemon_stored,      // entry, caller
    msg_daemon_not_stored,  // entry, caller, error
    msg_daemon_removed,     // entry, caller
    msg_daemon_not_removed, // entry, caller, error
};

inline constexpr korvaks::MessageTable daemon_messages(
    "veldepot", "depotd", 2,
    {{msg_daemon_usage,
      "%s -d DIR [-l FILE] [-i SECONDS] [-s HOST:PORT]... [-t N]: watches a depot, serves it and keeps a log.\n\n"
      "  -d DIR, --depot         the depot's directory, else that of VELDEPOT_DIR\n"
      "  -l FILE, --log          the log, else that directory's name with \".log\" behind it\n"
      "  -i SECONDS, --interval  how often the depot is looked at, 60 by itself\n"
      "  -s HOST:PORT, --serve   serve the depot there, over TCP and UDP; up to 8 of them. Without HOST at every\n"
      "                          address, IPv4 and IPv6; with port 0 at one that the log tells. An IPv6 address\n"
      "                          stands in brackets. Whoever reaches it may store and fetch, and remove\n"
      "                          and replace what he has stored; the user root of this host all\n"
      "  -t N, --threads         threads that serve, 4 by itself; 0: the only one does\n"
      "  -V, --version           the version\n"
      "  -h, --help              this text\n\n"
      "Entries that are new or have changed are verified by a veldepot beside this program. It stays in the\n"
      "foreground. SIGUSR1 opens the log anew, SIGTERM, SIGINT and SIGHUP end it in order, calls that run with it.\n"
      "Exit status: 0 when it was told to end, 1 when it failed, 2 for a wrong command line.\n"},
     {msg_daemon_version, "veldepotd %s\n"},
     {msg_daemon_option, "%s: \"%s\"; see -h.\n"},
     {msg_daemon_needs, "\"-%c\" needs an argument, of at most %d bytes; see -h.\n"},
     {msg_daemon_words, "\"%s\" is too much; see -h.\n"},
     {msg_daemon_interval, "\"%s\" is no number of seconds from %ld to %ld.\n"},
     {msg_daemon_no_depot, "No depot: give its directory with -d or in VELDEPOT_DIR; see -h.\n"},
     {msg_daemon_started, "veldepotd %s started, pid %ld: depot \"%s\", looked at every %ld s\n"},
     {msg_daemon_stopping, "Stopping: %s\n"},
     {msg_daemon_stopped, "veldepotd %s stopped, pid %ld: %s\n"},
     {msg_daemon_counts, "%llu events, %llu handler calls, %llu children, %llu records written, %llu lost\n"},
     {msg_daemon_reopened, "Log \"%s\" opened anew\n"},
     {msg_daemon_verified, "Verified: all of %u entries are sound\n"},
     {msg_daemon_unsound, "Verified: not all of %u entries are sound, as told above\n"},
     {msg_daemon_died, "The verifying process was ended by a signal: %s\n"},
     {msg_daemon_gone, "Entry \"%s\" is gone\n"},
     {msg_daemon_no_memory, "Out of memory; looking again in %ld s\n"},
     {msg_daemon_threads, "\"%s\" is no number of threads from 0 to %ld.\n"},
     {msg_daemon_many, "There are more than %u addresses to serve at.\n"},
     {msg_daemon_place, "\"%s\" is no [HOST]:PORT; a port is 0 to 65535, an IPv6 address stands in brackets.\n"},
     {msg_daemon_serving, "Serving at %s, over TCP and UDP\n"},
     {msg_daemon_no_socket, "Unable to serve at %s: %s\n"},
     {msg_daemon_no_server, "Unable to begin serving; the depot is not served\n"},
     {msg_daemon_calls, "%llu calls, %llu of them denied, over %llu connections\n"},
     {msg_daemon_cut_off, "%d calls took too long and were not finished\n"},
     {msg_daemon_caller, "%s (claims to be %s of %s/%s, at %s)"},
     {msg_daemon_stored, "Entry \"%s\" stored by %s\n"},
     {msg_daemon_not_stored, "Entry \"%s\" not stored by %s: %s"},
     {msg_daemon_removed, "Entry \"%s\" removed by %s\n"},
     {msg_daemon_not_removed, "Entry \"%s\" not removed by %s: %s"}});

// Prints a message with the arguments that its text needs; what shown() has made for it ends.
template <typename... Args> void say(int kind, DaemonMsg number, Args... args)
{
    (void)imsg_print(kind, daemon_messages, number, args...);
    drop_texts();
}

} // namespace depot
