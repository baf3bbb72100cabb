// The scan: flags, words, and the pieces of lists.
#include "command/clp_impl.h"

#include <korvaks/evutl.h>

#include <cstring>

#include <strings.h>

namespace {

using ks::clp::current_word;
using ks::clp::fail;
using ks::clp::failure;
using ks::clp::nothing_more;
using ks::clp::require_handle;
using ks::clp::Result;
using ks::clp::success;

constexpr auto no_value = static_cast<std::uint32_t>(-1);
constexpr int none = -1;

// The entry that a word matches, and the start of the group it stands in.
struct Match {
    int entry = none;
    int group = none;
};

Match find_entry(const clp_handle *hdl, const char *word)
{
    Match match;
    for (int i = 0; i < hdl->descriptor_count; ++i) {
        const clp_flag_desc &entry = hdl->descriptors[i];
        if (entry.value == ks::clp::start_of_group) {
            match.group = i;
        } else if (entry.value == ks::clp::end_of_group) {
            match.group = none;
        } else if (clp_match(word, entry.name) != 0) {
            match.entry = i;
            break;
        }
    }
    return match;
}

bool is_repeatable(const clp_handle *hdl, int flag)
{
    return (hdl->descriptors[flag].flags & CLP_REPEATABLE_FLAG) != 0;
}

// Makes a flag the one that uses its group.
Result claim_group(clp_handle *hdl, int group, int flag, const char *name)
{
    clp_constraint &constraint = hdl->constraints[group];
    if (constraint.seen == 0) {
        constraint = {1, flag};
        return success;
    }
    if (is_repeatable(hdl, flag) && constraint.link == flag)
        return success;
    return fail(clp_msg_exclusive_flags, name, hdl->descriptors[constraint.link].name);
}

// Whether a flag may be used where the scan stands; then it is used.
Result use_flag(clp_handle *hdl, const Match &match, int flag)
{
    const clp_flag_desc &entry = hdl->descriptors[match.entry];
    if (hdl->constraints[flag].seen != 0 && !is_repeatable(hdl, flag))
        return fail(clp_msg_duplicate_flag, entry.name);
    if ((entry.flags & CLP_OBSOLETE_FLAG) != 0 && ks::clp::report_obsolete(hdl->obsolete_mode, entry.name) != success)
        return failure;
    if (match.group != none && claim_group(hdl, match.group, flag, entry.name) != success)
        return failure;
    hdl->constraints[flag].seen = 1;
    return success;
}

Result refuse_word(const char *word, int quiet)
{
    if (word[0] != '-')
        return nothing_more;
    return quiet != 0 ? failure : fail(clp_msg_unrecognized_option, word);
}

void pass_flag(clp_handle *hdl)
{
    ++hdl->index;
    hdl->next_value = hdl->index < hdl->argc ? hdl->argv[hdl->index] : nullptr;
}

void require_scan(const clp_handle *hdl)
{
    require_handle(hdl);
    if (hdl->descriptors == nullptr)
        ks::clp::fail_and_abort(clp_msg_null_flags);
    if (hdl->constraints == nullptr)
        ks::clp::fail_and_abort(clp_msg_null_constraints);
}

} // namespace

namespace ks::clp {

ObsoleteMode read_obsolete_mode()
{
    char value[256];
    if (getenv_safe("VELLUM_OBSO_SYN", value, sizeof value, 0) == nullptr || strcasecmp(value, "WARN") == 0)
        return obsolete_warns;
    return strcasecmp(value, "FAIL") == 0 ? obsolete_fails : obsolete_silent;
}

Result report_obsolete(int mode, const char *name)
{
    if (mode != obsolete_warns && mode != obsolete_fails)
        return success;
    const int kind = mode == obsolete_fails ? msg_error : msg_warning;
    const clp_msg message = name != nullptr ? clp_msg_obsolete_name : clp_msg_obsolete_syntax;
    (void)imsg_print(kind, &_clp_ks_msg_table, message, name);
    return mode == obsolete_fails ? failure : success;
}

} // namespace ks::clp

extern "C" {

int clp_match(const char *word, const char *name)
{
    bool may_end = false; // a "[" was passed
    while (*word != '\0') {
        if (*word == *name) {
            ++word;
            ++name;
        } else if (*name == '[') {
            may_end = true;
            ++name;
        } else {
            return 0;
        }
    }
    return may_end || *name == '[' || *name == '\0' ? 1 : 0;
}

int clp_get_next_flag_value(clp_handle *hdl, int quiet, uint32_t *out_value)
{
    require_scan(hdl);
    *out_value = no_value;
    const char *const word = hdl->end_of_flags != 0 ? nullptr : current_word(hdl);
    if (word == nullptr)
        return nothing_more;
    if (std::strcmp(word, "--") == 0) {
        hdl->end_of_flags = 1;
        ++hdl->index;
        return nothing_more;
    }
    const Match match = find_entry(hdl, word);
    if (match.entry == none)
        return refuse_word(word, quiet);
    const clp_flag_desc &entry = hdl->descriptors[match.entry];
    hdl->last_flag_name = entry.name;
    const int flag = ks::clp::is_alias(entry) ? hdl->constraints[match.entry].link : match.entry;
    if (use_flag(hdl, match, flag) != success)
        return failure;
    pass_flag(hdl);
    *out_value = hdl->descriptors[flag].value;
    return success;
}

int clp_get_next_arg(clp_handle *hdl, char **out_arg)
{
    require_handle(hdl);
    *out_arg = current_word(hdl);
    if (*out_arg == nullptr)
        return nothing_more;
    ++hdl->index;
    return success;
}

int clp_unget_arg(clp_handle *hdl)
{
    require_handle(hdl);
    if (hdl->index <= 0)
        return nothing_more;
    --hdl->index;
    return success;
}

int clp_get_next_subarg(clp_handle *hdl, char **out_subarg)
{
    require_handle(hdl);
    char *const word = current_word(hdl);
    if (hdl->next_value == nullptr) {
        hdl->next_value = word;
        *out_subarg = nullptr;
        return nothing_more;
    }
    if (hdl->next_value == word)
        ++hdl->index;
    *out_subarg = hdl->next_value;
    char *const comma = std::strchr(hdl->next_value, ',');
    if (comma != nullptr)
        *comma = '\0';
    hdl->next_value = comma != nullptr ? comma + 1 : nullptr;
    return success;
}

int clp_get_last_flag_name(const clp_handle *hdl, int strip, int size, char *buf)
{
    require_handle(hdl);
    if (hdl->last_flag_name == nullptr)
        return nothing_more;
    if (size < 1)
        return success;
    const char *const end = buf + size - 1;
    char *out = buf;
    for (const char *in = hdl->last_flag_name; *in != '\0' && out < end; ++in)
        if (strip == 0 || (*in != '[' && *in != ']'))
            *out++ = *in;
    *out = '\0';
    return success;
}

int clp_check_obsolete(void)
{
    return ks::clp::report_obsolete(ks::clp::read_obsolete_mode(), nullptr);
}
}
