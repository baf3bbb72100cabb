// What the files of the command parser share: results, reports, the handle's checks, and the parts of
// making a handle. Everything that can fail in a part is told apart from its report, so that whoever
// puts parts together gives back what it owns before anything is printed.
#pragma once

#include <korvaks/clp.h>

#include "command/clp_msg.h"
#include "base/ks_base.h"
#include "base/msg_port.h"

#include <cstdint>
#include <cstdlib>

namespace ks::clp {

inline constexpr AssertPath here{"lib/ks/clp"};

enum Result : int {
    success = 0,
    failure = 1, // reported
    nothing_more = 2,
};

template <typename... Arguments> Result fail(clp_msg message, Arguments... arguments)
{
    (void)imsg_print(msg_error, &_clp_ks_msg_table, message, arguments...);
    return failure;
}

template <typename... Arguments> [[noreturn]] void fail_and_abort(clp_msg message, Arguments... arguments)
{
    (void)fail(message, arguments...);
    std::abort();
}

// --- Handles ---

inline void require_handle(const clp_handle *hdl)
{
    if (hdl == nullptr) [[unlikely]]
        fail_and_abort(clp_msg_null_handle);
    if (hdl->magic != CLP_MAGIC) [[unlikely]]
        fail_and_abort(clp_msg_bad_magic);
}

// Word `index` of a handle; NULL when it has no such word.
inline char *word_at(const clp_handle *hdl, int index)
{
    if (index >= hdl->argc)
        return nullptr;
    if (hdl->argv == nullptr) [[unlikely]]
        fail_and_abort(clp_msg_null_argv);
    if (hdl->argv[index] == nullptr) [[unlikely]]
        fail_and_abort(clp_msg_null_word);
    return hdl->argv[index];
}

inline char *current_word(const clp_handle *hdl)
{
    return word_at(hdl, hdl->index);
}

// --- Tables ---

constexpr std::uint32_t start_of_group = UINT32_MAX - 1; // -2
constexpr std::uint32_t end_of_group = UINT32_MAX - 2;   // -3

inline bool is_alias(const clp_flag_desc &entry)
{
    return (entry.flags & CLP_ALIAS_FLAG) != 0;
}

// A table as it was examined. NULL descriptors make an empty one.
struct Table {
    const clp_flag_desc *descriptors = nullptr;
    int count = 0;
    // What is wrong with it, the first fault; its message takes two names.
    bool is_faulty = false;
    clp_msg fault{};
    const char *names[2] = {};
};

Table examine_table(const clp_flag_desc *descriptors);

// Reports a faulty table; a fault that is a programming error ends the process.
Result report_fault(const Table &table);

// The constraints of a table without faults, with none of its flags used; NULL when memory is exhausted.
clp_constraint *make_constraints(const Table &table, stg_area *area);

// The area that make_constraints() took them from.
stg_area *area_of(const clp_constraint *constraints);

// --- Obsolete syntax ---

enum ObsoleteMode : int {
    obsolete_silent = 0,
    obsolete_warns = 1,
    obsolete_fails = 2,
};

ObsoleteMode read_obsolete_mode();

// Success when the work may go on. `name` NULL: something without a name.
Result report_obsolete(int mode, const char *name);

// --- Words ---

struct Words {
    int count = 0;
    char **vector = nullptr;
};

enum class Split {
    done,
    no_memory,
    unterminated_quote,
    word_too_long,
};

Split split(const char *command, stg_area *area, Words &out_words);
Result report_split(Split outcome);

} // namespace ks::clp
