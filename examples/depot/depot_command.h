// The commands of veldepot, and their flags: one table that the command line is read with and that the
// help pages are made from.
#pragma once

#include "depot_msg.h"
#include "depot_names.h"
#include "depot_remote.h"
#include "depot_store.h"

#include <korvaks/clp.h>
#include <korvaks/stg.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace depot {

enum Flag : std::uint32_t {
    flag_depot,
    flag_server,
    flag_help,
    flag_version,
    flag_name,
    flag_comment,
    flag_replace,
    flag_keep,
    flag_out,
    flag_force,
    flag_long,
    flag_short,
    flag_format,
    flag_nul,
    flag_since,
    flag_yes,
    flag_program,
    flag_program_version,
    flag_tcp,
    flag_udp,
    flag_timeout,
    flag_count
};

struct FlagText {
    Msg argument; // msg_none: takes none
    Msg meaning;
};

const FlagText &text_of_flag(std::uint32_t flag);

struct Command;

// A command line, taken apart.
struct CommandLine {
    const Command *command = nullptr;    // NULL: none was given
    const char *values[flag_count] = {}; // NULL: not given; "" for a flag that takes no argument
    const char **words = nullptr;
    std::size_t word_count = 0;

    bool has(Flag flag) const { return values[flag] != nullptr; }
};

// What a command works with. It opens the depot itself; who runs it closes it.
struct Job {
    const CommandLine &line;
    stg_area *area;
    LocalStore local;
    RemoteStore remote;
    Store *store = &local; // one of them
};

// How a command ended: the program's exit status.
enum class Status : int { done = 0, failed = 1, misused = 2 };

// Opens the depot that the command line or the environment names: a server's, or that of a directory.
Status open_store(Job &job, bool make);

// A server's alone.
Status open_server(Job &job);

// Whether they name a server.
bool names_server(const Job &job);

// And finds the entries that its words mean; `failed`: some of them.
Status find_entries(Job &job, Names &out_names);

struct Command {
    const char *name; // with a "[" where it may be cut off
    const clp_flag_desc *flags;
    std::size_t words_min;
    std::size_t words_max;
    Msg arguments; // msg_none: it has none
    Msg summary;
    Msg notes;
    void (*explain)();       // more for its help page, or NULL
    Status (*run)(Job &job); // does all it can
};

std::span<const Command> all_commands();

// NULL when there is none of that name; that has been reported.
const Command *find_command(const char *word);

// Those before a command; each command takes them too, but for the version.
const clp_flag_desc *general_flags();

} // namespace depot
